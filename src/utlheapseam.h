// What tests may replace to make allocations fail: the function that every wrapper of utlheap.h
// allocates with. It is malloc unless a test changes it.
#pragma once

#include <cstddef>

extern void* (*utlHeapAllocate)(std::size_t length);
