// Commands that run in the foreground, through the shell. The signals that are ignored meanwhile
// are the whole process's: run one command at a time.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Runs `theCommand` as HostInteractiveSpawn does, while this process ignores SIGINT, SIGQUIT,
// SIGTTOU and SIGTTIN.
POVZEL_EXPORT BoolType HostSpawn(const char* theCommand);

// Runs `theCommand` with "/bin/sh -c" in the process's own session and terminal and waits for it.
// An empty command starts an interactive shell: $SHELL followed by " -i" (79 characters at most in
// all), or "/bin/sh -i" when that variable is unset or too long; descriptors 0, 1 and 2 are then
// kept open for it.
//
// Returns 1 if the command exited with status 0, if a signal ended it, or if its status is lost
// because nobody keeps children's statuses (errno ECHILD, which is cleared); otherwise 0.
POVZEL_EXPORT BoolType HostInteractiveSpawn(const char* theCommand);

POVZEL_END_C
