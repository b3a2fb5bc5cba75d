// Output from signal handlers.
//
// Signal-safe: what this module does needs no allocation, no lock and no stream. It calls write(2)
// and nothing else.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Writes `msg` to the file descriptor of standard error, all of it in one write where the system
// takes it whole. Gives up on any error but an interruption. Keeps errno.
POVZEL_EXPORT void HostSignalSafePrint(const char* msg);

POVZEL_END_C
