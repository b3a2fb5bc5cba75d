// Start of the host layer.
//
//   int main() {
//     HostInit();
//     ...
#pragma once

#include "povzeltypes.h"

extern "C" {

// Prepares the process for everything else in the host layer; must run once, before other threads
// do. Calls after the first do nothing.
POVZEL_EXPORT void HostInit();

}  // extern "C"
