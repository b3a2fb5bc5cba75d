// What the containers share.
//
//   hash.cpp        open table, string hashes
//   tvhash.cpp      keyed table
//   tvdstring.cpp   dynamic string
#pragma once

#include <cstdint>

#include <povzel/utlheap.h>

// Allocation whose size is computed from what callers ask for

// UtlMalloc of `size` bytes. A size beyond 32 bits fails as an allocation does: with the report of
// UtlMalloc, for the largest size that it can name.
inline void* tvAllocate(std::uint64_t size, const char* reason) {
  return UtlMalloc(size < SIZE_MAX ? static_cast<std::size_t>(size) : SIZE_MAX, reason);
}
