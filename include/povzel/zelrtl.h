// The interface library: find it, open it, check it, and publish its function table.
//
//   char why[256];
//   if (!ZelRtlLoad(1, NULL, why, sizeof why)) { fputs(why, stderr); return; }
//   rtlPrivZelRtlFuncs->ZelInit();
//
// The file is "lib" + base + "rpc" or "lnk" + version + ".so". The environment decides:
// ZELRTL_BASELIBNAME (base, default "zel"), ZELRTL_VERSION (version, default "67") and TARVOLIN
// (installation directory, whose lib directory is searched; without it the one that this library
// lies in serves at last). In a set-id program (AT_SECURE) the environment does not: names are the
// default ones, and that directory alone serves. Nothing here locks: load and unload from one
// thread, while no other calls the interface library.
#pragma once

#include <povzel/povzeltypes.h>
#include <povzel/zeltable.h>

POVZEL_BEGIN_C

// The loaded library's table, which the library owns; null while none is loaded.
POVZEL_EXPORT_DATA extern const ZelRtlJumpSType* rtlPrivZelRtlFuncs;

// Loads the remote ("rpc", `useRpc` non-zero) or linked ("lnk") interface library and publishes
// its table. Tried in order: each directory of `path` (separated by ';'; may be null), the lib
// directory under TARVOLIN, the bare file name by the platform's own search, and without TARVOLIN
// the folder that this library lies in. The first library that opens is checked: feature level at
// least 312, compatibility level below 2.
//
// Returns 1 once the table is published. Returns 0 with the reason in `errBuf` (may be null), cut
// to `errBufSize` bytes with its terminator; then nothing has changed. "Library is already loaded."
// and the refusals of an old or incompatible library are left out where they do not fit. An empty
// search-path entry is skipped. A file name of more than 23 characters, a candidate (entry, '/' and
// file name) of more than 1023 or a search path of more than 2047 ends the search when it is
// reached, with a text that says which it was and how long.
POVZEL_EXPORT BoolType ZelRtlLoad(BoolType useRpc, const char* path, char* errBuf,
                                  ArraySizeType errBufSize);

// Shuts the loaded library down and closes it. Does nothing when none is loaded.
POVZEL_EXPORT void ZelRtlUnload(void);

// Returns 1 if a table is published, else 0.
POVZEL_EXPORT BoolType ZelRtlIsLoaded(void);

POVZEL_END_C
