// File helpers of the utilities: open, test access, list into a file, modification time. Any thread
// may call them; what hostfiles.h says of ids holds here too, and what it says of names but for
// UtlGetFileModTime, which takes its name as it is.
#pragma once

#include <stdio.h>
#include <time.h>

#include <povzel/povzeltypes.h>
#include <povzel/syserror.h>

POVZEL_BEGIN_C

// Opens `fileName` with fopen mode `openMode` under the real user's ids. Returns null on failure,
// with the error's text in `errBuff` (`errBuffSize` bytes; null for none).
POVZEL_EXPORT FILE* UtlOpenFile(const char* fileName, const char* openMode, char* errBuff,
                                ArraySizeType errBuffSize);

// Returns whether `fileName` can be opened with fopen mode `accessType`, under the real user's ids
// when `userFile` is non-zero; the error is in *fileErr when not. Opening has the mode's effects:
// "w" empties the file.
POVZEL_EXPORT BoolType UtlCheckAccess(const char* fileName, const char* accessType,
                                      HostErrSType* fileErr, BoolType userFile);

// Writes the names of the files that match `wildcardSpec`, one a line with their directory, into
// the file `fileSpec`. Returns 0 when that file cannot be opened or written, else what
// HostDirectory does.
POVZEL_EXPORT BoolType UtlDirectory(const char* wildcardSpec, const char* fileSpec);

// Stores the modification time of `fname` in *modTime and returns 1, or returns 0 with the reason
// in *err: EOVERFLOW for a time outside 1901 to 2038, which time_t does not hold.
POVZEL_EXPORT BoolType UtlGetFileModTime(const char* fname, time_t* modTime, SysErrorSType* err);

POVZEL_END_C
