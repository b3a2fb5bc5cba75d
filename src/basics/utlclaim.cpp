#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "internal.h"

namespace {

long futex(const pid_t* word, int operation, int value) {
  return syscall(SYS_futex, word, operation, value, nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

bool utlIsGone(pid_t thread) {
  const ErrnoKeeper keeper;
  return tgkill(getpid(), thread, 0) != 0;
}

bool UtlClaim::take() {
  const Owner self{getpid(), gettid()};
  Owner owner = owner_;
  for (;;) {
    const bool isTaken = owner.process == self.process;
    if (isTaken && owner.thread == self.thread) return true;
    if (isTaken && !utlIsGone(owner.thread)) return false;
    if (owner_.compare_exchange_weak(owner, self)) return true;
  }
}

void UtlClaim::giveUp() {
  const ErrnoKeeper keeper;
  owner_ = Owner{};
  futex(threadWord(), FUTEX_WAKE_PRIVATE, INT_MAX);
}

pid_t UtlClaim::owner() const {
  const Owner owner = owner_;
  return owner.process == getpid() ? owner.thread : 0;
}

bool UtlClaim::isMine() const {
  return owner() == gettid();
}

void UtlClaim::await(pid_t owner) const {
  const ErrnoKeeper keeper;
  futex(threadWord(), FUTEX_WAIT_BITSET_PRIVATE, owner);
}
