#include <povzel/tvhash.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <povzel/utlheap.h>
#include "failing_heap.h"

namespace {

constexpr int arrayWords = 3;

// One key in each of the three kinds, made from a number.
struct Key {
  explicit Key(unsigned number) : text("key " + std::to_string(number)) {
    word = number;
    words = {static_cast<long>(number / 100), static_cast<long>(number % 100), -7};
    if (number % 5 == 0) text.insert(0, number % 50, static_cast<char>(200 + number % 50));
  }

  const char* as(long keyType) const {
    if (keyType == 0) return text.c_str();
    if (keyType == 1) return reinterpret_cast<const char*>(word);
    return reinterpret_cast<const char*>(words.data());
  }

  std::string text;
  std::uintptr_t word;
  std::array<long, arrayWords> words;
};

class KeyedTable : public testing::TestWithParam<long> {
 protected:
  KeyedTable() { TvInitHashTable(&table_, GetParam()); }
  ~KeyedTable() override { TvDeleteHashTable(&table_); }

  TvHashEntry* find(const Key& key) { return table_.findProc(&table_, key.as(GetParam())); }
  TvHashEntry* create(const Key& key, long* isNew) {
    return table_.createProc(&table_, key.as(GetParam()), isNew);
  }

  // The bucket that a key belongs to, computed in 64 bits and folded afterwards.
  std::size_t bucketOf(const Key& key) const {
    const auto mask = static_cast<std::uint32_t>(table_.mask);
    if (GetParam() == 0) {
      std::int64_t hash = 0;
      for (const char c : key.text) hash = static_cast<std::uint32_t>(9 * hash + c);
      return static_cast<std::uint32_t>(hash) & mask;
    }
    std::uint64_t sum = key.word;
    if (GetParam() > 1) {
      sum = 0;
      for (const long word : key.words) sum += static_cast<std::uint32_t>(word);
    }
    const auto product = static_cast<std::uint32_t>(sum * 1103515245U);
    std::uint64_t shifted = product;
    if (product >> 31 != 0) shifted |= 0xFFFFFFFF00000000U;
    return static_cast<std::uint32_t>(shifted >> table_.downShift) & mask;
  }

  void checkShape() {
    long entries = 0;
    ASSERT_EQ(table_.mask, table_.numBuckets - 1);
    ASSERT_EQ(table_.rebuildSize, 3 * table_.numBuckets);
    for (long i = 0; i < table_.numBuckets; ++i) {
      for (TvHashEntry* entry = table_.buckets[i]; entry != nullptr; entry = entry->nextPtr) {
        ++entries;
        ASSERT_EQ(entry->tablePtr, &table_);
        ASSERT_EQ(entry->bucketPtr, &table_.buckets[i]);
      }
    }
    ASSERT_EQ(entries, table_.numEntries);
  }

  TvHashTable table_;
};

std::string kindName(const testing::TestParamInfo<long>& info) {
  if (info.param == 0) return "Strings";
  return info.param == 1 ? "Words" : "Arrays";
}

INSTANTIATE_TEST_SUITE_P(, KeyedTable, testing::Values(0L, 1L, long{arrayWords}), kindName);

TEST_P(KeyedTable, GrowsFourfoldAtThreeEntriesPerBucket) {
  const struct {
    long entries;
    long buckets;
    long downShift;
  } steps[] = {{0, 4, 28}, {12, 16, 26}, {48, 64, 24}, {192, 256, 22}, {768, 1024, 20}};
  const auto* step = steps;
  for (unsigned i = 0; i < 800; ++i) {
    long isNew = 9;
    const Key key(i);
    TvHashEntry* entry = create(key, &isNew);
    ASSERT_EQ(isNew, 1);
    ASSERT_EQ(entry->value, nullptr);
    ASSERT_EQ(entry->bucketPtr, &table_.buckets[bucketOf(key)]);
    ASSERT_EQ(create(key, &isNew), entry);
    ASSERT_EQ(isNew, 0);
    if (step + 1 != std::end(steps) && table_.numEntries == step[1].entries) ++step;
    ASSERT_EQ(table_.numBuckets, step->buckets);
    ASSERT_EQ(table_.downShift, step->downShift);
    ASSERT_EQ(table_.buckets == table_.staticBuckets, step == steps);
  }
  checkShape();
}

TEST_P(KeyedTable, AgreesWithAModelUnderRandomOperations) {
  std::mt19937 random(6);
  std::map<unsigned, TvHashEntry*> model;
  std::vector<Key> keys;
  for (unsigned i = 0; i < 2000; ++i) keys.emplace_back(i);
  for (int round = 0; round < 350000; ++round) {
    const unsigned number = random() % 2000;
    const auto known = model.find(number);
    TvHashEntry* found = find(keys[number]);
    ASSERT_EQ(found, known != model.end() ? known->second : nullptr);
    const bool shrinking = round / 20000 % 2 == 1;
    if (found != nullptr) {
      ASSERT_EQ(found->value, &keys[number]);
      if (shrinking || random() % 4 == 0) {
        TvDeleteHashEntry(found);
        model.erase(known);
      }
    } else if (!shrinking || random() % 4 == 0) {
      long isNew = 0;
      TvHashEntry* entry = create(keys[number], &isNew);
      ASSERT_EQ(isNew, 1);
      entry->value = &keys[number];
      model[number] = entry;
    }
    ASSERT_EQ(table_.numEntries, static_cast<long>(model.size()));
    if (round % 20000 == 0) checkShape();
    if (round % 100000 == 99999) {
      TvDeleteHashTable(&table_);
      TvInitHashTable(&table_, GetParam());
      model.clear();
    }
  }
}

TEST_P(KeyedTable, EnumerationVisitsEachEntryOnceAndMayDeleteIt) {
  for (const bool deletes : {false, true}) {
    for (unsigned i = 0; i < 300; ++i) {
      long isNew;
      create(Key(i), &isNew)->value = reinterpret_cast<void*>(i + 1);
    }
    std::set<void*> seen;
    const TvHashEntry* previous = nullptr;
    TvHashSearch search;
    for (TvHashEntry* entry = TvFirstHashEntry(&table_, &search); entry != nullptr;
         entry = TvNextHashEntry(&search)) {
      ASSERT_TRUE(seen.insert(entry->value).second);
      if (!deletes) {
        ASSERT_TRUE(previous == nullptr || previous->bucketPtr < entry->bucketPtr ||
                    previous->nextPtr == entry);
        previous = entry;
      } else {
        TvDeleteHashEntry(entry);
      }
    }
    EXPECT_EQ(seen.size(), 300U);
    EXPECT_EQ(table_.numEntries, deletes ? 0 : 300);
    EXPECT_EQ(TvNextHashEntry(&search), nullptr);
  }
}

TEST_P(KeyedTable, FailedAllocationsLeaveTheTableAsItWas) {
  long isNew;
  // The 12th entry needs two allocations: its own, then the buckets.
  for (unsigned i = 0; i < 11; ++i) create(Key(i), &isNew);
  for (int succeed = 0; succeed < 2; ++succeed) {
    TvHashTable before;
    std::memcpy(&before, &table_, sizeof before);
    isNew = 9;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
      FailingHeap failing(succeed);
      EXPECT_EQ(create(Key(11), &isNew), nullptr);
    }
    testing::internal::GetCapturedStdout();
    const char* const tag = succeed == 0 ? "tvhash\n" : " 64 bytes: tvHash\n";
    EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(tag));
    EXPECT_EQ(isNew, 0);
    EXPECT_EQ(std::memcmp(&before, &table_, sizeof before), 0);
    EXPECT_EQ(find(Key(11)), nullptr);
    checkShape();
  }
  create(Key(11), &isNew);
  EXPECT_EQ(isNew, 1);
  EXPECT_EQ(table_.numBuckets, 16);

  FailingHeap failing(0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(TvHashStats(&table_), nullptr);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "malloc failure allocating 900 bytes: tvhash\n");
}

TEST(TvHash, StringBytesAbove127HashAsNegative) {
  TvHashTable table;
  TvInitHashTable(&table, 0);
  long isNew;
  EXPECT_EQ(table.createProc(&table, "\xFF", &isNew)->bucketPtr, &table.buckets[table.mask]);
  EXPECT_EQ(table.findProc(&table, ""), nullptr);
  EXPECT_EQ(table.findProc(&table, "\xFF\xFF"), nullptr);
  EXPECT_EQ(table.findProc(&table, nullptr), nullptr);
  EXPECT_EQ(table.createProc(&table, nullptr, &isNew), nullptr);
  EXPECT_EQ(isNew, 0);
  TvDeleteHashTable(&table);
}

TEST(TvHash, KeyTypesBeyondMemoryHoldNothing) {
  for (const long keyType : {-1L, -1000000L, 0x40000000L, 0x3FFFFFFCL, 0x7FFFFFFFL}) {
    TvHashTable table;
    TvInitHashTable(&table, keyType);
    const long words[2] = {};
    const auto* key = reinterpret_cast<const char*>(words);
    long isNew = 1;
    EXPECT_EQ(table.findProc(&table, key), nullptr);
    EXPECT_EQ(table.createProc(&table, key, &isNew), nullptr);
    EXPECT_EQ(isNew, 0);
    TvDeleteHashTable(&table);
  }
}

TEST(TvHash, StatsCountChains) {
  TvHashTable table;
  TvInitHashTable(&table, 1);
  const auto stats = [&table] {
    char* text = TvHashStats(&table);
    std::string copy = text;
    UtlFree(text);
    return copy;
  };
  const auto expected = [](const char* first, std::array<int, 11> counts, const char* average) {
    std::string text = first;
    for (int j = 0; j < 10; ++j) {
      text += "number of buckets with " + std::to_string(j) +
              " entries: " + std::to_string(counts[static_cast<std::size_t>(j)]) + "\n";
    }
    return text + "number of buckets with 10 or more entries: " + std::to_string(counts[10]) +
           "\naverage search distance for entry: " + average;
  };
  EXPECT_EQ(stats(), expected("0 entries in table, 4 buckets\n", {4}, "0.0"));
  // Words that fall into one bucket.
  std::vector<const char*> words;
  for (std::uintptr_t word = 0; words.size() < 11; ++word) {
    if (static_cast<std::int32_t>(word * 1103515245U) >> 28 == 0) {
      words.push_back(reinterpret_cast<const char*>(word));
    }
  }
  long isNew;
  for (int i = 0; i < 3; ++i) table.createProc(&table, words[static_cast<std::size_t>(i)], &isNew);
  EXPECT_EQ(stats(), expected("3 entries in table, 4 buckets\n", {3, 0, 0, 1}, "2.0"));
  for (const char* word : words) table.createProc(&table, word, &isNew);
  EXPECT_EQ(stats(),
            expected("11 entries in table, 4 buckets\n", {3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, "6.0"));
  TvDeleteHashTable(&table);
}

class Misuse : public testing::Test {
 protected:
  Misuse() { TvInitHashTable(&table_, 0); }

  template <typename Action>
  std::string printedBy(Action action) {
    noHalt = 1;
    testing::internal::CaptureStdout();
    action();
    noHalt = 0;
    return testing::internal::GetCapturedStdout();
  }

  TvHashTable table_;
  long isNew_ = 1;
};
using MisuseDeathTest = Misuse;

TEST_F(Misuse, DeletedTablesAreEmptyAndReportTheirUse) {
  table_.createProc(&table_, "entry", &isNew_);
  TvDeleteHashTable(&table_);
  EXPECT_EQ(printedBy([&] { EXPECT_EQ(table_.findProc(&table_, "entry"), nullptr); }),
            "called TvFindHashEntry on deleted table\n");
  EXPECT_EQ(printedBy([&] { EXPECT_EQ(table_.createProc(&table_, "entry", &isNew_), nullptr); }),
            "called TvCreateHashEntry on deleted table\n");
  EXPECT_EQ(isNew_, 0);
  TvHashSearch search;
  EXPECT_EQ(TvFirstHashEntry(&table_, &search), nullptr);
  TvDeleteHashTable(&table_);
  TvInitHashTable(&table_, 0);
  EXPECT_EQ(table_.findProc(&table_, "entry"), nullptr);
}

TEST_F(Misuse, EntryOutsideItsBucketIsLeftAlone) {
  TvHashEntry* inside = table_.createProc(&table_, "inside", &isNew_);
  TvHashEntry stray = *inside;
  EXPECT_EQ(printedBy([&] { TvDeleteHashEntry(&stray); }),
            "malformed bucket chain in TvDeleteHashEntry\n");
  EXPECT_EQ(table_.numEntries, 1);
  EXPECT_EQ(table_.findProc(&table_, "inside"), inside);
  TvDeleteHashEntry(nullptr);
  TvDeleteHashTable(&table_);
}

TEST_F(MisuseDeathTest, StopsTheProcess) {
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        TvDeleteHashTable(&table_);
        table_.findProc(&table_, "entry");
      },
      testing::ExitedWithCode(3), "^called TvFindHashEntry on deleted table\n");
}

}  // namespace
