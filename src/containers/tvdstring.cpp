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

// Out of line, so that the usual short append needs no frame.
[[gnu::noinline]] char* appendLong(TvDString* ds, const char* text, std::size_t added) {
  const auto oldLength = static_cast<std::size_t>(ds->length);
  std::memmove(ds->string + oldLength, text, added);
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

[[gnu::noinline]] char* appendUntilNul(TvDString* ds, const char* text) {
  return TvDStringAppend(ds, text, static_cast<long>(std::strlen(text)));
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

constexpr std::size_t mostInPlace = 2 * sizeof(__m128i);

// Copies up to mostInPlace bytes, which may overlap.
inline void copyShort(char* to, const char* from, std::size_t size) {
  if (size == 1) {
    *to = *from;
  } else if (size >= 16) {
    copyAsTwo<__m128i>(to, from, size);
  } else if (size >= 8) {
    copyAsTwo<std::uint64_t>(to, from, size);
  } else if (size >= 4) {
    copyAsTwo<std::uint32_t>(to, from, size);
  } else if (size >= 2) {
    copyAsTwo<std::uint16_t>(to, from, size);
  }
}

}  // namespace

void TvDStringInit(TvDString* ds) {
  ds->string = ds->staticSpace;
  ds->length = 0;
  ds->spaceAvl = sizeof ds->staticSpace;
  ds->staticSpace[0] = '\0';
}

char* TvDStringAppend(TvDString* ds, const char* text, long length) {
  if (text == nullptr) return ds->string;
  if (length < 0) return appendUntilNul(ds, text);
  const auto added = static_cast<std::size_t>(length);
  const auto oldLength = static_cast<std::size_t>(ds->length);
  if (added >= static_cast<std::size_t>(ds->spaceAvl) - oldLength) {
    return appendToNewBlock(ds, text, added);
  }
  if (added > mostInPlace) return appendLong(ds, text, added);
  char* const string = ds->string;
  char* const end = string + oldLength;
  copyShort(end, text, added);
  end[added] = '\0';
  ds->length = end + added - string;
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
