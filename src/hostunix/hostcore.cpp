#include <povzel/hostcore.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <povzel/errmsg.h>
#include <povzel/hostdebug.h>
#include <povzel/hostenv.h>
#include <povzel/hostfname.h>
#include <povzel/hostsystem.h>
#include <povzel/unixerr.h>
#include <povzel/vermsg.h>
#include "basics/internal.h"
#include "internal.h"
#include "messages/internal.h"

namespace {

int coreAttempts = 0;
BoolType madeCoreDir = 0;
HostFnameStrType coreDirName;

constexpr int defaultWaitSeconds = 60;
constexpr unsigned waitStepSeconds = 3;
constexpr int panicExitStatus = 1;

void reportError(const char* symbol, int error) {
  verCatalogueMessage(stderr, symbol, "ds", static_cast<long>(error), ErrnoText(error).text);
}

int waitSeconds() {
  char value[80 + 1];
  return HostGetEnv("TV_CORE_TIME_OUT", value, sizeof value)
             ? static_cast<int>(std::strtol(value, nullptr, 10))
             : defaultWaitSeconds;
}

void waitForAttachment(int seconds) {
  hostPrintDebuggerBanner("HostCoredump");
  std::printf("\n    Sleeping for %d seconds before dumping core.\n", seconds);
  std::printf("    You can now attach a debugger. ");
  std::printf("    Process Id is %ld\n", static_cast<long>(getpid()));
  std::fflush(stdout);

  // What still reaches a process that waits for a debugger is left out.
  const sigset_t blocked =
      unixIoAllSignalsBut(SIGTRAP, SIGTERM, SIGUSR1, SIGQUIT, SIGABRT, SIGTSTP, SIGCONT);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
  const std::time_t start = std::time(nullptr);
  while (std::time(nullptr) - start < seconds) sleep(waitStepSeconds);
}

void enterCoreDirectory() {
  HostFnameStrType name;
  char host[256];
  if (HostGetHostname(host, sizeof host)) {
    std::snprintf(name, sizeof name, "coredir%lu-%s", static_cast<unsigned long>(getpid()), host);
  } else {
    std::snprintf(name, sizeof name, "coredir%lu-%lu", static_cast<unsigned long>(getpid()),
                  static_cast<unsigned long>(hostTimeOfDay().seconds));
  }
  HostExpandFileName(name, coreDirName, sizeof coreDirName);
  if (os.mkdir(coreDirName, 0700) != 0) {
    std::fprintf(stderr, "coredump:  Unable to create core directory %s; errno = %d\n", coreDirName,
                 errno);
    return;
  }
  if (os.chdir(coreDirName) != 0) {
    std::fprintf(stderr, "coredump:  unable to chdir to %s; errno = %d\n", coreDirName, errno);
    os.rmdir(coreDirName);
    return;
  }
  madeCoreDir = 1;
}

void leaveCoreDirectory() {
  if (madeCoreDir == 0) return;
  if (os.chdir("..") == 0) os.rmdir(coreDirName);
  madeCoreDir = 0;
}

void prepareFirstAttempt() {
  hostFlushApplicationFiles();
  const bool groupGivenUp = os.setgid(getgid()) == 0;
  const bool userGivenUp = os.setuid(getuid()) == 0;
  if (!groupGivenUp || !userGivenUp) {
    std::fprintf(stderr, "coredump:  unable to give up privileges; errno = %d\n", errno);
  }
  enterCoreDirectory();
}

void preparePanicAttempt() {
  std::fputs("coredump panic: Avoiding user-defined rundown function\n", stderr);
  std::fputs("coredump panic: disabling errmsg expansion\n", stderr);
  ErrMsgSetPanicked(1);
}

// In the child whose image becomes the core.
[[noreturn]] void dumpCore() {
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGABRT, SIG_DFL);
  std::signal(SIGQUIT, SIG_DFL);
  const sigset_t quit = unixIoSignals(SIGQUIT);
  sigprocmask(SIG_UNBLOCK, &quit, nullptr);
  kill(getpid(), SIGQUIT);

  constexpr char survived[] = "gross failure in coredump: shouldn't be here!";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, survived, sizeof survived - 1);
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
    VerMessage(stderr, "The core file size limit is 0. \"ulimit -c unlimited\" lifts it.");
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
  VerMessage(stderr, text);
}

// Moves the child's core file up to where the process was started.
void keepCore(pid_t child) {
  char name[32];
  std::snprintf(name, sizeof name, "core.%u", static_cast<unsigned>(child));
  char wanted[32];
  std::snprintf(wanted, sizeof wanted, madeCoreDir != 0 ? "../core%lu" : "core%lu",
                static_cast<unsigned long>(getpid()));
  HostFnameStrType target;
  HostExpandFileName(wanted, target, sizeof target);
  if (os.rename(name, target) != 0) {
    const int reason = errno;
    verCatalogueMessage(stderr, "host.core5", "s", target);
    reportError("host.core6", reason);
    explainMissingCore(true);
    return;
  }
  leaveCoreDirectory();
  verCatalogueMessage(stderr, "host.core7", "s", target);
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
  const pid_t child = startDumpingChild();
  if (child == 0) dumpCore();
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
    verCatalogueMessage(stderr, "host.core4", nullptr);
    explainMissingCore(false);
    return 0;
  }
  keepCore(child);
  return 1;
}

}  // namespace

BoolType HostCoredump(BoolType explicitlyRequested) {
  const int seconds = waitSeconds();
  if (noHalt != 0) return 1;

  if (coreAttempts == 0) {
    hostFlushApplicationFiles();
    if (coreAttempts == 0) {
      coreAttempts = 1;
      hostPrintStacks();
    }
  } else {
    ++coreAttempts;
  }
  if (explicitlyRequested == 0) waitForAttachment(seconds);
  if (coreAttempts > 2) {
    std::fputs("coredump panic:  giving up!\n", stderr);
    _exit(panicExitStatus);
  }

  HostSetFatalErr(1);
  if (coreAttempts == 1) {
    prepareFirstAttempt();
  } else {
    preparePanicAttempt();
  }

  std::signal(SIGABRT, SIG_DFL);
  const BoolType dumped = dumpInChild();
  // A panicking process is not asked to run the application down as well.
  if (coreAttempts == 1) hostShutDownApplication();
  return dumped;
}
