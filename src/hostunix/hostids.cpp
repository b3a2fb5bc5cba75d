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

// Makes `id` the one that counts for this thread's files; `set` is setfsuid or setfsgid, which give
// back the former id whether they obey or not.
bool useForFiles(int (*set)(unsigned int) noexcept, unsigned int id) {
  constexpr auto noId = static_cast<unsigned int>(-1);  // changes nothing
  set(id);
  const int now = set(noId);
  // The highest ids look like the number of an error.
  return static_cast<unsigned int>(now != -1 ? now : -errno) == id;
}

}  // namespace

// With ids that count for files alone the C library has nothing to do in other threads, and the
// effective ids, which give the right to come back, stay.
RealIds::RealIds(BoolType wanted) : switched_(wanted != 0 && areOthers()) {
  if (!switched_) return;
  refused_ = !useForFiles(os.setfsgid, getgid()) || !useForFiles(os.setfsuid, getuid());
}

RealIds::~RealIds() {
  if (!switched_) return;
  const ErrnoKeeper keeper;
  useForFiles(os.setfsuid, geteuid());
  useForFiles(os.setfsgid, getegid());
}

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
