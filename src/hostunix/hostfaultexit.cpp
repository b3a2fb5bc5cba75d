// The ends of a process by a signal, and the application's part in them: its switches, its
// callbacks, and the exits that it chooses to postpone.
//
// Runs in the fault handler. The switches, hostBeginFatalEnd, hostAbortProcess and the texts are
// signal-safe: they call _exit, getpid, gettid, pthread_self, raise, signal and hostSafePrint. The
// ends themselves are not: the callbacks and the earlier handlers do what they please, UtlExit runs
// the exit handlers and flushes the streams. The process is lost by then. One thread carries the
// end out (utlexit.cpp). What the application does on the way has its faults reported like any
// other, and what waits for a lock that was interrupted is cut off (hostbackstop.cpp).
#include <povzel/hostfault.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include <povzel/atomics.h>
#include <povzel/errmsg.h>
#include <povzel/hostcore.h>
#include <povzel/hostsafeprint.h>
#include <povzel/utlexit.h>
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

namespace {

using ExitFunction = void (*)(int code, const SignalEvent& event);

BoolType HostFatalErr = 0;
BoolType exitOnFault = 0;
BoolType exitOnGuardPageAccess = 0;

HostFaultFuncType* fileFlusherFct = nullptr;
HostFaultFuncType* shutdownFct = nullptr;
std::atomic<HostSigExitHandlerType> delaySigExit{nullptr};
std::atomic<HostSigExitHandlerType> completeSigExit{nullptr};

void* shrMemAddr = nullptr;
HostShrMemFuncType shrMemFunc = nullptr;

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
std::atomic_flag postponedTaken;  // by who fills or reads it

std::atomic<pid_t> endingThread{0};

// How the end began, and whether a fault of its own came on top.
int firstEndStatus = 0;
bool interruptsCLibrary = false;
bool endsAgain = false;

constexpr int faultExitStatus = 1;
constexpr int coreExitStatus = 3;
constexpr int childErrorExitStatus = 4;

// The core exit of these is never postponed: the program cannot go on.
bool endsAtOnce(const SignalEvent& event) {
  return event.isHardwareSignal() || event.signal == SIGTRAP || event.signal == SIGFPE;
}

void noteEnd(int status, const SignalEvent& event) {
  firstEndStatus = status;
  interruptsCLibrary = hostIsInCLibrary(event);
}

// By the C library, which aborts where it finds its heap broken, or by the program.
bool isOwnAbort(const SignalEvent& event) {
  return event.signal == SIGABRT && event.wasSent() && event.info->si_pid == getpid();
}

void quietExit(int code, const SignalEvent& event) {
  if (!utlClaimExit()) utlAwaitExit();
  delaySigExit = nullptr;
  hostArmBackstop(code);
  hostFlushApplicationFiles();
  if (event.signal != SIGTERM) hostCallEarlierHandler(event);
  UtlExit(code);
}

void coreExit(int explicitlyRequested, const SignalEvent& event) {
  if (!utlClaimExit()) utlAwaitExit();
  delaySigExit = nullptr;
  hostArmBackstop(coreExitStatus);
  const pid_t inHandler = endingThread.exchange(0);  // what that handler does is its own
  hostCallEarlierHandler(event);
  endingThread = inHandler;
  HostCoredump(explicitlyRequested);
  endingThread = 0;
  HostSignalSafePrint("\n");
  UtlExit(coreExitStatus);
}

// Of threads that postpone an exit at the same time one fills the record, and all tell the
// application.
void postpone(HostSigExitHandlerType postponeExit, ExitFunction exitfunc, int code,
              const SignalEvent& event) {
  if (!postponedTaken.test_and_set()) {
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
    postponedTaken.clear();
  }
  const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
  postponeExit();
}

// The C library ran out of memory below us: there is none for a fork either, so no stack is
// printed.
[[noreturn]] void abortWithoutMemory() {
  std::signal(SIGABRT, SIG_DFL);
  hostPrintDebuggerBanner("HostFaultHandler");
  ErrMsgStrType text;
  hostErrnoMessage(ENOMEM, text);
  verSafeMessage(STDOUT_FILENO, text);
  HostSignalSafePrint(
      "TV signal handler: cannot safely fork() to print the C stack due to ENOMEM error.\n");
  HostSignalSafePrint(
      "TV signal handler: this is a fault of the C library; look for its own fault report "
      "above.\n");
  hostAbortProcess();
}

}  // namespace

// Switches

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

void hostObeyExitOnFault(int signal) {
  if (exitOnFault == 0) return;
  hostSafePrint("\n*** Received signal %d (%s) at %ld ***.\n%s\n", signal, hostSignalName(signal),
                hostHandlerTime(), "Goodbye.");
  _exit(faultExitStatus);
}

void hostObeyExitOnGuardPageAccess(const void* address) {
  if (exitOnGuardPageAccess == 0) return;
  hostSafePrint(
      "\n*** Tarvolin detected a SIGSEGV caused by an attempt to access guard page address %p.  "
      "time=%ld ***.\n%s\n",
      address, hostHandlerTime(), "Goodbye.");
  _exit(faultExitStatus);
}

void HostSetFatalErr(BoolType fatal) {
  HostFatalErr = fatal;
}

BoolType HostGetFatalErr() {
  return HostFatalErr;
}

// Callbacks

void hostCallUnlessRunning(HostFaultFuncType* callback, BoolType& running) {
  if (callback == nullptr || HostAsmSyncOr(&running, 1) != 0) return;
  const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
  callback();
  HostAsmSyncAnd(&running, 0);
}

void hostSetApplicationCallbacks(HostFaultFuncType* flushFiles, HostFaultFuncType* shutDown) {
  fileFlusherFct = flushFiles;
  shutdownFct = shutDown;
}

void hostFlushApplicationFiles() {
  static BoolType flushing = 0;
  hostCallUnlessRunning(fileFlusherFct, flushing);
}

void hostShutDownApplication() {
  if (shutdownFct == nullptr) return;
  const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
  shutdownFct();
}

void HostCheckShrMemOnFatalSignal(void* address, HostShrMemFuncType function) {
  shrMemAddr = address;
  shrMemFunc = function;
}

// Ends

bool hostEndsInHandler() {
  return endingThread.load() == gettid();
}

bool hostExitGoesOnElsewhere() {
  return utlExitIsClaimed() && !utlClaimExit();
}

void hostBeginFatalEnd(const SignalEvent& event) {
  // What this end itself does is beyond repair: a report would only abort again.
  if (event.signal == SIGABRT && hostEndsInHandler()) hostAbortProcess();
  endsAgain = utlExitIsClaimed();
  if (!utlClaimExit()) utlAwaitExit();
  if (!endsAgain) noteEnd(coreExitStatus, event);
  endingThread = gettid();
  hostArmBackstop(coreExitStatus);
}

void hostEndInBrokenHeap(const SignalEvent& event) {
  if (!endsAgain || !interruptsCLibrary) return;
  if (isOwnAbort(event) || hostIsInCLibrary(event)) _exit(firstEndStatus);
}

void hostTerminate(const SignalEvent& event) {
  const bool isTerm = event.signal == SIGTERM;
  const char* text =
      isTerm ? "SIGTERM, Software Termination Signal" : "SIGXCPU, CPU time limit exceeded";
  if (!isTerm || event.info == nullptr || event.info->si_pid != getpid()) {
    hostSafePrint("\nTV Signal Handler: Signal %d, %s Received at %ld in thread %lu\n",
                  event.signal, text, hostHandlerTime(), pthread_self());
  }
  HostFatalErr = 1;
  if (utlExitIsClaimed()) return;
  const HostSigExitHandlerType postponeExit = delaySigExit;
  if (postponeExit != nullptr) {
    postpone(postponeExit, quietExit, 0, event);
  } else if (utlClaimExit()) {
    noteEnd(0, event);
    quietExit(0, event);
  }
}

void hostEndByUnhandledSignal(const SignalEvent& event) {
  const bool atOnce = endsAtOnce(event);
  const HostSigExitHandlerType postponeExit = atOnce ? nullptr : delaySigExit.load();
  if (!atOnce && hostExitGoesOnElsewhere()) return;
  if (postponeExit == nullptr) hostBeginFatalEnd(event);
  hostReportUnhandledSignal(event);
  hostEndInBrokenHeap(event);
  if (event.info != nullptr && event.info->si_errno == ENOMEM) abortWithoutMemory();
  const int explicitlyRequested = event.signal == SIGQUIT;
  if (postponeExit != nullptr) {
    postpone(postponeExit, coreExit, explicitlyRequested, event);
  } else {
    coreExit(explicitlyRequested, event);
  }
}

void hostEndUnableToReap(int error) {
  hostSafePrint("handleChild: peculiar wait3 errno = %d\n", error);
  if (!utlClaimExit()) utlAwaitExit();
  hostArmBackstop(childErrorExitStatus);
  UtlExit(childErrorExitStatus);
}

// Not by abort, whose lock another thread may hold.
void hostAbortProcess() {
  std::signal(SIGABRT, SIG_DFL);
  const SignalMask abortReachesUs(SIG_UNBLOCK, unixIoSignals(SIGABRT));
  raise(SIGABRT);
  _exit(coreExitStatus);
}

void HostDelaySigExit(HostSigExitHandlerType postponeExit, HostSigExitHandlerType complete) {
  completeSigExit = complete;
  delaySigExit = postponeExit;
}

void HostDoSigExit() {
  while (postponedTaken.test_and_set()) sched_yield();
  PostponedExit exit = postponed;
  postponedTaken.clear();
  if (exit.exitfunc != nullptr) {
    siginfo_t* info = exit.hasInfo ? &exit.info : nullptr;
    const SignalEvent event{exit.signal, info, info, exit.hasContext ? &exit.context : nullptr};
    exit.exitfunc(exit.code, event);
  }
  const HostSigExitHandlerType complete = completeSigExit;
  if (complete != nullptr) complete();
}
