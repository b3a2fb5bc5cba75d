// What tests may replace to make allocations fail.
#pragma once

#include <cstddef>

// The function that every wrapper of utlheap.h allocates with: malloc unless a test changes it.
extern void* (*utlHeapAllocateForTests)(std::size_t length);
