// Core dumps: the end of a process that met a fatal condition. Whatever thread met it calls, the
// fault handler too (hostfault.h). Output goes to the descriptors of the standard streams. What the
// streams hold comes before it, but for a stream that another thread has locked. Whoever ends the
// process uses no lock, heap or resolver until the core is there, and in the fault handler, which
// may have interrupted anything, no stream either; the application's callbacks do what they please.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Dumps core into a directory of its own ("coredir", process id and host name) in the current
// directory, then moves the file up as "core" and the process id and removes the directory. Prints
// the stacks first. Unless `explicitlyRequested` is non-zero it then waits, for 60 seconds or those
// of TV_CORE_TIME_OUT, so that a debugger can be attached.
//
// The image is that of a child that goes into the directory and ends by SIGQUIT; the process itself
// stays where it is. Threads that call at once take turns; a callback that does not return keeps
// its thread's. The thread that ends the process does not wait for another one's: it goes on as the
// next call, and its core is made in the current directory. A second call, from a fault on the way
// or later, does without the application's callbacks and the message file; a third ends the process
// at once with status 1. Set-id privileges are given up for good, effective and saved ids of all
// threads; where the process ends, those of the other threads once the core is there. Every signal
// but SIGCHLD stays blocked in the calling thread, which cannot be cancelled meanwhile, and SIGABRT
// has its default action.
//
// Returns 1 when a core was written; where it could not be moved, it is still in that directory, or
// where the system's core pattern says. Else returns 0, with the reason on standard error: among
// others, that the system's core pattern hands cores to a program. A directory without a core is
// removed in any case. With `noHalt` set, returns 1 at once.
POVZEL_EXPORT BoolType HostCoredump(BoolType explicitlyRequested);

POVZEL_END_C
