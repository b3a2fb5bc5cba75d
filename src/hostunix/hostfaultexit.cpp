// The ends of a process by a signal, and the application's part in them: its switches, its
// callbacks, and the exits that it chooses to postpone.
//
// Runs in the fault handler. The switches, hostAbortProcess and the texts are signal-safe: they
// call _exit, abort, getpid, pthread_self, signal and hostSafePrint. The ends themselves are not:
// the callbacks and the earlier handlers do what they please, UtlExit runs the exit handlers and
// flushes the streams, HostCoredump and the boxes use the catalogue, its lock and the streams. The
// process is lost by then. A callback that fails on the way is not called again, and a fault
// ends it for good (HostCoredump's attempts, the handler's count of faults).
#include <povzel/hostfault.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <povzel/atomics.h>
#include <povzel/errmsg.h>
#include <povzel/hostcore.h>
#include <povzel/hostsafeprint.h>
#include <povzel/utlexit.h>
#include <povzel/vermsg.h>
#include "internal.h"

namespace {

using ExitFunction = void (*)(int code, const SignalEvent& event);

BoolType HostFatalErr = 0;
BoolType exitOnFault = 0;
BoolType exitOnGuardPageAccess = 0;

HostFaultFuncType* fileFlusherFct = nullptr;
HostFaultFuncType* shutdownFct = nullptr;
HostSigExitHandlerType delaySigExit = nullptr;
HostSigExitHandlerType completeSigExit = nullptr;

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

std::atomic<pid_t> endingThread{0};

constexpr int faultExitStatus = 1;
constexpr int coreExitStatus = 3;
constexpr int childErrorExitStatus = 4;

// The core exit of these is never postponed: the program cannot go on.
bool endsAtOnce(const SignalEvent& event) {
  return event.isHardwareSignal() || event.signal == SIGTRAP || event.signal == SIGFPE;
}

void quietExit(int code, const SignalEvent& event) {
  delaySigExit = nullptr;
  hostFlushApplicationFiles();
  if (event.signal != SIGTERM) hostCallEarlierHandler(event);
  UtlExit(code);
}

void coreExit(int explicitlyRequested, const SignalEvent& event) {
  delaySigExit = nullptr;
  hostCallEarlierHandler(event);
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
  if (shutdownFct != nullptr) shutdownFct();
}

void HostCheckShrMemOnFatalSignal(void* address, HostShrMemFuncType function) {
  shrMemAddr = address;
  shrMemFunc = function;
}

// Ends

bool hostEndsInHandler() {
  return endingThread.load() == gettid();
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
  if (delaySigExit == nullptr) {
    quietExit(0, event);
  } else {
    postpone(quietExit, 0, event);
  }
}

void hostEndByUnhandledSignal(const SignalEvent& event) {
  endingThread = gettid();
  hostReportUnhandledSignal(event);
  if (event.info != nullptr && event.info->si_errno == ENOMEM) abortWithoutMemory();
  const int explicitlyRequested = event.signal == SIGQUIT;
  if (delaySigExit != nullptr && !endsAtOnce(event)) {
    postpone(coreExit, explicitlyRequested, event);
  } else {
    coreExit(explicitlyRequested, event);
  }
}

void hostEndUnableToReap(int error) {
  hostSafePrint("handleChild: peculiar wait3 errno = %d\n", error);
  UtlExit(childErrorExitStatus);
}

void hostAbortProcess() {
  std::signal(SIGABRT, SIG_DFL);
  std::abort();
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
