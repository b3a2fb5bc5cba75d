// The fault handler: what becomes of each signal that reaches it.
//
// Signal-safe until the process ends, which is hostfaultexit.cpp's. May call _exit, getpid,
// gettid, pthread_self, signal and the atomic primitives, prints with hostSafePrint, and
// uses what internal.h marks as signal-safe. utlGuaranteeFailed is an end as well, unless `noHalt`
// is set.
#include <povzel/hostfault.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <povzel/atomics.h>
#include <povzel/hostdebug.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsigterm.h>
#include "internal.h"

long segvInProgressCount = 0;

namespace {

constexpr int recursion = 3;  // that many SIGSEGVs of a thread, each inside the one before
constexpr int nestedFaultExitStatus = 2;

void printSentSignal(const SignalEvent& event) {
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
  }
}

// A fault signal, illegal instruction or abort that was not raised by the hardware: nobody can say
// what it means, so it counts as a broken guarantee.
void reportSentSignal(const SignalEvent& event) {
  if (event.info != nullptr && !event.wasSent()) return;
  if (noHalt == 0) {
    hostBeginFatalEnd(event, printSentSignal);
  } else {
    printSentSignal(event);
  }
  if (event.info != nullptr) {
    hostObeyExitOnFault(event.signal);
    hostEndInBrokenHeap(event);
  }
  const ReportsInHandler withoutLocks;
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

// A handler at work on a signal that may be handed on. Its thread alone reads more than `thread`. A
// thread_local would allocate where a thread first uses it.
struct RunningHandler {
  std::atomic<pid_t> thread;  // 0: the place is free
  pthread_t self;             // differs in another thread that got the same number later
  std::uintptr_t frame;
  int signal;
  const siginfo_t* info;
  const unsigned* serialInFrame;  // holds `serial` as long as the frame is there
  unsigned serial;
  std::uint64_t formerMask;  // of what it has interrupted
  bool onSignalStack;
  bool blocksSignal;  // while the earlier handler runs
};
std::atomic<unsigned> lastSerial = 0;
RunningHandler runningHandlers[64];

// The library's share of segvInProgressCount in the low half, and how often it has changed in the
// high one. It is raised before that count and lowered after it, so that what the count exceeds it
// by is never less than others have added.
alignas(8) std::atomic<std::uint64_t> ownSegvs = 0;
constexpr std::uint64_t segvChange = std::uint64_t{1} << 32;

int* segvCount() {
  return reinterpret_cast<int*>(&segvInProgressCount);
}

void addSegv() {
  ownSegvs += segvChange + 1;
  HostAsmSyncCtrAdd(segvCount(), 1);
}

void removeSegv() {
  HostAsmSyncCtrAdd(segvCount(), -1);
  ownSegvs += segvChange - 1;
}

// What the embedding program has added to the count. While other threads keep changing theirs it
// cannot be told, and is taken for nothing.
int othersSegvs() {
  constexpr int attempts = 8;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    const std::uint64_t before = ownSegvs;
    const int all = HostAsmSyncCtrAdd(segvCount(), 0);
    if (ownSegvs != before) continue;
    const int others = all - static_cast<int>(before);
    return others > 0 ? others : 0;
  }
  return 0;
}

void forget(RunningHandler& handler) {
  if (handler.signal == SIGSEGV) removeSegv();
  handler.thread = 0;
}

// What the signal interrupted: where its stack had got to, and whether that was the signal stack.
struct Interrupted {
  std::uintptr_t stackPointer;
  bool onSignalStack;
};

Interrupted interruptedBy(const SignalEvent& event, std::uintptr_t frame) {
  if (event.context == nullptr) return {frame, false};
  const auto pointer = static_cast<std::uintptr_t>(event.context->uc_mcontext.gregs[REG_ESP]);
  return {pointer, hostIsOnSignalStack(event.context, pointer)};
}

// What was called since may lie over a frame that was left. Where the system does not let a process
// read itself in this way, the frame counts as there.
bool isOverwritten(const RunningHandler& handler) {
  unsigned found = handler.serial;
  const iovec here{&found, sizeof found};
  const iovec there{const_cast<unsigned*>(handler.serialInFrame), sizeof found};
  const long length = syscall(SYS_process_vm_readv, getpid(), &here, 1, &there, 1, 0);
  return found != handler.serial || (length == -1 && errno == EFAULT);
}

// The system's signals, of the code that was interrupted.
std::uint64_t maskOf(const SignalEvent& event) {
  std::uint64_t mask = 0;
  if (event.context != nullptr) std::memcpy(&mask, &event.context->uc_sigmask, sizeof mask);
  return mask;
}

// Whether siglongjmp has left a handler of this thread: the interrupted code runs where its frame
// was, or has written over it, or has its mask back, or runs no longer on the signal stack. One
// that the signal has come back from, by way of the earlier handler, is further up on the same
// stack.
bool wasLeft(const RunningHandler& handler, const SignalEvent& event, std::uintptr_t frame) {
  if (handler.self != pthread_self()) return true;
  if (event.received != nullptr && handler.info == event.received) return handler.frame <= frame;
  const Interrupted interrupted = interruptedBy(event, frame);
  if (handler.onSignalStack != interrupted.onSignalStack) return handler.onSignalStack;
  if (handler.frame <= interrupted.stackPointer || isOverwritten(handler)) return true;
  return handler.blocksSignal && event.context != nullptr && handler.formerMask == maskOf(event);
}

// Where a handler runs, and the ones of the same thread that it has interrupted.
class HandlerRun {
 public:
  HandlerRun(const SignalEvent& event, void* frame)
      : thread_(gettid()), frame_(reinterpret_cast<std::uintptr_t>(frame)), signal_(event.signal) {
    for (RunningHandler& handler : runningHandlers) {
      if (handler.thread != thread_) continue;
      if (wasLeft(handler, event, frame_)) {
        forget(handler);
        continue;
      }
      if (handler.signal == SIGSEGV) ++segvDepth_;
      cameBack_ |= event.received != nullptr && handler.info == event.received;
    }
    if (event.signal == SIGSEGV) {
      ++segvDepth_;
      addSegv();
    }
    enter(event);
  }
  // A handler that switched stacks may have looked as if it had been left.
  ~HandlerRun() {
    if (place_ == nullptr) {
      if (signal_ == SIGSEGV) removeSegv();
    } else if (place_->thread == thread_ && place_->frame == frame_) {
      forget(*place_);
    }
  }
  HandlerRun(const HandlerRun&) = delete;
  HandlerRun& operator=(const HandlerRun&) = delete;

  // Ends the process when the handling of a SIGSEGV keeps faulting.
  void endRecursion() const {
    const int running = segvDepth_ + othersSegvs();
    if (running >= 5) _exit(nestedFaultExitStatus);
    if (running == 4) hostAbortProcess();
    if (running == recursion) {
      std::signal(SIGABRT, SIG_DFL);
      HostSignalSafePrint("TV signal handler: Recursive SEGV detected, attempting to dump core\n");
      hostAbortProcess();
    }
  }

  // Whether this very signal is being handed on further up: the earlier handler has handed it back.
  bool cameBack() const { return cameBack_; }

 private:
  // With all places taken, by threads that are still there, the handler counts as nobody's.
  void enter(const SignalEvent& event) {
    place_ = takeFreePlace();
    if (place_ == nullptr) place_ = takePlaceOfGoneThread();
    if (place_ == nullptr) return;
    place_->self = pthread_self();
    place_->frame = frame_;
    place_->onSignalStack = hostIsOnSignalStack(event.context, frame_);
    place_->signal = event.signal;
    place_->info = event.received;
    place_->serialInFrame = &serial_;
    place_->serial = serial_;
    place_->blocksSignal = event.context != nullptr && hostChainBlocksSignal(event);
    place_->formerMask = maskOf(event);
  }

  RunningHandler* takeFreePlace() const {
    for (RunningHandler& handler : runningHandlers) {
      pid_t nobody = 0;
      if (handler.thread.compare_exchange_strong(nobody, thread_)) return &handler;
    }
    return nullptr;
  }

  // One that left its handler by siglongjmp, and then ended.
  RunningHandler* takePlaceOfGoneThread() const {
    for (RunningHandler& handler : runningHandlers) {
      pid_t thread = handler.thread;
      if (thread == 0 || !utlIsGone(thread)) continue;
      if (!handler.thread.compare_exchange_strong(thread, thread_)) continue;
      if (handler.signal == SIGSEGV) removeSegv();
      return &handler;
    }
    return nullptr;
  }

  const pid_t thread_;
  const std::uintptr_t frame_;
  const int signal_;
  const unsigned serial_ = ++lastSerial;
  RunningHandler* place_ = nullptr;
  int segvDepth_ = 0;
  bool cameBack_ = false;
};

void printStacksOnRequest() {
  HostSignalSafePrint("\n\nSignal SIGUSR1 received printingStack ...");
  hostPrintStacks();
  HostSignalSafePrint("\n");
}

// What the earlier handler may hear of. Where that hands the signal back, it is not called again.
void chainOrEnd(const SignalEvent& event) {
  const HandlerRun run(event, __builtin_frame_address(0));
  SignalEvent chained = event;
  chained.handedBack = run.cameBack();
  switch (event.signal) {
    case SIGXCPU:
      hostTerminate(chained);
      return;
    case SIGHUP:
    case SIGUSR1:
      hostChain(chained);
      return;
    case SIGSEGV:
      run.endRecursion();
      break;
    default:
      break;
  }
  if (!hostChain(chained)) hostEndByUnhandledSignal(chained);
}

void handle(const SignalEvent& event) {
  if (event.isHardwareSignal()) {
    if (event.wasSent() && event.info->si_pid != getpid() && hostExitGoesOnElsewhere()) {
      return hostReportDuringExit(event, printSentSignal);
    }
    reportSentSignal(event);
    hostObeyExitOnFault(event.signal);
  }
  switch (event.signal) {
    case SIGTERM:
      HostIncrementSigTerm();
      hostTerminate(event);
      return;
    case SIGCHLD:
      hostReapChildren();
      return;
    case SIGUSR1:
      printStacksOnRequest();
      break;
    default:
      break;
  }
  chainOrEnd(event);
}

}  // namespace

void HostFaultHandler(int sig, siginfo_t* info, void* context) {
  const ErrnoKeeper keepErrno;
  const bool validInfo = info != nullptr &&
                         reinterpret_cast<std::uintptr_t>(info) % alignof(siginfo_t) == 0 &&
                         info->si_signo == sig;
  const SignalEvent event{sig, validInfo ? info : nullptr, info, static_cast<ucontext_t*>(context)};

  if (resumeAfterGuardPage(event)) return;
  if (hostChainsOnSignalStack(event)) return handle(event);
  hostOnInterruptedStack(event, handle);
}
