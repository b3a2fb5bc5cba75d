// Guarded pages.
//
// hostHandleGuardPageAccess and hostPageWasOpened run in signal handlers and are signal-safe but
// for the pages' own handlers: they call mprotect, sched_yield, getpid and gettid, bare system
// calls. So do the calls that unprotect. HostProtectPage reports its failures through the
// catalogue.
//
// A slot and its page change together, under a lock; slots are read without it, so that a page's
// handler may guard and unguard pages, and several threads may be in it at once.
#include <povzel/hostpages.h>

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include <povzel/utlsystem.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

struct alignas(8) protectedSType {
  char* pageAddr;  // null: the slot is free
  HostProtectHandlerFType protectHandler;
};
using Slot = std::atomic<protectedSType>;
static_assert(Slot::is_always_lock_free);

Slot protectedPages[HostMaxProtectedPages];

// How often each slot was filled: what a page's handler has answered for is opened, not what was
// guarded anew meanwhile.
std::atomic<unsigned> fillings[HostMaxProtectedPages];

// Read outside any handler; HostProtectPage always comes before a page can fault.
std::atomic<std::size_t> pageSize = 0;

// A page that one thread opens may already have made another one fault, whose handler then finds no
// slot. So pages that were ever guarded are known by a bit each, and counters, shared by some, tell
// how often one was opened. Pages are numbered by the smallest size there is.
constexpr std::size_t smallestPage = 4096;
constexpr std::size_t pageNumbers = UINTPTR_MAX / smallestPage + 1;
std::atomic<unsigned char> guardedOnce[pageNumbers / 8];
std::atomic<unsigned> openings[256];

// What some threads have last tried again: thread, page and how often that had been opened, in one
// number.
std::atomic<std::uint64_t> retries[64];
constexpr unsigned threadShift = 42;
constexpr unsigned pageShift = 22;
static_assert(pageNumbers <= std::uint64_t{1} << (threadShift - pageShift));

// The process whose thread changes the slots, 0 for none. A child takes it from its parent: the
// slots are whole at any moment.
std::atomic<pid_t> slotsHolder = 0;

// Kept, because a fault is not to cost a system call more; a child after a fork keeps its own.
std::atomic<pid_t> ownProcess = 0;

void noteProcess() {
  static pthread_once_t noted = PTHREAD_ONCE_INIT;
  pthread_once(&noted, [] {
    const auto note = [] { ownProcess = getpid(); };
    pthread_atfork(nullptr, nullptr, note);
    note();
  });
}

// Spins, because a handler may wait for it. Nothing faults under it.
class SlotsLock {
 public:
  SlotsLock() {
    const pid_t process = ownProcess;
    for (pid_t holder = 0; !slotsHolder.compare_exchange_weak(holder, process);) {
      if (holder != process) continue;
      sched_yield();
      holder = 0;
    }
  }
  ~SlotsLock() { slotsHolder = 0; }
  SlotsLock(const SlotsLock&) = delete;
  SlotsLock& operator=(const SlotsLock&) = delete;
};

// Holds the lock. No handler runs on this thread meanwhile, which might need it itself.
struct SlotsAccess {
  const SignalMask mask{SIG_BLOCK, unixIoAllSignalsBut()};
  const SlotsLock lock;
};

Slot* slotOf(const char* pageAddr) {
  for (Slot& slot : protectedPages) {
    if (slot.load().pageAddr == pageAddr) return &slot;
  }
  return nullptr;
}

bool covers(const protectedSType& page, const char* faultAddr) {
  return faultAddr == nullptr ||
         (faultAddr >= page.pageAddr && faultAddr < page.pageAddr + pageSize);
}

std::size_t pageNumber(const char* address) {
  return reinterpret_cast<std::uintptr_t>(address) / pageSize * pageSize / smallestPage;
}

std::atomic<unsigned>& openingsOf(std::size_t page) {
  return openings[page % std::size(openings)];
}

// The slot is free last: who finds it so finds an open page. A page that the system refuses to
// unprotect is most likely unmapped: its slot is of no use either way.
bool unprotect(Slot& slot) {
  char* pageAddr = slot.load().pageAddr;
  const bool done = mprotect(pageAddr, pageSize, PROT_READ | PROT_WRITE) == 0;
  ++openingsOf(pageNumber(pageAddr));
  slot = protectedSType{};
  return done;
}

// Returns false when all slots are in use, or with errno set when the system refuses.
bool protect(char* pageAddr, HostProtectHandlerFType handler, bool& full) {
  const SlotsAccess access;
  Slot* slot = slotOf(pageAddr);
  if (slot == nullptr) slot = slotOf(nullptr);
  full = slot == nullptr;
  if (full) return false;
  // The slot is filled before the page can fault: another thread may touch it at once.
  const protectedSType before = *slot;
  ++fillings[slot - protectedPages];
  *slot = {pageAddr, handler};
  const std::size_t page = pageNumber(pageAddr);
  guardedOnce[page / 8] |= static_cast<unsigned char>(1U << page % 8);
  if (os.mprotect(pageAddr, pageSize, PROT_NONE) == 0) return true;
  *slot = before;
  return false;
}

[[gnu::noinline]] bool answersFor(const protectedSType& page, char* faultAddr) {
  return page.protectHandler(page.pageAddr, faultAddr) != 0;
}

}  // namespace

void hostForgetProtectedPages() {
  noteProcess();
  for (Slot& slot : protectedPages) slot = protectedSType{};
}

bool hostHandleGuardPageAccess(char* faultAddr) {
  bool unprotected = false;
  for (std::size_t index = 0; index < HostMaxProtectedPages; ++index) {
    Slot& slot = protectedPages[index];
    const unsigned filling = fillings[index];
    const protectedSType page = slot;
    if (page.pageAddr == nullptr || !covers(page, faultAddr)) continue;
    if (page.protectHandler == nullptr) continue;
    const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
    if (!answersFor(page, faultAddr)) continue;
    faultsReachUs.change(SIG_BLOCK, unixIoAllSignalsBut());
    // The handler or another thread may have unprotected the page already. Where it is guarded
    // anew, the next try of the access is offered to the new guard.
    const SlotsLock lock;
    const bool isSameGuard = fillings[index] == filling && slot.load().pageAddr == page.pageAddr;
    unprotected |= !isSameGuard || unprotect(slot);
    if (faultAddr != nullptr) break;
  }
  return unprotected;
}

bool hostPageWasOpened(const char* faultAddr) {
  if (pageSize == 0) return false;
  const std::size_t page = pageNumber(faultAddr);
  if ((guardedOnce[page / 8] >> page % 8 & 1) == 0) return false;
  const auto thread = static_cast<unsigned>(gettid());
  const std::uint64_t retry = std::uint64_t{thread} << threadShift |
                              std::uint64_t{page} << pageShift |
                              openingsOf(page) % (1U << pageShift);
  return retries[thread % std::size(retries)].exchange(retry) != retry;
}

BoolType HostProtectPage(char* pageAddr, HostProtectHandlerFType handler, SysErrorSType* err) {
  noteProcess();
  pageSize = static_cast<std::size_t>(UtlGetPageSize());
  const auto size = static_cast<long>(pageSize);
  if (reinterpret_cast<std::uintptr_t>(pageAddr) % pageSize != 0) {
    SysErrorSet(err, -1, "Page pointer %p was not aligned on page boundary %ld.",
                static_cast<void*>(pageAddr), size);
    return 0;
  }
  bool full;
  if (protect(pageAddr, handler, full)) return 1;
  if (full) {
    SysErrorSet(err, -1, "System only supports protecting %d pages.", HostMaxProtectedPages);
  } else {
    SysErrorSet(err, errno, "mprotect(%p,%ld,PROT_NONE)", static_cast<void*>(pageAddr), size);
  }
  return 0;
}

BoolType HostUnProtectPage(char* pageAddr) {
  if (pageAddr == nullptr) return 0;
  const SlotsAccess access;
  Slot* slot = slotOf(pageAddr);
  return slot != nullptr && unprotect(*slot);
}

BoolType HostBasicProtectPageReadOnly(char* addr, std::size_t numBytes) {
  return mprotect(addr, numBytes, PROT_READ) == 0;
}

BoolType HostBasicUnprotectPage(char* addr, std::size_t numBytes) {
  return mprotect(addr, numBytes, PROT_READ | PROT_WRITE) == 0;
}
