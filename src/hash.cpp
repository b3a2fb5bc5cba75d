#include "hash.h"

#include <cctype>
#include <cstring>

#include "utlheap.h"

namespace {

// A permutation of 0 to 255. Its values are in compiled message files: they never change.
alignas(256) constexpr ByteType CharPermutation[256] = {
    1,   87,  49,  12,  176, 178, 102, 166, 121, 193, 6,   84,  249, 230, 44,  163, 14,  197, 213,
    181, 161, 85,  218, 80,  64,  239, 24,  226, 236, 142, 38,  200, 110, 177, 104, 103, 141, 253,
    255, 50,  77,  101, 81,  18,  45,  96,  31,  222, 25,  107, 190, 70,  86,  237, 240, 34,  72,
    242, 20,  214, 244, 227, 149, 235, 97,  234, 57,  22,  60,  250, 82,  175, 208, 5,   127, 199,
    111, 62,  135, 248, 174, 169, 211, 58,  66,  154, 106, 195, 245, 171, 17,  187, 182, 179, 0,
    243, 132, 56,  148, 75,  128, 133, 158, 100, 130, 126, 91,  13,  153, 246, 216, 219, 119, 68,
    223, 78,  83,  88,  201, 99,  122, 11,  92,  32,  136, 114, 52,  10,  138, 30,  48,  183, 156,
    35,  61,  26,  143, 74,  251, 94,  129, 162, 63,  152, 170, 7,   115, 167, 241, 206, 3,   150,
    55,  59,  151, 220, 90,  53,  23,  131, 125, 173, 15,  238, 79,  95,  89,  16,  105, 137, 225,
    224, 217, 160, 37,  123, 118, 73,  2,   157, 46,  116, 9,   145, 134, 228, 207, 212, 202, 215,
    69,  229, 27,  188, 67,  124, 168, 252, 42,  4,   29,  108, 21,  247, 19,  205, 39,  203, 233,
    40,  186, 147, 198, 192, 155, 33,  164, 191, 98,  204, 165, 180, 117, 76,  140, 36,  210, 172,
    41,  54,  159, 8,   185, 232, 113, 196, 231, 47,  146, 120, 51,  65,  28,  144, 254, 221, 93,
    189, 194, 139, 112, 43,  71,  109, 184, 209,
};

// Entry i is the smallest prime from 2 to the power i on (and 1 for 0).
constexpr long powerOfTwoPrime[] = {1,   2,    5,    11,   17,   37,    67,    131,  257,
                                    521, 1031, 2053, 4099, 8209, 16411, 32771, 65537};
constexpr long firstPrime = 5;
constexpr long lastPrime = 16;

// Upper case of each byte in the C library's current locale, at its index; looked up once per
// string instead of once per byte.
const int* upperCase() {
  return *__ctype_toupper_loc();
}

// Three Pearson hashes that take the same bytes and differ in their start. Each step waits for
// the one before, so only the latency of one step counts: the look-up's address is the exclusive
// or of table, hash and byte (the table is aligned to its size), of which all but the hash is
// ready in time.
class PearsonHash {
 public:
  explicit PearsonHash(unsigned first)
      : hash0_(CharPermutation[first]),
        hash1_(CharPermutation[(first + 1) & 255]),
        hash2_(CharPermutation[(first + 2) & 255]) {}

  void add(unsigned byte) {
    const std::uintptr_t row = reinterpret_cast<std::uintptr_t>(CharPermutation) ^ byte;
    hash0_ = *reinterpret_cast<const ByteType*>(row ^ hash0_);
    hash1_ = *reinterpret_cast<const ByteType*>(row ^ hash1_);
    hash2_ = *reinterpret_cast<const ByteType*>(row ^ hash2_);
  }

  unsigned value() const { return hash2_ << 16 | hash1_ << 8 | hash0_; }

 private:
  std::uintptr_t hash0_;
  std::uintptr_t hash1_;
  std::uintptr_t hash2_;
};

// The 16-bit character at `bytes`, reduced to what HashDbStrHash takes of it.
unsigned doubleByte(const ByteType* bytes, const int* upper) {
  unsigned code = bytes[0] * 256U + bytes[1];
  if (upper != nullptr && code <= 255) code = static_cast<ByteType>(upper[code]);
  return code % 255;
}

}  // namespace

long HashStrHash(const ByteType* bytes, std::size_t count, BoolType caseSensitive) {
  if (count == 0) return 0;
  const ByteType* const end = bytes + count;
  if (caseSensitive != 0) {
    PearsonHash hash(*bytes);
    while (++bytes != end) hash.add(*bytes);
    return static_cast<long>(hash.value());
  }
  const int* const upper = upperCase();
  PearsonHash hash(static_cast<ByteType>(upper[*bytes]));
  while (++bytes != end) hash.add(static_cast<ByteType>(upper[*bytes]));
  return static_cast<long>(hash.value());
}

long HashDbStrHash(const ByteType* bytes, std::size_t sizeBytes, BoolType caseSensitive) {
  if (sizeBytes < 2) return 0;
  const ByteType* const end = bytes + (sizeBytes & ~std::size_t{1});
  const int* const upper = caseSensitive != 0 ? nullptr : upperCase();
  PearsonHash hash(doubleByte(bytes, upper));
  while ((bytes += 2) != end) hash.add(doubleByte(bytes, upper));
  return static_cast<long>(hash.value());
}

unsigned int HashCStrHash(const void* string) {
  const auto* bytes = static_cast<const ByteType*>(string);
  if (*bytes == 0) return 0;
  PearsonHash hash(*bytes);
  while (*++bytes != 0) hash.add(*bytes);
  return hash.value();
}

BoolType HashCStrCompare(const void* string1, const void* string2) {
  return std::strcmp(static_cast<const char*>(string1), static_cast<const char*>(string2)) == 0;
}

// The table. Its slots are one block with the holes behind them, at endPtr.
//
// Emptying a slot would hide the records whose probes passed over it, and moving one of them into
// it would hide that record from an enumeration that has come this far. So nothing moves: the
// slot becomes a hole, over which probes go on. Inserts fill holes; those that no probe needs any
// more are closed as removals go by, so that they do not accumulate.
namespace {

constexpr std::size_t bitsPerWord = 32;
constexpr long slotsPerSweep = 16;  // one sweep over the table for so many slots' worth of holes

struct Holes {
  std::uint32_t count;
  std::int32_t madeSinceSweep;
  std::uint32_t bits[1];  // one for each slot
};

std::size_t holesSize(std::size_t slots) {
  return offsetof(Holes, bits) + (slots + bitsPerWord - 1) / bitsPerWord * sizeof(std::uint32_t);
}

Holes* holesOf(const HashTableSType* table) {
  return reinterpret_cast<Holes*>(table->endPtr);
}

std::size_t indexOf(const HashTableSType* table, const VoidPtrType* slot) {
  return static_cast<std::size_t>(slot - table->table);
}

bool isHole(const HashTableSType* table, const VoidPtrType* slot) {
  const std::size_t index = indexOf(table, slot);
  return (holesOf(table)->bits[index / bitsPerWord] >> index % bitsPerWord & 1) != 0;
}

void setHole(HashTableSType* table, const VoidPtrType* slot, bool hole) {
  if (isHole(table, slot) == hole) return;
  const std::size_t index = indexOf(table, slot);
  holesOf(table)->bits[index / bitsPerWord] ^= std::uint32_t{1} << index % bitsPerWord;
  holesOf(table)->count += hole ? 1 : -1U;
}

VoidPtrType* homeOf(const HashTableSType* table, const void* record) {
  return table->table + table->hashFunc(record) % static_cast<unsigned long>(table->tableSize);
}

VoidPtrType* nextSlot(const HashTableSType* table, VoidPtrType* slot) {
  return ++slot != table->endPtr ? slot : table->table;
}

VoidPtrType* previousSlot(const HashTableSType* table, VoidPtrType* slot) {
  return (slot != table->table ? slot : table->endPtr) - 1;
}

// Goes on with a look-up from the first hole it has met. Should the record turn up nowhere, that
// hole is its place.
VoidPtrType* lookUpBeyond(const HashTableSType* table, const void* record, VoidPtrType* hole,
                          const VoidPtrType* home) {
  for (VoidPtrType* slot = nextSlot(table, hole); slot != home; slot = nextSlot(table, slot)) {
    if (*slot != nullptr) {
      if (table->compareFunc(record, *slot) != 0) return slot;
    } else if (!isHole(table, slot)) {
      break;
    }
  }
  return hole;
}

// Leaves exactly those holes that the probe of some stored record passes over.
void sweepHoles(HashTableSType* table) {
  std::memset(holesOf(table), 0, holesSize(static_cast<std::size_t>(table->tableSize)));
  for (VoidPtrType* slot = table->table; slot != table->endPtr; ++slot) {
    if (*slot == nullptr) continue;
    for (VoidPtrType* at = homeOf(table, *slot); at != slot; at = nextSlot(table, at)) {
      if (*at == nullptr) setHole(table, at, true);
    }
  }
}

// Makes the slot, just emptied, a hole if a probe might pass over it. None does when the next
// slot ends all probes, and then the holes just before have lost their use too.
void leaveHole(HashTableSType* table, VoidPtrType* slot) {
  const VoidPtrType* const next = nextSlot(table, slot);
  if (*next != nullptr || isHole(table, next)) {
    setHole(table, slot, true);
    if (++holesOf(table)->madeSinceSweep > table->tableSize / slotsPerSweep) sweepHoles(table);
    return;
  }
  for (slot = previousSlot(table, slot); *slot == nullptr && isHole(table, slot);
       slot = previousSlot(table, slot)) {
    setHole(table, slot, false);
  }
}

// Gives the table an array of the size that indexOfPrime names and moves the records over.
// Returns false when memory is short; then the table is as it was.
bool rehash(HashTableSType* table) {
  if (table->indexOfPrime > lastPrime) return false;
  const long indexOfPrime = table->indexOfPrime < firstPrime ? firstPrime : table->indexOfPrime;
  const long size = powerOfTwoPrime[indexOfPrime];
  const std::size_t slotBytes = static_cast<std::size_t>(size) * sizeof(VoidPtrType);
  const std::size_t bytes = slotBytes + holesSize(static_cast<std::size_t>(size));
  auto* slots = static_cast<VoidPtrType*>(UtlMalloc_(bytes, __LINE__));
  if (slots == nullptr) return false;
  std::memset(slots, 0, bytes);

  VoidPtrType* const oldTable = table->table;
  VoidPtrType* const oldEnd = table->endPtr;
  table->indexOfPrime = indexOfPrime;
  table->table = slots;
  table->endPtr = slots + size;
  table->tableSize = size;
  table->halfTableSize = size >> 1;
  table->quarterTableSize = size >> 2;
  if (oldTable == nullptr) return true;
  for (VoidPtrType* old = oldTable; old != oldEnd; ++old) {
    if (*old == nullptr) continue;
    VoidPtrType* slot = homeOf(table, *old);
    while (*slot != nullptr) slot = nextSlot(table, slot);
    *slot = *old;
  }
  UtlFree(oldTable);
  return true;
}

void makeEmpty(HashTableSType* table) {
  table->indexOfPrime = firstPrime - 1;
  table->tableSize = 0;
  table->halfTableSize = 0;
  table->quarterTableSize = 0;
  table->numEntries = 0;
  table->table = nullptr;
  table->endPtr = nullptr;
}

}  // namespace

void HashTableInit(HashTableSType* table, BoolType copyKeys, unsigned int keySize,
                   HashFType* hashFunc, HashCompareFType* compareFunc) {
  table->copyKeys = copyKeys;
  table->keySize = static_cast<long>(keySize);
  table->hashFunc = hashFunc;
  table->compareFunc = compareFunc;
  makeEmpty(table);
  rehash(table);
}

VoidPtrType* HashTableLookup(HashTableSType* table, const void* record) {
  const unsigned int hash = table->hashFunc(record);
  if (table->table == nullptr) return nullptr;
  VoidPtrType* const home = table->table + hash % static_cast<unsigned long>(table->tableSize);
  VoidPtrType* slot = home;
  while (*slot != nullptr) {
    if (table->compareFunc(record, *slot) != 0) return slot;
    slot = nextSlot(table, slot);
    if (slot == home) return nullptr;
  }
  if (holesOf(table)->count == 0 || !isHole(table, slot)) return slot;
  return lookUpBeyond(table, record, slot, home);
}

BoolType HashTableInsert(HashTableSType* table, VoidPtrType* slot, VoidPtrType record) {
  if (slot != nullptr && *slot != nullptr) return 0;
  if (table->numEntries >= table->halfTableSize && table->indexOfPrime < lastPrime) {
    ++table->indexOfPrime;
    if (!rehash(table)) return 0;
    slot = HashTableLookup(table, record);
  }
  if (slot == nullptr) return 0;
  void* stored = record;
  if (table->copyKeys != 0) {
    const auto keySize = static_cast<std::size_t>(table->keySize);
    stored = UtlMalloc_(keySize, __LINE__);
    if (stored == nullptr) return 0;
    std::memcpy(stored, record, keySize);
  }
  setHole(table, slot, false);
  *slot = stored;
  ++table->numEntries;
  return 1;
}

BoolType HashTableRemove(HashTableSType* table, VoidPtrType* slot) {
  if (slot == nullptr || *slot == nullptr) return 0;
  if (table->copyKeys != 0) UtlFree(*slot);
  *slot = nullptr;
  --table->numEntries;
  leaveHole(table, slot);
  return 1;
}

void HashTableClear(HashTableSType* table) {
  if (table->table != nullptr) {
    for (VoidPtrType* slot = table->table; slot != table->endPtr; ++slot) {
      if (*slot != nullptr && table->copyKeys != 0) UtlFree(*slot);
    }
    UtlFree(table->table);
  }
  makeEmpty(table);
  rehash(table);
}

void HashTableEnumerate(HashTableSType* table, VoidPtrType** cursor) {
  VoidPtrType* slot = *cursor != nullptr ? *cursor + 1 : table->table;
  while (slot != table->endPtr && *slot == nullptr) ++slot;
  *cursor = slot != table->endPtr ? slot : nullptr;
}
