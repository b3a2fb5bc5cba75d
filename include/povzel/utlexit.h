// Leaving the program: handlers that run before it ends, in reverse order of their registration,
// and the exits that run them.
//
//   UtlInit();
//   UtlAtExit(closeRepository);
//   ...
//   UtlExit(0);
//
// Register while one thread runs; any thread may run the handlers. One thread carries out the exit:
// another one that calls UtlExit or UtlExitMt meanwhile waits for it, and SIGTERM leaves it alone.
// Requests to cancel the thread wait for ever then. A return from main and exit are not seen: a
// SIGTERM meanwhile begins an exit of its own, with status 0.
#pragma once

#include <povzel/povzeltypes.h>

// Called once, before the program ends. Must return: an exception, the end of its thread or a jump
// out of it ends the process as a fault does, or leaves the exit undone.
typedef void ExitFuncType(void);

// How many handlers can be registered.
POVZEL_CONSTANT(int, UtlMaxExitHandlers, 100);

POVZEL_BEGIN_C

// Empties the list of handlers and checks that the library's tables are intact. HostInit calls it.
POVZEL_EXPORT void UtlInit(void);

// Registers `handler`, to run before those registered earlier. Returns 0, or 1 when 100 are
// registered already, before UtlInit, and once the handlers run or have run; then nothing is
// stored.
POVZEL_EXPORT int UtlAtExit(ExitFuncType* handler);

// Runs the handlers, the last registered first. A second call, also one from a handler or beside
// the first, does nothing.
POVZEL_EXPORT void UtlRunExitHandlers(void);

// Whether UtlExit with status 0 removes this process's child log. Off at start.
POVZEL_EXPORT void UtlRemoveLogOnExit(BoolType removeIt);

// Runs the handlers, removes the child log if that was asked for (never one named *.klog) and ends
// the process with `status`.
POVZEL_NORETURN POVZEL_EXPORT void UtlExit(int status);

// Flushes standard output and error and ends the process with `status`, without the handlers: the
// exit for programs with threads that handlers could disturb.
POVZEL_NORETURN POVZEL_EXPORT void UtlExitMt(int status);

POVZEL_END_C
