// Start of the host layer.
//
//   int main() {
//     HostInit();
//     ...
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Prepares the process for everything else in the host layer: reads what the environment and the
// system say of it, opens the message catalogue, unblocks all signals, raises the soft limits on
// CPU time, data and file size to the hard ones, sets the locale of the environment and ignores
// SIGIO unless the program handles it. Must run once, before other threads do; calls after the
// first do nothing. A limit that cannot be raised ends the process with status 3 and a report on
// standard error.
POVZEL_EXPORT void HostInit(void);

POVZEL_END_C
