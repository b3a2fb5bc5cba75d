#include <povzel/utlexit.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <povzel/hostdebug.h>
#include <povzel/hostfiles.h>
#include <povzel/hostprocess.h>
#include <povzel/service.h>
#include <povzel/utlbits.h>
#include <povzel/utlchecksum.h>
#include <povzel/utlheap.h>
#include "hostunix/internal.h"
#include "internal.h"
#include "system/internal.h"

namespace {

UtlClaim exitClaim;
std::atomic<int> claimedStatus{utlFatalStatus};

// Claims the exit, or waits until it is this thread's.
void claimExit(int status) {
  if (!utlClaimExit()) utlAwaitExit(utlExitStatus());
  claimedStatus = status;
}

// Filled from the last slot downward, so that running upward runs the latest first.
ExitFuncType* RegisteredExitFuncPtrs[UtlMaxExitHandlers];
constexpr auto listEnd = RegisteredExitFuncPtrs + UtlMaxExitHandlers;

// The most recently filled slot; listEnd when the list is empty; null while and after the
// handlers run.
std::atomic<ExitFuncType**> NextRegisteredExitFuncPtr{nullptr};

int UtlExitStatus = 0;
BoolType removeLogOnExit = 0;

constexpr unsigned long bitTableChecksum = 0xEC24D357;

bool endsIn(const char* text, const char* ending) {
  const std::size_t length = std::strlen(text);
  const std::size_t endingLength = std::strlen(ending);
  return length >= endingLength && std::strcmp(text + length - endingLength, ending) == 0;
}

void removeChildLog() {
  char* log = HostGetChildLogPtr();
  if (log == nullptr || log[0] == '\0' || endsIn(log, ".klog")) return;
  std::fflush(stdout);
  std::fflush(stderr);
  HostErrSType ignored;
  HostRemoveSingleFile(log, 1, &ignored);
  log[0] = '\0';
}

// What leaves a handler by an exception or the end of its thread would leave the exit undone.
[[gnu::noinline]] void run(ExitFuncType* handler) noexcept {
  handler();
}

}  // namespace

bool utlClaimExit() {
  if (exitClaim.isMine()) return true;
  if (!exitClaim.take()) return false;
  claimedStatus = utlFatalStatus;
  return true;
}

void utlReleaseExit() {
  exitClaim.giveUp();
}

pid_t utlExitOwner() {
  return exitClaim.owner();
}

int utlExitStatus() {
  return claimedStatus;
}

void utlAwaitExit(int status) {
  const ErrnoKeeper keeper;
  const SignalMask mask(SIG_BLOCK, unixIoAllSignalsBut());
  while (!utlClaimExit()) {
    const pid_t owner = utlExitOwner();
    if (owner == 0) continue;
    hostWatchExitAwaited(owner, status);
    if (utlExitOwner() != owner) hostDisarmBackstop(owner);  // which has given it up meanwhile
    exitClaim.await(owner);
  }
}

void UtlInit() {
  NextRegisteredExitFuncPtr = listEnd;
  UtlExitStatus = 0;
  if (UtlChecksum(reinterpret_cast<const unsigned char*>(ffstable.data()), ffstable.size()) !=
      bitTableChecksum) {
    HostCallDebuggerMsg("bad result UtlChecksum(ffstable)");
  }
}

int UtlAtExit(ExitFuncType* handler) {
  ExitFuncType** const last = NextRegisteredExitFuncPtr;
  if (last == nullptr || last == RegisteredExitFuncPtrs) return 1;
  *(last - 1) = handler;
  NextRegisteredExitFuncPtr = last - 1;
  return 0;
}

void UtlRunExitHandlers() {
  ExitFuncType** slot = NextRegisteredExitFuncPtr.exchange(nullptr);
  if (slot == nullptr) return;
  for (; slot < listEnd; ++slot) {
    ExitFuncType* handler = *slot;
    *slot = nullptr;
    if (handler != nullptr) run(handler);
  }
}

void UtlRemoveLogOnExit(BoolType removeIt) {
  removeLogOnExit = removeIt;
}

void UtlExit(int status) {
  const CancellationWaits untilTheEnd;
  claimExit(status);
  // An exit from a handler leaves them blocked, and what the exit handlers do would go unreported.
  const sigset_t faults = unixIoFaultSignals();
  pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
  UtlExitStatus = status;
  if (ServiceIsService()) ServiceStopped(status == 0);
  UtlRunExitHandlers();
  if (removeLogOnExit != 0 && UtlExitStatus == 0) removeChildLog();
  std::exit(status);
}

void UtlExitMt(int status) {
  const CancellationWaits untilTheEnd;
  claimExit(status);
  UtlHeapCheck();
  std::fflush(stdout);
  std::fflush(stderr);
  std::exit(status);
}
