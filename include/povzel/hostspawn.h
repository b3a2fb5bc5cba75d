// Commands that run in the foreground, through the shell.
//
// Any thread may run commands, beside others that do and that wait for children by their ids. The
// actions of signals are the whole process's: SIGCHLD has its default one, and SIGVTALRM is
// ignored, from the first command's begin to the last one's end (after HostReapOwnChildrenOnly(1)
// the fault handler keeps SIGCHLD). Then they are back, unchanged, and the handler of SIGCHLD is
// called if a child has ended meanwhile; where the program ignores it, such children are reaped. An
// action that the program has set meanwhile stays. Signals that the library ignores then, or from
// the start (hostfault.h), a command finds as the program had them, a handler as the default
// action; what other threads execute meanwhile by other means finds them ignored. The C library's
// system() that begins during a command and ends after it leaves ignored what the command has
// ignored, until the next command ends.
//
// The calling thread has all signals blocked until the command is done. A command that stops counts
// as failed, and is then the caller's to continue or to end.
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
