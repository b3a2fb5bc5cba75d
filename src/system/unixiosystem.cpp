// UnixIoSystem (unixio.h): a shell command, run in a child.

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include <povzel/hostmutex.h>
#include <povzel/unixio.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr int execFailedStatus = 4;

// What every run changes for all threads: the first does it, the last puts it back.
HostMutexSType runsMutex = PTHREAD_MUTEX_INITIALIZER;  // guards the rest
int runs = 0;
struct sigaction childAction;
struct sigaction timerAction;

// Holds the mutex. No handler runs meanwhile, which might run a command itself.
class RunsAccess {
 public:
  RunsAccess() { HostMutexAcquire(&runsMutex); }
  ~RunsAccess() { HostMutexRelease(&runsMutex); }
  RunsAccess(const RunsAccess&) = delete;
  RunsAccess& operator=(const RunsAccess&) = delete;

 private:
  const SignalMask mask_{SIG_BLOCK, unixIoAllSignalsBut()};
};

void putActionsBackUnchanged() {
  sigaction(SIGCHLD, &childAction, nullptr);
  sigaction(SIGVTALRM, &timerAction, nullptr);
}

sigset_t maskAtFork;  // of the thread that forks, and so holds the mutex

void holdRunsForFork() {
  sigset_t all;
  sigset_t mask;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &mask);
  HostMutexAcquire(&runsMutex);
  maskAtFork = mask;
}

void releaseRuns() {
  const sigset_t mask = maskAtFork;
  HostMutexRelease(&runsMutex);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

// The threads whose commands run are the parent's.
void releaseRunsInChild() {
  if (runs > 0) putActionsBackUnchanged();
  runs = 0;
  releaseRuns();
}

void beginRun() {
  static pthread_once_t registered = PTHREAD_ONCE_INIT;
  pthread_once(&registered,
               [] { pthread_atfork(holdRunsForFork, releaseRuns, releaseRunsInChild); });
  const RunsAccess access;
  const bool first = runs++ == 0;
  UNIXIO_DO_SIGNAL(SIGCHLD, unixIoDefaultAction, first ? &childAction : nullptr);
  UNIXIO_DO_SIGNAL(SIGVTALRM, unixIoIgnoreAction, first ? &timerAction : nullptr);
}

// The handler hears of children that ended while there was none.
void tellOfChildren() {
  if (childAction.sa_handler == SIG_DFL || childAction.sa_handler == SIG_IGN) return;
  siginfo_t ended{};
  if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0) {
    raise(SIGCHLD);
  }
}

void endRun() {
  const RunsAccess access;
  if (--runs > 0) return;
  UNIXIO_DO_SIGNAL(SIGCHLD, childAction.sa_sigaction, nullptr);
  UNIXIO_DO_SIGNAL(SIGVTALRM, timerAction.sa_sigaction, nullptr);
  tellOfChildren();
}

// A run that never began leaves the actions as they were to the last flag.
void cancelRun() {
  const RunsAccess access;
  if (--runs == 0) putActionsBackUnchanged();
}

// What the shell's run changes in this process, and how it is put back.
class Surroundings {
 public:
  explicit Surroundings(BoolType interactively) {
    beginRun();
    if (interactively != 0) foreground_ = os.tcgetpgrp(STDIN_FILENO);
  }
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

  const SignalMask& mask() const { return mask_; }

  // After a run that never began: all is as before, the mask last, when this dies.
  void putBackUnchanged() const {
    const ErrnoKeeper keeper;
    cancelRun();
  }

  // The mask last: a handler may jump away from here. SIGTTOU is blocked until then, which would
  // stop this process where the shell has left it in the background.
  void putBack() const {
    const ErrnoKeeper keeper;
    dropPending();
    endRun();
    if (foreground_ != -1) os.tcsetpgrp(STDIN_FILENO, foreground_);
    mask_.restore();
  }

 private:
  // The signals that have no handler during the run are dropped, unless the caller blocks them.
  void dropPending() const {
    sigset_t dropped = unixIoSignals();
    for (const int signal : {SIGCHLD, SIGVTALRM}) {
      if (sigismember(&mask_.former(), signal) == 0) sigaddset(&dropped, signal);
    }
    const SignalMask mask(SIG_UNBLOCK, dropped);
  }

  const SignalMask mask_{SIG_BLOCK, unixIoAllSignalsBut()};
  pid_t foreground_ = -1;
};

// The C library's functions would try to change the ids of the parent's other threads too.
void useRealIdsInChild() {
  syscall(SYS_setresgid32, -1, getgid(), -1);
  syscall(SYS_setresuid32, -1, getuid(), -1);
}

// Between vfork and exec the child runs in the parent's memory: it changes nothing there.
[[noreturn]] void runShell(const char* cmd, BoolType interactively, const SignalMask& mask) {
  if (interactively == 0) os.setsid();
  useRealIdsInChild();
  unixIoDropHandlers();
  mask.restore();
  const char* arguments[] = {"/bin/sh", "-c", cmd, nullptr};
  os.execv("/bin/sh", const_cast<char* const*>(arguments));
  char text[64];
  const int length = std::snprintf(text, sizeof text, "execv error, errno = %d\n", errno);
  if (os.write(STDERR_FILENO, text, static_cast<std::size_t>(length)) == -1)
    _exit(execFailedStatus);
  _exit(execFailedStatus);
}

}  // namespace

int UnixIoSystem(const char* cmd, BoolType interactively) {
  const CancellationWaits cancellationWaits;
  const Surroundings surroundings(interactively);
  // fork would copy the page tables of a whole JVM, and the child does no more than exec.
  // NOLINTNEXTLINE(clang-analyzer-unix.Vfork,clang-analyzer-security.insecureAPI.vfork)
  const pid_t child = os.refuseVfork() == 0 ? vfork() : -1;
  if (child == -1) {
    surroundings.putBackUnchanged();
    return -1;
  }
  if (child == 0) runShell(cmd, interactively, surroundings.mask());

  int status = 0;
  const pid_t waited = unixIoRetry([&] { return os.waitpid(child, &status, WUNTRACED); });
  surroundings.putBack();
  return waited != -1 && WEXITSTATUS(status) == 0 ? 0 : -1;
}
