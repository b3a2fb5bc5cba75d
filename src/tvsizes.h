// Allocation for the containers, whose sizes are computed from what callers ask for.
#pragma once

#include <cstdint>

#include "utlheap.h"

// UtlMalloc of `size` bytes. A size beyond 32 bits fails as an allocation does: with the report of
// UtlMalloc, for the largest size that it can name.
inline void* tvAllocate(std::uint64_t size, const char* reason) {
  return UtlMalloc(size < SIZE_MAX ? static_cast<std::size_t>(size) : SIZE_MAX, reason);
}
