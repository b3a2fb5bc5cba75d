#include <povzel/tvhash.h>

#include <emmintrin.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <povzel/hostdebug.h>
#include "internal.h"

namespace {

constexpr long staticSize = 4;
constexpr long entriesPerBucket = 3;
constexpr long growthFactor = 4;
constexpr long growthBits = 2;
constexpr long firstDownShift = 28;
constexpr std::uint32_t wordMultiplier = 1103515245;
constexpr std::size_t keyOffset = offsetof(TvHashEntry, key);

std::size_t wordIndex(const TvHashTable* table, std::uint32_t word) {
  const auto product = static_cast<std::int32_t>(word * wordMultiplier);
  return static_cast<std::size_t>((product >> table->downShift) & table->mask);
}

// A string's hash is the sum of its characters, each times 9 to the power of how many follow it.
std::uint32_t plainStringHash(const char* key) {
  std::uint32_t hash = 0;
  for (; *key != '\0'; ++key) hash += (hash << 3) + static_cast<std::uint32_t>(*key);
  return hash;
}

// Strings that one register holds, with their NUL.
constexpr std::size_t mostInRegister = sizeof(__m128i) - 1;

// The powers of 9 from the largest that such a string needs down to 1, and then zeros, so that they
// can be read from where those of its length begin; each as a sum of signed halves,
// low + 65536 * high.
struct Powers {
  std::array<std::int16_t, 2 * sizeof(__m128i)> low, high;
};
constexpr Powers powersOfNine = [] {
  Powers powers{};
  std::uint32_t power = 1;
  for (std::size_t i = mostInRegister; i-- > 0; power *= 9) {
    powers.low[i] = static_cast<std::int16_t>(power);
    const std::uint32_t rest = power - static_cast<std::uint32_t>(powers.low[i]);
    powers.high[i] = static_cast<std::int16_t>(rest >> 16);
  }
  return powers;
}();

template <typename Word>
Word wordAt(const char* bytes) {
  Word word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// The `length` bytes, at most mostInRegister, with zeros behind them. Reads no others.
inline __m128i inRegister(const char* bytes, std::size_t length) {
  const auto bits = static_cast<int>(8 * length);
  if (length >= 8) {
    const __m128i first = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes));
    const __m128i last = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes + length - 8));
    return _mm_unpacklo_epi64(first, _mm_srl_epi64(last, _mm_cvtsi32_si128(128 - bits)));
  }
  if (length >= 4) {
    const __m128i first = _mm_cvtsi32_si128(wordAt<int>(bytes));
    const __m128i last = _mm_cvtsi32_si128(wordAt<int>(bytes + length - 4));
    return _mm_unpacklo_epi32(first, _mm_srl_epi32(last, _mm_cvtsi32_si128(64 - bits)));
  }
  if (length == 0) return _mm_setzero_si128();
  const auto byteAt = [bytes](std::size_t i) {
    return static_cast<int>(static_cast<unsigned char>(bytes[i])) << (8 * i);
  };
  return _mm_cvtsi32_si128(byteAt(0) | byteAt(length / 2) | byteAt(length - 1));
}

inline __m128i weigh(__m128i first, __m128i last, const std::int16_t* powers) {
  const auto* weights = reinterpret_cast<const __m128i*>(powers);
  return _mm_add_epi32(_mm_madd_epi16(first, _mm_loadu_si128(weights)),
                       _mm_madd_epi16(last, _mm_loadu_si128(weights + 1)));
}

// The low bits of what plainStringHash gives for the string of that length at the start of the
// register, as many as the mask has. What lies behind the string has no weight.
inline std::uint32_t shortStringHash(__m128i bytes, std::size_t length, std::uint32_t mask) {
  const __m128i first = _mm_srai_epi16(_mm_unpacklo_epi8(bytes, bytes), 8);
  const __m128i last = _mm_srai_epi16(_mm_unpackhi_epi8(bytes, bytes), 8);
  const std::size_t start = mostInRegister - length;
  __m128i sum = weigh(first, last, powersOfNine.low.data() + start);
  if (mask > UINT16_MAX) [[unlikely]] {
    const __m128i high = weigh(first, last, powersOfNine.high.data() + start);
    sum = _mm_add_epi32(sum, _mm_slli_epi32(high, 16));
  }
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
  return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sum)) & mask;
}

std::uint32_t maskOf(const TvHashTable* table) {
  return static_cast<std::uint32_t>(table->mask);
}

// The kinds of key. Each says which keys it takes, in which bucket a key belongs, whether an entry
// has it, how many bytes it takes in an entry, and puts it there and takes it from there.
//
// Of a branch-free one, `difference` tells without a branch whether an entry has the key: then it
// is 0. `noEntry` gives an entry that stands in an empty bucket: it has another key than this one.
// It may be made in `room`; it is read but never written to.

struct StringKey {
  using Probe = const char*;
  static constexpr bool isBranchFree = false;

  static bool isValid(const TvHashTable* /*table*/, const char* key) { return key != nullptr; }

  static std::size_t index(const TvHashTable* table, const char* key) {
    return plainStringHash(key) & maskOf(table);
  }

  static bool matches(const TvHashTable* /*table*/, const TvHashEntry* entry, const char* key) {
    return *entry->key.string == *key && std::strcmp(entry->key.string, key) == 0;
  }

  static std::uint64_t size(const TvHashTable* /*table*/, const char* key) {
    return std::uint64_t{std::strlen(key)} + 1;
  }

  static void store(TvHashEntry* entry, const char* key, std::size_t size) {
    std::memcpy(reinterpret_cast<char*>(entry) + keyOffset, key, size);
  }

  static std::size_t storedIndex(const TvHashTable* table, const TvHashEntry* entry) {
    const char* const key = entry->key.string;
    const std::size_t length = std::strlen(key);
    if (length > mostInRegister) return index(table, key);
    return shortStringHash(inRegister(key, length), length, maskOf(table));
  }
};

// An entry whose key goes on to the end of a register, and therefore is no short string.
struct alignas(__m128i) TooLong {
  TvHashEntry entry;
  char rest[sizeof(__m128i) - sizeof(TvHashEntry::key) + 1];
};
constexpr TooLong tooLong{
    .entry = {.nextPtr = nullptr,
              .tablePtr = nullptr,
              .bucketPtr = nullptr,
              .value = nullptr,
              .key = {.string = {'t', 'o', 'o', ' '}}},
    .rest = "long by far.",
};

// A string that one register holds.
struct ShortStringKey {
  struct Probe {
    const char* string;
    std::size_t length;
    __m128i bytes;  // the string's with its NUL, and any others behind that
  };
  static constexpr bool isBranchFree = true;

  static std::size_t index(const TvHashTable* table, const Probe& key) {
    return shortStringHash(key.bytes, key.length, maskOf(table));
  }

#ifdef POVZEL_SANITIZE
  static std::uint32_t difference(const TvHashEntry* entry, const Probe& key) {
    return std::strcmp(entry->key.string, key.string) != 0;
  }
#else
  // An entry's key is aligned to a register: what is read of it beyond the entry's block is in the
  // same line as its first byte.
  static_assert(keyOffset == sizeof(__m128i));

  static std::uint32_t difference(const TvHashEntry* entry, const Probe& key) {
    const __m128i stored = _mm_load_si128(reinterpret_cast<const __m128i*>(entry) + 1);
    const int equal = _mm_movemask_epi8(_mm_cmpeq_epi8(stored, key.bytes));
    return static_cast<std::uint32_t>((equal | -2 << key.length) + 1);  // its NUL is compared too
  }
#endif

  static bool matches(const TvHashTable* /*table*/, const TvHashEntry* entry, const Probe& key) {
    return difference(entry, key) == 0;
  }

  static const TvHashEntry* noEntry(const Probe& /*key*/, TvHashEntry& /*room*/) {
    return &tooLong.entry;
  }

  static std::uint64_t size(const TvHashTable* /*table*/, const Probe& key) {
    return std::uint64_t{key.length} + 1;
  }

  static void store(TvHashEntry* entry, const Probe& key, std::size_t size) {
    StringKey::store(entry, key.string, size);
  }

  static std::size_t storedIndex(const TvHashTable* table, const TvHashEntry* entry) {
    return StringKey::storedIndex(table, entry);
  }
};

struct WordKey {
  using Probe = const char*;
  static constexpr bool isBranchFree = true;

  static bool isValid(const TvHashTable* /*table*/, const char* /*key*/) { return true; }

  static std::size_t index(const TvHashTable* table, const char* key) {
    return wordIndex(table, reinterpret_cast<std::uintptr_t>(key));
  }

  static std::uint32_t difference(const TvHashEntry* entry, const char* key) {
    return reinterpret_cast<std::uintptr_t>(entry->key.oneWordValue) ^
           reinterpret_cast<std::uintptr_t>(key);
  }

  static bool matches(const TvHashTable* /*table*/, const TvHashEntry* entry, const char* key) {
    return difference(entry, key) == 0;
  }

  static const TvHashEntry* noEntry(const char* key, TvHashEntry& room) {
    room.nextPtr = nullptr;
    room.key.oneWordValue = reinterpret_cast<const char*>(~reinterpret_cast<std::uintptr_t>(key));
    return &room;
  }

  static std::uint64_t size(const TvHashTable* /*table*/, const char* /*key*/) {
    return sizeof(TvHashEntry::key.oneWordValue);
  }

  static void store(TvHashEntry* entry, const char* key, std::size_t /*size*/) {
    entry->key.oneWordValue = key;
  }

  static std::size_t storedIndex(const TvHashTable* table, const TvHashEntry* entry) {
    return index(table, static_cast<const char*>(entry->key.oneWordValue));
  }
};

struct ArrayKey {
  using Probe = const char*;
  static constexpr bool isBranchFree = false;

  // No entry can hold more words; negative counts are beyond it too.
  static constexpr std::uint32_t mostWords = (UINT32_MAX - keyOffset) / sizeof(long);

  static bool isValid(const TvHashTable* table, const char* key) {
    return key != nullptr && static_cast<std::uint32_t>(table->keyType) <= mostWords;
  }

  static std::size_t index(const TvHashTable* table, const char* key) {
    std::uint32_t sum = 0;
    for (long i = 0; i < table->keyType; ++i) {
      std::uint32_t word;
      std::memcpy(&word, key + i * static_cast<long>(sizeof word), sizeof word);
      sum += word;
    }
    return wordIndex(table, sum);
  }

  static bool matches(const TvHashTable* table, const TvHashEntry* entry, const char* key) {
    return std::memcmp(of(entry), key, static_cast<std::size_t>(size(table, key))) == 0;
  }

  static std::uint64_t size(const TvHashTable* table, const char* /*key*/) {
    return std::uint64_t{sizeof(long)} * static_cast<std::uint32_t>(table->keyType);
  }

  static void store(TvHashEntry* entry, const char* key, std::size_t size) {
    std::memcpy(reinterpret_cast<char*>(entry) + keyOffset, key, size);
  }

  static const char* of(const TvHashEntry* entry) {
    return reinterpret_cast<const char*>(entry) + keyOffset;
  }

  static std::size_t storedIndex(const TvHashTable* table, const TvHashEntry* entry) {
    return index(table, of(entry));
  }
};

// What is wanted of a chain: its keys are compared in registers only if all of it is inlined.
template <typename Key>
[[gnu::always_inline]] inline TvHashEntry* walk(const TvHashTable* table, TvHashEntry* entry,
                                                const typename Key::Probe& key) {
  while (entry != nullptr && !Key::matches(table, entry, key)) entry = entry->nextPtr;
  return entry;
}

// In a large table nobody can tell where in its chain an entry is, and a branch that is guessed
// wrong takes longer than to look at all of the first links.
constexpr long largeMask = 1023;

template <typename Key>
[[gnu::noinline]] TvHashEntry* walkOn(const TvHashTable* table, TvHashEntry* entry,
                                      typename Key::Probe key) {
  return walk<Key>(table, entry, key);
}

// How many links are looked at whatever they hold: of fewer, too many finds go on behind them; more
// take longer for too few.
constexpr int firstLinks = 3;

// The next entry of the chain; the same one if it is the last, or the one that is wanted, so that
// none is read for nothing.
inline TvHashEntry* nextUnlessEqual(TvHashEntry* entry, std::uint32_t difference) {
  TvHashEntry* next = entry->nextPtr;
  __asm__("test %0, %0\n\tcmovz %1, %0\n\ttest %2, %2\n\tcmovz %1, %0"
          : "+&r"(next)
          : "r"(entry), "r"(difference)
          : "cc");
  return next;
}

template <typename Key>
[[gnu::always_inline]] inline TvHashEntry* walkBranchFree(const TvHashTable* table,
                                                          TvHashEntry* entry,
                                                          const typename Key::Probe& key) {
  TvHashEntry room;
  const TvHashEntry* const none = Key::noEntry(key, room);
  __asm__("test %0, %0\n\tcmovz %1, %0" : "+r"(entry) : "r"(none) : "cc", "memory");
#pragma GCC unroll 4
  for (int link = 1; link < firstLinks; ++link) {
    entry = nextUnlessEqual(entry, Key::difference(entry, key));
  }
  if (Key::difference(entry, key) == 0) return entry;
  return walkOn<Key>(table, entry->nextPtr, key);
}

template <typename Key>
[[gnu::always_inline]] inline TvHashEntry* findIn(const TvHashTable* table, std::size_t index,
                                                  const typename Key::Probe& key) {
  TvHashEntry* const entry = table->buckets[index];
  if constexpr (Key::isBranchFree) {
    if (table->mask >= largeMask) return walkBranchFree<Key>(table, entry, key);
  }
  return walk<Key>(table, entry, key);
}

void link(TvHashEntry* entry, TvHashEntry** bucket) {
  entry->bucketPtr = bucket;
  entry->nextPtr = *bucket;
  *bucket = entry;
}

// Moves all entries to `newBuckets`, of which there are growthFactor times as many.
template <typename Key>
void rebuild(TvHashTable* table, TvHashEntry** newBuckets) {
  TvHashEntry** const oldBuckets = table->buckets;
  const long oldSize = table->numBuckets;
  table->buckets = newBuckets;
  table->numBuckets = oldSize * growthFactor;
  table->rebuildSize *= growthFactor;
  table->downShift -= growthBits;
  table->mask = table->mask * growthFactor + growthFactor - 1;
  std::memset(newBuckets, 0, static_cast<std::size_t>(table->numBuckets) * sizeof(void*));
  for (long i = 0; i < oldSize; ++i) {
    for (TvHashEntry *entry = oldBuckets[i], *next; entry != nullptr; entry = next) {
      next = entry->nextPtr;
      link(entry, &newBuckets[Key::storedIndex(table, entry)]);
    }
  }
  if (oldBuckets != table->staticBuckets) UtlFree(oldBuckets);
}

template <typename Key>
TvHashEntry* find(TvHashTable* table, const char* key) {
  if (!Key::isValid(table, key)) return nullptr;
  return findIn<Key>(table, Key::index(table, key), key);
}

[[gnu::always_inline]] inline TvHashEntry* findShort(const TvHashTable* table,
                                                     const ShortStringKey::Probe& key) {
  return findIn<ShortStringKey>(table, ShortStringKey::index(table, key), key);
}

// Finds any string. Out of line, so that its calls cost the others nothing.
[[gnu::noinline]] TvHashEntry* findMeasured(TvHashTable* table, const char* key) {
  if (key == nullptr) return nullptr;
  const std::size_t length = std::strlen(key);
  if (length > mostInRegister) return find<StringKey>(table, key);
  return findShort(table, {key, length, inRegister(key, length)});
}

#ifdef POVZEL_SANITIZE
TvHashEntry* findString(TvHashTable* table, const char* key) {
  return findMeasured(table, key);
}
#else
TvHashEntry* findString(TvHashTable* table, const char* key) {
  if (key == nullptr || !tvCanReadRegister(key)) [[unlikely]]
    return findMeasured(table, key);
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(key));
  const int ends = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128()));
  if (ends == 0) return findMeasured(table, key);
  return findShort(table, {key, static_cast<std::size_t>(__builtin_ctz(ends)), bytes});
}
#endif

// Finds or makes the entry of a valid key. Allocates all that it needs before it changes anything.
template <typename Key>
TvHashEntry* findOrMake(TvHashTable* table, const typename Key::Probe& key, long* newPtr) {
  const std::size_t index = Key::index(table, key);
  if (TvHashEntry* found = findIn<Key>(table, index, key); found != nullptr) return found;

  const std::uint64_t keySize = Key::size(table, key);
  auto* entry = static_cast<TvHashEntry*>(tvAllocate(keyOffset + keySize, "tvhash"));
  if (entry == nullptr) return nullptr;
  TvHashEntry** newBuckets = nullptr;
  const bool grows = table->numEntries + 1 >= table->rebuildSize;
  if (grows) {
    const auto bytes = static_cast<std::uint64_t>(table->numBuckets) * growthFactor * sizeof(void*);
    newBuckets = static_cast<TvHashEntry**>(tvAllocate(bytes, "tvHash"));
    if (newBuckets == nullptr) {
      UtlFree(entry);
      return nullptr;
    }
  }

  entry->tablePtr = table;
  entry->value = nullptr;
  Key::store(entry, key, static_cast<std::size_t>(keySize));
  link(entry, &table->buckets[index]);
  ++table->numEntries;
  if (grows) rebuild<Key>(table, newBuckets);
  *newPtr = 1;
  return entry;
}

template <typename Key>
TvHashEntry* create(TvHashTable* table, const char* key, long* newPtr) {
  *newPtr = 0;
  return Key::isValid(table, key) ? findOrMake<Key>(table, key, newPtr) : nullptr;
}

TvHashEntry* createString(TvHashTable* table, const char* key, long* newPtr) {
  *newPtr = 0;
  if (key == nullptr) return nullptr;
  const std::size_t length = std::strlen(key);
  TvHashEntry* const entry =
      length > mostInRegister
          ? findOrMake<StringKey>(table, key, newPtr)
          : findOrMake<ShortStringKey>(table, {key, length, inRegister(key, length)}, newPtr);
  // A heap other than the C library's may align less: no entry is read in registers then.
  if (reinterpret_cast<std::uintptr_t>(entry) % sizeof(__m128i) != 0) {
    table->findProc = find<StringKey>;
    table->createProc = create<StringKey>;
  }
  return entry;
}

TvHashEntry* findInDeleted(TvHashTable* /*table*/, const char* /*key*/) {
  std::puts("called TvFindHashEntry on deleted table");
  HostCallDebugger();
  return nullptr;
}

TvHashEntry* createInDeleted(TvHashTable* /*table*/, const char* /*key*/, long* newPtr) {
  std::puts("called TvCreateHashEntry on deleted table");
  HostCallDebugger();
  *newPtr = 0;
  return nullptr;
}

void makeEmpty(TvHashTable* table) {
  table->buckets = table->staticBuckets;
  for (TvHashEntry*& bucket : table->staticBuckets) bucket = nullptr;
  table->numBuckets = staticSize;
  table->numEntries = 0;
  table->rebuildSize = staticSize * entriesPerBucket;
  table->downShift = firstDownShift;
  table->mask = staticSize - 1;
}

// A text that is written piece by piece into a block of fixed size.
struct Text {
  char* string;
  std::size_t size;
  std::size_t length;

  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int added = std::vsnprintf(string + length, size - length, format, arguments);
    va_end(arguments);
    if (added > 0) length += static_cast<std::size_t>(added);
  }
};

}  // namespace

void TvInitHashTable(TvHashTable* table, long keyType) {
  makeEmpty(table);
  table->keyType = keyType;
  if (keyType == 0) {
    table->findProc = findString;
    table->createProc = createString;
  } else if (keyType == 1) {
    table->findProc = find<WordKey>;
    table->createProc = create<WordKey>;
  } else {
    table->findProc = find<ArrayKey>;
    table->createProc = create<ArrayKey>;
  }
}

void TvDeleteHashEntry(TvHashEntry* entry) {
  if (entry == nullptr) return;
  TvHashEntry** link = entry->bucketPtr;
  while (*link != nullptr && *link != entry) link = &(*link)->nextPtr;
  if (*link == nullptr) {
    std::puts("malformed bucket chain in TvDeleteHashEntry");
    HostCallDebugger();
    return;
  }
  *link = entry->nextPtr;
  --entry->tablePtr->numEntries;
  UtlFree(entry);
}

void TvDeleteHashTable(TvHashTable* table) {
  for (long i = 0; i < table->numBuckets; ++i) {
    for (TvHashEntry *entry = table->buckets[i], *next; entry != nullptr; entry = next) {
      next = entry->nextPtr;
      UtlFree(entry);
    }
  }
  if (table->buckets != table->staticBuckets) UtlFree(table->buckets);
  makeEmpty(table);
  table->findProc = findInDeleted;
  table->createProc = createInDeleted;
}

TvHashEntry* TvFirstHashEntry(TvHashTable* table, TvHashSearch* search) {
  search->tablePtr = table;
  search->nextIndex = 0;
  search->nextEntryPtr = nullptr;
  return TvNextHashEntry(search);
}

TvHashEntry* TvNextHashEntry(TvHashSearch* search) {
  TvHashEntry* entry = search->nextEntryPtr;
  while (entry == nullptr) {
    if (search->nextIndex >= search->tablePtr->numBuckets) return nullptr;
    entry = search->tablePtr->buckets[search->nextIndex++];
  }
  search->nextEntryPtr = entry->nextPtr;
  return entry;
}

char* TvHashStats(TvHashTable* table) {
  constexpr std::size_t textSize = 900;
  constexpr long counters = 10;
  long bucketsWith[counters] = {};
  long bucketsWithMore = 0;
  double average = 0;
  for (long i = 0; i < table->numBuckets; ++i) {
    long length = 0;
    for (TvHashEntry* entry = table->buckets[i]; entry != nullptr; entry = entry->nextPtr) {
      ++length;
    }
    if (length < counters) {
      ++bucketsWith[length];
    } else {
      ++bucketsWithMore;
    }
    const auto entries = static_cast<double>(length);
    if (length > 0) average += (entries + 1) * (entries / table->numEntries) / 2;
  }

  Text text{static_cast<char*>(UtlMalloc(textSize, "tvhash")), textSize, 0};
  if (text.string == nullptr) return nullptr;
  text.add("%ld entries in table, %ld buckets\n", table->numEntries, table->numBuckets);
  for (long i = 0; i < counters; ++i) {
    text.add("number of buckets with %ld entries: %ld\n", i, bucketsWith[i]);
  }
  text.add("number of buckets with %d or more entries: %ld\n", static_cast<int>(counters),
           bucketsWithMore);
  text.add("average search distance for entry: %.1f", average);
  return text.string;
}
