// Error numbers of this platform: their portable codes and their texts. Any thread may call, in
// signal handlers too.
//
//   char why[256];
//   UnixErr(errno, why, sizeof why);  // the catalogue's texts for the number and for its symbol
#pragma once

#include <povzel/povzeltypes.h>
#include <povzel/syserror.h>

POVZEL_BEGIN_C

// Returns the portable code of `number`, an errno or h_errno as `category` says. A number that has
// none, and any number of another category, comes back negated; 0 gives SYSERR_NONE.
POVZEL_EXPORT SysErrEType UnixErrOsErrToSysErr(int number, SysErrCategoryEType category);

// Returns the errno of `code`; for SYSERR_HOST_NOT_FOUND to SYSERR_NO_ADDRESS the h_errno; 0 for
// TVSOCKETERR_NOHOSTNAME. A code that this platform never produces gives -1.
POVZEL_EXPORT int UnixErrSysErrToOsErr(SysErrEType code);

// Puts the catalogue's text for errno value `number` into `buffer`: "unixerr.part1" with the
// number, and behind it the text of the number's own symbol when it has one. 0 gives the empty
// text. The result with its terminator takes at most `size` - 1 bytes (1 for a size of 1); nothing
// is written when `size` is 0. errno is left as it was. Signal-safe.
POVZEL_EXPORT void UnixErr(int number, char* buffer, ArraySizeType size);

// UnixErr of the record's number. Signal-safe.
POVZEL_EXPORT void HostGetErrMsg(const HostErrSType* record, char* buffer, ArraySizeType size);

POVZEL_END_C
