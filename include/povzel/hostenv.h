// Environment variables.
//
//   char home[256];
//   if (HostGetEnv("HOME", home, sizeof home)) ...
//
// The C library's environment has no lock of its own: change variables at start-up, before threads
// run.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Copies the value of the variable `inStr` to `outStr`, which holds `outSize` bytes with the
// terminator. Returns 1, or 0 with `outStr` untouched when the variable is unset, empty or does
// not fit.
POVZEL_EXPORT BoolType HostGetEnv(const char* inStr, char* outStr, ArraySizeType outSize);

// Sets the variable `name` to `value`. Returns 1, or 0 when the system refuses it. The string that
// holds the pair stays allocated for the life of the process, even when it is replaced.
POVZEL_EXPORT BoolType HostSetEnv(const char* name, const char* value);

POVZEL_END_C
