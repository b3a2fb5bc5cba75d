// Every hook that the library has for its tests. Nothing in the library sets one.
#pragma once

#include <cstddef>

#include "internal.h"

// The system calls are osCallsForTests (internal.h), the table that the library knows as `os`: a
// test replaces any of its entries and puts it back.

// The function that every wrapper of utlheap.h allocates with: malloc unless a test changes it.
extern void* (*utlHeapAllocateForTests)(std::size_t length);

// The processor's instructions as the checksum sees them (internal.h): a test clears bits to reach
// the paths that older processors take.
inline unsigned int& utlCpuFeaturesForTests = utlCpuFeatures;
