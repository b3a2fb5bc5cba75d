#include <povzel/tvhash.h>

#include <sys/mman.h>
#include <unistd.h>

#include <povzel/hash.h>
#include <povzel/hostdebug.h>
#include <povzel/utlheap.h>
#include "basics/fortests.h"
#include "faults.h"
#include "tests.h"

namespace {

constexpr long arrayWords = 3;

struct Table : TvHashTable {
  explicit Table(long kind) { TvInitHashTable(this, kind); }
  ~Table() { TvDeleteHashTable(this); }
};

struct KeyedTable : testing::TestWithParam<long> {
  // The key of the kind under test that is made from a number; it stays until the next one.
  const char* key(unsigned number) {
    if (GetParam() == 1) return reinterpret_cast<const char*>(number);
    text_ = std::to_string(number) + std::string(number % 7, '\xC8');
    words_ = {static_cast<long>(number / 100), static_cast<long>(number % 100), -7};
    return GetParam() == 0 ? text_.c_str() : reinterpret_cast<const char*>(words_.data());
  }
  TvHashEntry* create(unsigned number) { return table_.createProc(&table_, key(number), &isNew_); }

  Table table_{GetParam()};
  long isNew_ = 9;

  std::string text_;
  std::vector<long> words_;
};

INSTANTIATE_TEST_SUITE_P(, KeyedTable, testing::Values(0L, 1L, arrayWords));

TEST_P(KeyedTable, GrowsFourfoldAtThreeEntriesPerBucket) {
  for (unsigned i = 0; i < 800; ++i) {
    TvHashEntry* entry = create(i);
    ASSERT_EQ(isNew_, 1);
    ASSERT_EQ(entry->value, nullptr);
    entry->value = reinterpret_cast<void*>(i);
    ASSERT_EQ(table_.numBuckets, i < 11 ? 4 : i < 47 ? 16 : i < 191 ? 64 : i < 767 ? 256 : 1024);
  }
  // The order of enumeration shows in which bucket and chain each entry is.
  const std::map<long, unsigned> orders = {{0, 8914743}, {1, 14069697}, {arrayWords, 6304753}};
  std::string order;
  TvHashSearch search;
  for (TvHashEntry* entry = TvFirstHashEntry(&table_, &search); entry != nullptr;
       entry = TvNextHashEntry(&search)) {
    order += std::to_string(reinterpret_cast<unsigned>(entry->value)) + " ";
    TvDeleteHashEntry(entry);
  }
  EXPECT_EQ(HashCStrHash(order.c_str()), orders.at(GetParam()));
  EXPECT_EQ(table_.numEntries, 0);
  EXPECT_EQ(TvNextHashEntry(&search), nullptr);
}

// Key 0, the empty string or word 0, is absent like two of three; its bucket is empty.
TEST_P(KeyedTable, LargeTablesFindWhatIsThereAndNothingElse) {
  const auto keyOf = [this](unsigned i) { return i == 0 && GetParam() == 0 ? "" : key(i); };
  std::map<unsigned, TvHashEntry*> model;
  for (unsigned i = 1; i < 9300; i += 3) {
    model[i] = table_.createProc(&table_, keyOf(i), &isNew_);
    ASSERT_EQ(isNew_, 1);
  }
  for (unsigned i = 0; i < 9300; ++i) {
    ASSERT_EQ(table_.findProc(&table_, keyOf(i)), i % 3 == 1 ? model[i] : nullptr) << i;
  }
}

// Every other key ends where its page does, and nothing behind it is read; others have bytes there.
TEST(TvHash, StringsOfAllLengthsHashAlike) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  auto* pages = static_cast<char*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(pages + page, page, PROT_NONE);
  std::mt19937 random(5);
  Table table(0);
  for (int i = 0; i < 230000; ++i) {
    const std::size_t length = random() % 24;
    char* const key = pages + page - 1 - length - (i % 2 != 0 ? 24 : 0);
    std::generate(key, key + length, [&] { return static_cast<char>(1 + random() % 255); });
    long isNew;
    TvHashEntry* const entry = table.createProc(&table, key, &isNew);
    EXPECT_EQ(table.findProc(&table, key), entry);
    EXPECT_STREQ(entry->key.string, key);
    std::uint32_t hash = 0;
    for (const char* at = key; *at != 0; ++at) hash = 9 * hash + static_cast<std::uint32_t>(*at);
    ASSERT_EQ(entry->bucketPtr - table.buckets, hash & static_cast<std::uint32_t>(table.mask));
  }
  munmap(pages, 2 * page);
}

TEST_P(KeyedTable, FailedAllocationsLeaveTheTableAsItWas) {
  for (int succeed = 0; succeed <= 12; ++succeed) {  // twelve entries, and then the buckets
    TvDeleteHashTable(&table_);
    TvInitHashTable(&table_, GetParam());
    {
      const FailingCall failing("malloc", ENOMEM, succeed);
      const auto fill = [&] {
        for (unsigned i = 0; i < 12; ++i) {
          if (create(i) != nullptr) continue;
          EXPECT_EQ(std::pair(isNew_, table_.numEntries), std::pair(0L, static_cast<long>(i)));
        }
      };
      EXPECT_THAT(printed(fill), EndsWith(succeed < 12 ? "tvhash\n\n" : " 64 bytes: tvHash\n\n"));
    }
    create(static_cast<unsigned>(std::min(succeed, 11)));
    EXPECT_EQ(table_.numBuckets, 16);
  }
}

TEST(TvHash, HeapsMayAlignLessThanARegister) {
  alignas(16) static char heap[4096];
  static std::size_t used = 8;
  TvHashTable table;
  TvInitHashTable(&table, 0);
  utlHeapAllocateForTests = [](std::size_t size) -> void* {
    return heap + std::exchange(used, used + (size + 15) / 16 * 16);
  };
  long isNew;
  for (const char* key : {"one", "two", "three"}) table.createProc(&table, key, &isNew);
  utlHeapAllocateForTests = std::malloc;
  EXPECT_STREQ(table.findProc(&table, "two")->key.string, "two");
  EXPECT_EQ(table.findProc(&table, "four"), nullptr);
}

TEST(TvHash, KeysAreCheckedAndBytesAreSigned) {
  Table table(0);
  long isNew = 9;
  EXPECT_EQ(table.createProc(&table, "\xFF", &isNew)->bucketPtr, &table.buckets[table.mask]);
  EXPECT_EQ(table.findProc(&table, nullptr), nullptr);
  for (const long keyType : {-1L, 0x40000000L, 0x3FFFFFFCL}) {  // the last is more than memory
    Table other(keyType);
    EXPECT_EQ(other.findProc(&other, "1234567"), nullptr);
    EXPECT_EQ(other.createProc(&other, "1234567", &isNew), nullptr);
  }
}

TEST(TvHash, StatsCountChains) {
  Table table(1);
  long isNew;
  table.createProc(&table, "", &isNew);
  char* stats = TvHashStats(&table);
  EXPECT_THAT(stats, Reads("1 entries in table, 4 buckets\nnumber of buckets with 0 entries: 3\n"
                           "number of buckets with 1 entries: 1\n~with 9 entries: 0\n"
                           "number of buckets with 10 or more entries: 0\n"
                           "average search distance for entry: 1.0"));
  UtlFree(stats);
}

TEST(TvHashDeathTest, MisuseIsReportedAndStopsTheProcess) {
  Table table(0);
  long isNew = 1;
  noHalt = 1;
  const auto misuse = [&] {
    TvHashEntry stray = *table.createProc(&table, "inside", &isNew);
    TvDeleteHashEntry(&stray);
    TvDeleteHashEntry(nullptr);
    EXPECT_EQ(table.numEntries, 1);
    for (int i = 0; i < 2; ++i) TvDeleteHashTable(&table);
    EXPECT_EQ(table.findProc(&table, "inside"), nullptr);
    EXPECT_EQ(table.createProc(&table, "inside", &isNew), nullptr);
  };
  EXPECT_EQ(printed(misuse),
            "malformed bucket chain in TvDeleteHashEntry\n"
            "called TvFindHashEntry on deleted table\n"
            "called TvCreateHashEntry on deleted table\n");
  noHalt = 0;
  EXPECT_EQ(exitCode(runInChild([&] { table.findProc(&table, "entry"); })), 3);
}

}  // namespace
