#include <povzel/tvhash.h>

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

// The three kinds of key. Each says which keys it takes, in which bucket a key belongs, whether an
// entry has it, how many bytes it takes in an entry, and puts it there and takes it from there.

struct StringKey {
  static bool isValid(const TvHashTable* /*table*/, const char* key) { return key != nullptr; }

  static std::size_t index(const TvHashTable* table, const char* key) {
    std::uint32_t hash = 0;
    for (; *key != '\0'; ++key) hash += (hash << 3) + static_cast<std::uint32_t>(*key);
    return hash & static_cast<std::uint32_t>(table->mask);
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

  static const char* of(const TvHashEntry* entry) { return entry->key.string; }
};

struct WordKey {
  static bool isValid(const TvHashTable* /*table*/, const char* /*key*/) { return true; }

  static std::size_t index(const TvHashTable* table, const char* key) {
    return wordIndex(table, reinterpret_cast<std::uintptr_t>(key));
  }

  static bool matches(const TvHashTable* /*table*/, const TvHashEntry* entry, const char* key) {
    return entry->key.oneWordValue == key;
  }

  static std::uint64_t size(const TvHashTable* /*table*/, const char* /*key*/) {
    return sizeof(TvHashEntry::key.oneWordValue);
  }

  static void store(TvHashEntry* entry, const char* key, std::size_t /*size*/) {
    entry->key.oneWordValue = key;
  }

  static const char* of(const TvHashEntry* entry) {
    return static_cast<const char*>(entry->key.oneWordValue);
  }
};

struct ArrayKey {
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
};

template <typename Key>
TvHashEntry* findIn(const TvHashTable* table, std::size_t index, const char* key) {
  TvHashEntry* entry = table->buckets[index];
  while (entry != nullptr && !Key::matches(table, entry, key)) entry = entry->nextPtr;
  return entry;
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
      link(entry, &newBuckets[Key::index(table, Key::of(entry))]);
    }
  }
  if (oldBuckets != table->staticBuckets) UtlFree(oldBuckets);
}

template <typename Key>
TvHashEntry* find(TvHashTable* table, const char* key) {
  if (!Key::isValid(table, key)) return nullptr;
  return findIn<Key>(table, Key::index(table, key), key);
}

// Allocates all that it needs before it changes anything.
template <typename Key>
TvHashEntry* create(TvHashTable* table, const char* key, long* newPtr) {
  *newPtr = 0;
  if (!Key::isValid(table, key)) return nullptr;
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
    table->findProc = find<StringKey>;
    table->createProc = create<StringKey>;
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
