// Pointers to the parts of a file name. Any thread may call; nothing is kept.
//
//   "/var/log/db.log":  path pointer at the start, name at "db.log", extension at ".log"
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns `name` if it contains a '/', else a pointer to its end: an empty directory part.
POVZEL_EXPORT char* UtlFnGetPathPtr(char* name);

// Returns the part after the last '/', or `name` when there is none.
POVZEL_EXPORT char* UtlFnGetNamePtr(char* name);

// Returns the last '.' of the name part and what follows, or the end of `name` without one.
POVZEL_EXPORT char* UtlFnGetExtensionPtr(char* name);

// Cuts the extension off, in place, and returns the name part: "/tmp/log.txt" gives "log". A name
// without an extension is not written to.
POVZEL_EXPORT char* UtlBasename(char* name);

POVZEL_END_C
