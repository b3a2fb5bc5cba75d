// Commands that run in the foreground, through the shell.
//
// Any thread may run commands, beside others that do and that wait for children by their ids. The
// actions of signals are the whole process's: SIGCHLD has its default one, and SIGVTALRM is
// ignored, from the first command's begin to the last one's end. Then they are back, unchanged, and
// the handler of SIGCHLD is called if a child has ended meanwhile; where the program ignores it,
// such children are reaped. Signals that the library ignores then, or from the start (hostfault.h),
// a command finds as the program had them, a handler as the default action.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Runs `theCommand` as HostInteractiveSpawn does, while this process, but not the command, ignores
// SIGINT, SIGQUIT, SIGTTOU and SIGTTIN: an interrupt from the keyboard ends the command alone.
POVZEL_EXPORT BoolType HostSpawn(const char* theCommand);

// Runs `theCommand` with "/bin/sh -c" in the process's own session and terminal and waits for it.
// An empty command starts an interactive shell: $SHELL followed by " -i" (79 characters at most in
// all), or "/bin/sh -i" when that variable is unset or too long; descriptors 0, 1 and 2 are then
// kept open for it.
//
// Returns 1 if the command exited with status 0, if a signal ended it, or if its status is lost
// because another thread has waited for children of any id (errno ECHILD, which is cleared);
// otherwise 0.
POVZEL_EXPORT BoolType HostInteractiveSpawn(const char* theCommand);

POVZEL_END_C
