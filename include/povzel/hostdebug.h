// The end of the road: where the process stops when it cannot go on.
//
//   HostOnDebug(saveMyState);                        // called before anything else is done
//   if (lost) HostCallDebuggerMsg("list is cut");    // says so, dumps core and ends the process
//
// A program that must survive its own broken state (a debugger, a test) sets `noHalt`; then every
// fatal path here and HostCoredump return to their caller.
//
// The functions that register are for start-up. The fatal paths may be called from any thread, and
// the fault handler calls them (hostfault.h); how they print is told in hostcore.h. One thread
// carries out the end: another one that calls, or exits, meanwhile waits for it.
#pragma once

#include <povzel/povzeltypes.h>

// Called before a fatal path does anything else.
typedef void (*HostOnDebugHandlerType)(void);
// Adds what a program knows to a fatal report.
typedef void HostFatalReportFuncType(void);

POVZEL_BEGIN_C

// When non-zero, the fatal paths return at once. The library never sets it.
POVZEL_EXPORT_DATA extern BoolType noHalt;

// Registers `hook`, which HostCallDebugger calls first; null removes it.
POVZEL_EXPORT void HostOnDebug(HostOnDebugHandlerType hook);

// Registers `report`, which tells the server of the first fatal error; null removes it.
POVZEL_EXPORT void HostInstallFatalReportHandler(HostFatalReportFuncType* report);

// Ends the process after a fatal error: calls the registered hook and the application's file
// flusher, reports the error to the server, prints a framed report with the text of errno, dumps
// core (HostCoredump) and exits with status 3. A second call by the same thread, as from a fault or
// an exit handler, prints "Recursive error caught!" and aborts. Returns 0, and only when `noHalt`
// is set; then nothing at all has been done.
POVZEL_EXPORT int HostCallDebugger(void);

// Prints `msg` (null counts as empty) and a newline on standard output, in one write, then does the
// same as HostCallDebugger, whose result it returns.
POVZEL_EXPORT int HostCallDebuggerMsg(const char* msg);

// Prints "\n%s arg:%lu\n" with `msg` and `o` on standard output, in one write, then does the same
// as HostCallDebugger. Returns `o`.
POVZEL_EXPORT unsigned long HostCallDebuggerMsg_o(const char* msg, unsigned long o);

// Waits until a debugger has attached and set the variable `attached` of the waiting frame. The
// first waits only when the environment variable TARVOLIN_CHILD_DEBUG has a value.
POVZEL_EXPORT void HostWaitForDebugger(void);
POVZEL_EXPORT void HostExplicitWaitForDebugger(void);

POVZEL_END_C
