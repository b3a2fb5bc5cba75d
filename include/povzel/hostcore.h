// Core dumps: the end of a process that met a fatal condition. Whatever thread met it calls; a
// signal handler may, as the process is lost by then.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Dumps core into a directory of its own ("coredir", process id and host name) in the current
// directory, then moves the file up as "core" and the process id and removes the directory. Prints
// the stacks first. Unless `explicitlyRequested` is non-zero it then waits, for 60 seconds or those
// of TV_CORE_TIME_OUT, so that a debugger can be attached.
//
// The image is that of a child that ends by SIGQUIT; the process itself goes on. A second call,
// from a fault on the way, does without the application's callbacks and the message file; a third
// ends the process at once with status 1. Set-id privileges are given up for good; every signal but
// SIGCHLD stays blocked in the calling thread, and SIGABRT has its default action.
//
// Returns 1 when a core was written, else 0 with the reason on standard error: among others, that
// the system's core pattern hands cores to a program. With `noHalt` set, returns 1 at once.
POVZEL_EXPORT BoolType HostCoredump(BoolType explicitlyRequested);

POVZEL_END_C
