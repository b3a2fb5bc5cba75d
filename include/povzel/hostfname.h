// File names: one expander for every name that comes from users, configuration or the environment.
//
//   HostFnameStrType name;
//   HostExpandFileName("$HOME/data/../x", name, sizeof name);  // "/home/u/x"
//
// The expander works in the caller's buffer alone, so any thread may call it, as long as none
// changes the environment or the current directory.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Expands the file name `inbuf` into `outbuf`, which holds `outbufLength` bytes with the terminator
// and may be `inbuf` itself.
//
// - A leading "$NAME" becomes the variable's value (which may be empty); if the variable is unset
//   or the value does not fit, it stays.
// - A name that begins with neither "$" nor "/" is put behind the current directory and "/".
// - "." and ".." components are removed; ".." takes the component before it along. Of "/." nothing
//   is left.
// - Symbolic links are followed component by component, each prefix once, until 4,095 links have
//   been met or a target does not fit. What is there by then is the result.
// - A directory's name gets a "/" at its end, if there is room.
//
// Components need not exist. An empty name gives an empty result, and a name that does not fit is
// cut first; operations on files refuse such a name (hostfiles.h). An `outbufLength` of 0 writes
// nothing. When the current directory cannot be read or does not fit, the name stays relative.
POVZEL_EXPORT void HostUnixExpandFileName(const char* inbuf, char* outbuf,
                                          ArraySizeType outbufLength);

// The same, and then removes the automount prefix ($TV_AutoMountPrefix at the time of HostInit,
// otherwise "/tmp_mnt") if the result begins with it and a "/".
POVZEL_EXPORT void HostExpandFileName(const char* inbuf, char* outbuf, ArraySizeType outbufLength);

// Puts the name of a file that does not exist into `buff`: the C library's tempnam for the expanded
// "/usr/tmp", so $TMPDIR comes before that directory and /tmp after it. `buff` becomes empty when
// there is no such name or it does not fit into `buffSize` bytes.
POVZEL_EXPORT void HostTempFileSpec(char* buff, size_t buffSize);

POVZEL_END_C
