// Stack printing: the C stacks of a process, by the installation's stack printer, and the stack of
// the interpreter, by a function that the embedding program registers. The functions that print may
// be called from any thread.
#pragma once

#include <povzel/povzeltypes.h>

// Prints the interpreter's stack on standard output.
typedef void PrintStackFuncType(void);

POVZEL_BEGIN_C

// Prints the C stacks of the process `forPid` by running "$TARVOLIN/bin/gstack" with its id
// (without TARVOLIN that of the installation that this library lies in), and says so when it is not
// there. Does nothing for -1. Waits for the programs it runs, which have the real ids of this
// process, find no signal blocked, or ignored by this library alone, and, until they have ended,
// may trace it (PR_SET_PTRACER; one that the program has named itself is forgotten). In a set-id
// program they find no file open but the standard ones. Signal-safe but for reading $TARVOLIN,
// which no other thread may be changing at that moment.
POVZEL_EXPORT void HostPrintCStack(PidType forPid);

// Prints the C stacks of this process. Signal-safe but for the same.
POVZEL_EXPORT void HostPrintMyCStack(void);

// Registers the function that prints the interpreter's stack after the C stack; null for none. It
// is called in signal handlers. Signal-safe.
POVZEL_EXPORT void HostSetSmalltalkPrintStackFunc(PrintStackFuncType* function);

POVZEL_END_C
