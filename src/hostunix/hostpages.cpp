// Guarded pages.
//
// hostHandleGuardPageAccess runs in signal handlers and is signal-safe but for the pages' own
// handlers: it calls mprotect, a bare system call. So do the calls that unprotect. HostProtectPage
// reports its failures through the catalogue.
#include <povzel/hostpages.h>

#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

#include <povzel/utlsystem.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

struct protectedSType {
  char* pageAddr;  // null: the slot is free
  HostProtectHandlerFType protectHandler;
};

protectedSType protectedPages[HostMaxProtectedPages];

// Read once outside any handler; HostProtectPage always comes before a page can fault.
std::size_t pageSize = 0;

protectedSType* slotOf(const char* pageAddr) {
  for (protectedSType& slot : protectedPages) {
    if (slot.pageAddr == pageAddr) return &slot;
  }
  return nullptr;
}

bool covers(const protectedSType& slot, const char* faultAddr) {
  return faultAddr == nullptr ||
         (faultAddr >= slot.pageAddr && faultAddr < slot.pageAddr + pageSize);
}

// A page that the system refuses to unprotect is most likely unmapped: its slot is of no use either
// way.
bool unprotect(protectedSType& slot) {
  const bool done = mprotect(slot.pageAddr, pageSize, PROT_READ | PROT_WRITE) == 0;
  slot = {};
  return done;
}

}  // namespace

void hostForgetProtectedPages() {
  for (protectedSType& slot : protectedPages) slot = {};
}

bool hostHandleGuardPageAccess(char* faultAddr) {
  bool unprotected = false;
  for (const protectedSType& slot : protectedPages) {
    const protectedSType page = slot;
    if (page.pageAddr == nullptr || !covers(page, faultAddr)) continue;
    if (page.protectHandler == nullptr) continue;
    if (!page.protectHandler(page.pageAddr, faultAddr)) continue;
    // The handler may have unprotected the page itself, and guarded another one in its slot.
    protectedSType* kept = slotOf(page.pageAddr);
    unprotected |= kept == nullptr || unprotect(*kept);
    if (faultAddr != nullptr) break;
  }
  return unprotected;
}

BoolType HostProtectPage(char* pageAddr, HostProtectHandlerFType handler, SysErrorSType* err) {
  pageSize = static_cast<std::size_t>(UtlGetPageSize());
  const auto size = static_cast<long>(pageSize);
  if (reinterpret_cast<std::uintptr_t>(pageAddr) % pageSize != 0) {
    SysErrorSet(err, -1, "Page pointer %p was not aligned on page boundary %ld.",
                static_cast<void*>(pageAddr), size);
    return 0;
  }
  protectedSType* slot = slotOf(pageAddr);
  if (slot == nullptr) slot = slotOf(nullptr);
  if (slot == nullptr) {
    SysErrorSet(err, -1, "System only supports protecting %d pages.", HostMaxProtectedPages);
    return 0;
  }
  // The slot is filled before the page can fault: another thread may touch it at once.
  const protectedSType before = *slot;
  *slot = {pageAddr, handler};
  if (os.mprotect(pageAddr, pageSize, PROT_NONE) == 0) return 1;
  const int reason = errno;
  *slot = before;
  SysErrorSet(err, reason, "mprotect(%p,%ld,PROT_NONE)", static_cast<void*>(pageAddr), size);
  return 0;
}

BoolType HostUnProtectPage(char* pageAddr) {
  protectedSType* slot = pageAddr != nullptr ? slotOf(pageAddr) : nullptr;
  if (slot == nullptr) return 0;
  return unprotect(*slot);
}

BoolType HostBasicProtectPageReadOnly(char* addr, std::size_t numBytes) {
  return mprotect(addr, numBytes, PROT_READ) == 0;
}

BoolType HostBasicUnprotectPage(char* addr, std::size_t numBytes) {
  return mprotect(addr, numBytes, PROT_READ | PROT_WRITE) == 0;
}
