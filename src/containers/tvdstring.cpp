#include <povzel/tvdstring.h>

#include <emmintrin.h>

#include <cstring>

#include "internal.h"

namespace {

void freeBlock(const TvDString* ds) {
  if (ds->string != ds->staticSpace) UtlFree(ds->string);
}

// Returns a block of `size` bytes that begins with the record's text, or null. The record still
// has its old text, so that a piece of it can be appended to the new one.
char* newBlock(const TvDString* ds, std::uint64_t size) {
  auto* block = static_cast<char*>(tvAllocate(size, "tvdstring"));
  if (block != nullptr) std::memcpy(block, ds->string, static_cast<std::size_t>(ds->length));
  return block;
}

char* setEnd(TvDString* ds, std::size_t length) {
  ds->length = static_cast<long>(length);
  ds->string[length] = '\0';
  return ds->string;
}

// Out of line, so that a short append needs no frame. A text may overlap where it goes to only if
// it reaches past the end of the record's own.
[[gnu::noinline]] char* appendInPlace(TvDString* ds, const char* text, std::size_t added) {
  const auto oldLength = static_cast<std::size_t>(ds->length);
  char* const end = ds->string + oldLength;
  const std::uintptr_t distance =
      reinterpret_cast<std::uintptr_t>(end) - reinterpret_cast<std::uintptr_t>(text);
  if (distance >= added && 0 - distance >= added) {
    std::memcpy(end, text, added);
  } else {
    std::memmove(end, text, added);
  }
  return setEnd(ds, oldLength + added);
}

[[gnu::noinline]] char* appendToNewBlock(TvDString* ds, const char* text, std::size_t added) {
  const auto oldLength = static_cast<std::size_t>(ds->length);
  const std::uint64_t space = 2 * (std::uint64_t{oldLength} + added);
  char* block = newBlock(ds, space);
  if (block == nullptr) return nullptr;
  std::memcpy(block + oldLength, text, added);
  freeBlock(ds);
  ds->string = block;
  ds->spaceAvl = static_cast<long>(space);
  return setEnd(ds, oldLength + added);
}

// Copies `size` bytes, at least the size of a Piece and at most twice that.
template <typename Piece>
void copyAsTwo(char* to, const char* from, std::size_t size) {
  Piece first;
  Piece last;
  std::memcpy(&first, from, sizeof first);
  std::memcpy(&last, from + size - sizeof last, sizeof last);
  std::memcpy(to, &first, sizeof first);
  std::memcpy(to + size - sizeof last, &last, sizeof last);
}

// That many registers, which lie one after the other.
template <std::size_t count>
struct Registers {
  explicit Registers(const char* from) {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < count; ++i) {
      parts[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from) + i);
    }
  }
  void store(char* to) const {
#pragma GCC unroll 4
    for (std::size_t i = 0; i < count; ++i) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to) + i, parts[i]);
    }
  }
  __m128i parts[count];
};

// copyAsTwo for pieces of that many registers.
template <std::size_t count>
void copyAsTwoOf(char* to, const char* from, std::size_t size) {
  constexpr std::size_t piece = count * sizeof(__m128i);
  const Registers<count> first(from);
  const Registers<count> last(from + size - piece);
  first.store(to);
  last.store(to + size - piece);
}

constexpr std::size_t mostInPlace = 128;

// Copies up to mostInPlace bytes, which may overlap: all are read before any is written.
inline void copyShort(char* to, const char* from, std::size_t size) {
  if (size > 64) {
    copyAsTwoOf<4>(to, from, size);
  } else if (size > 32) {
    copyAsTwoOf<2>(to, from, size);
  } else if (size >= 16) {
    copyAsTwo<__m128i>(to, from, size);
  } else if (size >= 8) {
    const __m128i first = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from));
    const __m128i last = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from + size - 8));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), first);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to + size - 8), last);
  } else if (size >= 4) {
    copyAsTwo<std::uint32_t>(to, from, size);
  } else if (size >= 2) {
    copyAsTwo<std::uint16_t>(to, from, size);
  } else if (size == 1) {
    *to = *from;
  }
}

// How many bytes fit, the NUL at the end included.
std::size_t spaceLeft(const TvDString* ds) {
  return static_cast<std::size_t>(ds->spaceAvl) - static_cast<std::size_t>(ds->length);
}

char* appendAny(TvDString* ds, const char* text, long length);

// A text may be of more bytes than a long can count; no record has room for that.
[[gnu::noinline]] char* appendUntilNul(TvDString* ds, const char* text) {
  const std::size_t added = std::strlen(text);
  return added < spaceLeft(ds) ? appendAny(ds, text, static_cast<long>(added))
                               : appendToNewBlock(ds, text, added);
}

// All but single bytes.
[[gnu::noinline]] char* appendAny(TvDString* ds, const char* text, long length) {
  if (text == nullptr) return ds->string;
  if (length < 0) return appendUntilNul(ds, text);
  const auto added = static_cast<std::size_t>(length);
  if (added >= spaceLeft(ds)) return appendToNewBlock(ds, text, added);
  if (added > mostInPlace) return appendInPlace(ds, text, added);
  char* const string = ds->string;
  char* const end = string + ds->length;
  copyShort(end, text, added);
  end[added] = '\0';
  ds->length = end + added - string;
  return string;
}

}  // namespace

void TvDStringInit(TvDString* ds) {
  ds->string = ds->staticSpace;
  ds->length = 0;
  ds->spaceAvl = sizeof ds->staticSpace;
  ds->staticSpace[0] = '\0';
}

char* TvDStringAppend(TvDString* ds, const char* text, long length) {
  const long oldLength = ds->length;
  if (length != 1 || text == nullptr || ds->spaceAvl - oldLength < 2) {
    return appendAny(ds, text, length);
  }
  char* const string = ds->string;
  const std::uint16_t byteAndNul = static_cast<unsigned char>(*text);
  std::memcpy(string + oldLength, &byteAndNul, sizeof byteAndNul);
  ds->length = oldLength + 1;
  return string;
}

void TvDStringSetLength(TvDString* ds, long length) {
  if (length < 0) length = 0;
  if (length >= ds->spaceAvl) {
    const std::uint64_t space = static_cast<std::uint64_t>(length) + 1;
    char* block = newBlock(ds, space);
    if (block == nullptr) return;
    freeBlock(ds);
    ds->string = block;
    ds->spaceAvl = static_cast<long>(space);
  }
  setEnd(ds, static_cast<std::size_t>(length));
}

void TvDStringFree(TvDString* ds) {
  freeBlock(ds);
  TvDStringInit(ds);
}
