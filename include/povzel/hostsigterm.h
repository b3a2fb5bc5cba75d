// Termination requests: how often the process has been asked to end and has not yet agreed.
//
// The signal handler counts each SIGTERM here; every loop of the library that retries an
// interrupted system call gives up as soon as the count is not 0.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Adds one request. Signal-safe.
POVZEL_EXPORT void HostIncrementSigTerm(void);

// Returns the number of requests. Signal-safe.
POVZEL_EXPORT int HostGetSigTerm_(void);

// The same; `file` and `line` tell a debugger who asks. Signal-safe.
POVZEL_EXPORT int HostGetSigTerm(const char* file, int line);

// Forgets all requests and returns how many there were. Signal-safe.
POVZEL_EXPORT int HostClearSigTerm(void);

POVZEL_END_C
