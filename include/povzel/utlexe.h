// The executable's own directory and name, and searches for its companion files.
//
//   UtlSetExeDir(argv[0]);
//   char found[4096];
//   const char* messages = UtlFindExeFile("english67.err", NULL, found, sizeof found);
//
// UtlSetExeDir is called once at program start, before threads run: all read what it sets without
// a lock. Any thread may call the others.
#pragma once

#include <povzel/povzeltypes.h>
#include <povzel/syserror.h>

POVZEL_BEGIN_C

// Finds the directory and name of the program that was started as `argv0`: looked up in PATH when
// it has no '/', made absolute by the current directory when it is relative. Sets nothing when it
// is not found or longer than 4094 characters.
POVZEL_EXPORT void UtlSetExeDir(const char* argv0);

// The executable's directory, ending in '/'; "" before UtlSetExeDir has succeeded.
POVZEL_EXPORT const char* UtlGetExeDir(void);

// The executable's name without its extension; "" before UtlSetExeDir has succeeded.
POVZEL_EXPORT const char* UtlGetExeName(void);

// Looks for `name` in the directories of `path` (separated by ':', an empty one is the current
// directory). `extension`, with its '.', is added when `name` has none; null adds none.
//
// Returns 1 with the file's name in `returnBuff` (`returnBuffSize` bytes with the terminator); a
// candidate that does not fit there is skipped. Otherwise returns 0 with a message in *err, which
// may be null. A `name` that starts with '/' is not searched: 0 and no message.
POVZEL_EXPORT BoolType UtlSearchPath(const char* path, const char* name, const char* extension,
                                     char* returnBuff, ArraySizeType returnBuffSize,
                                     SysErrorSType* err);

// Looks for the file-name part of `defaultName`, with `defaultExtension` (may be null) when it has
// no extension, in the executable's directory and in "../bin/" and "../sys/" from there. Returns
// `findBuff` (`findBuffSize` bytes) with the absolute name of the first that exists, which
// HostOpenFile opens, else `defaultName`. A name that does not fit there is skipped.
POVZEL_EXPORT const char* UtlFindExeFile(const char* defaultName, const char* defaultExtension,
                                         char* findBuff, ArraySizeType findBuffSize);

POVZEL_END_C
