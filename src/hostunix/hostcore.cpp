#include <povzel/hostcore.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <povzel/errmsg.h>
#include <povzel/hostdebug.h>
#include <povzel/hostenv.h>
#include <povzel/hostfname.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsystem.h>
#include <povzel/unixerr.h>
#include "basics/internal.h"
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

namespace {

std::atomic<int> coreAttempts{0};
std::atomic<BoolType> madeCoreDir{0};
pid_t coreDirThread;  // that made it
HostFnameStrType coreDirName;
std::atomic<bool> othersKeepIds{false};  // until the core is there

constexpr int defaultWaitSeconds = 60;
constexpr unsigned waitStepSeconds = 3;
constexpr int panicExitStatus = 1;

// Whether the calling thread carries out the end of the process.
bool endsProcess() {
  return utlExitOwner() == gettid();
}

UtlClaim coreClaim;  // of the thread that is in HostCoredump

// A thread's turn at the core. Others wait for its end; the thread itself, which may come back from
// a fault on the way, goes on, and a child after a fork has its own turns. The thread that ends the
// process goes on as well: it may hold what the one whose turn it is waits for.
class CoreTurn {
 public:
  CoreTurn() {
    if (coreClaim.isMine()) return;
    while (!coreClaim.take()) {
      isOthers_ = endsProcess();
      if (isOthers_) return;
      coreClaim.await(coreClaim.owner());
    }
    isMine_ = true;
  }
  ~CoreTurn() {
    if (isMine_) coreClaim.giveUp();
  }
  CoreTurn(const CoreTurn&) = delete;
  CoreTurn& operator=(const CoreTurn&) = delete;

  bool isOthers() const { return isOthers_; }

 private:
  bool isMine_ = false;
  bool isOthers_ = false;
};

template <typename... Arguments>
void report(const char* symbol, const char* kinds, Arguments... arguments) {
  verSafeCatalogueMessage(hostPast(stderr), symbol, kinds, arguments...);
}

void reportError(const char* symbol, int error) {
  report(symbol, "ds", static_cast<long>(error), ErrnoText(error).text);
}

int waitSeconds() {
  char value[80 + 1];
  return HostGetEnv("TV_CORE_TIME_OUT", value, sizeof value)
             ? static_cast<int>(std::strtol(value, nullptr, 10))
             : defaultWaitSeconds;
}

// Of a clock that nobody sets.
long monotonicSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

void waitForAttachment(int seconds) {
  hostPrintDebuggerBanner("HostCoredump");
  hostPrintPast(stdout,
                "\n    Sleeping for %d seconds before dumping core.\n"
                "    You can now attach a debugger.     Process Id is %ld\n",
                seconds, static_cast<long>(getpid()));

  // What still reaches a process that waits for a debugger is left out.
  const sigset_t blocked =
      unixIoAllSignalsBut(SIGTRAP, SIGTERM, SIGUSR1, SIGQUIT, SIGABRT, SIGTSTP, SIGCONT);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
  const long start = monotonicSeconds();
  while (monotonicSeconds() - start < seconds) sleep(waitStepSeconds);
}

// The resolver, which knows the host's name better, takes locks.
void nameCoreDirectory(bool asksResolver) {
  const auto process = static_cast<unsigned long>(getpid());
  HostFnameStrType name;
  char found[256];
  const char* host = hostKnownHostname();
  if (asksResolver) host = HostGetHostname(found, sizeof found) ? found : nullptr;
  if (host != nullptr) {
    hostSafeFormat(name, sizeof name, "coredir%lu-%s", process, host);
  } else {
    hostSafeFormat(name, sizeof name, "coredir%lu-%lu", process,
                   static_cast<unsigned long>(hostTimeOfDay().seconds));
  }
  HostExpandFileName(name, coreDirName, sizeof coreDirName);
}

// Only the child whose image becomes the core goes there.
void makeCoreDirectory(bool asksResolver) {
  nameCoreDirectory(asksResolver);
  coreDirThread = gettid();
  madeCoreDir = os.mkdir(coreDirName, 0700) == 0;
  if (madeCoreDir == 0) {
    hostPrintPast(stderr, "coredump:  Unable to create core directory %s; errno = %d\n",
                  coreDirName, errno);
  }
}

// Neither another thread's nor, after a fork, that of the parent.
bool hasCoreDirectory() {
  return madeCoreDir != 0 && coreDirThread == gettid();
}

// What has a core in it is not removed.
void removeCoreDirectory() {
  if (hasCoreDirectory() && os.rmdir(coreDirName) == 0) madeCoreDir = 0;
}

void leaveCoreDirectory() {
  removeCoreDirectory();
  if (hasCoreDirectory()) madeCoreDir = 0;
}

// By the C library, which waits for each thread to do the same.
[[gnu::noinline]] bool giveUpIdsOfAllThreads() {
  const gid_t group = getgid();
  const uid_t user = getuid();
  const bool isGroup = os.setresgid(group, group, group) == 0;
  return os.setresuid(user, user, user) == 0 && isGroup;
}

// The saved ids, too, or they could be taken back. Where nothing may lock the other threads follow
// later.
void giveUpPrivileges(bool mayLock) {
  if (!hostHasSetIds()) return;
  othersKeepIds = !mayLock;
  if (mayLock ? giveUpIdsOfAllThreads() : hostGiveUpThreadIds()) return;
  hostPrintPast(stderr, "coredump:  unable to give up privileges; errno = %d\n", errno);
}

// Threads with ids of their own would make the C library abort where it sets those of all.
void giveUpPrivilegesOfOthers() {
  if (othersKeepIds.exchange(false)) giveUpIdsOfAllThreads();
}

void prepareFirstAttempt(bool mayLock) {
  hostFlushApplicationFiles();
  giveUpPrivileges(mayLock);
  makeCoreDirectory(mayLock);
}

void preparePanicAttempt() {
  hostPrintPast(stderr,
                "coredump panic: Avoiding user-defined rundown function\n"
                "coredump panic: disabling errmsg expansion\n");
  ErrMsgSetPanicked(1);
}

// In the child whose image becomes the core.
[[noreturn]] void dumpCore(bool goesToDirectory) {
  if (goesToDirectory && os.chdir(coreDirName) != 0) {
    char line[sizeof(HostFnameStrType) + sizeof(SafeLine)];
    hostSafeFormat(line, sizeof line, "coredump:  unable to chdir to %s; errno = %d\n", coreDirName,
                   errno);
    HostSignalSafePrint(line);
  }
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGABRT, SIG_DFL);
  std::signal(SIGQUIT, SIG_DFL);
  const sigset_t quit = unixIoSignals(SIGQUIT);
  sigprocmask(SIG_UNBLOCK, &quit, nullptr);
  kill(getpid(), SIGQUIT);

  constexpr char survived[] = "gross failure in coredump: shouldn't be here!";
  utlSafeWrite(STDERR_FILENO, survived, sizeof survived - 1);
  _exit(panicExitStatus);
}

// How the system names core files; empty when it does not say.
void readCorePattern(char (&pattern)[128]) {
  pattern[0] = '\0';
  const int file = os.open("/proc/sys/kernel/core_pattern", O_RDONLY | O_CLOEXEC, 0);
  if (file < 0) return;
  const ssize_t length = os.read(file, pattern, sizeof pattern - 1);
  os.close(file);
  pattern[length > 0 ? length : 0] = '\0';
  pattern[std::strcspn(pattern, "\n")] = '\0';
}

// Says why there may be no core file where one was looked for, whether the system has dumped one or
// not.
void explainMissingCore(bool dumped) {
  struct rlimit limit;
  if (!dumped && os.getrlimit(RLIMIT_CORE, &limit) == 0 && limit.rlim_cur == 0) {
    verSafeMessage(hostPast(stderr),
                   "The core file size limit is 0. \"ulimit -c unlimited\" lifts it.");
    return;
  }
  char pattern[128];
  readCorePattern(pattern);
  const char* what = dumped ? "names cores by its own pattern" : nullptr;
  if (pattern[0] == '|') what = "hands cores to a program";
  if (pattern[0] == '/') what = "writes cores elsewhere";
  if (what == nullptr) return;
  char text[256];
  std::snprintf(text, sizeof text, "The system %s (kernel.core_pattern is \"%s\").", what, pattern);
  verSafeMessage(hostPast(stderr), text);
}

// Where the process was started.
void nameCore(HostFnameStrType& target) {
  char name[32];
  hostSafeFormat(name, sizeof name, "core%lu", static_cast<unsigned long>(getpid()));
  HostExpandFileName(name, target, sizeof target);
}

// Moves the child's core file there.
void keepCore(pid_t child, const HostFnameStrType& target) {
  removeCoreDirectory();  // it is empty if the child could not go there; then the core is here
  char name[sizeof(HostFnameStrType) + 32];
  hostSafeFormat(name, sizeof name, "%s/core.%u", hasCoreDirectory() ? coreDirName : ".",
                 static_cast<unsigned>(child));
  if (os.rename(name, target) != 0) {
    const int reason = errno;
    report("host.core5", "s", target);
    reportError("host.core6", reason);
    explainMissingCore(true);
    return;
  }
  leaveCoreDirectory();
  report("host.core7", "s", target);
}

// _Fork rather than vfork: before Linux 5.16 a core dump ended every process that shares the
// dumping one's memory, and so the parent. Unlike fork it takes no locks, so that it also works in
// a signal handler.
pid_t startDumpingChild() {
  return unixIoRetry([] { return os._Fork(); });
}

BoolType dumpInChild() {
  const SignalAction childEnds(SIGCHLD, unixIoDefaultAction);
  const sigset_t allButChild = unixIoAllSignalsBut(SIGCHLD);
  sigprocmask(SIG_SETMASK, &allButChild, nullptr);
  HostFnameStrType target;
  nameCore(target);
  const bool goesToDirectory = hasCoreDirectory();
  const pid_t child = startDumpingChild();
  if (child == 0) dumpCore(goesToDirectory);
  if (child < 0) {
    reportError("host.core2", errno);
    return 0;
  }
  int status = 0;
  if (unixIoRetry([&] { return os.waitpid(child, &status, 0); }) < 0) {
    reportError("host.core3", errno);
    return 0;
  }
  if (!WIFSIGNALED(status) || !WCOREDUMP(status)) {
    report("host.core4", nullptr);
    explainMissingCore(false);
    return 0;
  }
  keepCore(child, target);
  return 1;
}

// Counts the attempt. The first is that of the thread whose turn it is, whatever others have begun.
void beginAttempt(const CoreTurn& turn) {
  int none = 0;
  if (turn.isOthers()) {
    coreAttempts.compare_exchange_strong(none, 1);
  } else if (coreAttempts == 0) {
    hostFlushApplicationFiles();
    if (coreAttempts.compare_exchange_strong(none, 1)) hostPrintStacks();
    return;
  }
  ++coreAttempts;
}

// HostCoredump in a thread's turn. `panics` tells whether it was not the first attempt.
BoolType dumpInTurn(BoolType explicitlyRequested, int seconds, bool& panics) {
  const CoreTurn turn;
  beginAttempt(turn);
  if (explicitlyRequested == 0) waitForAttachment(seconds);
  if (coreAttempts > 2) {
    leaveCoreDirectory();
    hostPrintPast(stderr, "coredump panic:  giving up!\n");
    _exit(panicExitStatus);
  }

  HostSetFatalErr(1);
  if (coreAttempts == 1) {
    prepareFirstAttempt(explicitlyRequested != 0 && !endsProcess());
  } else {
    preparePanicAttempt();
  }

  std::signal(SIGABRT, SIG_DFL);
  const BoolType dumped = dumpInChild();
  leaveCoreDirectory();
  panics = coreAttempts > 1;
  return dumped;
}

}  // namespace

BoolType HostCoredump(BoolType explicitlyRequested) {
  const int seconds = waitSeconds();
  if (noHalt != 0) return 1;
  const CancellationWaits untilDumped;
  bool panics = false;
  const BoolType dumped = dumpInTurn(explicitlyRequested, seconds, panics);
  giveUpPrivilegesOfOthers();
  // A panicking process is not asked to run the application down as well.
  if (!panics) hostShutDownApplication();
  return dumped;
}
