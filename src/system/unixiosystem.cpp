// Shell commands, run in a child (unixIoRun, and UnixIoSystem of unixio.h).

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <span>

#include <povzel/hostmutex.h>
#include <povzel/unixio.h>
#include "basics/internal.h"
#include "internal.h"

std::atomic<sighandler_t> unixIoSparingHandler{nullptr};

namespace {

constexpr int execFailedStatus = 4;

// Signals whose action is another for all threads while commands run: the first command sets it,
// the last puts it back.
struct PutAside {
  int signal;
  sighandler_t meanwhile;
  int commands;  // that need it
  UnixIoKernelAction former;
};
HostMutexSType actionsMutex = PTHREAD_MUTEX_INITIALIZER;  // guards the rest
PutAside actions[] = {{SIGCHLD, SIG_DFL, 0, {}}, {SIGVTALRM, SIG_IGN, 0, {}},
                      {SIGINT, SIG_IGN, 0, {}},  {SIGQUIT, SIG_IGN, 0, {}},
                      {SIGTTOU, SIG_IGN, 0, {}}, {SIGTTIN, SIG_IGN, 0, {}}};
constexpr std::size_t usualActions = 2;  // every command's; the rest is for the keyboard

std::span<PutAside> actionsOf(const UnixIoCommand& command) {
  return {actions, command.ignoresKeyboard ? std::size(actions) : usualActions};
}

// Holds the mutex. No handler runs meanwhile, which might run a command itself.
class ActionsAccess {
 public:
  ActionsAccess() { HostMutexAcquire(&actionsMutex); }
  ~ActionsAccess() { HostMutexRelease(&actionsMutex); }
  ActionsAccess(const ActionsAccess&) = delete;
  ActionsAccess& operator=(const ActionsAccess&) = delete;

 private:
  const SignalMask mask_{SIG_BLOCK, unixIoAllSignalsBut()};
};

sigset_t maskAtFork;  // of the thread that forks, and so holds the mutex

void holdActionsForFork() {
  const sigset_t others = unixIoAllSignalsButFaults();
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, &others, &mask);
  HostMutexAcquire(&actionsMutex);
  maskAtFork = mask;
}

void releaseActions() {
  const sigset_t mask = maskAtFork;
  HostMutexRelease(&actionsMutex);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

UnixIoKernelAction actionOf(int signal) {
  UnixIoKernelAction now{};
  unixIoKernelAction(signal, nullptr, &now);
  return now;
}

// Whether the signal has the action that a command has set, and not what the program, or the C
// library's own commands, have set since.
bool isMeanwhile(const PutAside& action) {
  const UnixIoKernelAction now = actionOf(action.signal);
  return now.handler == action.meanwhile && (now.flags & unixIoInPlace) != 0;
}

// A program that ignores the signal itself, and a handler that leaves commands alone, go on.
bool mayStay(const PutAside& action) {
  const sighandler_t handler = action.former.handler;
  if (action.meanwhile == SIG_IGN) return handler == SIG_IGN;
  return handler != SIG_DFL && handler == unixIoSparingHandler;
}

void putAside(PutAside& action) {
  ++action.commands;
  if (isMeanwhile(action)) return;
  action.former = actionOf(action.signal);
  if (mayStay(action)) return;
  UnixIoKernelAction meanwhile = unixIoIgnoreInPlace;
  meanwhile.handler = action.meanwhile;
  unixIoKernelAction(action.signal, &meanwhile, nullptr);
}

void putBack(PutAside& action, bool installed) {
  if (action.commands == 0 || --action.commands > 0 || !isMeanwhile(action)) return;
  const sighandler_t handler = action.former.handler;
  if (installed && handler != SIG_DFL && handler != SIG_IGN) {
    UNIXIO_DO_SIGNAL(action.signal, unixIoActionAsHandler(handler), nullptr);
  } else {
    unixIoKernelAction(action.signal, &action.former, nullptr);
  }
}

// The threads whose commands run are the parent's.
void releaseActionsInChild() {
  for (PutAside& action : actions) {
    if (action.commands > 0 && isMeanwhile(action)) {
      unixIoKernelAction(action.signal, &action.former, nullptr);
    }
    action.commands = 0;
  }
  releaseActions();
}

void putActionsAside(const UnixIoCommand& command) {
  static pthread_once_t registered = PTHREAD_ONCE_INIT;
  pthread_once(&registered,
               [] { pthread_atfork(holdActionsForFork, releaseActions, releaseActionsInChild); });
  const ActionsAccess access;
  for (PutAside& action : actionsOf(command)) putAside(action);
}

// The handler hears of children that ended while there was none, in whichever thread lets SIGCHLD
// through. Where the program ignores them, the kernel would have forgotten them.
void tellOfChildren() {
  const sighandler_t handler = actions[0].former.handler;
  if (handler == SIG_DFL) return;
  if (handler == SIG_IGN) {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    return;
  }
  siginfo_t ended{};
  if (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0) {
    kill(getpid(), SIGCHLD);
  }
}

void putActionsBack(const UnixIoCommand& command, bool installed) {
  const ActionsAccess access;
  for (PutAside& action : actionsOf(command)) putBack(action, installed);
  if (actions[0].commands == 0) tellOfChildren();
}

// What the shell's run changes in this process, and how it is put back.
class Surroundings {
 public:
  explicit Surroundings(const UnixIoCommand& command) : command_(command) {
    putActionsAside(command);
    if (command.interactive) foreground_ = os.tcgetpgrp(STDIN_FILENO);
  }
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

  const SignalMask& mask() const { return mask_; }

  // After a run that never began: all is as before, the mask last, when this dies.
  void putBackUnchanged() const {
    const ErrnoKeeper keeper;
    putActionsBack(command_, false);
  }

  // The mask last: a handler may jump away from there. SIGTTOU is blocked until then, which would
  // stop this process where the shell has left it in the background.
  void putBack() const {
    const ErrnoKeeper keeper;
    dropPending();
    putActionsBack(command_, command_.installsHandlers);
    if (foreground_ != -1) os.tcsetpgrp(STDIN_FILENO, foreground_);
    cancellationWaits_.restore();
    mask_.restore();
  }

 private:
  // The signals that have no handler during the run are dropped, unless the caller blocks them.
  void dropPending() const {
    sigset_t dropped = unixIoSignals();
    for (const PutAside& action : actionsOf(command_)) {
      if (sigismember(&mask_.former(), action.signal) == 0) sigaddset(&dropped, action.signal);
    }
    const SignalMask mask(SIG_UNBLOCK, dropped);
  }

  const UnixIoCommand& command_;
  const SignalMask mask_{SIG_BLOCK, unixIoAllSignalsBut()};
  const CancellationWaits cancellationWaits_;
  pid_t foreground_ = -1;
};

// The C library's functions would try to change the ids of the parent's other threads too.
void useRealIdsInChild() {
  constexpr auto unchanged = static_cast<unsigned int>(-1);
  oscalls::setThreadGids(getgid(), unchanged);
  oscalls::setThreadUids(getuid(), unchanged);
}

// Between vfork and exec the child runs in the parent's memory: it changes nothing there but
// `failure`, which becomes why there is no shell.
[[noreturn]] void runShell(const UnixIoCommand& command, const SignalMask& mask,
                           volatile int& failure) {
  if (!command.interactive) os.setsid();
  useRealIdsInChild();
  // The caller's handlers must not run in the parent's memory.
  unixIoDropHandlers();
  mask.restore();
  const char* arguments[] = {"/bin/sh", "-c", command.text, nullptr};
  os.execv("/bin/sh", const_cast<char* const*>(arguments));
  failure = errno;
  char text[64];
  const int length = std::snprintf(text, sizeof text, "execv error, errno = %d\n", failure);
  if (os.write(STDERR_FILENO, text, static_cast<std::size_t>(length)) == -1)
    _exit(execFailedStatus);
  _exit(execFailedStatus);
}

}  // namespace

bool unixIoRun(const UnixIoCommand& command, int& status) {
  const Surroundings surroundings(command);
  volatile int failure = 0;
  // fork would copy the page tables of a whole JVM, and the child does no more than exec.
  // NOLINTNEXTLINE(clang-analyzer-unix.Vfork,clang-analyzer-security.insecureAPI.vfork)
  const pid_t child = os.refuseVfork() == 0 ? vfork() : -1;
  if (child == -1) {
    surroundings.putBackUnchanged();
    return false;
  }
  if (child == 0) runShell(command, surroundings.mask(), failure);

  const pid_t waited = unixIoRetry([&] { return os.waitpid(child, &status, WUNTRACED); });
  if (waited == -1) status = unixIoLostStatus;
  surroundings.putBack();
  if (failure == 0) return true;
  errno = failure;
  return false;
}

int UnixIoSystem(const char* cmd, BoolType interactively) {
  int status;
  const UnixIoCommand command{
      .text = cmd, .interactive = interactively != 0, .installsHandlers = true};
  return unixIoRun(command, status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}
