// Log-file names made from templates, such as "%N%P%M.log". Any thread may call.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Copies `logTemplate` into `logNameBuf` (`logNameBufSize` bytes with the terminator), replacing
//   %H  the home directory with a '/' (of `homedir`, else of `username`, else of this user)
//   %M  the host name, or "localhost" when it is not known
//   %N  the program's name: the last part of `execStr` up to its first blank or '.'
//   %P  the process id
//   %U  `username`, or this user's name when that is null
//   %%  '%'
// and leaving any other directive as it stands. `username` and `homedir` may be null; `errBuf` and
// `errLength` are not used.
//
// Returns 1 when the whole name fits. Returns 0 when it was cut, which it is before the first
// replacement that does not fit, and when the home directory is not known, whose %H then stays.
POVZEL_EXPORT BoolType UtlExpandLogName(const char* logTemplate, char* logNameBuf,
                                        size_t logNameBufSize, const char* execStr,
                                        const char* username, const char* homedir, char* errBuf,
                                        size_t errLength);

POVZEL_END_C
