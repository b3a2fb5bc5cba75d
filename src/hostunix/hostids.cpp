#include <povzel/hostids.h>
#include "basics/internal.h"
#include "internal.h"

#include <unistd.h>

namespace {

// Ids that are in effect already are not set again: the C library stops every thread to set them.
bool makeGroupEffective(gid_t gid) {
  return getegid() == gid || os.setegid(gid) == 0;
}

bool makeUserEffective(uid_t uid) {
  return geteuid() == uid || os.seteuid(uid) == 0;
}

// errno stays as it is where the ids are in effect then.
void setEffectiveIds(const HostUserIdSType& ids) {
  const int before = errno;
  bool groupSet = makeGroupEffective(ids.gid);
  const bool userSet = makeUserEffective(ids.uid);
  // The user may be the one who has the right to change groups.
  if (!groupSet) groupSet = makeGroupEffective(ids.gid);
  if (groupSet && userSet) errno = before;
}

using SetIds = int (*)(unsigned int effective, unsigned int saved);

// A saved id that is a third one comes back only with the right to set any id.
bool putBack(SetIds setIds, const RealIds::Ids& ids) {
  constexpr auto unchanged = static_cast<unsigned int>(-1);
  if (setIds(ids.effective, ids.saved) == 0) return true;
  return setIds(ids.effective, unchanged) == 0 && setIds(unchanged, ids.saved) == 0;
}

bool haveThirdId(const RealIds::Ids& ids) {
  return ids.saved != ids.effective && ids.saved != ids.real;
}

}  // namespace

bool hostHasSetIds() {
  RealIds::Ids user;
  RealIds::Ids group;
  getresuid(&user.real, &user.effective, &user.saved);
  getresgid(&group.real, &group.effective, &group.saved);
  return user.effective != user.real || user.saved != user.real || group.effective != group.real ||
         group.saved != group.real;
}

bool hostGiveUpThreadIds() {
  const gid_t group = getgid();
  const uid_t user = getuid();
  const bool isGroup = os.setThreadGids(group, group) == 0;
  return os.setThreadUids(user, user) == 0 && isGroup;
}

// The effective ids, which give the right to come back, are saved meanwhile. Ids that count for
// files alone would not do: what the kernel shows under /proc it shows by effective ids and rights.
RealIds::RealIds(BoolType wanted) : switched_(wanted != 0 && areOthers()) {
  if (!switched_) return;
  getresuid(&user_.real, &user_.effective, &user_.saved);
  getresgid(&group_.real, &group_.effective, &group_.saved);
  const bool isRoot = user_.real == 0 || user_.effective == 0;
  switched_ = isRoot || (!haveThirdId(user_) && !haveThirdId(group_));
  refused_ = !switched_ || os.setThreadGids(group_.real, group_.effective) != 0 ||
             os.setThreadUids(user_.real, user_.effective) != 0;
}

RealIds::~RealIds() {
  if (!switched_) return;
  const ErrnoKeeper keeper;
  const bool groupIsBack = putBack(os.setThreadGids, group_);
  putBack(os.setThreadUids, user_);
  // Either user may be the one who has the right to set groups.
  if (!groupIsBack) putBack(os.setThreadGids, group_);
}

void HostUseRealId(HostUserIdSType* oldUserId) {
  if (oldUserId != nullptr) *oldUserId = {.uid = geteuid(), .gid = getegid()};
  setEffectiveIds({.uid = getuid(), .gid = getgid()});
}

void HostSetUserId(const HostUserIdSType* userId) {
  if (userId == nullptr) return;
  setEffectiveIds(*userId);
}
