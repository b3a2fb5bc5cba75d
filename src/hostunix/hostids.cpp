#include <povzel/hostids.h>
#include "basics/internal.h"

#include <unistd.h>

namespace {

// Ids that are in effect already are not set again: the C library stops every thread to set them.
bool makeGroupEffective(gid_t gid) {
  return getegid() == gid || os.setegid(gid) == 0;
}

bool makeUserEffective(uid_t uid) {
  return geteuid() == uid || os.seteuid(uid) == 0;
}

}  // namespace

void HostUseRealId(HostUserIdSType* oldUserId) {
  if (oldUserId != nullptr) *oldUserId = {.uid = geteuid(), .gid = getegid()};
  makeGroupEffective(getgid());
  makeUserEffective(getuid());
}

void HostSetUserId(const HostUserIdSType* userId) {
  if (userId == nullptr) return;
  const bool groupSet = makeGroupEffective(userId->gid);
  makeUserEffective(userId->uid);
  // The user may be the one who has the right to change groups.
  if (!groupSet) makeGroupEffective(userId->gid);
}
