// Dynamic libraries: open one, find a function in it, close it.
//
//   DynLibType library;
//   char why[256];
//   if (!DynLibLoad("libfoo", &library, why, sizeof why)) puts(why);  // opens libfoo.so
//
// The module keeps no state and prints nothing: each failure is described in the caller's buffer.
#pragma once

#include <povzel/povzeltypes.h>

typedef void* DynLibType;             // an open library; null means none
typedef void (*DynLibFuncPtr)(void);  // cast to the function's real type before calling

POVZEL_BEGIN_C

// Opens the library file `name` with lazy, global, deep binding. ".so" is appended when the part
// after the last '/' has no '.'.
//
// *resultPtr receives the handle, or null on failure. Returns 1 if the library is open, else 0
// with "dlopen(%s) failed because %s" in `err`, cut to `errSize` bytes with its terminator; `err`
// may be null. A name of more than 2043 characters to which ".so" would be appended is refused
// with a text that gives its length, and nothing is opened. A file at a name with '/' that ends
// before what is to be loaded of it is refused as "cut short": opening it would end the process.
POVZEL_EXPORT BoolType DynLibLoad(const char* name, DynLibType* resultPtr, char* err,
                                  ArraySizeType errSize);

// Closes the library `dl`; its functions must not be called afterwards. Null is ignored.
POVZEL_EXPORT void DynLibUnload(DynLibType dl);

// Returns the function `funcname` of `dl`, or null with "dlsym(%s) failed because %s" in `err`,
// which is filled as by DynLibLoad. A symbol whose value is null counts as missing.
POVZEL_EXPORT DynLibFuncPtr DynLibGetFunc(DynLibType dl, const char* funcname, char* err,
                                          ArraySizeType errSize);

POVZEL_END_C
