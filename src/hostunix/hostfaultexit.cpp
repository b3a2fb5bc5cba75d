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
std::atomic<pid_t> reportingThreads[8];  // by ReportsInHandler
std::atomic<pid_t> reportedProcess{0};   // has had a report

// How the end began, and whether a fault of its own came on top.
struct End {
  int status = 0;
  bool interruptsCLibrary = false;
  bool again = false;
};
End end;

constexpr int faultExitStatus = 1;
constexpr int coreExitStatus = utlFatalStatus;
constexpr int childErrorExitStatus = 4;

// The core exit of these is never postponed: the program cannot go on.
bool endsAtOnce(const SignalEvent& event) {
  return event.isHardwareSignal() || event.signal == SIGTRAP || event.signal == SIGFPE;
}

bool isFirstReport() {
  const pid_t process = getpid();
  return reportedProcess.exchange(process) != process;
}

// What the application does is its own: an abort in there is reported like any other.
class ApplicationRuns {
 public:
  ApplicationRuns() : ending_(endingThread == gettid() ? endingThread.exchange(0) : 0) {}
  ~ApplicationRuns() {
    if (ending_ != 0) endingThread = ending_;
  }
  ApplicationRuns(const ApplicationRuns&) = delete;
  ApplicationRuns& operator=(const ApplicationRuns&) = delete;

 private:
  const SignalMask faultsReachUs_{SIG_UNBLOCK, unixIoFaultSignals()};
  const pid_t ending_;
};

// The earlier handler may leave for good by siglongjmp, and the program goes on: what this end has
// taken is given up for the call. Meanwhile another thread may end the process.
void callEarlierHandler(const SignalEvent& event, int status, CancellationWaits& untilTheEnd) {
  if (!hostHasEarlierHandler(event)) return;
  const ApplicationRuns applicationRuns;
  if (end.again) return hostCallEarlierHandler(event);
  const End thisEnd = end;
  reportedProcess = 0;
  utlReleaseExit();
  hostDisarmBackstop(gettid());
  untilTheEnd.restore();
  hostCallEarlierHandler(event);
  untilTheEnd.begin();
  if (!utlClaimExit()) utlAwaitExit(status);
  end = thisEnd;
  hostArmBackstop(status);
}

// By the C library, which aborts where it finds its heap broken, or by the program.
bool isOwnAbort(const SignalEvent& event) {
  return event.signal == SIGABRT && event.wasSent() && event.info->si_pid == getpid();
}

void quietExit(int code, const SignalEvent& event) {
  CancellationWaits untilTheEnd;
  if (!utlClaimExit()) utlAwaitExit(code);
  delaySigExit = nullptr;
  hostArmBackstop(code);
  hostFlushApplicationFiles();
  if (event.signal != SIGTERM) callEarlierHandler(event, code, untilTheEnd);
  UtlExit(code);
}

void coreExit(int explicitlyRequested, const SignalEvent& event) {
  CancellationWaits untilTheEnd;
  if (!utlClaimExit()) utlAwaitExit();
  delaySigExit = nullptr;
  hostArmBackstop(coreExitStatus);
  callEarlierHandler(event, coreExitStatus, untilTheEnd);
  HostCoredump(explicitlyRequested);
  endingThread = 0;
  HostSignalSafePrint("\n");
  UtlExit(coreExitStatus);
}

// Holds the record, with all signals blocked.
class PostponedAccess {
 public:
  PostponedAccess() {
    while (postponedTaken.test_and_set()) sched_yield();
  }
  ~PostponedAccess() { postponedTaken.clear(); }
  PostponedAccess(const PostponedAccess&) = delete;
  PostponedAccess& operator=(const PostponedAccess&) = delete;

 private:
  const SignalMask mask_{SIG_BLOCK, unixIoAllSignalsBut()};
};

void keepPostponed(ExitFunction exitfunc, int code, const SignalEvent& event) {
  const PostponedAccess access;
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
}

[[gnu::noinline]] void postpone(HostSigExitHandlerType postponeExit, ExitFunction exitfunc,
                                int code, const SignalEvent& event) {
  keepPostponed(exitfunc, code, event);
  const ApplicationRuns applicationRuns;
  postponeExit();
}

// Returns false if the calling thread is in the callback already.
bool beginCallback(UtlClaim& running) {
  if (running.isMine()) return false;
  while (!running.take()) {
    const pid_t runner = running.owner();
    if (runner == 0) continue;
    const BackstopMoved moved(runner);
    running.await(runner);
  }
  return true;
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

void hostCallUnlessRunning(HostFaultFuncType* callback, UtlClaim& running) {
  if (callback == nullptr || !beginCallback(running)) return;
  {
    const ApplicationRuns applicationRuns;
    callback();
  }
  running.giveUp();
}

void hostSetApplicationCallbacks(HostFaultFuncType* flushFiles, HostFaultFuncType* shutDown) {
  fileFlusherFct = flushFiles;
  shutdownFct = shutDown;
}

void hostFlushApplicationFiles() {
  static constinit UtlClaim flushing;
  hostCallUnlessRunning(fileFlusherFct, flushing);
}

void hostShutDownApplication() {
  if (shutdownFct == nullptr) return;
  const ApplicationRuns applicationRuns;
  shutdownFct();
}

void HostCheckShrMemOnFatalSignal(void* address, HostShrMemFuncType function) {
  shrMemAddr = address;
  shrMemFunc = function;
}

// Ends

bool hostEndsInHandler() {
  const pid_t self = gettid();
  if (endingThread == self) return true;
  for (const auto& thread : reportingThreads) {
    if (thread == self) return true;
  }
  return false;
}

ReportsInHandler::ReportsInHandler() {
  for (auto& thread : reportingThreads) {
    pid_t nobody = 0;
    if (!thread.compare_exchange_strong(nobody, gettid())) continue;
    place_ = &thread;
    return;
  }
}

ReportsInHandler::~ReportsInHandler() {
  if (place_ != nullptr) *place_ = 0;
}

bool hostExitGoesOnElsewhere() {
  const pid_t owner = utlExitOwner();
  return owner != 0 && owner != gettid();
}

void hostBeginFatalEnd(const SignalEvent& event, HostReport report) {
  // What this end itself does is beyond repair: a report would only abort again.
  if (event.signal == SIGABRT && endingThread == gettid()) hostAbortProcess();
  const bool again = utlExitOwner() == gettid();
  const bool isOurs = utlClaimExit();
  const bool reports = isFirstReport() || (again && isOurs);
  if (!isOurs) {
    hostWatchExitAwaited(utlExitOwner(), coreExitStatus);
    if (reports) report(event);
    utlAwaitExit(coreExitStatus);
  }
  if (again && isOurs) {
    end.again = true;
    // It was an exit up to now, or began with a signal that left the heap whole.
    if (!isOwnAbort(event) && hostIsInCLibrary(event)) {
      end.status = coreExitStatus;
      end.interruptsCLibrary = true;
    }
  } else {
    end = {coreExitStatus, hostIsInCLibrary(event)};
  }
  endingThread = gettid();
  hostArmBackstop(coreExitStatus);
  if (isOurs && reports) report(event);
}

void hostReportDuringExit(const SignalEvent& event, HostReport report) {
  const pid_t owner = utlExitOwner();
  if (owner != 0) hostWatchExit(owner, utlExitStatus());
  if (isFirstReport()) report(event);
}

void hostEndInBrokenHeap(const SignalEvent& event) {
  if (end.again && end.interruptsCLibrary && isOwnAbort(event)) _exit(end.status);
}

void hostTerminate(const SignalEvent& event) {
  const bool isTerm = event.signal == SIGTERM;
  const HostSigExitHandlerType postponeExit = delaySigExit;
  const pid_t owner = utlExitOwner();
  const bool isOurs = owner == 0 && postponeExit == nullptr && utlClaimExit();
  // Before anything is printed, which may hang as well.
  if (owner != 0) hostWatchExit(owner, utlExitStatus());
  if (isOurs) hostArmBackstop(0);
  const char* text =
      isTerm ? "SIGTERM, Software Termination Signal" : "SIGXCPU, CPU time limit exceeded";
  if (!isTerm || event.info == nullptr || event.info->si_pid != getpid()) {
    hostSafePrint("\nTV Signal Handler: Signal %d, %s Received at %ld in thread %lu\n",
                  event.signal, text, hostHandlerTime(), pthread_self());
  }
  HostFatalErr = 1;
  if (owner != 0) return;
  if (postponeExit != nullptr) {
    postpone(postponeExit, quietExit, 0, event);
  } else if (isOurs) {
    end = {0, hostIsInCLibrary(event)};
    quietExit(0, event);
  }
}

void hostEndByUnhandledSignal(const SignalEvent& event) {
  const bool atOnce = endsAtOnce(event);
  const HostSigExitHandlerType postponeExit = atOnce ? nullptr : delaySigExit.load();
  if (!atOnce && hostExitGoesOnElsewhere()) {
    return hostReportDuringExit(event, hostReportUnhandledSignal);
  }
  if (postponeExit == nullptr) {
    hostBeginFatalEnd(event, hostReportUnhandledSignal);
  } else {
    hostReportUnhandledSignal(event);
  }
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
  if (!utlClaimExit()) utlAwaitExit(childErrorExitStatus);
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
  PostponedExit exit;
  {
    const PostponedAccess access;
    exit = postponed;
  }
  end = {.again = utlExitOwner() == gettid()};
  if (exit.exitfunc != nullptr) {
    siginfo_t* info = exit.hasInfo ? &exit.info : nullptr;
    const SignalEvent event{exit.signal, info, info, exit.hasContext ? &exit.context : nullptr};
    exit.exitfunc(exit.code, event);
  }
  const HostSigExitHandlerType complete = completeSigExit;
  if (complete != nullptr) complete();
}
