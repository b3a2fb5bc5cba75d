#include <povzel/hash.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <povzel/utlheap.h>
#include "failing_heap.h"

namespace {

const ByteType* bytesOf(const std::string& text) {
  return reinterpret_cast<const ByteType*>(text.data());
}

long hashOf(const std::string& text, bool caseSensitive = true) {
  return HashStrHash(bytesOf(text), text.size(), caseSensitive ? 1 : 0);
}

TEST(StringHash, KnownValues) {
  EXPECT_EQ(HashStrHash(nullptr, 0, 0), 0);
  EXPECT_EQ(HashStrHash(nullptr, 0, 1), 0);
  EXPECT_EQ(HashDbStrHash(nullptr, 0, 1), 0);
  EXPECT_EQ(HashCStrHash(""), 0U);
  EXPECT_EQ(hashOf("a"), 4953144);
  EXPECT_EQ(hashOf("A"), 1456618);
  EXPECT_EQ(hashOf("a", false), 1456618);
  EXPECT_EQ(hashOf("errmsg.line1"), 6687043);
  EXPECT_EQ(HashCStrHash("errmsg.line1"), 6687043U);
}

// The permutation, read back from the hashes of single bytes.
std::array<unsigned, 256> permutation() {
  std::array<unsigned, 256> values{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    values[byte] = static_cast<unsigned>(hashOf(std::string(1, static_cast<char>(byte)))) & 255;
  }
  return values;
}

// Three hashes one after the other, from the values that are looked up.
long pearson(const std::vector<unsigned>& codes) {
  static const std::array<unsigned, 256> values = permutation();
  long result = 0;
  for (unsigned which = 3; which-- > 0 && !codes.empty();) {
    unsigned hash = values[(codes[0] + which) % 256];
    for (std::size_t i = 1; i < codes.size(); ++i) hash = values[hash ^ codes[i]];
    result = result * 256 + static_cast<long>(hash);
  }
  return result;
}

TEST(StringHash, AgreesWithThreePlainHashes) {
  auto sorted = permutation();
  std::sort(sorted.begin(), sorted.end());
  for (unsigned i = 0; i < 256; ++i) ASSERT_EQ(sorted[i], i);

  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 70, '\0');
    for (char& c : text) c = static_cast<char>(random());
    std::vector<unsigned> exact;
    std::vector<unsigned> upper;
    for (const char c : text) {
      exact.push_back(static_cast<ByteType>(c));
      upper.push_back(static_cast<ByteType>(std::toupper(static_cast<ByteType>(c))));
    }
    ASSERT_EQ(hashOf(text), pearson(exact));
    ASSERT_EQ(hashOf(text, false), pearson(upper));
    const std::string untilNul(text, 0, std::strlen(text.c_str()));
    ASSERT_EQ(HashCStrHash(text.c_str()), static_cast<unsigned>(hashOf(untilNul)));
  }
}

TEST(StringHash, DoubleByteCharactersCountModulo255) {
  const auto reduced = [](unsigned code, bool caseSensitive) {
    if (!caseSensitive && code < 256)
      code = static_cast<unsigned>(std::toupper(static_cast<int>(code)));
    return code % 255;
  };
  for (unsigned code = 0; code < 65536; ++code) {
    const ByteType text[] = {static_cast<ByteType>(code >> 8), static_cast<ByteType>(code), 0, 'q'};
    for (const bool caseSensitive : {false, true}) {
      const unsigned first = reduced(code, caseSensitive);
      ASSERT_EQ(HashDbStrHash(text, 2, caseSensitive), pearson({first})) << code;
      ASSERT_EQ(HashDbStrHash(text, 4, caseSensitive),
                pearson({first, reduced('q', caseSensitive)}));
    }
  }
}

TEST(StringHash, CompareIsEqualityOfEveryByte) {
  EXPECT_TRUE(HashCStrCompare("", ""));
  EXPECT_TRUE(HashCStrCompare("same", std::string("same").c_str()));
  EXPECT_FALSE(HashCStrCompare("same", "Same"));
  EXPECT_FALSE(HashCStrCompare("sam", "same"));
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

BoolType recordsEqual(const void* probe, const void* stored) {
  return static_cast<const Record*>(probe)->key == static_cast<const Record*>(stored)->key ? -1 : 0;
}

class HashTable : public testing::TestWithParam<bool> {
 protected:
  HashTable() {
    HashTableInit(&table_, GetParam() ? 1 : 0, sizeof(Record), recordHash, recordsEqual);
  }
  ~HashTable() override {
    HashTableClear(&table_);
    UtlFree(table_.table);
  }

  VoidPtrType* slotOf(const Record& record) { return HashTableLookup(&table_, &record); }
  bool insert(Record& record) { return HashTableInsert(&table_, slotOf(record), &record) != 0; }

  std::vector<unsigned> keys() {
    std::vector<unsigned> found;
    for (VoidPtrType* at = nullptr; HashTableEnumerate(&table_, &at), at != nullptr;) {
      found.push_back(static_cast<const Record*>(*at)->key);
    }
    return found;
  }

  HashTableSType table_;
};

INSTANTIATE_TEST_SUITE_P(, HashTable, testing::Bool(),
                         [](const auto& which) { return which.param ? "Copies" : "Pointers"; });

TEST_P(HashTable, GrowsWhenHalfFullUntilTheLastSize) {
  const long sizes[] = {37, 67, 131, 257, 521, 1031, 2053, 4099, 8209, 16411, 32771, 65537};
  std::vector<Record> records(65537);
  for (unsigned i = 0; i < records.size(); ++i) records[i] = {i, i * 3};
  std::size_t at = 0;
  for (unsigned i = 0; i < records.size(); ++i) {
    if (table_.numEntries == table_.halfTableSize && at + 1 < std::size(sizes)) ++at;
    ASSERT_TRUE(insert(records[i]));
    ASSERT_EQ(table_.tableSize, sizes[at]) << i;
    ASSERT_EQ(table_.indexOfPrime, static_cast<long>(at) + 5);
    ASSERT_EQ(table_.halfTableSize, sizes[at] / 2);
    ASSERT_EQ(table_.quarterTableSize, sizes[at] / 4);
    ASSERT_EQ(table_.endPtr - table_.table, sizes[at]);
    ASSERT_EQ(table_.numEntries, static_cast<long>(i) + 1);
  }

  Record absent{1U << 20, 5};
  EXPECT_EQ(slotOf(absent), nullptr) << "a full table ends the search";
  EXPECT_FALSE(insert(absent));
  EXPECT_EQ(table_.numEntries, 65537);
  for (Record& record : records)
    ASSERT_TRUE(slotOf(record) != nullptr && *slotOf(record) != nullptr);
  EXPECT_TRUE(HashTableRemove(&table_, slotOf(records[40000])));
  EXPECT_TRUE(insert(absent));
  EXPECT_FALSE(insert(records[40000]));

  HashTableClear(&table_);
  EXPECT_EQ(table_.tableSize, 37);
  EXPECT_EQ(table_.numEntries, 0);
  EXPECT_TRUE(keys().empty());
}

TEST_P(HashTable, SlotOfAnAbsentRecordIsWhereItGoes) {
  Record late{1, 30};
  Record early{2, 3 + 37};
  ASSERT_TRUE(insert(late));
  VoidPtrType* const slot = slotOf(early);
  ASSERT_EQ(*slot, nullptr);
  EXPECT_FALSE(HashTableRemove(&table_, slot));
  EXPECT_FALSE(HashTableRemove(&table_, nullptr));
  EXPECT_EQ(table_.numEntries, 1);
  ASSERT_TRUE(HashTableInsert(&table_, slot, &early));
  EXPECT_EQ(slotOf(early), slot);
  EXPECT_EQ(slot - table_.table, 3);
  EXPECT_EQ(static_cast<Record*>(*slot)->key, 2U);
  EXPECT_EQ(*slot == &early, !GetParam());
  EXPECT_FALSE(HashTableInsert(&table_, slot, &late)) << "occupied";
  EXPECT_EQ(keys(), (std::vector<unsigned>{2, 1}));
}

TEST_P(HashTable, EnumerationMayRemoveWhatItVisits) {
  // Two long runs of records that share a home; one wraps around the end of the slots.
  std::vector<Record> records;
  for (unsigned i = 0; i < 18; ++i) records.push_back({i, i < 9 ? 33U : 10U});
  for (unsigned pattern = 0; pattern < 1U << 10; ++pattern) {
    HashTableClear(&table_);
    for (Record& record : records) ASSERT_TRUE(insert(record));
    std::vector<bool> seen(records.size());
    std::vector<bool> removed(records.size());
    unsigned step = 0;
    for (VoidPtrType* at = nullptr; HashTableEnumerate(&table_, &at), at != nullptr; ++step) {
      const unsigned key = static_cast<const Record*>(*at)->key;
      ASSERT_FALSE(seen[key]);
      seen[key] = true;
      if ((pattern >> step % 10 & 1) == 0) continue;
      removed[key] = true;
      ASSERT_TRUE(HashTableRemove(&table_, at));
      ASSERT_EQ(*at, nullptr);
    }
    ASSERT_EQ(step, records.size());
    for (const Record& record : records) {
      const VoidPtrType* slot = slotOf(record);
      ASSERT_EQ(*slot == nullptr, removed[record.key]) << pattern << ' ' << record.key;
    }
  }
}

TEST_P(HashTable, AgreesWithAModelUnderRandomOperations) {
  std::mt19937 random(GetParam() ? 2 : 3);
  std::unordered_map<unsigned, Record*> model;
  std::vector<Record> records(3000);
  for (unsigned i = 0; i < records.size(); ++i) {
    records[i] = {i, i % 3 == 0 ? i % 7 : static_cast<unsigned>(random())};
  }
  unsigned used = 100;  // how many of the records take part: the table grows and empties
  for (int round = 0; round < 500000; ++round) {
    if (round % 20000 == 0) used = 10 + static_cast<unsigned>(random()) % 2900;
    const bool shrinking = round / 10000 % 2 == 1;
    Record& record = records[random() % used];
    VoidPtrType* const slot = slotOf(record);
    ASSERT_NE(slot, nullptr);
    const bool known = model.contains(record.key);
    ASSERT_EQ(*slot != nullptr, known);
    if (known) {
      ASSERT_EQ(static_cast<Record*>(*slot)->key, record.key);
      ASSERT_EQ(*slot == &record, !GetParam());
    }
    const bool rarely = random() % 4 == 0;
    if (known && (shrinking || rarely)) {
      ASSERT_TRUE(HashTableRemove(&table_, slot));
      model.erase(record.key);
    } else if (!known && (!shrinking || rarely)) {
      ASSERT_TRUE(HashTableInsert(&table_, slot, &record));
      model[record.key] = &record;
    }
    ASSERT_EQ(table_.numEntries, static_cast<long>(model.size()));
    if (round % 5000 == 0) {
      const std::vector<unsigned> found = keys();
      ASSERT_EQ(found.size(), model.size());
      for (const unsigned key : found) ASSERT_TRUE(model.contains(key));
    }
    if (round % 100000 == 99999) {
      HashTableClear(&table_);
      model.clear();
    }
  }
}

// Searches must stay short in a table that records come to and go from for a long time.
TEST(OpenHashTable, ChurnLeavesSearchesShort) {
  static long compared;
  HashTableSType table;
  HashTableInit(&table, 0, 0, recordHash, [](const void* probe, const void* stored) {
    ++compared;
    return recordsEqual(probe, stored);
  });
  std::mt19937 random(4);
  std::vector<Record> records(1000);
  unsigned next = 0;
  const auto renew = [&](Record& record) {
    record = {next++, static_cast<unsigned>(random())};
    ASSERT_TRUE(HashTableInsert(&table, HashTableLookup(&table, &record), &record));
  };
  for (Record& record : records) renew(record);
  ASSERT_EQ(table.tableSize, 2053);
  for (int round = 0; round < 300000; ++round) {
    Record& record = records[random() % records.size()];
    ASSERT_TRUE(HashTableRemove(&table, HashTableLookup(&table, &record)));
    renew(record);
  }
  compared = 0;
  for (int round = 0; round < 10000; ++round) {
    const Record absent{next++, static_cast<unsigned>(random())};
    ASSERT_EQ(*HashTableLookup(&table, &absent), nullptr);
  }
  EXPECT_LT(compared, 40000) << "a fresh table takes some 15000";
  UtlFree(table.table);
}

TEST_P(HashTable, RehashTakesTheSizeThatIsSet) {
  std::vector<Record> records(80);
  for (unsigned i = 0; i < records.size(); ++i) {
    records[i] = {i, i * 11};
    ASSERT_TRUE(insert(records[i]));
  }
  const struct {
    long indexOfPrime;
    BoolType result;
    long size;
  } cases[] = {{8, 1, 257}, {7, 1, 131}, {3, 0, 131}, {17, 0, 131}, {16, 1, 65537}, {6, 0, 65537}};
  for (const auto& c : cases) {
    table_.indexOfPrime = c.indexOfPrime;
    EXPECT_EQ(rehash(&table_), c.result) << c.indexOfPrime;
    EXPECT_EQ(table_.tableSize, c.size);
    for (const Record& record : records) ASSERT_NE(*slotOf(record), nullptr);
  }
}

TEST_P(HashTable, RefusesWhatHasNoSlot) {
  EXPECT_FALSE(HashTableInsert(&table_, table_.table, nullptr));
  std::vector<Record> records(18);
  for (unsigned i = 0; i < records.size(); ++i) {
    records[i] = {i, i};
    ASSERT_TRUE(insert(records[i]));
  }
  EXPECT_FALSE(HashTableInsert(&table_, table_.table + 20, &records[4])) << "it is there already";
  EXPECT_EQ(table_.tableSize, 67);
  EXPECT_EQ(table_.numEntries, 18);
  EXPECT_EQ(keys().size(), 18U);
}

TEST(OpenHashTable, FailedAllocationsLeaveTheTableAsItWas) {
  std::vector<Record> records(40);
  for (unsigned i = 0; i < records.size(); ++i) records[i] = {i, i * 5};
  HashTableSType table;
  {
    FailingHeap failing(0);
    HashTableInit(&table, 1, sizeof(Record), recordHash, recordsEqual);
  }
  EXPECT_EQ(HashTableLookup(&table, &records[0]), nullptr);
  EXPECT_FALSE(HashTableRemove(&table, nullptr));
  VoidPtrType* cursor = nullptr;
  HashTableEnumerate(&table, &cursor);
  EXPECT_EQ(cursor, nullptr);
  ASSERT_TRUE(HashTableInsert(&table, nullptr, &records[0])) << "tries again";
  EXPECT_EQ(table.tableSize, 37);

  for (unsigned i = 1; i < 18; ++i) {
    HashTableInsert(&table, HashTableLookup(&table, &records[i]), &records[i]);
  }
  // The 19th insert allocates twice: larger slots, then the copy.
  for (int succeed = 0; succeed < 2; ++succeed) {
    FailingHeap failing(succeed);
    EXPECT_FALSE(HashTableInsert(&table, HashTableLookup(&table, &records[18]), &records[18]));
    EXPECT_TRUE(FailingHeap::hasFailed());
    EXPECT_EQ(table.numEntries, 18);
    EXPECT_EQ(table.indexOfPrime, 6 + succeed) << "each failed growth goes one size further";
    EXPECT_EQ(table.tableSize, succeed == 0 ? 37 : 131);
    EXPECT_EQ(*HashTableLookup(&table, &records[18]), nullptr);
  }
  ASSERT_TRUE(HashTableInsert(&table, HashTableLookup(&table, &records[18]), &records[18]));
  for (unsigned i = 0; i < 19; ++i) ASSERT_NE(*HashTableLookup(&table, &records[i]), nullptr);
  {
    FailingHeap failing(0);
    HashTableClear(&table);
  }
  EXPECT_EQ(table.table, nullptr);
  EXPECT_EQ(table.numEntries, 0);
}

}  // namespace
