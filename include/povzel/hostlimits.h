// Limits of this process. Any thread may call; the last one to set a limit has set it.
#pragma once

#include <povzel/povzeltypes.h>
#include <povzel/syserror.h>

POVZEL_BEGIN_C

// Returns how many descriptors the process may have open (-1: unlimited), read once and after each
// successful HostSetMaxFiles.
POVZEL_EXPORT long HostGetMaxFiles(void);

// Sets how many descriptors the process may have open. -1 stands for $TARVOLIN_MAX_FD (decimal, 64
// characters at most): 0 there changes nothing, a negative number means the hard limit, and so does
// an unset variable. Returns 1, or 0 with the failed call in `err`, which may be null.
POVZEL_EXPORT BoolType HostSetMaxFiles(long maxFiles, SysErrorSType* err);

// Returns how many asynchronous I/O requests the system takes at once, 128 if it does not say.
POVZEL_EXPORT int HostGetMaxAioRequests(void);

POVZEL_END_C
