#include <povzel/hostfault.h>

#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>

#include <csetjmp>

#include <povzel/errmsg.h>
#include <povzel/hostcore.h>
#include <povzel/hostdebug.h>
#include <povzel/hostinit.h>
#include <povzel/hostpages.h>
#include <povzel/hostprocess.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsignals.h>
#include <povzel/hostsigterm.h>
#include <povzel/hoststack.h>
#include <povzel/unixio.h>
#include <povzel/utlexit.h>
#include "messagefile.h"
#include "tests.h"

namespace {

constexpr std::size_t pageSize = 4096;
constexpr int survived = 42;

// How a process ends, and what it says.
struct Case {
  void (*body)();
  int end;             // its exit status, or the signal with a minus
  std::string report;  // its errors and then its output, for Reads
  void (*before)() = nullptr;
};

// Runs the body in a child with the handlers installed, `before` ahead of that. The child leaves no
// core, and ends with status 42 where the body returns.
void expectEnd(const Case& one) {
  SCOPED_TRACE(one.report);
  HostInit();  // here, because it may complain of a missing message file
  const ChildResult child = inChild([&one] {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    if (one.before != nullptr) one.before();
    HostInstallFaultHandler(nullptr, nullptr);
    one.body();
    return survived;
  });
  EXPECT_TRUE(one.end < 0 ? child.killedBy(-one.end) : child.exitedWith(one.end))
      << child.status << child.out;
  EXPECT_THAT(child.err + child.out, Reads(one.report));
  for (const char* word : {"Unhandled", "later", "never", "panic"}) {
    EXPECT_EQ(child.err.find(word) == std::string::npos,
              one.report.find(word) == std::string::npos);
  }
}

// A store that no sanitizer looks at.
void store(void* address) {
  asm volatile("movb $1, (%0)" : : "r"(address) : "memory");
}

void fault() {
  store(reinterpret_cast<void*>(8));
}

void illegal() {
  asm volatile("ud2");
}

char* newPages(std::size_t count) {
  return static_cast<char*>(
      mmap(nullptr, count * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

const HostProtectHandlerFType letPass = [](char*, char*) -> BoolType { return 1; };

char* newGuardedPage() {
  char* page = newPages(1);
  SysErrorSType error;
  HostProtectPage(page, letPass, &error);
  return page;
}

void setAction(int signal, int flags, UnixSigHandlerFType* handler) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | flags;
  sigaddset(&action.sa_mask, SIGUSR2);
  sigaction(signal, &action, nullptr);
}

bool isBlocked(int signal) {
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) != 0;
}

TEST(HostProtectPage, RefusesWhatItCannotGuard) {
  char* pages = newPages(17);
  SysErrorSType error{};
  EXPECT_FALSE(HostProtectPage(pages + 1, letPass, &error));
  EXPECT_THAT(error.errMsg, HasSubstr("was not aligned on page boundary 4096."));
  EXPECT_EQ(error.hostError, -1);
  for (std::size_t page = 0; page <= 17; ++page) {  // the first one again, which keeps its slot
    EXPECT_EQ(HostProtectPage(pages + page % 17 * pageSize, letPass, &error), page != 16);
  }
  EXPECT_STREQ(error.errMsg, "System only supports protecting 16 pages.");
  for (std::size_t page = 0; page <= 16; ++page) {
    EXPECT_EQ(HostUnProtectPage(pages + page * pageSize), page < 16);
    pages[page * pageSize] = 1;
  }
  munmap(pages, 17 * pageSize);
  EXPECT_FALSE(HostProtectPage(pages, letPass, &error));
  EXPECT_THAT(error.errMsg, HasSubstr(",4096,PROT_NONE): "));
  EXPECT_FALSE(HostUnProtectPage(pages) || HostUnProtectPage(nullptr) ||
               HostBasicUnprotectPage(pages, pageSize));
}

void touchGuardPage() {
  char* page = newPages(2);
  static SysErrorSType error;
  // The handler guards the next page in the place of the first.
  const auto movesOn = [](char* at, char* fault) -> BoolType {
    HostUnProtectPage(at);
    HostProtectPage(at + pageSize, letPass, &error);
    return fault == at + 5;
  };
  HostProtectPage(page, movesOn, &error);
  errno = 77;
  page[5] = 'x';
  if (errno != 77 || page[5] != 'x' || segvInProgressCount != 0) _exit(11);
  if (HostUnProtectPage(page) || !HostUnProtectPage(page + pageSize)) _exit(12);
  // A page that is guarded anew while its handler is at work asks the new one.
  static int asked = 0;
  const auto again = [](char* at, char*) -> BoolType {
    return HostProtectPage(
        at, [](char*, char*) -> BoolType { return ++asked; }, &error);
  };
  HostProtectPage(page, again, &error);
  page[0] = 'x';
  if (asked != 1 || HostUnProtectPage(page)) _exit(13);
  HostExitOnGuardPageAccess();
  HostProtectPage(page, letPass, &error);
  page[0] = 'x';
}

// Neither a signal that was sent nor a fault whose address the processor does not tell is an access
// to address 0, which opens every page.
void faultNowhere() {
  char* page = newGuardedPage();
  noHalt = 1;
  siginfo_t sent{};
  sent.si_signo = SIGSEGV;
  HostFaultHandler(SIGSEGV, &sent, nullptr);
  asm volatile("int $0x81");
  if (!HostUnProtectPage(page)) _exit(11);
}

void stepOver(int /*signal*/, siginfo_t* /*info*/, void* context) {
  if (context != nullptr) static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EIP] += 2;
}

constexpr int slowThreads = 8;
std::atomic<int> inHandler{0};
thread_local sigjmp_buf probe;

// All threads are in it before the first goes on.
void waitForAll() {
  ++inHandler;
  while (inHandler < slowThreads) std::this_thread::yield();
}

// Threads touch a guarded page, each before another one opens it.
void touchTogether() {
  char* page = newGuardedPage();
  setAction(SIGSEGV, 0, [](int signal, siginfo_t* info, void* context) {
    waitForAll();
    HostFaultHandler(signal, info, context);
  });
  inThreads(slowThreads, [page](int number) { store(page + number); });
  mprotect(page, pageSize, PROT_NONE);
  store(page);
}

// Leaves the handler for low addresses.
void leaveOrWait(int /*signal*/, siginfo_t* info, void* /*context*/) {
  if (info->si_addr < reinterpret_cast<void*>(pageSize)) siglongjmp(probe, 1);
  waitForAll();
  mprotect(info->si_addr, pageSize, PROT_READ | PROT_WRITE);
}

// On the signal stack that the first thread has, and on the stacks of others.
void faultWithoutRecursion() {
  char* pages = newPages(slowThreads);
  mprotect(pages, slowThreads * pageSize, PROT_NONE);
  const auto probeOften = [] {
    for (int probes = 0; probes < 6; ++probes) {
      if (sigsetjmp(probe, 1) == 0) fault();
    }
  };
  const std::function<int(int)> probeDeeper = [&](int depth) {
    volatile char untouched[2 * pageSize];
    untouched[0] = 0;
    probeOften();
    return depth > 0 ? probeDeeper(depth - 1) + untouched[0] : 0;
  };
  probeOften();
  std::thread(probeDeeper, 4).join();
  inThreads(slowThreads, [&](int number) { store(pages + number * pageSize); });
  if (segvInProgressCount > 2) _exit(11);
}

int overflow(int depth) {
  volatile char room[pageSize];
  room[0] = static_cast<char>(depth);
  return depth == -1 ? 0 : overflow(depth + 1) + room[0];
}

// On a signal stack that is too small for the end, and for the exit handlers.
void faultOnSmallSignalStack() {
  UtlAtExit([] { overflow(-100); });
  std::thread([] {
    stack_t small = {};
    small.ss_size = 2 * pageSize;
    small.ss_sp = newPages(4) + 2 * pageSize;
    mprotect(static_cast<char*>(small.ss_sp) - 2 * pageSize, 2 * pageSize, PROT_NONE);
    sigaltstack(&small, nullptr);
    fault();
  }).join();
}

// The end of another thread waits for one with a fault of its own.
void joinFaultingThread() {
  static std::atomic<bool> joins{false};
  static std::thread worker([] {
    while (!joins) std::this_thread::yield();
    fault();
  });
  UtlAtExit([] {
    joins = true;
    worker.join();
  });
  UtlExit(5);
}

void touchAtFork() {
  static char* page = newPages(1);
  SysErrorSType error;
  pthread_atfork([] { store(page); }, nullptr, nullptr);
  HostProtectPage(page, letPass, &error);
  if (fork() == 0) _exit(0);
}

// While the handlers come and go, no fault that an earlier handler repairs goes astray.
void installOften() {
  std::atomic<bool> over{false};
  std::thread faulting([&over] {
    for (char* page = newPages(1); !over; store(page + 1)) mprotect(page, pageSize, PROT_NONE);
  });
  for (int round = 0; round < 2000; ++round) {
    HostShutDown();
    HostInstallFaultHandler(nullptr, nullptr);
  }
  over = true;
  faulting.join();
}

// As a VM that starts later does: in front of the handler, which gets what it does not know.
void installInFront() {
  HostInstallFaultHandler(nullptr, nullptr);
  setAction(SIGSEGV, 0, [](int signal, siginfo_t* info, void* context) {
    HostSignalSafePrint("later\n");
    HostFaultHandler(signal, info, context);
  });
  HostShutDown();
}

void handle(int signal, int infoSignal, int error) {
  siginfo_t info{};
  info.si_signo = infoSignal;
  info.si_errno = error;
  HostFaultHandler(signal, &info, nullptr);
}

void postpone() {
  HostDelaySigExit([] { HostSignalSafePrint("later\n"); }, [] { HostSignalSafePrint("never\n"); });
}

template <int signal>
void raiseAndExit() {
  raise(signal);
  if (HostClearSigTerm() != (signal == SIGTERM) || HostGetSigTerm_() != 0) _exit(11);
  if (HostGetFatalErr() != (signal == SIGTERM)) _exit(12);
  HostDoSigExit();
}

int calls = 0;

void count(int /*signal*/) {
  ++calls;
}

void unprotect(int signal, siginfo_t* info, void* context) {
  const bool masked = isBlocked(SIGSEGV) && isBlocked(SIGUSR2) && !isBlocked(SIGHUP);
  if (signal != SIGSEGV || info->si_signo != signal || context == nullptr || !masked) _exit(9);
  mprotect(static_cast<char*>(info->si_addr) - 1, pageSize, PROT_READ | PROT_WRITE);
  ++calls;
}

void setEarlierHandlers() {
  setAction(SIGSEGV, static_cast<int>(SA_RESETHAND), unprotect);
  for (const int signal : {SIGFPE, SIGPIPE, SIGQUIT}) std::signal(signal, count);
}

// Ends by a fault that nobody handles any more, when all that was to be handled is.
void chain() {
  if (std::signal(SIGFPE, count) != count || std::signal(SIGHUP, SIG_IGN) != SIG_IGN) _exit(7);
  char* page = newPages(1);
  mprotect(page, pageSize, PROT_NONE);
  page[1] = 1;
  raise(SIGPIPE);
  raise(SIGQUIT);
  if (calls != 3 || isBlocked(SIGUSR2) || segvInProgressCount != 0) _exit(4);
  // Reset by its flag, the earlier handler of the fault is gone now.
  mprotect(page, pageSize, PROT_NONE);
  page[1] = 1;
}

// Eight threads at all that a process survives: each fault is answered, and each child does its
// work and is reaped.
void storm() {
  writeFile("client", "echo >> ends\n");
  writeFile("server", "echo >/proc/self/fd/$TARVOLIN_SERVER_PIPE; echo >> ends\n");
  HostReapOwnChildrenOnly(1);
  char* pages = newPages(18);  // guarded ones a thread, two for all, and unguarded ones a thread
  std::atomic<long> started{0};
  inThreads(8, [&, end = stormEnd(3), seed = stormSeed()](int number) {
    std::mt19937 random(seed + static_cast<unsigned>(number));
    char why[200];
    PidType pid = 0;
    SysErrorSType error;
    const auto touch = [&](int page, HostProtectHandlerFType handler) {
      char* at = pages + page * pageSize;
      return HostProtectPage(at, handler, &error) && (store(at + 1), true);
    };
    const std::function<bool()> deeds[] = {
        [&] { return touch(number, letPass); },
        [&] { return touch(8, letPass); },
        [&] { return touch(9, [](char*, char*) -> BoolType { return poll(nullptr, 0, 1) == 0; }); },
        [own = pages + (10 + number) * pageSize] {
          return mprotect(own, pageSize, PROT_NONE) == 0 && (store(own + 1), true);
        },
        [&] { return HostForkServer("/bin/sh server", why, sizeof why, &pid) && ++started; },
        [&] {
          return HostFork("/bin/sh client", nullptr, 0, why, sizeof why, "", "log", ".", &pid) &&
                 ++started;
        },
        [&] { return UnixIoSystem("exit 3", 0) == -1 && UnixIoSystem("exit 0", 0) == 0; },
        [] { return raise(SIGCHLD) == 0 && raise(SIGUSR1) == 0; },
    };
    while (std::time(nullptr) < end) {
      if (!deeds[random() % std::size(deeds)]()) _exit(12);
    }
  });
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
  }
  if (segvInProgressCount != 0 || readFile("ends") != std::string(started, '\n')) _exit(11);
}

void interrupt() {
  HostEnableKbInt(count);
  raise(SIGINT);
  std::signal(SIGINT, SIG_IGN);
  HostEnableKbInt(count);
  raise(SIGINT);
  HostDisableInterrupts();
  if (calls != 1 || !isBlocked(SIGUSR2)) _exit(11);
  std::thread([] {
    HostDisableInterrupts();
    HostEnableInterrupts();
    if (isBlocked(SIGUSR2)) _exit(13);
  }).join();
  HostEnableInterrupts();
  if (isBlocked(SIGUSR2)) _exit(12);
}

TEST(HostFault, EndsBySignals) {
  const std::string unhandled = "\n\nTV Signal Handler: Unhandled signal ";
  const Case cases[] = {
      {fault, 3,
       unhandled +
           "11, SIGSEGV Received at ~HostFaultHandler: signal (int) = 11 \n"
           "    info->si_signo = 11 = 0xb  \n    info->si_code =  1 = 0x1  \n"
           "    info->si_errno = 0 = 0x0  \n    info->si_addr = 0x0x8  pc = 0x~  Registers saved "
           "from frame receiving the signal:\n   gs 0x~   edi 0x~epb 0x~   trapno 0xe err 0x~"
           "   efl 0x~[host.core4]"},
      {[] { abort(); }, 3,
       "TV signal handler: signal 6 (SIGABRT), received from process ~\n  si_code: -6, SI_TKILL, "
       "signal from tkill(2) or abort(3C)\n"},
      {illegal, 1, "\n*** Received signal 4 (SIGILL) at ~ ***.\nGoodbye.\n", HostExitOnFault},
      {touchGuardPage, 1,
       "\n[Debug]: Tarvolin ignored signal SIGSEGV caused by attempted guard page access at "
       "address 0x~\n*** Tarvolin detected a SIGSEGV caused by an attempt to access guard page "
       "address 0x~***.\nGoodbye.\n"},
      {touchTogether, 3, "\n[Debug]~" + unhandled},
      {faultNowhere, survived, "TV signal handler: signal 11 (SIGSEGV), received from~",
       [] { setAction(SIGSEGV, 0, stepOver); }},
      {faultWithoutRecursion, survived, "", [] { setAction(SIGSEGV, 0, leaveOrWait); }},
      {[] { overflow(0); }, 3, unhandled + "11, SIGSEGV"},
      {[] {
         std::thread([] {
           if (HostUseSignalStack() && HostUseSignalStack()) overflow(0);
         }).join();
       },
       9, "", [] { setAction(SIGSEGV, SA_ONSTACK, [](int, siginfo_t*, void*) { _exit(9); }); }},
      {installOften, survived, "", [] { setAction(SIGSEGV, 0, unprotect); }},
      {fault, 3, "later\n" + unhandled, installInFront},
      // What exit handlers do in the signal's handler is handled as elsewhere.
      {[] {
         UtlAtExit([] {
           store(newGuardedPage());
           fault();
         });
         raise(SIGTERM);
       },
       3, "~[Debug]~" + unhandled + "11, SIGSEGV"},
      // Of several threads one ends the process.
      {[] { inThreads(3, [](int) { fault(); }); }, 3, unhandled + "~later\n",
       [] {
         UtlAtExit([] { HostSignalSafePrint(calls == 1 ? "later\n" : "never\n"); });
         HostInstallFaultHandler(nullptr, [] { ++calls; });
       }},
      // What the interrupted code holds nobody gives free.
      {[] {
         static pthread_mutex_t held = PTHREAD_MUTEX_INITIALIZER;
         pthread_mutex_lock(&held);
         UtlAtExit([] { pthread_mutex_lock(&held); });
         raise(SIGTERM);
       },
       0, ""},
      {joinFaultingThread, 3, unhandled + "11, SIGSEGV"},
      {faultOnSmallSignalStack, 3, unhandled + "11, SIGSEGV~[host.core4]"},
      {touchAtFork, survived, "\n[Debug]"},
      {[] {
         SysErrorSType error;
         char* page = newPages(1);
         HostProtectPage(
             page, [](char*, char*) -> BoolType { return fault(), 1; }, &error);
         store(page);
       },
       3, unhandled + "11, SIGSEGV"},
      // An end that the earlier handler leaves is none; an abort of the flusher is one.
      {[] {
         if (sigsetjmp(probe, 1) == 0) raise(SIGXCPU);
         kill(getpid(), SIGTERM);
       },
       0, "\nTV Signal Handler: Signal 24, SIGXCPU, CPU time limit exceeded Received at ",
       [] { setAction(SIGXCPU, 0, [](int, siginfo_t*, void*) { siglongjmp(probe, 1); }); }},
      {[] { raise(SIGQUIT); }, 3, unhandled + "3~TV signal handler: signal 6 (SIGABRT)",
       [] { HostInstallFaultHandler([] { abort(); }, nullptr); }},
      {[] { handle(SIGILL, SIGBUS, 0); }, 3,
       "TV signal handler: signal 4 (SIGILL), received with incomplete or invalid args.  "
       "Additional info not available.\n"},
      {[] { handle(SIGFPE, SIGFPE, ENOMEM); }, -SIGABRT,
       unhandled + "8, SIGFPE~cannot safely fork() to print the C stack due to ENOMEM error.\n"},
      {[] { raise(SIGTERM); }, 0, ""},
      {[] { UnixIoSystem("kill -TERM $PPID", 0); }, 0,
       "\nTV Signal Handler: Signal 15, SIGTERM, Software Termination Signal Received at "},
      {[] { raise(SIGUSR1); }, survived,
       "\n\nSignal SIGUSR1 received printingStack ...~interpreter\n",
       [] { HostSetSmalltalkPrintStackFunc([] { HostSignalSafePrint("interpreter"); }); }},
      {raiseAndExit<SIGTERM>, 0, "later\n", postpone},
      {raiseAndExit<SIGQUIT>, 3, unhandled + "3~later\n~[host.core4]", postpone},
      // A fault is never postponed.
      {illegal, 3, unhandled + "4, SIGILL~    info->si_code =  2 = 0x2  \n~[host.core4]", postpone},
      // Earlier handlers: some of the program's, one that faults itself, and our own.
      {chain, 3, unhandled + "11, SIGSEGV", setEarlierHandlers},
      {[] { store(nullptr); }, -SIGABRT,
       "TV signal handler: Recursive SEGV detected, attempting to dump core\n",
       [] { setAction(SIGSEGV, SA_NODEFER, [](int, siginfo_t*, void*) { store(nullptr); }); }},
      {[] { raise(SIGQUIT); }, 3,
       unhandled + "3, SIGQUIT~    signal 3 , received from process ~   si_code: -6, SI_TKILL",
       [] { setAction(SIGQUIT, 0, HostFaultHandler); }},
      {storm, survived, "~", [] { setAction(SIGSEGV, 0, unprotect); }},
      {interrupt, survived, ""},
  };
  for (const Case& one : cases) expectEnd(one);
}

#ifndef POVZEL_SANITIZE  // whose allocator waits for its locks in a way of its own

// What a process is at when a signal ends it, and does at its end.
void (*const work[])() = {
    [] { std::free(std::malloc(5000)); },
    [] { std::printf("%d of %s\n", 5, "it"); },
    [] {
      ErrMsgStrType text;
      ErrMsgSymToText("a.b", text, sizeof text, "ds", 5L, "it");
    },
    [] { UtlExit(3); },
};

void workOnce() {
  std::for_each_n(work, 3, [](auto part) { part(); });
}

[[noreturn]] void workOn(void (*part)()) {
  for (;;) part();
}

// Starts a process that is at it in one thread, whose heap takes no locks, or in two when it hears
// signals.
pid_t startWorking(void (*part)(), bool alone) {
  HostDisableInterrupts();
  const pid_t child = fork();
  if (child != 0) return HostEnableInterrupts(), child;
  UtlAtExit(workOnce);
  std::atexit(workOnce);
  if (!alone) std::thread(workOn, part).detach();
  HostEnableInterrupts();
  workOn(part);
}

// Tells processes to end at any moment, and returns what is wrong with their ends.
std::string tellToEnd(std::mt19937& random) {
  std::map<pid_t, int> told;
  while (told.size() < 32) {
    const pid_t child = startWorking(work[random() % std::size(work)], random() % 2 != 0);
    const timespec moment{0, static_cast<long>(random() % 2000000)};
    nanosleep(&moment, nullptr);
    kill(child, told[child] = std::array{SIGQUIT, SIGABRT, SIGTERM}[random() % 3]);
  }
  std::ostringstream wrong;
  for (const auto& [child, signal] : told) {
    pollfd ended{static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    if (TEMP_FAILURE_RETRY(poll(&ended, 1, 10000)) != 1) kill(child, SIGKILL);
    close(ended.fd);
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 3 << 8 || (status == 0 && signal == SIGTERM)) continue;
    wrong << "status " << status << " by signal " << signal << '\n';
  }
  return wrong.str();
}

TEST(HostFault, EndsAtAnyMoment) {
  writeFile("storm.err", compiledFile({{"a.b", "a.b (1 2):%d of %s\n"}}));
  setenv("TARVOLIN_LANG", fs::absolute("storm.err").c_str(), 1);
  HostInit();
  HostReapOwnChildrenOnly(1);
  HostInstallFaultHandler(workOnce, workOnce);
  std::mt19937 random(stormSeed());
  std::string wrong;
  const std::string said = printed([&, end = stormEnd(3)] {
    while (wrong.empty() && std::time(nullptr) < end) wrong = tellToEnd(random);
  });
  EXPECT_EQ(wrong, "") << said;
  HostShutDown();
}

#endif

TEST(HostSignals, PutsEarlierActionsBack) {
  static volatile sig_atomic_t ticks;
  std::signal(SIGVTALRM, SIG_IGN);
  EXPECT_FALSE(HostStartProfTimer(-1, count));
  EXPECT_EQ(std::signal(SIGVTALRM, SIG_IGN), SIG_IGN);
  ASSERT_TRUE(HostStartProfTimer(1, count));
  ASSERT_TRUE(HostStartProfTimer(1, [](int) { ticks = ticks + 1; }));
  while (ticks < 3) {
  }
  HostStopProfTimer();
  HostStopProfTimer();
  EXPECT_EQ(std::signal(SIGVTALRM, SIG_DFL), SIG_IGN);

  std::signal(SIGQUIT, SIG_IGN);
  HostInstallFaultHandler(nullptr, nullptr);
  HostShutDown();
  HostShutDown();
  EXPECT_EQ(std::signal(SIGQUIT, SIG_DFL), SIG_IGN);
  EXPECT_EQ(std::signal(SIGSEGV, SIG_DFL), SIG_DFL);
}

void reportTwice() {
  HostOnDebug([] { std::puts("hook"); });
  HostInstallFatalReportHandler([] { std::puts("server"); });
  std::atexit([] { HostCallDebuggerMsg("again"); });
  errno = ENOENT;
  HostCallDebuggerMsg("first\nsecond");
}

// Where nothing halts, these return what they were given.
void goOn() {
  HostOnDebug([] { std::puts("hook"); });
  noHalt = 1;
  const unsigned long most = 0xFFFFFFFFUL;
  const bool none = HostCallDebugger() == 0 && HostCallDebuggerMsg("text") == 0 &&
                    HostCallDebuggerMsg(nullptr) == 0;
  std::puts(none && HostCallDebuggerMsg_o("text", most) == most && HostCoredump(1) ? "end" : "");
}

void dumpThrice() {
  for (int attempt = 1; attempt <= 3; ++attempt) {
    std::fprintf(stderr, "%d: attempt %d\n", calls, attempt);
    HostCoredump(1);
  }
}

void printStack() {
  fs::create_directories("installation/bin");
  writeFile("installation/bin/gstack", "#!/bin/sh\necho \"stacks of $1\"\n");
  fs::permissions("installation/bin/gstack", fs::perms::owner_all);
  setenv("TARVOLIN", fs::absolute("installation").c_str(), 1);
  HostPrintCStack(-1);
  HostPrintCStack(4711);
}

TEST(HostDebug, EndsWithReports) {
  const Case cases[] = {
      {reportTwice, -SIGABRT,
       "~[host.core4]~first\nsecond\nhook\n\nHostcalldebugger invoked in process ~, notifying torv "
       "of fatal error\nserver\n~\nHostCallDebugger invoked in process ~\n\n ____~[host.debugger1 "
       "HostCallDebugger]~[host.debugger2 ~[host.debugger1 HostCoredump]~\n    Sleeping for 0 "
       "seconds before dumping core.\n    You can now attach a debugger.     Process Id is ~"
       "[fault.errno 2 [unixerr.part1 2][unixerr.ENOENT]]~|____~again\n~Recursive error caught!"},
      // A callback that fails is not called again.
      {[] {
         HostOnDebug([] { HostCallDebuggerMsg("hook fails"); });
         HostCallDebuggerMsg("first");
       },
       3, "~first\nhook fails\n~[host.debugger1 HostCallDebugger]~|____"},
      {goOn, survived, "text\n\n\ntext arg:4294967295\nend\n"},
      {[] { HostCoredump(1); }, survived,
       "\nBegin attempt to print C-level stack for PID ~ at: \n"
       "  Warning: Unable to print C call stack.  'gstack' file not found\n"
       "\nC-level stack not available\n\nEnd of C-level stack for PID ~\n\n"
       "| [host.core4] ~|\n| The core file size limit is 0"},
      // It panics the second time, when nothing is shut down, and gives up the third.
      {dumpThrice, 1,
       "0: attempt 1\nflush\n~flush\n~shut down\n1: attempt 2\n"
       "~coredump panic: Avoiding user-defined rundown function\n"
       "coredump panic: disabling errmsg expansion\n~1: attempt 3\ncoredump panic:  giving up!\n",
       [] {
         HostInstallFaultHandler([] { std::fputs("flush\n", stderr); },
                                 [] { std::fputs(calls++ == 0 ? "shut down\n" : "", stderr); });
       }},
      {printStack, survived,
       "\nBegin attempt to print C-level stack for PID 4711 at: \n"
       "\nEnd of C-level stack for PID 4711\n\n~stacks of 4711\n"},
      {HostKillProcess, -SIGKILL, "flushed",
       [] { HostInstallFaultHandler([] { std::fputs("flushed", stderr); }, nullptr); }},
  };
  for (const Case& one : cases) expectEnd(one);
}

}  // namespace
