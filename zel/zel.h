// The embedded interface library: a small object database in one process, behind the same table
// as any other interface library.
//
//   const ZelRtlJumpSType* zel = ZelGetRtlTable();
//   zel->ZelInit();
//   zel->ZelLogin("SystemUser", "swordfish");
//   OopType seven = zel->ZelExecuteStr("3 + 4", NilOop);
//
// It keeps nothing on disk, is used by one thread at a time (the breaks excepted), and never ends
// the process. docs/language.md describes the language and the limits.
#pragma once

#include <povzel/zeltable.h>

// The table, the same one at each call; it lives as long as the library is loaded. From any thread.
extern "C" POVZEL_EXPORT const ZelRtlJumpSType* ZelGetRtlTable();
