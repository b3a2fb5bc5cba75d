// The end of a process that was told to die by a signal and hangs.
//
// The exit handlers and the C library's exit take locks; the code that the signal interrupted may
// hold one of them, and will never give it free. A thread watches the one that ends the process. It
// is the kernel's alone, started by a bare clone: the C library's threads take locks and memory to
// start, and a timer's signals would cut short what the exit handlers sleep and wait for. Its code
// makes its own system calls, because errno and all that is a thread's own it shares with the
// other.
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <ctime>

#include "internal.h"

namespace {

constexpr int patience = 5;  // seconds

std::atomic<pid_t> watchedProcess = 0;
std::atomic<int> endStatus = 0;

// What the kernel tells of the thread that ends the process: the call it stands in.
SafeLine watchedFile;
using CallLine = char[160];
CallLine lines[2];  // now and a second ago

constexpr timespec tick{1, 0};

alignas(16) char watcherStack[16384];

long systemCall(long number, long first, const void* second = nullptr, long third = 0) {
  long result;
  asm volatile("int $0x80"
               : "=a"(result)
               : "0"(number), "b"(first), "c"(second), "d"(third)
               : "memory");
  return result;
}

void readCall(CallLine& line) {
  line[0] = '\0';
  const long file = systemCall(SYS_open, reinterpret_cast<long>(watchedFile),
                               reinterpret_cast<const void*>(O_RDONLY | O_CLOEXEC));
  if (file < 0) return;
  const long length = systemCall(SYS_read, file, line, sizeof line - 1);
  line[length > 0 ? length : 0] = '\0';
  systemCall(SYS_close, file);
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

// The C library's locks are waited for by FUTEX_WAIT, the private kind or not, with the value 2.
// Joining, conditions and semaphores go by FUTEX_WAIT_BITSET.
bool isWaitForLock(const char* line) {
  const char* arguments = after(line, "240 ");
  if (arguments == nullptr) arguments = after(line, "422 ");  // with times of 64 bits
  if (arguments == nullptr) return false;
  while (*arguments != ' ' && *arguments != '\0') ++arguments;
  return after(arguments, " 0x80 0x2 ") != nullptr || after(arguments, " 0x0 0x2 ") != nullptr;
}

int watch(void* /*unused*/) {
  int seconds = 0;
  for (unsigned now = 0;; now ^= 1) {
    systemCall(SYS_nanosleep, reinterpret_cast<long>(&tick));
    readCall(lines[now]);
    const bool stands = isWaitForLock(lines[now]) && isSame(lines[now], lines[now ^ 1]);
    seconds = stands ? seconds + 1 : 0;
    if (seconds == patience) systemCall(SYS_exit_group, endStatus);
  }
}

}  // namespace

void hostArmBackstop(int status) {
  const ErrnoKeeper keeper;
  endStatus = status;
  const pid_t process = getpid();
  if (watchedProcess.exchange(process) == process) return;
  hostSafeFormat(watchedFile, sizeof watchedFile, "/proc/self/task/%d/syscall", gettid());
  // Before exec or the end of the process nobody needs the stack back.
  const SignalMask mask(SIG_BLOCK, unixIoAllSignalsBut());
  clone(watch, watcherStack + sizeof watcherStack,
        CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM, nullptr);
}
