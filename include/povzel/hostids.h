// The process's identity: work as the real user for a while, then as the effective user again.
//
//   HostUserIdSType effective;
//   HostUseRealId(&effective);
//   ...  // files are opened with the caller's own rights
//   HostSetUserId(&effective);
//
// The effective ids are the whole process's, so all its threads change together: one thread at a
// time calls these, and none is in an operation of hostfiles.h meanwhile: those with `userFile`
// true give their thread ids of its own, and the C library ends a process whose threads do not
// agree when it changes ids. Those operations any number of threads may use at once.
#pragma once

#include <povzel/povzeltypes.h>

// An effective identity, kept to be restored.
typedef struct HostUserIdSType {
  uint32_t uid;  // user
  uint32_t gid;  // group
} HostUserIdSType;

POVZEL_BEGIN_C

// Both set errno where the system refuses a change, and leave it alone otherwise: clear it before
// to see. The other id may be changed then.

// Stores the effective ids in `oldUserId` unless that is null, then makes the real group id and
// the real user id effective.
POVZEL_EXPORT void HostUseRealId(HostUserIdSType* oldUserId);

// Makes the group id and the user id of `userId` effective; null stands for the present effective
// ids.
POVZEL_EXPORT void HostSetUserId(const HostUserIdSType* userId);

POVZEL_END_C
