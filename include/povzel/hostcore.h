// Core dumps: the end of a process that met a fatal condition. Whatever thread met it calls, the
// fault handler too (hostfault.h). Output goes to the descriptors of the standard streams. What the
// streams hold comes before it, but for a stream that another thread has locked; in the fault
// handler, which may have interrupted anything, no stream, lock or heap is used until the core is
// there, but by the application's callbacks.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Dumps core into a directory of its own ("coredir", process id and host name) in the current
// directory, then moves the file up as "core" and the process id and removes the directory. Prints
// the stacks first. Unless `explicitlyRequested` is non-zero it then waits, for 60 seconds or those
// of TV_CORE_TIME_OUT, so that a debugger can be attached.
//
// The image is that of a child that ends by SIGQUIT; the process itself goes on, in the directory
// where it was. Threads that call at once take turns. A second call, from a fault on the way or
// later, does without the application's callbacks and the message file; a third ends the process at
// once with status 1. Set-id privileges are given up for good, effective and saved ids: those of
// all threads, or in the fault handler those of the thread that ends the process. Every signal but
// SIGCHLD stays blocked in the calling thread, which cannot be cancelled meanwhile, and SIGABRT has
// its default action.
//
// Returns 1 when a core was written; where it could not be moved, it is still in that directory, or
// where the system's core pattern says. Else returns 0, with the reason on standard error: among
// others, that the system's core pattern hands cores to a program. A directory without a core is
// removed in any case. With `noHalt` set, returns 1 at once.
POVZEL_EXPORT BoolType HostCoredump(BoolType explicitlyRequested);

POVZEL_END_C
