// The keyed table beside the hash maps that a program would use instead.
#include <povzel/tvhash.h>

#include <apr_general.h>
#include <apr_hash.h>
#include <apr_strings.h>
#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "paired.h"

namespace {

constexpr double mapBound = 1 / 1.5;

// Visits what a find of each of these entries has to visit, without a hash or a comparison: the
// least that any table of this layout can do. Its number of buckets, a power of 4, leaves up to 3
// entries in each, and an entry takes 32 bytes of the heap: of 30,000 words that alone is slower
// than a find in std::unordered_map, whose nodes are half as large and one to a bucket.
void walkChains(const std::vector<TvHashEntry*>& entries) {
  for (const TvHashEntry* wanted : entries) {
    const TvHashEntry* entry = *wanted->bucketPtr;
    while (entry != wanted) entry = entry->nextPtr;
    benchmark::DoNotOptimize(entry->value);
  }
}

std::uint32_t hashOf(const char* key) {
  std::uint32_t hash = 0;
  for (; *key != '\0'; ++key) hash = 9 * hash + static_cast<std::uint32_t>(*key);
  return hash;
}

class StringTables {
 public:
  explicit StringTables(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      asked_.push_back("object." + std::to_string(i * 7919 % 100003));
    }
    apr_initialize();
    apr_pool_create(&pool_, nullptr);
    apr_ = apr_hash_make(pool_);
    TvInitHashTable(&table_, 0);
    // One after the other, so that the memory of each lies together.
    for (std::string& key : asked_) {
      long isNew;
      table_.createProc(&table_, key.c_str(), &isNew)->value = &key;
    }
    for (std::string& key : asked_) map_[key] = &key;
    for (std::string& key : asked_) g_hash_table_insert(glib_, g_strdup(key.c_str()), &key);
    for (std::string& key : asked_) {
      apr_hash_set(apr_, apr_pstrdup(pool_, key.c_str()), APR_HASH_KEY_STRING, &key);
    }
    std::shuffle(asked_.begin(), asked_.end(), std::mt19937(1));
    for (const std::string& key : asked_) {
      entries_.push_back(table_.findProc(&table_, key.c_str()));
    }
  }
  StringTables(const StringTables&) = delete;
  StringTables& operator=(const StringTables&) = delete;
  ~StringTables() {
    TvDeleteHashTable(&table_);
    g_hash_table_destroy(glib_);
    apr_pool_destroy(pool_);
    apr_terminate();
  }

  double count() const { return static_cast<double>(asked_.size()); }

  // What walkChains visits, with what a find has to read besides, once: the key, and the entry's
  // key beside it.
  void walkAndCompareOurs() {
    for (std::size_t i = 0; i < asked_.size(); ++i) {
      const TvHashEntry* entry = *entries_[i]->bucketPtr;
      while (entry != entries_[i]) entry = entry->nextPtr;
      benchmark::DoNotOptimize(hashOf(asked_[i].c_str()));
      benchmark::DoNotOptimize(std::strcmp(entry->key.string, asked_[i].c_str()));
    }
  }
  void findInOurs() {
    for (const std::string& key : asked_) {
      benchmark::DoNotOptimize(table_.findProc(&table_, key.c_str())->value);
    }
  }
  // The map is spared the making of its keys.
  void findInMap() {
    for (const std::string& key : asked_) benchmark::DoNotOptimize(map_.find(key)->second);
  }
  void findInMapByCString() {
    for (const std::string& key : asked_) {
      const char* text = key.c_str();
      benchmark::DoNotOptimize(map_.find(text)->second);
    }
  }
  void findInGlib() {
    for (const std::string& key : asked_) {
      benchmark::DoNotOptimize(g_hash_table_lookup(glib_, key.c_str()));
    }
  }
  void findInApr() {
    for (const std::string& key : asked_) {
      benchmark::DoNotOptimize(apr_hash_get(apr_, key.c_str(), APR_HASH_KEY_STRING));
    }
  }

 private:
  std::vector<std::string> asked_;
  std::vector<TvHashEntry*> entries_;
  TvHashTable table_;
  std::unordered_map<std::string, void*> map_;
  GHashTable* glib_ = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
  apr_pool_t* pool_ = nullptr;
  apr_hash_t* apr_ = nullptr;
};

class WordTables {
 public:
  explicit WordTables(std::size_t count) {
    TvInitHashTable(&table_, 1);
    std::mt19937 random(2);
    for (std::size_t i = 0; i < count; ++i) {
      asked_.push_back(reinterpret_cast<const char*>(random() & ~7U));
    }
    for (const char* word : asked_) {
      long isNew;
      table_.createProc(&table_, word, &isNew);
    }
    for (const char* word : asked_) map_[word] = &table_;
    for (const char* word : asked_) g_hash_table_insert(glib_, const_cast<char*>(word), &table_);
    std::shuffle(asked_.begin(), asked_.end(), random);
    for (const char* key : asked_) entries_.push_back(table_.findProc(&table_, key));
  }
  WordTables(const WordTables&) = delete;
  WordTables& operator=(const WordTables&) = delete;
  ~WordTables() {
    TvDeleteHashTable(&table_);
    g_hash_table_destroy(glib_);
  }

  double count() const { return static_cast<double>(asked_.size()); }

  void walkOurs() { walkChains(entries_); }
  void findInOurs() {
    for (const char* key : asked_) benchmark::DoNotOptimize(table_.findProc(&table_, key)->value);
  }
  void findInMap() {
    for (const char* key : asked_) benchmark::DoNotOptimize(map_.find(key)->second);
  }
  void findInGlib() {
    for (const char* key : asked_) benchmark::DoNotOptimize(g_hash_table_lookup(glib_, key));
  }

 private:
  std::vector<const char*> asked_;
  std::vector<TvHashEntry*> entries_;
  TvHashTable table_;
  std::unordered_map<const void*, void*> map_;
  GHashTable* glib_ = g_hash_table_new(g_direct_hash, g_direct_equal);
};

template <typename Tables, void (Tables::*Other)(), void (Tables::*Ours)() = &Tables::findInOurs>
void BM_Find(benchmark::State& state, double bound) {
  Tables tables(static_cast<std::size_t>(state.range(0)));
  comparePaired(
      state, [&] { (tables.*Ours)(); }, [&] { (tables.*Other)(); },
      {.units = tables.count(), .bound = bound});
}

void registerFind(const char* name, void (*function)(benchmark::State&, double), double bound) {
  benchmark::RegisterBenchmark(name, function, bound)
      ->Arg(1000)
      ->Arg(30000)
      ->ArgName("entries")
      ->Iterations(pairedTurns)
      ->UseManualTime();
}

}  // namespace

int main(int argc, char** argv) {
  // What is asked for is a C string, of which a map of std::string first makes a key.
  registerFind("BM_FindString/unordered_map",
               BM_Find<StringTables, &StringTables::findInMapByCString>, mapBound);
  registerFind("BM_FindString/unordered_map_ready_keys",
               BM_Find<StringTables, &StringTables::findInMap>, 0);
  registerFind("BM_FindString/glib", BM_Find<StringTables, &StringTables::findInGlib>, 0);
  registerFind("BM_FindString/apr", BM_Find<StringTables, &StringTables::findInApr>, 0);
  registerFind(
      "BM_FindStringFloor/unordered_map",
      BM_Find<StringTables, &StringTables::findInMapByCString, &StringTables::walkAndCompareOurs>,
      0);
  registerFind("BM_FindStringFloor/unordered_map_ready_keys",
               BM_Find<StringTables, &StringTables::findInMap, &StringTables::walkAndCompareOurs>,
               0);
  registerFind("BM_FindWord/unordered_map", BM_Find<WordTables, &WordTables::findInMap>, 1);
  registerFind("BM_FindWord/glib", BM_Find<WordTables, &WordTables::findInGlib>, 0);
  registerFind("BM_FindWordFloor/unordered_map",
               BM_Find<WordTables, &WordTables::findInMap, &WordTables::walkOurs>, 0);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
