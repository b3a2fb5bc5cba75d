// The end of a process that was told to die by a signal and hangs.
//
// The exit handlers and the C library's exit take locks; the code that the signal interrupted may
// hold one of them, and will never give it free. A thread watches the one that ends the process. It
// is the kernel's alone, started by a bare clone: the C library's threads take locks and memory to
// start, and a timer's signals would cut short what the exit handlers sleep and wait for. Its code
// makes its own system calls, because errno and all that is a thread's own it shares with the
// other.
//
// Once another thread waits for that end itself, the two may wait for each other in any way: then a
// join, a condition or a semaphore counts as a lock does.
#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <ctime>

#include "internal.h"

namespace {

constexpr int patience = 5;        // seconds
constexpr int blindPatience = 60;  // where the system does not tell what a thread does

std::atomic<pid_t> watchedProcess = 0;
std::atomic<pid_t> watchedThread = 0;  // 0: none, and the watcher rests
std::atomic<bool> isAwaited = false;
std::atomic<int> endStatus = 0;

// What stands in for the watcher, and what it has put aside.
std::atomic<pid_t> timedProcess = 0;
struct sigaction formerAction;
itimerval formerTimer;

// What the kernel tells of the watched thread: the call it stands in.
SafeLine watchedFile;
using CallLine = char[256];
CallLine lines[2];  // now and a second ago

constexpr timespec tick{1, 0};

alignas(16) char watcherStack[16384];

long systemCall(long number, long first, const void* second = nullptr, long third = 0) {
  long result;
  asm volatile("int $0x80"
               : "=a"(result)
               : "0"(number), "b"(first), "c"(second), "d"(third), "S"(0)
               : "memory");
  return result;
}

long futexOnWatched(long operation, long value) {
  return systemCall(SYS_futex, reinterpret_cast<long>(&watchedThread),
                    reinterpret_cast<const void*>(operation), value);
}

// Returns whether the system told it.
// Reads one of the kernel's files about a thread. Returns how much, at most `room`.
long readFile(const char* format, pid_t thread, char* to, long room) {
  hostSafeFormat(watchedFile, sizeof watchedFile, format, thread);
  const long file = systemCall(SYS_open, reinterpret_cast<long>(watchedFile),
                               reinterpret_cast<const void*>(O_RDONLY | O_CLOEXEC));
  if (file < 0) return 0;
  const long length = systemCall(SYS_read, file, to, room);
  systemCall(SYS_close, file);
  return length > 0 ? length : 0;
}

// The call, and behind it how often and how long the thread has run: one that was woken meanwhile
// does not stand.
bool readCall(pid_t thread, CallLine& line) {
  constexpr long room = sizeof line - 1;
  const long length = readFile("/proc/self/task/%d/syscall", thread, line, room);
  if (length == 0) return false;
  const long runs = readFile("/proc/self/task/%d/schedstat", thread, line + length, room - length);
  line[length + runs] = '\0';
  return true;
}

bool isSame(const char* one, const char* other) {
  while (*one != '\0' && *one == *other) ++one, ++other;
  return *one == *other;
}

// Returns what follows `word` in `text`, or null where that does not begin with it.
const char* after(const char* text, const char* word) {
  while (*word != '\0') {
    if (*text++ != *word++) return nullptr;
  }
  return text;
}

// Returns where the next field begins, or the end of the line.
const char* nextField(const char* text) {
  while (*text != ' ' && *text != '\0') ++text;
  return *text == ' ' ? text + 1 : text;
}

std::uintptr_t hexNumber(const char* text) {
  std::uintptr_t value = 0;
  if (after(text, "0x") == nullptr) return 0;
  for (text += 2; *text != ' ' && *text != '\0' && *text != '\n'; ++text) {
    value = value * 16 + static_cast<unsigned>(*text <= '9' ? *text - '0' : *text - 'a' + 10);
  }
  return value;
}

// Whether the call was made through the C library's `syscall`, as the waits of latches and atomics
// are. Its return address is on top of the stack, or under what the kernel's entry has pushed. The
// thread stands still, so that its stack may be read.
bool isByOwnCall(const char* arguments) {
  for (int skipped = 0; skipped < 6; ++skipped) arguments = nextField(arguments);
  const std::uintptr_t stackPointer = hexNumber(arguments);
  if (stackPointer == 0 || stackPointer % sizeof stackPointer != 0) return false;
  const auto* words = reinterpret_cast<const std::uintptr_t*>(stackPointer);
  constexpr std::uintptr_t length = 128;  // at most, of that function
  const auto function = reinterpret_cast<std::uintptr_t>(&syscall);
  return words[0] - function < length || words[3] - function < length;
}

// The arguments of a wait for another thread; null if the call is none.
const char* futexArguments(const char* line) {
  const char* arguments = after(line, "240 ");
  return arguments != nullptr ? arguments : after(line, "422 ");  // with times of 64 bits
}

// The thread that the call waits for the end of, or what else may be in its place; 0 for none.
pid_t joinedThread(const char* line) {
  const char* arguments = futexArguments(line);
  if (arguments == nullptr) return 0;
  const char* operation = nextField(arguments);
  const bool joins = after(operation, "0x109 ") != nullptr || after(operation, "0x189 ") != nullptr;
  return joins ? static_cast<pid_t>(hexNumber(nextField(operation))) : 0;
}

// Reads where the watched thread stands, or the one that it waits for the end of.
bool readWhereItStands(CallLine& line) {
  constexpr int longestChain = 16;
  static CallLine next;
  line[0] = '\0';
  if (!readCall(watchedThread, line)) return false;
  for (int length = 0; length < longestChain; ++length) {
    const pid_t joined = joinedThread(line);
    if (joined == 0 || !readCall(joined, next)) break;
    for (std::size_t at = 0; at < sizeof next; ++at) line[at] = next[at];
  }
  return true;
}

// The C library's locks are waited for by FUTEX_WAIT, the private kind or not, with the value 2.
// Conditions and semaphores go by FUTEX_WAIT_BITSET. Whoever should read what is printed may not.
bool isWaitThatCounts(const char* line) {
  if (after(line, "4 0x1 ") != nullptr || after(line, "4 0x2 ") != nullptr) return true;
  const char* arguments = futexArguments(line);
  if (arguments == nullptr) return false;
  if (isAwaited) return true;
  const char* operation = nextField(arguments);
  return (after(operation, "0x80 0x2 ") != nullptr || after(operation, "0x0 0x2 ") != nullptr) &&
         !isByOwnCall(arguments);
}

// The descriptors are copies, which would keep files open; the table may be full as well.
void closeDescriptors() {
  constexpr long all = -1;
  if (systemCall(SYS_close_range, 0, reinterpret_cast<const void*>(all)) == 0) return;
  for (long descriptor = 0; descriptor < hostMostDescriptors; ++descriptor)
    systemCall(SYS_close, descriptor);
}

int watch(void* /*unused*/) {
  closeDescriptors();
  int seconds = 0;
  int blindSeconds = 0;
  for (unsigned now = 0;; now ^= 1) {
    while (watchedThread == 0) futexOnWatched(FUTEX_WAIT_PRIVATE, 0);
    systemCall(SYS_nanosleep, reinterpret_cast<long>(&tick));
    blindSeconds = readWhereItStands(lines[now]) || watchedThread == 0 ? 0 : blindSeconds + 1;
    const bool stands = isSame(lines[now], lines[now ^ 1]) && isWaitThatCounts(lines[now]);
    seconds = stands ? seconds + 1 : 0;
    if (seconds == patience || blindSeconds == blindPatience) {
      systemCall(SYS_exit_group, endStatus);
    }
  }
}

// Without a watcher the process has a minute, once.
void startTimer() {
  const pid_t process = getpid();
  if (timedProcess.exchange(process) == process) return;
  struct sigaction action = {};
  action.sa_handler = [](int) { _exit(endStatus); };
  sigaction(SIGALRM, &action, &formerAction);
  const itimerval minute = {{}, {blindPatience, 0}};
  syscall(SYS_setitimer, ITIMER_REAL, &minute, &formerTimer);
  const sigset_t alarm = unixIoSignals(SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
}

void stopTimer() {
  if (timedProcess != getpid()) return;
  syscall(SYS_setitimer, ITIMER_REAL, &formerTimer, nullptr);
  sigaction(SIGALRM, &formerAction, nullptr);
  timedProcess = 0;
}

// Before exec or the end of the process nobody needs the stack back.
bool cloneWatcher() {
  const SignalMask mask(SIG_BLOCK, unixIoAllSignalsBut());
  return clone(watch, watcherStack + sizeof watcherStack,
               CLONE_VM | CLONE_FS | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM, nullptr) >= 0;
}

void startWatcher() {
  const pid_t process = getpid();
  if (watchedProcess.exchange(process) == process) {
    futexOnWatched(FUTEX_WAKE_PRIVATE, 1);
    return;
  }
  if (cloneWatcher()) return;
  watchedProcess = 0;
  startTimer();
}

// What a child has of its parent's watch is no watch.
bool isWatched() {
  return watchedProcess == getpid() && watchedThread != 0;
}

void watchThread(pid_t thread) {
  watchedThread = thread;
  startWatcher();
}

}  // namespace

void hostArmBackstop(int status) {
  const ErrnoKeeper keeper;
  if (!isWatched()) isAwaited = false;
  endStatus = status;
  watchThread(gettid());
}

void hostDisarmBackstop(pid_t thread) {
  const ErrnoKeeper keeper;
  if (!watchedThread.compare_exchange_strong(thread, 0)) return;
  isAwaited = false;
  stopTimer();
}

void hostWatchExit(pid_t owner, int status) {
  const ErrnoKeeper keeper;
  if (isWatched()) return;
  isAwaited = false;
  endStatus = status;
  watchThread(owner);
}

void hostWatchExitAwaited(pid_t owner, int status) {
  const ErrnoKeeper keeper;
  if (!isWatched() || !isAwaited.exchange(true)) endStatus = status;
  isAwaited = true;
  if (!isWatched()) watchThread(owner);
}

BackstopMoved::BackstopMoved(pid_t to) : to_(to) {
  pid_t self = gettid();
  isMoved_ = watchedThread.compare_exchange_strong(self, to);
}

BackstopMoved::~BackstopMoved() {
  if (isMoved_) watchedThread.compare_exchange_strong(to_, gettid());
}
