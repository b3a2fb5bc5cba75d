#include <povzel/hash.h>

#include <sys/mman.h>

#include <set>

#include <povzel/utlheap.h>
#include "faults.h"
#include "tests.h"

namespace {

TEST(StringHash, KnownValues) {
  EXPECT_EQ(HashStrHash(nullptr, 0, 1) | HashDbStrHash(nullptr, 0, 1), 0);
  EXPECT_EQ(HashCStrHash("errmsg.line1"), 6687043U);

  // All characters of 16 bits, high byte first; and all bytes many times.
  std::vector<ByteType> all;
  for (unsigned code = 0; code < 65536; ++code) {
    all.insert(all.end(), {static_cast<ByteType>(code >> 8), static_cast<ByteType>(code)});
  }
  EXPECT_EQ(HashStrHash(all.data(), all.size(), 1), 15028382);
  EXPECT_EQ(HashStrHash(all.data(), all.size(), 0), 10070986);
  EXPECT_EQ(HashDbStrHash(all.data(), all.size(), 1), 7636789);
  EXPECT_EQ(HashDbStrHash(all.data(), all.size(), 0), 7777981);
  EXPECT_FALSE(HashCStrCompare("same", "Same") | HashCStrCompare("\xFF", ""));
}

// One byte a step, with the permutation as hashes of single bytes show it.
long bytewise(const std::string& text) {
  long hashes[3] = {};
  for (std::size_t i = 0; i < text.size(); ++i) {
    for (int which = 0; which < 3; ++which) {
      const auto byte = static_cast<ByteType>(text[i]);
      const auto index = static_cast<ByteType>(i == 0 ? byte + which : hashes[which] ^ byte);
      hashes[which] = HashStrHash(&index, 1, 1) & 255;
    }
  }
  return hashes[2] << 16 | hashes[1] << 8 | hashes[0];
}

TEST(StringHash, TakesTextsOfAnyLength) {
  std::mt19937 random(7);
  std::string text;
  for (int length = 0; length < 70; ++length) {
    const auto* bytes = reinterpret_cast<const ByteType*>(text.data());
    EXPECT_EQ(HashStrHash(bytes, text.size(), 1), bytewise(text));
    EXPECT_EQ(HashCStrHash(text.c_str()), static_cast<unsigned>(bytewise(text)));
    text += static_cast<char>(1 + random() % 255);
  }
  for (unsigned i = 0; i < 1024; ++i) {  // each first byte, and bytes 0
    const std::string bytes{static_cast<char>(i), static_cast<char>(i / 256), '\0', 'x', '\0'};
    EXPECT_EQ(HashStrHash(reinterpret_cast<const ByteType*>(bytes.data()), 5, 1), bytewise(bytes));
    EXPECT_EQ(HashCStrHash(bytes.c_str()), static_cast<unsigned>(bytewise(bytes.c_str())));
  }
}

// Half the texts asked for and one that is stored end with a page, behind which none may read.
TEST(CStringTable, IsAsOneThatCallsItsFunctions) {
  void* const pages = mmap(nullptr, 16384, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* const ends[] = {static_cast<char*>(pages) + 4096, static_cast<char*>(pages) + 12288};
  for (char* end : ends) mprotect(end - 4096, 4096, PROT_READ | PROT_WRITE);
  std::set<std::string> texts;
  HashTableSType direct, calling;
  HashTableInit(&direct, 0, 0, HashCStrHash, HashCStrCompare);
  HashTableInit(
      &calling, 0, 0, [](const void* text) { return HashCStrHash(text); },
      [](const void* one, const void* other) { return HashCStrCompare(one, other); });
  const char* const sameHash[] = {"r312761", "r312761u", "sixteen.bytes.are14618",
                                  "sixteen.bytes.are16372"};
  std::mt19937 random(8);
  for (int i = 0; i < 30000; ++i) {
    std::string text = std::string(random() % 22, 'a') + std::to_string(random() % 150);
    if (random() % 8 == 0) text[0] = static_cast<char>(-static_cast<int>(random() % 3));
    if (i < 2 || random() % 64 == 0) text = sameHash[i < 2 ? 0 : random() % 4];
    char* const end = ends[i == 0] - (i % 2 == 0 ? 0 : 16);
    char* const asked = std::strcpy(end - std::strlen(text.c_str()) - 1, text.c_str());
    char* const record = i == 0 ? asked : const_cast<char*>(texts.insert(asked).first->c_str());
    VoidPtrType* const slots[] = {HashTableLookup(&direct, asked),
                                  HashTableLookup(&calling, asked)};
    ASSERT_TRUE(slots[0] - direct.table == slots[1] - calling.table && *slots[0] == *slots[1]);
    const auto change = [&](HashTableSType* table, VoidPtrType* slot) {
      return *slot != nullptr ? HashTableRemove(table, slot) : HashTableInsert(table, slot, record);
    };
    ASSERT_TRUE(change(&direct, slots[0]) && change(&calling, slots[1]));
  }
  EXPECT_GT(direct.numEntries, 500);
  UtlFree(direct.table);
  UtlFree(calling.table);
}

// Records whose hash and identity are the test's to choose.
struct Record {
  unsigned key;
  unsigned hash;
};

long hashed = 0;

unsigned int recordHash(const void* record) {
  ++hashed;
  return static_cast<const Record*>(record)->hash;
}

long compared = 0;

BoolType recordsEqual(const void* probe, const void* stored) {
  ++compared;
  return static_cast<const Record*>(probe)->key == static_cast<const Record*>(stored)->key ? -1 : 0;
}

std::vector<Record> someRecords(unsigned count, unsigned step) {
  std::vector<Record> records(count);
  for (unsigned i = 0; i < count; ++i) records[i] = {i, i * step};
  return records;
}

struct HashTable : testing::TestWithParam<BoolType> {
  HashTable() { HashTableInit(&table_, GetParam(), sizeof(Record), recordHash, recordsEqual); }
  ~HashTable() override {
    HashTableClear(&table_);
    UtlFree(table_.table);
  }

  VoidPtrType* slotOf(const Record& record) { return HashTableLookup(&table_, &record); }
  bool insert(Record& record) { return HashTableInsert(&table_, slotOf(record), &record) != 0; }
  bool remove(const Record& record) { return HashTableRemove(&table_, slotOf(record)) != 0; }
  bool has(const Record& record) {
    const VoidPtrType* slot = slotOf(record);
    return slot != nullptr && *slot != nullptr;
  }

  HashTableSType table_;
};

// Tables of pointers, and of copies.
INSTANTIATE_TEST_SUITE_P(, HashTable, testing::Values(0, 1));

TEST_P(HashTable, GrowsWhenHalfFullUntilTheLastSize) {
  const long sizes[] = {37, 67, 131, 257, 521, 1031, 2053, 4099, 8209, 16411, 32771, 65537};
  std::vector<Record> records = someRecords(65537, 3);
  long at = 0;
  for (long i = 0; i < 65537; ++i) {
    if (i == sizes[at] / 2 && sizes[at] < 65537) ++at;
    ASSERT_TRUE(insert(records[i]));
    ASSERT_EQ((std::vector{table_.tableSize, table_.numEntries}), (std::vector{sizes[at], i + 1}));
  }

  Record absent{1U << 20, 5};
  EXPECT_EQ(slotOf(absent), nullptr) << "a full table ends the search";
  EXPECT_FALSE(insert(absent));
  for (const Record& record : records) ASSERT_TRUE(has(record));
  EXPECT_TRUE(remove(records[40000]) && insert(absent) && !insert(records[40000]));
  HashTableClear(&table_);
  EXPECT_EQ((std::vector{table_.tableSize, table_.numEntries}), (std::vector{37L, 0L}));
}

// Half full, and at the last size. A fresh table makes some 250, 5,000 and 18,000 comparisons: one
// in 128 of the records that searches pass over has the mark of another.
TEST_P(HashTable, ChurnLeavesSearchesShort) {
  std::mt19937 random(4);
  for (const auto& [count, limit] : {std::pair(1000, 1000), {58983, 12000}, {62260, 45000}}) {
    HashTableClear(&table_);
    std::vector<Record> records(count);
    unsigned next = 1;
    for (unsigned i = 0; i < records.size() + 300000; ++i) {
      const bool fills = i < records.size();
      Record& record = records[fills ? i : random() % records.size()];
      hashed = 0;
      ASSERT_TRUE(fills || remove(record));
      record = {next++, static_cast<unsigned>(random())};
      ASSERT_TRUE(insert(record));
      ASSERT_EQ(hashed, fills ? 1 : 2) << "once to remove, once to insert";
    }
    compared = 0;
    for (int i = 0; i < 10000; ++i) ASSERT_FALSE(has({0, static_cast<unsigned>(random())}));
    EXPECT_LT(compared, limit);
    for (const Record& record : records) ASSERT_TRUE(has(record));
  }
}

TEST_P(HashTable, FullOfHolesTakesInsertsAndAnOtherRecordsLookUpDoesNotCount) {
  std::vector<Record> records = someRecords(65537, 3);
  for (Record& record : records) ASSERT_TRUE(insert(record));
  for (unsigned i = 0; i < 60000; ++i) ASSERT_TRUE(remove(records[i]));
  for (unsigned i = 0; i + 1 < 30000; i += 2) {
    Record other{1U << 20, records[i].hash + 65537};
    VoidPtrType* const slot = slotOf(records[i]);
    ASSERT_EQ(slotOf(other), slot);
    ASSERT_TRUE(HashTableInsert(&table_, slot, &records[i]));
  }
  for (unsigned i = 0; i < 65537; ++i) {
    ASSERT_EQ(has(records[i]), i >= 60000 || (i < 30000 && i % 2 == 0));
  }
}

TEST_P(HashTable, FailedAllocationsLeaveTheTableAsItWas) {
  const int last = GetParam() != 0 ? 31 : 1;  // two tables of slots, and the copies
  std::vector<Record> records = someRecords(30, 5);
  for (int succeed = 0; succeed <= last; ++succeed) {
    UtlFree(table_.table);
    {
      const FailingCall failing("malloc", ENOMEM, succeed);
      HashTableInit(&table_, GetParam(), sizeof(Record), recordHash, recordsEqual);
      long entries = 0;
      for (Record& record : records) {
        entries += insert(record) ? 1 : 0;
        ASSERT_EQ(table_.numEntries, entries);
      }
      EXPECT_EQ(entries, succeed == 0 ? 30 : 29) << "the first slots are tried for again";
    }
    for (Record& record : records) EXPECT_TRUE(has(record) || insert(record));
    for (const Record& record : records) ASSERT_TRUE(remove(record));
  }
  {
    const FailingCall failing("malloc", ENOMEM);
    HashTableClear(&table_);
  }
  EXPECT_EQ(slotOf(records[0]), nullptr);
  VoidPtrType* cursor = nullptr;
  HashTableEnumerate(&table_, &cursor);
  EXPECT_EQ(cursor, nullptr);
}

}  // namespace
