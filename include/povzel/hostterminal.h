// Reading from the user's terminal. One thread at a time reads.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Prints `prompt` on standard output and reads a line from standard input into `buf`, which holds
// `maxLen` bytes with the terminator, without showing what is typed. The newline is not stored.
// `buf` becomes empty when nothing can be read. Then prints a newline. A `maxLen` of 0 reads
// nothing and leaves `buf` alone.
POVZEL_EXPORT void HostSilentGetLine(const char* prompt, char* buf, size_t maxLen);

POVZEL_END_C
