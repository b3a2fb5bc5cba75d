// Any bytes as a message source: the parser ends, its entries keep their limits, and reading an
// entry again at its place gives the same.

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <povzel/errutl.h>
#include "require.h"

namespace {

bool same(const ErrUtlEntrySType& one, const ErrUtlEntrySType& other) {
  return std::strcmp(one.sym, other.sym) == 0 && std::strcmp(one.buf, other.buf) == 0 &&
         one.argListSize == other.argListSize && one.expectedArgCount == other.expectedArgCount &&
         std::memcmp(one.argOrder, other.argOrder, sizeof one.argOrder) == 0;
}

void checkLimits(const ErrUtlEntrySType& entry) {
  const std::size_t symbol = std::strlen(entry.sym);
  require(symbol > 0 && symbol < 255 && std::strpbrk(entry.sym, "\t :(") == nullptr);
  require(std::strlen(entry.buf) < 2047);
  require(entry.argListSize >= 0 && entry.argListSize <= ErrUtlMaxArgs);
  int largest = 0;
  for (int i = 0; i < entry.argListSize; ++i) {
    require(entry.argOrder[i] >= 0 && entry.argOrder[i] <= 10);
    if (entry.argOrder[i] > largest) largest = entry.argOrder[i];
  }
  require(entry.expectedArgCount == largest);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  FILE* file = fmemopen(const_cast<std::uint8_t*>(data), size, "r");
  if (file == nullptr) return 0;
  ErrUtlEntrySType entry;
  unsigned long line = 0;
  BoolType bad = 0;
  while (ErrUtlNextSym(file, "fuzz", &line, &entry, 1, &bad)) {
    checkLimits(entry);
    require(line <= size);
    if (bad != 0) continue;
    const long next = std::ftell(file);
    require(entry.loc >= 0 && entry.loc < next && static_cast<std::size_t>(next) <= size);
    static ErrUtlEntrySType again;
    unsigned long unused = 0;
    std::fseek(file, entry.loc, SEEK_SET);
    require(ErrUtlNextSym(file, "fuzz", &unused, &again, 0, &bad) != 0 && bad == 0);
    require(same(entry, again) && unused == 0 && std::ftell(file) == next);
  }
  std::fclose(file);
  return 0;
}
