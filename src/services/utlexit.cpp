#include <povzel/utlexit.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
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

// A thread of a process: after a fork the child's are others than its parent's.
struct alignas(8) ExitOwner {
  pid_t process;
  pid_t thread;
};
std::atomic<ExitOwner> exitOwner{};
static_assert(std::atomic<ExitOwner>::is_always_lock_free);
std::atomic<int> claimedStatus{utlFatalStatus};

// On the owner's thread, which is the second word of the record.
long futex(int operation, int value) {
  return syscall(SYS_futex, reinterpret_cast<int*>(&exitOwner) + 1, operation, value, nullptr,
                 nullptr, FUTEX_BITSET_MATCH_ANY);
}

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
  const ExitOwner self{getpid(), gettid()};
  ExitOwner owner = exitOwner.load();
  while (owner.process != self.process) {
    if (!exitOwner.compare_exchange_weak(owner, self)) continue;
    claimedStatus = utlFatalStatus;
    return true;
  }
  return owner.thread == self.thread;
}

void utlReleaseExit() {
  exitOwner = ExitOwner{};
  futex(FUTEX_WAKE_PRIVATE, INT_MAX);
}

bool utlExitIsClaimed() {
  return utlExitOwner() != 0;
}

pid_t utlExitOwner() {
  const ExitOwner owner = exitOwner;
  return owner.process == getpid() ? owner.thread : 0;
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
    futex(FUTEX_WAIT_BITSET_PRIVATE, owner);
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
