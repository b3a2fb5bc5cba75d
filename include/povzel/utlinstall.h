// The global installation: its directory, and the named pipes in its lock directory through which
// programs meet the central server process. Any thread may call these functions.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns "/opt/tarvolin/" or "/usr/tarvolin/", whichever exists ("/opt/tarvolin/" when both or
// neither do). Decided once per process; the first call warns on standard error when both exist,
// unless the environment variable TV_DISABLE_WARNING is set.
POVZEL_EXPORT const char* UtlGetGlobalTarvolinDir(void);

// Returns the lock directory of the global installation, ending in '/'.
POVZEL_EXPORT const char* UtlGetFifoDir(void);

// Stores the expanded name of the pipe of server `inName` in `outName` (4096 bytes).
POVZEL_EXPORT void UtlBuildFifoName(const char* inName, char* outName);

// Opens the pipe `fifoName` for writing and returns its descriptor, which the caller closes.
// Returns -1 with errno set on failure, reported on standard error unless `quiet` is non-zero.
POVZEL_EXPORT int UtlOpenTorvClientFifo(const char* fifoName, BoolType quiet);

POVZEL_END_C
