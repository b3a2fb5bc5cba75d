#include <povzel/hostfault.h>

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <povzel/atomics.h>
#include <povzel/errmsg.h>
#include <povzel/hostcore.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsigterm.h>
#include <povzel/utlexit.h>
#include <povzel/vermsg.h>
#include "internal.h"

long segvInProgressCount = 0;

HostFaultFuncType* fileFlusherFct = nullptr;
HostFaultFuncType* shutdownFct = nullptr;
BoolType HostFatalErr = 0;

namespace {

using ExitFunction = void (*)(int code, const SignalEvent& event);

BoolType exitOnFault = 0;
BoolType exitOnGuardPageAccess = 0;

void* shrMemAddr = nullptr;
HostShrMemFuncType shrMemFunc = nullptr;

HostSigExitHandlerType delaySigExit = nullptr;
HostSigExitHandlerType completeSigExit = nullptr;

// The exit that was postponed. The signal's own records are gone once the handler returns, so
// copies are kept.
struct PostponedExit {
  ExitFunction exitfunc;
  int code;
  int signal;
  bool hasInfo;
  bool hasContext;
  siginfo_t info;
  ucontext_t context;
};
PostponedExit postponed;

constexpr int recursion = 3;  // that many SIGSEGVs at once are taken for one

constexpr int guardPageExitStatus = 1;
constexpr int nestedFaultExitStatus = 2;
constexpr int coreExitStatus = 3;
constexpr int childErrorExitStatus = 4;

constexpr bool isHardwareSignal(int signal) {
  return signal == SIGSEGV || signal == SIGBUS || signal == SIGILL || signal == SIGABRT;
}

// The core exit of these is never postponed: the program cannot go on.
constexpr bool endsAtOnce(int signal) {
  return isHardwareSignal(signal) || signal == SIGTRAP || signal == SIGFPE;
}

[[noreturn]] void exitOnFaultNow(int signal) {
  hostSafePrint("\n*** Received signal %d (%s) at %ld ***.\n%s\n", signal, hostSignalName(signal),
                hostHandlerTime(), "Goodbye.");
  _exit(guardPageExitStatus);
}

void callHandler(const struct sigaction& action, const SignalEvent& event) {
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(event.signal, event.received, event.context);
  } else {
    action.sa_handler(event.signal);
  }
}

// A fault signal, illegal instruction or abort that was not raised by the hardware: nobody can say
// what it means, so it counts as a broken guarantee.
void reportSentSignal(const SignalEvent& event) {
  if (event.info == nullptr) {
    hostSafePrint(
        "TV signal handler: signal %d (%s), received with incomplete or invalid args.  "
        "Additional info not available.\n",
        event.signal, hostSignalName(event.signal));
  } else if (event.wasSent()) {
    hostSafePrint(
        "TV signal handler: signal %d (%s), received from process %d userId %d\n"
        "  si_code: %d, %s\n",
        event.signal, hostSignalName(event.signal), event.info->si_pid,
        static_cast<int>(event.info->si_uid), event.info->si_code, hostSiCodeText(event.info));
    if (exitOnFault != 0) exitOnFaultNow(event.signal);
  } else {
    return;
  }
  utlGuaranteeFailed("src/hostunix", __LINE__);
}

// Returns true when the fault was an access to a guarded page that is accessible now.
bool resumeAfterGuardPage(const SignalEvent& event) {
  if (event.signal != SIGSEGV || event.info == nullptr) return false;
  void* address = event.info->si_addr;
  if (!hostHandleGuardPageAccess(static_cast<char*>(address))) return false;
  if (exitOnGuardPageAccess != 0) {
    hostSafePrint(
        "\n*** Tarvolin detected a SIGSEGV caused by an attempt to access guard page address %p.  "
        "time=%ld ***.\n%s\n",
        address, hostHandlerTime(), "Goodbye.");
    _exit(guardPageExitStatus);
  }
  hostSafePrint(
      "\n[Debug]: Tarvolin ignored signal SIGSEGV caused by attempted guard page access at "
      "address %p.  time=%ld\n",
      address, hostHandlerTime());
  return true;
}

// How many SIGSEGV handlers of this thread are running. Lies at a fixed place from the thread's
// start, so that reading it in a handler never allocates.
[[gnu::tls_model("initial-exec")]] thread_local int segvDepth = 0;

// Counts a SIGSEGV and returns how many are being handled. What would look like recursion is often
// no more than several threads of a Java VM at their null checks, each done in microseconds: a
// thread that has no handler running yet waits a while for the others.
int segvRunning() {
  constexpr int yields = 100;
  constexpr int naps = 1000;
  constexpr int millisecond = 1;
  auto* count = reinterpret_cast<int*>(&segvInProgressCount);
  const bool nested = segvDepth++ > 0;
  for (int waits = 0;; ++waits) {
    const int running = HostAsmSyncCtrAdd(count, 1) + 1;
    if (running < recursion || nested || waits == yields + naps) return running;
    HostAsmSyncCtrAdd(count, -1);
    if (waits < yields) {
      sched_yield();
    } else {
      poll(nullptr, 0, millisecond);
    }
  }
}

void segvDone() {
  --segvDepth;
  HostAsmSyncCtrAdd(reinterpret_cast<int*>(&segvInProgressCount), -1);
}

// Ends the process when the handling of a SIGSEGV keeps faulting.
void countSegv() {
  const int running = segvRunning();
  if (running >= 5) _exit(nestedFaultExitStatus);
  if (running == 4) hostAbortProcess();
  if (running == recursion) {
    std::signal(SIGABRT, SIG_DFL);
    HostSignalSafePrint("TV signal handler: Recursive SEGV detected, attempting to dump core\n");
    hostAbortProcess();
  }
}

// Hands the signal to the handler that was there before, under the mask that it asked for. Returns
// false when there is none, or when the fault is this library's own.
bool chain(const SignalEvent& event) {
  if (event.signal == SIGABRT) return false;
  struct sigaction* previous = hostRememberedHandler(event.signal);
  if (previous == nullptr) return false;
  if (isHardwareSignal(event.signal) && hostIsInThisLibrary(hostProgramCounter(event.context))) {
    return false;
  }

  const struct sigaction action = *previous;
  sigset_t mask = action.sa_mask;
  if ((action.sa_flags & SA_NODEFER) == 0) sigaddset(&mask, event.signal);
  if ((action.sa_flags & static_cast<int>(SA_RESETHAND)) != 0) {
    previous->sa_handler = SIG_DFL;
  }
  sigset_t current;
  pthread_sigmask(SIG_SETMASK, &mask, &current);
  callHandler(action, event);
  pthread_sigmask(SIG_SETMASK, &current, nullptr);
  if (event.signal == SIGSEGV) segvDone();
  return true;
}

void callPreviousHandler(const SignalEvent& event) {
  const struct sigaction* previous = hostRememberedHandler(event.signal);
  if (previous != nullptr) callHandler(*previous, event);
}

void quietExit(int code, const SignalEvent& event) {
  delaySigExit = nullptr;
  hostFlushApplicationFiles();
  if (event.signal != SIGTERM) callPreviousHandler(event);
  UtlExit(code);
}

void coreExit(int explicitlyRequested, const SignalEvent& event) {
  delaySigExit = nullptr;
  callPreviousHandler(event);
  HostCoredump(explicitlyRequested);
  HostSignalSafePrint("\n");
  UtlExit(coreExitStatus);
}

void postpone(ExitFunction exitfunc, int code, const SignalEvent& event) {
  postponed.exitfunc = exitfunc;
  postponed.code = code;
  postponed.signal = event.signal;
  postponed.hasInfo = event.info != nullptr;
  postponed.hasContext = event.context != nullptr;
  if (postponed.hasInfo) postponed.info = *event.info;
  if (postponed.hasContext) {
    postponed.context = *event.context;
    postponed.context.uc_mcontext.fpregs = nullptr;  // lies in the frame that goes away
  }
  delaySigExit();
}

void terminate(const SignalEvent& event) {
  const bool isTerm = event.signal == SIGTERM;
  const char* text =
      isTerm ? "SIGTERM, Software Termination Signal" : "SIGXCPU, CPU time limit exceeded";
  if (!isTerm || event.info == nullptr || event.info->si_pid != getpid()) {
    hostSafePrint("\nTV Signal Handler: Signal %d, %s Received at %ld in thread %lu\n",
                  event.signal, text, hostHandlerTime(), pthread_self());
  }
  HostFatalErr = 1;
  if (delaySigExit == nullptr) {
    quietExit(0, event);
  } else {
    postpone(quietExit, 0, event);
  }
}

void reapChildren() {
  const ErrnoKeeper keepErrno;
  for (;;) {
    const pid_t child = waitpid(-1, nullptr, WNOHANG | WUNTRACED);
    if (child > 0) continue;
    if (child == 0 || errno == ECHILD) return;
    if (errno != EINTR && errno != ERESTART) break;
    if (HostGetSigTerm_() != 0) return;
  }
  hostSafePrint("handleChild: peculiar wait3 errno = %d\n", errno);
  UtlExit(childErrorExitStatus);
}

void printStacksOnRequest() {
  HostSignalSafePrint("\n\nSignal SIGUSR1 received printingStack ...");
  hostPrintStacks();
  HostSignalSafePrint("\n");
}

// The C library ran out of memory below us: there is none for a fork either, so no stack is
// printed.
[[noreturn]] void abortWithoutMemory() {
  std::signal(SIGABRT, SIG_DFL);
  hostPrintDebuggerBanner("HostFaultHandler");
  ErrMsgStrType text;
  hostErrnoMessage(ENOMEM, text);
  VerMessage(stdout, text);
  std::fflush(stdout);
  HostSignalSafePrint(
      "TV signal handler: cannot safely fork() to print the C stack due to ENOMEM error.\n");
  HostSignalSafePrint(
      "TV signal handler: this is a fault of the C library; look for its own fault report "
      "above.\n");
  hostAbortProcess();
}

void endByUnhandledSignal(const SignalEvent& event) {
  hostReportUnhandledSignal(event);
  if (event.info != nullptr && event.info->si_errno == ENOMEM) abortWithoutMemory();
  const int explicitlyRequested = event.signal == SIGQUIT;
  if (delaySigExit != nullptr && !endsAtOnce(event.signal)) {
    postpone(coreExit, explicitlyRequested, event);
  } else {
    coreExit(explicitlyRequested, event);
  }
}

}  // namespace

void HostFaultHandler(int sig, siginfo_t* info, void* context) {
  const ErrnoKeeper keepErrno;
  const bool validInfo = info != nullptr &&
                         reinterpret_cast<std::uintptr_t>(info) % alignof(siginfo_t) == 0 &&
                         info->si_signo == sig;
  const SignalEvent event{sig, validInfo ? info : nullptr, info, static_cast<ucontext_t*>(context)};

  if (sig == SIGTERM) {
    HostIncrementSigTerm();
    terminate(event);
    return;
  }
  if (isHardwareSignal(sig)) {
    reportSentSignal(event);
    if (resumeAfterGuardPage(event)) return;
    if (exitOnFault != 0) exitOnFaultNow(sig);
  }
  if (sig == SIGSEGV) countSegv();

  switch (sig) {
    case SIGHUP:
      chain(event);
      return;
    case SIGUSR1:
      printStacksOnRequest();
      chain(event);
      return;
    case SIGCHLD:
      reapChildren();
      return;
    case SIGXCPU:
      terminate(event);
      return;
    default:
      if (!chain(event)) endByUnhandledSignal(event);
      return;
  }
}

void hostCallUnlessRunning(HostFaultFuncType* callback, BoolType& running) {
  if (callback == nullptr || HostAsmSyncOr(&running, 1) != 0) return;
  callback();
  HostAsmSyncAnd(&running, 0);
}

void hostFlushApplicationFiles() {
  static BoolType flushing = 0;
  hostCallUnlessRunning(fileFlusherFct, flushing);
}

void hostAbortProcess() {
  std::signal(SIGABRT, SIG_DFL);
  std::abort();
}

void hostResetFaultSwitches() {
  exitOnFault = 0;
  exitOnGuardPageAccess = 0;
}

void HostExitOnFault() {
  exitOnFault = 1;
}

void HostExitOnGuardPageAccess() {
  exitOnGuardPageAccess = 1;
}

void HostCheckShrMemOnFatalSignal(void* address, HostShrMemFuncType function) {
  shrMemAddr = address;
  shrMemFunc = function;
}

void HostDelaySigExit(HostSigExitHandlerType postponeExit, HostSigExitHandlerType complete) {
  delaySigExit = postponeExit;
  completeSigExit = complete;
}

void HostDoSigExit() {
  if (postponed.exitfunc != nullptr) {
    siginfo_t* info = postponed.hasInfo ? &postponed.info : nullptr;
    const SignalEvent event{postponed.signal, info, info,
                            postponed.hasContext ? &postponed.context : nullptr};
    postponed.exitfunc(postponed.code, event);
  }
  if (completeSigExit != nullptr) completeSigExit();
}

void HostSetFatalErr(BoolType fatal) {
  HostFatalErr = fatal;
}

BoolType HostGetFatalErr() {
  return HostFatalErr;
}
