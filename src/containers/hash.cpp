#include <povzel/hash.h>

#include <emmintrin.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>

#include <povzel/utlheap.h>
#include "internal.h"

namespace {

// A permutation of 0 to 255. Its values are in compiled message files: they never change.
constexpr ByteType CharPermutation[256] = {
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

// Two steps in one: entry [b][x] is the hash after the bytes a and b, x being the hash before them
// exclusive-or a. Row 0 is the step for a alone, so that a C string of odd length ends with its NUL
// like any other; where a byte 0 is one of a string's own, both steps are made one by one.
using TwoSteps = std::array<std::array<ByteType, 256>, 256>;
alignas(64) constexpr TwoSteps twoSteps = [] {
  TwoSteps steps{};
  for (unsigned x = 0; x < 256; ++x) {
    steps[0][x] = CharPermutation[x];
    for (unsigned second = 1; second < 256; ++second) {
      steps[second][x] = CharPermutation[CharPermutation[x] ^ second];
    }
  }
  return steps;
}();

// Three Pearson hashes that take the same bytes and differ in their start. The bytes come in pairs,
// the low one first, as twoSteps has them: a high byte 0 stands for none.
class PearsonHash {
 public:
  // The starts of the hashes are bytes: they go on with 0 after 255.
  explicit PearsonHash(unsigned pair)
      : PearsonHash(twoSteps, pair, (pair & ~255U) | ((pair + 1) & 255),
                    (pair & ~255U) | ((pair + 2) & 255)) {}

  static PearsonHash withoutWrap(const TwoSteps& steps, unsigned pair) {
    return {steps, pair, pair + 1, pair + 2};
  }

  void add(unsigned pair) {
    hash0_ = steps_[hash0_ ^ pair];
    hash1_ = steps_[hash1_ ^ pair];
    hash2_ = steps_[hash2_ ^ pair];
  }

  unsigned value() const { return hash2_ << 16 | hash1_ << 8 | hash0_; }

 private:
  PearsonHash(const TwoSteps& steps, unsigned start0, unsigned start1, unsigned start2)
      : steps_(steps.front().data()),
        hash0_(steps_[start0]),
        hash1_(steps_[start1]),
        hash2_(steps_[start2]) {}

  const ByteType* steps_;
  unsigned hash0_;
  unsigned hash1_;
  unsigned hash2_;
};

unsigned pairAt(const ByteType* bytes) {
  std::uint16_t pair;
  std::memcpy(&pair, bytes, sizeof pair);
  return pair;
}

// Goes on with a hash of which `pair` is the last.
[[gnu::always_inline]] inline unsigned hashRest(PearsonHash hash, unsigned pair,
                                                const ByteType* bytes) {
  while (pair > 255) {
    bytes += 2;
    if (*bytes == 0) break;
    pair = pairAt(bytes);
    hash.add(pair);
  }
  return hash.value();
}

// An empty string, and hashes whose starts may wrap.
bool isRare(const ByteType* bytes) {
  return *bytes == 0 || (pairAt(bytes) & 255) > 253;
}

// Of any other. Inlined, and with its table given, it leaves a search the registers it needs.
[[gnu::always_inline]] inline unsigned hashOfUsualCString(const TwoSteps& steps,
                                                          const ByteType* bytes) {
  const unsigned pair = pairAt(bytes);
  return hashRest(PearsonHash::withoutWrap(steps, pair), pair, bytes);
}

[[gnu::noinline]] unsigned hashOfRareCString(const ByteType* bytes) {
  if (*bytes == 0) return 0;
  const unsigned pair = pairAt(bytes);
  return hashRest(PearsonHash(pair), pair, bytes);
}

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
    PearsonHash hash(*bytes++);
#pragma GCC unroll 2
    for (; end - bytes > 1; bytes += 2) {
      const unsigned pair = pairAt(bytes);
      hash.add(pair);
      if (pair <= 255) hash.add(0);
    }
    if (bytes != end) hash.add(*bytes);
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
  const auto* const bytes = static_cast<const ByteType*>(string);
  if (isRare(bytes)) return hashOfRareCString(bytes);
  return hashOfUsualCString(twoSteps, bytes);
}

BoolType HashCStrCompare(const void* string1, const void* string2) {
  return std::strcmp(static_cast<const char*>(string1), static_cast<const char*>(string2)) == 0;
}

// The table. Its slots are one block with the Rest behind them, at endPtr. The mark of an occupied
// slot is a piece of its record's hash: a probe reads marks alone, many at once, and looks at the
// records only where the mark is right. The hashes themselves are kept too, behind the marks, so
// that records move without being looked at.
//
// Emptying a slot would hide the records whose probes passed over it, and moving one of them into
// it would hide that record from an enumeration that has come this far. So nothing moves: the
// slot becomes a hole, over which probes go on. Inserts fill holes, and when there are too many
// an insert moves all records to a new array, which has none.
namespace {

// The top bit says that a slot is empty.
constexpr ByteType endOfRun = 128;  // no probe passes over it
constexpr ByteType hole = 255;

// Holes are too many when they are more than this part of the empty slots, which bounds how much
// longer they make a search, and of all slots, so that moving the records is paid for by that many
// removals.
constexpr std::size_t emptyPerHole = 3;
constexpr std::size_t slotsPerHole = 256;

// How many holes one removal closes at the most.
constexpr int mostClosed = 64;

struct Rest {
  std::size_t holes;
  // Where records are C strings by the pair for them, what hashes them; else null. A look-up learns
  // here which it is, and need not find out where the library is loaded.
  const TwoSteps* cStringSteps;
  // The last look-up that found nothing: for the insert that follows it.
  const VoidPtrType* missedSlot;
  const void* missedRecord;
  unsigned int missedHash;
  ByteType marks[1];  // of each slot, and once more of the first ones, so that groups need not wrap
};

constexpr std::size_t groupSize = sizeof(__m128i);

__m128i groupAt(const void* bytes) {
  return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

__m128i withMark(__m128i group, ByteType mark) {
  return _mm_cmpeq_epi8(group, _mm_set1_epi8(static_cast<char>(mark)));
}

// A bit for each byte, the first lowest, that has its top bit set.
unsigned bitsOf(__m128i group) {
  return static_cast<unsigned>(_mm_movemask_epi8(group));
}

// A bit for each of the groupSize slots that has this mark.
unsigned marked(__m128i group, ByteType mark) {
  return bitsOf(withMark(group, mark));
}

// The number of the lowest bit, of which there is one. A processor that does not know the faster
// instruction ignores its prefix.
unsigned lowestBit(unsigned bits) {
  unsigned number;
  __asm__("rep bsf %1, %0" : "=r"(number) : "rm"(bits) : "cc");
  return number;
}

// What a hash says of its record: the slot where probes for it start, and its mark.
struct Place {
  std::size_t home;
  ByteType mark;
};

Rest* restOf(const HashTableSType* table) {
  return reinterpret_cast<Rest*>(table->endPtr);
}

std::size_t indexOf(const HashTableSType* table, const VoidPtrType* slot) {
  return static_cast<std::size_t>(slot - table->table);
}

std::size_t sizeOf(const HashTableSType* table) {
  return static_cast<std::size_t>(table->tableSize);
}

// Records with the same home differ in the quotient, neighbours in the hash itself.
Place placeOf(unsigned int hash, std::size_t size) {
  return {hash % size, static_cast<ByteType>((hash ^ hash / size) & 127)};
}

// Bytes from endPtr to the hashes: whole words.
constexpr std::size_t restSize(std::size_t slots) {
  const std::size_t end = offsetof(Rest, marks) + slots + groupSize - 1;
  return (end + sizeof(unsigned int) - 1) & ~(sizeof(unsigned int) - 1);
}

// The hash of the record in each slot.
unsigned int* hashesOf(VoidPtrType* endPtr, std::size_t slots) {
  return reinterpret_cast<unsigned int*>(reinterpret_cast<ByteType*>(endPtr) + restSize(slots));
}

void setMark(HashTableSType* table, std::size_t index, ByteType mark) {
  ByteType* const marks = restOf(table)->marks;
  marks[index] = mark;
  if (index < groupSize - 1) marks[sizeOf(table) + index] = mark;
}

std::size_t wrapped(const HashTableSType* table, std::size_t index) {
  return index < sizeOf(table) ? index : index - sizeOf(table);
}

std::size_t nextOf(const HashTableSType* table, std::size_t index) {
  return wrapped(table, index + 1);
}

std::size_t previousOf(const HashTableSType* table, std::size_t index) {
  return (index != 0 ? index : sizeOf(table)) - 1;
}

bool hasTooManyHoles(const HashTableSType* table) {
  const std::size_t holes = restOf(table)->holes;
  const std::size_t size = sizeOf(table);
  return holes > (size - static_cast<std::size_t>(table->numEntries)) / emptyPerHole &&
         holes > size / slotsPerHole;
}

// Marks the slot, just emptied, a hole if a probe might pass over it. None does when the next slot
// ends all probes, and then the holes just before have lost their use too.
void leaveHole(HashTableSType* table, std::size_t index) {
  Rest* const rest = restOf(table);
  if (rest->marks[nextOf(table, index)] != endOfRun) {
    setMark(table, index, hole);
    ++rest->holes;
    return;
  }
  setMark(table, index, endOfRun);
  for (int closed = 0; closed < mostClosed; ++closed) {
    index = previousOf(table, index);
    if (rest->marks[index] != hole) return;
    setMark(table, index, endOfRun);
    --rest->holes;
  }
}

// How records are hashed and compared: by the caller's functions, or directly by the pair for C
// strings.

struct ByPointer {
  static unsigned int hash(const HashTableSType* table, const void* record) {
    return table->hashFunc(record);
  }
  static bool equal(const HashTableSType* table, const void* record, const void* stored) {
    return table->compareFunc(record, stored) != 0;
  }
};

#ifdef POVZEL_SANITIZE
bool areEqualCStrings(const void* one, const void* other) {
  return HashCStrCompare(one, other) != 0;
}
#else
// Out of line, so that the registers that a call needs are not taken from those who need none.
[[gnu::noinline]] bool areEqualLongCStrings(const void* one, const void* other) {
  return HashCStrCompare(one, other) != 0;
}

[[gnu::always_inline]] inline bool areEqualCStrings(const void* one, const void* other) {
  if (!tvCanReadRegister(one) || !tvCanReadRegister(other)) return areEqualLongCStrings(one, other);
  const __m128i bytes = groupAt(one);
  const unsigned ends = marked(bytes, 0);
  const unsigned equal = bitsOf(_mm_cmpeq_epi8(bytes, groupAt(other)));
  if (ends != 0) return (~equal & (ends ^ (ends - 1))) == 0;  // up to the first end
  return equal == (1U << groupSize) - 1 && areEqualLongCStrings(one, other);
}
#endif

struct AsCStrings {
  static bool equal(const HashTableSType* /*table*/, const void* record, const void* stored) {
    return areEqualCStrings(record, stored);
  }
};

// A program that is not position-independent may know the two functions by addresses of its own:
// then they are called like any others.
bool holdsCStrings(const HashTableSType* table) {
  return table->hashFunc == HashCStrHash && table->compareFunc == HashCStrCompare;
}

// Searches groupSize slots from `start` on. True ends the search, with its result in `found`; until
// then that is the first empty slot, once there is one.
template <typename Records>
inline bool searchGroup(const HashTableSType* table, const void* record, ByteType mark,
                        std::size_t start, VoidPtrType*& found) {
  const auto slotAt = [&](unsigned bits) {
    return table->table + wrapped(table, start + lowestBit(bits));
  };
  const __m128i group = groupAt(restOf(table)->marks + start);
  const unsigned ends = marked(group, endOfRun);
  unsigned candidates = marked(group, mark) & (ends ^ (ends - 1));  // up to the first end
  for (; candidates != 0; candidates &= candidates - 1) {
    VoidPtrType* const slot = slotAt(candidates);
    if (!Records::equal(table, record, *slot)) continue;
    found = slot;
    return true;
  }
  const unsigned empty = bitsOf(group);
  if (found == nullptr && empty != 0) found = slotAt(empty);
  return ends != 0;
}

// Goes on with a search from the second group on. Out of line, since few come this far.
template <typename Records>
[[gnu::noinline]] void searchOn(const HashTableSType* table, const void* record, ByteType mark,
                                std::size_t start, VoidPtrType*& found) {
  for (std::size_t seen = groupSize; seen < sizeOf(table); seen += groupSize) {
    start = wrapped(table, start + groupSize);
    if (searchGroup<Records>(table, record, mark, start, found)) return;
  }
}

template <typename Records>
inline VoidPtrType* search(const HashTableSType* table, const void* record, unsigned int hash) {
  const auto [home, mark] = placeOf(hash, sizeOf(table));
  VoidPtrType* found = nullptr;
  if (!searchGroup<Records>(table, record, mark, home, found)) {
    searchOn<Records>(table, record, mark, home, found);
  }
  return found;
}

void noteMiss(const HashTableSType* table, VoidPtrType* slot, const void* record,
              unsigned int hash) {
  Rest* const rest = restOf(table);
  rest->missedSlot = slot;
  rest->missedRecord = record;
  rest->missedHash = hash;
}

template <typename Records>
[[gnu::noinline]] VoidPtrType* lookup(const HashTableSType* table, const void* record,
                                      unsigned int hash) {
  VoidPtrType* const found = search<Records>(table, record, hash);
  if (found != nullptr && *found == nullptr) noteMiss(table, found, record, hash);
  return found;
}

// Out of line, as the look-up of C strings calls nothing on its way.
[[gnu::noinline]] VoidPtrType* lookupByPointer(const HashTableSType* table, const void* record) {
  const unsigned int hash = table->hashFunc(record);
  return table->table != nullptr ? lookup<ByPointer>(table, record, hash) : nullptr;
}

// Nearly always decided at the first slot that is empty or has the record's mark, which is one bit
// to look for. All that is rare is called, so that nothing else of it is kept in memory.
inline VoidPtrType* lookupCString(const HashTableSType* table, const TwoSteps& steps,
                                  const void* record) {
  const auto* const bytes = static_cast<const ByteType*>(record);
  if (isRare(bytes)) [[unlikely]]
    return lookup<AsCStrings>(table, record, hashOfRareCString(bytes));
  const unsigned int hash = hashOfUsualCString(steps, bytes);
  const auto [home, mark] = placeOf(hash, sizeOf(table));
  const ByteType* const marks = restOf(table)->marks + home;
  const __m128i group = groupAt(marks);
  const unsigned stops = bitsOf(_mm_or_si128(group, withMark(group, mark)));
  if (stops != 0) [[likely]] {
    const unsigned first = lowestBit(stops);
    // From endPtr, which the Rest is at already.
    auto fromEnd = static_cast<std::ptrdiff_t>(home + first - sizeOf(table));
    if (fromEnd >= 0) fromEnd -= static_cast<std::ptrdiff_t>(sizeOf(table));
    VoidPtrType* const slot = table->endPtr + fromEnd;
    if (marks[first] == endOfRun) {
      noteMiss(table, slot, record, hash);
      return slot;
    }
    if (marks[first] < endOfRun && areEqualCStrings(record, *slot)) return slot;
  }
  return lookup<AsCStrings>(table, record, hash);
}

// The hash of a record that is to be stored in `slot`. The slot alone would not do: between the
// look-up for the record and its insert, another may have come to the same slot.
unsigned int hashForInsert(const HashTableSType* table, const VoidPtrType* slot,
                           const void* record) {
  if (slot != nullptr) {
    const Rest* const rest = restOf(table);
    if (rest->missedSlot == slot && rest->missedRecord == record) return rest->missedHash;
  }
  return table->hashFunc(record);
}

// Makes room for an insert into `slot` if it is time: true, and the record's slot then, which is
// the same unless records have moved. False when memory is short for a larger table.
bool makeRoom(HashTableSType* table, const void* record, unsigned int hash, VoidPtrType*& slot) {
  if (table->numEntries >= table->halfTableSize && table->indexOfPrime < lastPrime) {
    ++table->indexOfPrime;
    if (rehash(table) == 0) return false;
  } else if (slot == nullptr || !hasTooManyHoles(table) || rehash(table) == 0) {
    return true;
  }
  slot = search<ByPointer>(table, record, hash);
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

BoolType rehash(HashTableSType* table) {
  if (table->indexOfPrime > lastPrime) return 0;
  const long indexOfPrime = table->indexOfPrime < firstPrime ? firstPrime : table->indexOfPrime;
  const long size = powerOfTwoPrime[indexOfPrime];
  if (size < table->numEntries) return 0;
  const auto newSize = static_cast<std::size_t>(size);
  const std::size_t slotBytes = newSize * sizeof(VoidPtrType);
  const std::size_t hashBytes = newSize * sizeof(unsigned int);
  auto* slots =
      static_cast<VoidPtrType*>(UtlMalloc_(slotBytes + restSize(newSize) + hashBytes, __LINE__));
  if (slots == nullptr) return 0;
  std::memset(slots, 0, slotBytes);
  std::memset(slots + size, endOfRun, restSize(newSize));

  VoidPtrType* const oldTable = table->table;
  VoidPtrType* const oldEnd = table->endPtr;
  const std::size_t oldSize = sizeOf(table);
  table->indexOfPrime = indexOfPrime;
  table->table = slots;
  table->endPtr = slots + size;
  table->tableSize = size;
  table->halfTableSize = size >> 1;
  table->quarterTableSize = size >> 2;
  restOf(table)->holes = 0;
  restOf(table)->cStringSteps = holdsCStrings(table) ? &twoSteps : nullptr;
  restOf(table)->missedSlot = nullptr;
  if (oldTable == nullptr) return 1;
  const unsigned int* const oldHashes = hashesOf(oldEnd, oldSize);
  unsigned int* const hashes = hashesOf(table->endPtr, newSize);
  for (std::size_t old = 0; old < oldSize; ++old) {
    if (oldTable[old] == nullptr) continue;
    const auto [home, mark] = placeOf(oldHashes[old], newSize);
    std::size_t at = home;
    while (slots[at] != nullptr) at = nextOf(table, at);
    slots[at] = oldTable[old];
    hashes[at] = oldHashes[old];
    setMark(table, at, mark);
  }
  UtlFree(oldTable);
  return 1;
}

VoidPtrType* HashTableLookup(HashTableSType* table, const void* record) {
  if (table->endPtr == nullptr) return lookupByPointer(table, record);
  const TwoSteps* const steps = restOf(table)->cStringSteps;
  return steps != nullptr ? lookupCString(table, *steps, record) : lookupByPointer(table, record);
}

BoolType HashTableInsert(HashTableSType* table, VoidPtrType* slot, VoidPtrType record) {
  if (record == nullptr || (slot != nullptr && *slot != nullptr)) return 0;
  const unsigned int hash = hashForInsert(table, slot, record);
  if (!makeRoom(table, record, hash, slot) || slot == nullptr || *slot != nullptr) return 0;
  void* stored = record;
  if (table->copyKeys != 0) {
    const auto keySize = static_cast<std::size_t>(table->keySize);
    stored = UtlMalloc_(keySize, __LINE__);
    if (stored == nullptr) return 0;
    std::memcpy(stored, record, keySize);
  }
  const std::size_t index = indexOf(table, slot);
  Rest* const rest = restOf(table);
  if (rest->marks[index] == hole) --rest->holes;
  rest->missedSlot = nullptr;
  *slot = stored;
  hashesOf(table->endPtr, sizeOf(table))[index] = hash;
  setMark(table, index, placeOf(hash, sizeOf(table)).mark);
  ++table->numEntries;
  return 1;
}

BoolType HashTableRemove(HashTableSType* table, VoidPtrType* slot) {
  if (slot == nullptr || *slot == nullptr) return 0;
  if (table->copyKeys != 0) UtlFree(*slot);
  *slot = nullptr;
  --table->numEntries;
  restOf(table)->missedSlot = nullptr;
  leaveHole(table, indexOf(table, slot));
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
