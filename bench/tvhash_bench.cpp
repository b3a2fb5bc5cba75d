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

// Reads the bucket and the value of each entry, without a look for it: the least that anything can
// do that finds entries by way of buckets.
void visit(const std::vector<TvHashEntry*>& entries) {
  for (const TvHashEntry* entry : entries) {
    const TvHashEntry* first = *entry->bucketPtr;
    benchmark::DoNotOptimize(first);
    void* value = entry->value;
    benchmark::DoNotOptimize(value);
  }
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
    absent_ = asked_;
    for (std::string& key : absent_) key[0] = 'O';
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

  void reorderAll() {
    reorder(asked_);
    reorder(absent_);
    reorder(entries_);
  }

  void visitOurs() { visit(entries_); }
  void missInOurs() {
    for (const std::string& key : absent_) {
      benchmark::DoNotOptimize(table_.findProc(&table_, key.c_str()));
    }
  }
  void missInMap() {
    for (const std::string& key : absent_) {
      const char* text = key.c_str();
      benchmark::DoNotOptimize(map_.find(text) != map_.end());
    }
  }
  void fillOurs() {
    TvHashTable table;
    TvInitHashTable(&table, 0);
    long isNew;
    for (const std::string& key : asked_) table.createProc(&table, key.c_str(), &isNew);
    TvDeleteHashTable(&table);
  }
  void fillMap() {
    std::unordered_map<std::string, void*> map;
    for (const std::string& key : asked_) map[key.c_str()] = nullptr;
  }
  // Deletes each entry and makes it again.
  void renewOurs() {
    long isNew;
    for (std::string& key : asked_) {
      TvDeleteHashEntry(table_.findProc(&table_, key.c_str()));
      table_.createProc(&table_, key.c_str(), &isNew)->value = &key;
    }
  }
  void renewMap() {
    for (std::string& key : asked_) {
      const char* text = key.c_str();
      map_.erase(text);
      map_[text] = &key;
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
  std::vector<std::string> absent_;
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
    for (const char* word : asked_) absent_.push_back(word + 1);
    for (const char* key : asked_) entries_.push_back(table_.findProc(&table_, key));
  }
  WordTables(const WordTables&) = delete;
  WordTables& operator=(const WordTables&) = delete;
  ~WordTables() {
    TvDeleteHashTable(&table_);
    g_hash_table_destroy(glib_);
  }

  double count() const { return static_cast<double>(asked_.size()); }

  void reorderAll() {
    reorder(asked_);
    reorder(absent_);
    reorder(entries_);
  }

  void visitOurs() { visit(entries_); }
  void missInOurs() {
    for (const char* key : absent_) benchmark::DoNotOptimize(table_.findProc(&table_, key));
  }
  void missInMap() {
    for (const char* key : absent_) benchmark::DoNotOptimize(map_.find(key) != map_.end());
  }
  void fillOurs() {
    TvHashTable table;
    TvInitHashTable(&table, 1);
    long isNew;
    for (const char* key : asked_) table.createProc(&table, key, &isNew);
    TvDeleteHashTable(&table);
  }
  void fillMap() {
    std::unordered_map<const void*, void*> map;
    for (const char* key : asked_) map[key] = nullptr;
  }
  void renewOurs() {
    long isNew;
    for (const char* key : asked_) {
      TvHashEntry* const entry = table_.findProc(&table_, key);
      if (entry != nullptr) TvDeleteHashEntry(entry);
      table_.createProc(&table_, key, &isNew);
    }
  }
  void renewMap() {
    for (const char* key : asked_) {
      map_.erase(key);
      map_[key] = &table_;
    }
  }
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
  std::vector<const char*> absent_;
  std::vector<TvHashEntry*> entries_;
  TvHashTable table_;
  std::unordered_map<const void*, void*> map_;
  GHashTable* glib_ = g_hash_table_new(g_direct_hash, g_direct_equal);
};

template <typename Tables, void (Tables::*Other)(), void (Tables::*Ours)() = &Tables::findInOurs>
void BM_Keyed(benchmark::State& state, double bound) {
  Tables tables(static_cast<std::size_t>(state.range(0)));
  comparePaired(
      state, [&] { (tables.*Ours)(); }, [&] { (tables.*Other)(); },
      {.units = tables.count(), .bound = bound, .beforeRound = [&] { tables.reorderAll(); }});
}

void registerPair(const char* name, void (*function)(benchmark::State&, double), double bound) {
  benchmark::RegisterBenchmark(name, function, bound)
      ->Arg(1000)
      ->Arg(30000)
      ->ArgName("entries")
      ->Iterations(pairedTurns / 2)
      ->UseManualTime();
}

// What both kinds of key have beside their finds.
template <typename Tables>
void registerRest(const std::string& kind, double bound) {
  const auto name = [&](const char* what) { return "BM_" + (what + kind); };
  registerPair((name("Miss") + "/unordered_map").c_str(),
               BM_Keyed<Tables, &Tables::missInMap, &Tables::missInOurs>, bound);
  registerPair((name("Fill") + "/unordered_map").c_str(),
               BM_Keyed<Tables, &Tables::fillMap, &Tables::fillOurs>, 0);
  registerPair((name("Renew") + "/unordered_map").c_str(),
               BM_Keyed<Tables, &Tables::renewMap, &Tables::renewOurs>, 0);
  registerPair((name("Find") + "/floor").c_str(), BM_Keyed<Tables, &Tables::visitOurs>, 0);
}

}  // namespace

int main(int argc, char** argv) {
  // What is asked for is a C string, of which a map of std::string first makes a key.
  registerPair("BM_FindString/unordered_map",
               BM_Keyed<StringTables, &StringTables::findInMapByCString>, mapBound);
  registerPair("BM_FindString/unordered_map_ready_keys",
               BM_Keyed<StringTables, &StringTables::findInMap>, 0);
  registerPair("BM_FindString/glib", BM_Keyed<StringTables, &StringTables::findInGlib>, 0);
  registerPair("BM_FindString/apr", BM_Keyed<StringTables, &StringTables::findInApr>, 0);
  registerPair("BM_FindWord/unordered_map", BM_Keyed<WordTables, &WordTables::findInMap>, 1);
  registerPair("BM_FindWord/glib", BM_Keyed<WordTables, &WordTables::findInGlib>, 0);
  registerRest<StringTables>("String", mapBound);
  registerRest<WordTables>("Word", 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
