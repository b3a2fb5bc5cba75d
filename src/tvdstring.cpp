#include "tvdstring.h"

#include <cstring>

#include "tvsizes.h"

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

}  // namespace

void TvDStringInit(TvDString* ds) {
  ds->string = ds->staticSpace;
  ds->length = 0;
  ds->spaceAvl = sizeof ds->staticSpace;
  ds->staticSpace[0] = '\0';
}

char* TvDStringAppend(TvDString* ds, const char* text, long length) {
  if (text == nullptr) return ds->string;
  const std::size_t added = length < 0 ? std::strlen(text) : static_cast<std::size_t>(length);
  const std::size_t oldLength = static_cast<std::size_t>(ds->length);
  if (added < static_cast<std::size_t>(ds->spaceAvl) - oldLength) {
    std::memmove(ds->string + oldLength, text, added);
  } else {
    const std::uint64_t space = 2 * (std::uint64_t{oldLength} + added);
    char* block = newBlock(ds, space);
    if (block == nullptr) return nullptr;
    std::memcpy(block + oldLength, text, added);
    freeBlock(ds);
    ds->string = block;
    ds->spaceAvl = static_cast<long>(space);
  }
  ds->length = static_cast<long>(oldLength + added);
  ds->string[ds->length] = '\0';
  return ds->string;
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
  ds->length = length;
  ds->string[length] = '\0';
}

void TvDStringFree(TvDString* ds) {
  freeBlock(ds);
  TvDStringInit(ds);
}
