// Reading from the user's terminal. One thread at a time reads: there is one terminal, whose echo
// and whose signals belong to the whole process.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Prints `prompt` on standard output and reads a line from standard input into `buf`, which holds
// `maxLen` bytes with the terminator, without showing what is typed. The newline is not stored.
// `buf` becomes empty when nothing can be read. Then prints a newline. A `maxLen` of 0 reads
// nothing and leaves `buf` alone.
//
// The rest of a line that is too long is read and dropped, and nothing of the line stays in the
// buffer of stdin.
//
// At a terminal SIGHUP, SIGINT, SIGQUIT, SIGALRM, SIGTERM and SIGTSTP act with the typing shown
// again, in the calling thread; a process that goes on then, also after a stop, goes on silently
// with the same prompt, unless it has been asked to end or the signal's handler interrupts system
// calls: then `buf` is empty. Signals that are ignored, that this thread blocks, or SIGALRM with a
// handler that restarts them, stay as they are; actions set meanwhile for those named are put back.
// Another signal ends the reading with an empty `buf`, the typing shown again, if it comes to this
// thread and its handler interrupts system calls; without a descriptor to spare it does not. A
// process that another thread forks meanwhile has the program's own actions.
//
// From another stream the line is read by UnixIoFgets. The position of a file is then that of its
// next line; with room for the terminator alone nothing is read.
POVZEL_EXPORT void HostSilentGetLine(const char* prompt, char* buf, size_t maxLen);

POVZEL_END_C
