#include <povzel/hash.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <povzel/utlheap.h>
#include "faults.h"

namespace {

long hashOf(const std::string& text, BoolType caseSensitive = 1) {
  return HashStrHash(reinterpret_cast<const ByteType*>(text.data()), text.size(), caseSensitive);
}

TEST(StringHash, KnownValues) {
  EXPECT_EQ(HashStrHash(nullptr, 0, 0) | HashStrHash(nullptr, 0, 1) | HashDbStrHash(nullptr, 0, 1),
            0);
  EXPECT_EQ(HashCStrHash(""), 0U);
  EXPECT_EQ(hashOf("a"), 4953144);
  EXPECT_EQ(hashOf("a", 0), 1456618);
  EXPECT_EQ(hashOf("errmsg.line1"), 6687043);
  EXPECT_EQ(HashCStrHash("errmsg.line1"), 6687043U);

  // All characters of 16 bits, high byte first; and all bytes many times.
  std::string all;
  for (unsigned code = 0; code < 65536; ++code) {
    all += {static_cast<char>(code >> 8), static_cast<char>(code)};
  }
  const auto* bytes = reinterpret_cast<const ByteType*>(all.data());
  EXPECT_EQ(hashOf(all), 15028382);
  EXPECT_EQ(hashOf(all, 0), 10070986);
  EXPECT_EQ(HashDbStrHash(bytes, all.size(), 1), 7636789);
  EXPECT_EQ(HashDbStrHash(bytes, all.size(), 0), 7777981);
  EXPECT_EQ(HashDbStrHash(bytes + 2 * 'a', 2, 0), hashOf("A"));
}

TEST(StringHash, CompareIsEqualityOfEveryByte) {
  EXPECT_TRUE(HashCStrCompare("same", std::string("same").c_str()));
  EXPECT_FALSE(HashCStrCompare("same", "Same") | HashCStrCompare("sam", "same"));
  EXPECT_FALSE(HashCStrCompare("\xFF", ""));
}

// Records whose hash and identity are the test's to choose.
struct Record {
  unsigned key;
  unsigned hash;
};

unsigned int recordHash(const void* record) {
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

class HashTable : public testing::TestWithParam<BoolType> {
 protected:
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

INSTANTIATE_TEST_SUITE_P(, HashTable, testing::Values(0, 1), [](const auto& copies) {
  return copies.param != 0 ? "Copies" : "Pointers";
});

TEST_P(HashTable, GrowsWhenHalfFullUntilTheLastSize) {
  const long sizes[] = {37, 67, 131, 257, 521, 1031, 2053, 4099, 8209, 16411, 32771, 65537};
  std::vector<Record> records = someRecords(65537, 3);
  long at = 0;
  for (long i = 0; i < 65537; ++i) {
    if (i == sizes[at] / 2 && sizes[at] < 65537) ++at;
    ASSERT_TRUE(insert(records[i]));
    ASSERT_EQ(table_.tableSize, sizes[at]) << i;
    ASSERT_EQ(table_.numEntries, i + 1);
    EXPECT_EQ(table_.indexOfPrime, at + 5);
    EXPECT_EQ(table_.halfTableSize, sizes[at] / 2);
    EXPECT_EQ(table_.quarterTableSize, sizes[at] / 4);
  }

  Record absent{1U << 20, 5};
  EXPECT_EQ(slotOf(absent), nullptr) << "a full table ends the search";
  EXPECT_FALSE(insert(absent));
  for (const Record& record : records) ASSERT_TRUE(has(record));
  EXPECT_TRUE(remove(records[40000]));
  EXPECT_TRUE(insert(absent));
  EXPECT_FALSE(insert(records[40000]));
  for (const long index : {6L, 17L, 16L}) {
    table_.indexOfPrime = index;
    EXPECT_EQ(rehash(&table_), index == 16 ? 1 : 0) << "too small, unknown, the same again";
    EXPECT_TRUE(has(absent) && has(records[0]));
  }
  HashTableClear(&table_);
  EXPECT_EQ(table_.tableSize, 37);
  EXPECT_EQ(table_.numEntries, 0);
}

TEST_P(HashTable, SlotOfAnAbsentRecordIsWhereItGoes) {
  Record late{1, 30};
  Record early{2, 3 + 37};
  EXPECT_TRUE(insert(late));
  VoidPtrType* const slot = slotOf(early);
  EXPECT_EQ(slot, table_.table + 3);
  EXPECT_FALSE(HashTableRemove(&table_, slot) | HashTableRemove(&table_, nullptr));
  EXPECT_FALSE(HashTableInsert(&table_, slot, nullptr));
  EXPECT_TRUE(HashTableInsert(&table_, slot, &early));
  EXPECT_EQ(slotOf(early), slot);
  EXPECT_EQ(*slot == &early, GetParam() == 0);
  EXPECT_FALSE(HashTableInsert(&table_, slot, &late)) << "occupied";
  std::vector<long> visited;
  for (VoidPtrType* at = nullptr; HashTableEnumerate(&table_, &at), at != nullptr;) {
    visited.push_back(at - table_.table);
  }
  EXPECT_EQ(visited, (std::vector{3L, 30L}));
}

// Searches must stay short in a table that records come to and go from for a long time.
TEST_P(HashTable, ChurnLeavesSearchesShort) {
  std::mt19937 random(4);
  std::vector<Record> records(1000);
  for (unsigned next = 1; next < 300000; ++next) {
    Record& record = records[random() % records.size()];
    remove(record);
    record = {next, static_cast<unsigned>(random())};
    ASSERT_TRUE(insert(record));
  }
  compared = 0;
  for (int i = 0; i < 10000; ++i) ASSERT_FALSE(has({0, static_cast<unsigned>(random())}));
  EXPECT_LT(compared, 40000) << "a fresh table takes some 15000";
}

TEST_P(HashTable, FailedAllocationsLeaveTheTableAsItWas) {
  const int atGrowth = GetParam() != 0 ? 19 : 1;  // the first slots before it, and 18 copies
  const int last = GetParam() != 0 ? 31 : 1;
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
    EXPECT_EQ(table_.tableSize, succeed == atGrowth ? 131 : 67) << "goes one size further then";
    for (Record& record : records) EXPECT_TRUE(has(record) || insert(record));
    for (const Record& record : records) ASSERT_TRUE(remove(record));
  }
  {
    const FailingCall failing("malloc", ENOMEM);
    HashTableClear(&table_);
  }
  EXPECT_EQ(HashTableLookup(&table_, &records[0]), nullptr);
  EXPECT_FALSE(HashTableRemove(&table_, nullptr));
  VoidPtrType* cursor = nullptr;
  HashTableEnumerate(&table_, &cursor);
  EXPECT_EQ(cursor, nullptr);
}

}  // namespace
