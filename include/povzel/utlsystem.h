// Small facts about the running system. Any thread may call.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns the size of a memory page in bytes, as the system reports it.
POVZEL_EXPORT int UtlGetPageSize(void);

// Stores `disable` and returns the value before (0 at start). On this platform descriptors are
// never mapped, so the flag changes nothing else.
POVZEL_EXPORT BoolType UtlDisableFdMapping(BoolType disable);

// Returns the descriptor that stands for `fd`: on this platform `fd` itself.
POVZEL_EXPORT int UtlMapFd(int fd);

POVZEL_END_C
