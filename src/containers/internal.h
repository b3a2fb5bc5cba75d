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

// Strings in registers

// Whether the 16 bytes there lie in one page: those behind a string's end may be read only then.
inline bool tvCanReadRegister(const void* bytes) {
  constexpr std::uintptr_t pageSize = 4096;
  constexpr std::uintptr_t registerSize = 16;
  return reinterpret_cast<std::uintptr_t>(bytes) % pageSize <= pageSize - registerSize;
}
