// Where a program's output goes: standard output and error redirected to a file, and files that end
// with a new line. The streams belong to the process: redirect them at start-up.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Reopens standard output and standard error to append to `fileName` (expanded as by
// HostExpandFileName). Returns 1, or 0 with a message in `errText` (`errTextSize` bytes; null for
// none); both streams are then as before. A name that is too long (hostfiles.h) fails.
POVZEL_EXPORT BoolType UtlResetOutput(const char* fileName, char* errText, size_t errTextSize);

// Appends a new line to `fileName` unless it ends with one. A file that is empty or missing needs
// none. Returns 1, or 0 after a line on standard error that names the operation that failed.
POVZEL_EXPORT BoolType UtlAppendLfToFile(const char* fileName);

POVZEL_END_C
