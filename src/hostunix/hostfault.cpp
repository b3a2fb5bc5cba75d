// The fault handler: what becomes of each signal that reaches it.
//
// Signal-safe until the process ends, which is hostfaultexit.cpp's. May call _exit, gettid, poll,
// sched_yield, signal and the atomic primitives, prints with hostSafePrint, and uses what
// internal.h marks as signal-safe. utlGuaranteeFailed is an end as well, unless `noHalt` is set.
#include <povzel/hostfault.h>

#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include <povzel/atomics.h>
#include <povzel/hostdebug.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsigterm.h>
#include "internal.h"

long segvInProgressCount = 0;

namespace {

constexpr int recursion = 3;  // that many SIGSEGVs at once are taken for one
constexpr int nestedFaultExitStatus = 2;

// A fault signal, illegal instruction or abort that was not raised by the hardware: nobody can say
// what it means, so it counts as a broken guarantee.
void reportSentSignal(const SignalEvent& event) {
  if (event.info != nullptr && !event.wasSent()) return;
  if (noHalt == 0) hostBeginFatalEnd(event);
  if (event.info == nullptr) {
    hostSafePrint(
        "TV signal handler: signal %d (%s), received with incomplete or invalid args.  "
        "Additional info not available.\n",
        event.signal, hostSignalName(event.signal));
  } else {
    hostSafePrint(
        "TV signal handler: signal %d (%s), received from process %d userId %d\n"
        "  si_code: %d, %s\n",
        event.signal, hostSignalName(event.signal), event.info->si_pid,
        static_cast<int>(event.info->si_uid), event.info->si_code, hostSiCodeText(event.info));
    hostObeyExitOnFault(event.signal);
  }
  const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
  utlGuaranteeFailed("src/hostunix", __LINE__);
}

// Returns true when the fault was an access to a guarded page that is accessible now. One that was
// sent, and one that the processor raises for an address that it does not tell, is none.
bool resumeAfterGuardPage(const SignalEvent& event) {
  if (event.signal != SIGSEGV || event.info == nullptr) return false;
  if (event.wasSent() || event.info->si_code == SI_KERNEL) return false;
  auto* address = static_cast<char*>(event.info->si_addr);
  if (!hostHandleGuardPageAccess(address)) {
    return event.info->si_code == SEGV_ACCERR && hostPageWasOpened(address);
  }
  hostObeyExitOnGuardPageAccess(address);
  hostSafePrint(
      "\n[Debug]: Tarvolin ignored signal SIGSEGV caused by attempted guard page access at "
      "address %p.  time=%ld\n",
      static_cast<void*>(address), hostHandlerTime());
  return true;
}

// The threads whose SIGSEGV handlers are counted, one place a handler; 0 is a free one. More than
// are ever counted: the fifth ends the process. A thread_local would ask the loader for room that
// the static block of a process with many libraries no longer has.
int segvThreads[8];

// Puts `with` into the first place that holds `what`, if one does.
void replaceSegvThread(int what, int with) {
  for (int& place : segvThreads) {
    int held = what;
    if (__atomic_compare_exchange_n(&place, &held, with, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED)) {
      return;
    }
  }
}

bool handlesSegv(int thread) {
  for (const int& place : segvThreads) {
    if (__atomic_load_n(&place, __ATOMIC_RELAXED) == thread) return true;
  }
  return false;
}

// Counts a SIGSEGV and returns how many are being handled. What would look like recursion is often
// no more than several threads of a Java VM at their null checks, each done in microseconds: a
// thread that has no handler running yet waits a while for the others.
int segvRunning() {
  constexpr int yields = 100;
  constexpr int naps = 1000;
  constexpr int millisecond = 1;
  auto* count = reinterpret_cast<int*>(&segvInProgressCount);
  const int thread = gettid();
  const bool nested = handlesSegv(thread);
  for (int waits = 0;; ++waits) {
    const int running = HostAsmSyncCtrAdd(count, 1) + 1;
    if (running < recursion || nested || waits == yields + naps) {
      replaceSegvThread(0, thread);
      return running;
    }
    HostAsmSyncCtrAdd(count, -1);
    if (waits < yields) {
      sched_yield();
    } else {
      poll(nullptr, 0, millisecond);
    }
  }
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

void uncountSegv() {
  replaceSegvThread(gettid(), 0);
  HostAsmSyncCtrAdd(reinterpret_cast<int*>(&segvInProgressCount), -1);
}

void printStacksOnRequest() {
  HostSignalSafePrint("\n\nSignal SIGUSR1 received printingStack ...");
  hostPrintStacks();
  HostSignalSafePrint("\n");
}

void chainOrEnd(const SignalEvent& event) {
  if (!hostChain(event)) hostEndByUnhandledSignal(event);
}

}  // namespace

void HostFaultHandler(int sig, siginfo_t* info, void* context) {
  const ErrnoKeeper keepErrno;
  const bool validInfo = info != nullptr &&
                         reinterpret_cast<std::uintptr_t>(info) % alignof(siginfo_t) == 0 &&
                         info->si_signo == sig;
  const SignalEvent event{sig, validInfo ? info : nullptr, info, static_cast<ucontext_t*>(context)};

  if (event.isHardwareSignal()) {
    if (event.wasSent() && info->si_pid != getpid() && hostExitGoesOnElsewhere()) return;
    reportSentSignal(event);
    if (resumeAfterGuardPage(event)) return;
    hostObeyExitOnFault(sig);
  }
  switch (sig) {
    case SIGTERM:
      HostIncrementSigTerm();
      hostTerminate(event);
      return;
    case SIGXCPU:
      hostTerminate(event);
      return;
    case SIGCHLD:
      hostReapChildren();
      return;
    case SIGHUP:
      hostChain(event);
      return;
    case SIGUSR1:
      printStacksOnRequest();
      hostChain(event);
      return;
    case SIGSEGV:
      countSegv();
      chainOrEnd(event);
      uncountSegv();
      return;
    default:
      chainOrEnd(event);
      return;
  }
}
