// The string hashes beside a plain loop, the open table beside std::unordered_set.
#include <povzel/hash.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include <povzel/utlheap.h>
#include "paired.h"

namespace {

using Permutation = std::array<ByteType, 256>;

const Permutation permutation = [] {
  Permutation values{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    const auto value = static_cast<ByteType>(byte);
    values[byte] = static_cast<ByteType>(HashStrHash(&value, 1, 1));
  }
  return values;
}();

// What one would write: three look-ups a byte, each waiting for the one before.
[[gnu::noinline]] long plainHash(const ByteType* bytes, std::size_t count) {
  if (count == 0) return 0;
  ByteType hash0 = permutation[bytes[0]];
  ByteType hash1 = permutation[(bytes[0] + 1) % 256];
  ByteType hash2 = permutation[(bytes[0] + 2) % 256];
  for (std::size_t i = 1; i < count; ++i) {
    hash0 = permutation[hash0 ^ bytes[i]];
    hash1 = permutation[hash1 ^ bytes[i]];
    hash2 = permutation[hash2 ^ bytes[i]];
  }
  return hash2 << 16 | hash1 << 8 | hash0;
}

// One of the three hashes alone, with the shortest step there is: an exclusive or and a load that
// wait for each other. The three run side by side, but none can run faster than this.
[[gnu::noinline]] unsigned oneHash(const ByteType* bytes, std::size_t count) {
  alignas(256) static const Permutation aligned = permutation;
  const auto table = reinterpret_cast<std::uintptr_t>(aligned.data());
  std::uintptr_t hash = aligned[bytes[0]];
  for (std::size_t i = 1; i < count; ++i) {
    hash = *reinterpret_cast<const ByteType*>(hash ^ (table ^ bytes[i]));
  }
  return hash;
}

void BM_HashStrHashFloor(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
  const auto* bytes = reinterpret_cast<const ByteType*>(text.data());
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(oneHash(bytes, text.size())); },
      [&] { benchmark::DoNotOptimize(plainHash(bytes, text.size())); });
}
BENCHMARK(BM_HashStrHashFloor)
    ->Arg(12)
    ->Arg(24)
    ->Arg(64)
    ->ArgName("bytes")
    ->Iterations(pairedTurns)
    ->UseManualTime();

void BM_HashStrHash(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
  const auto* bytes = reinterpret_cast<const ByteType*>(text.data());
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(HashStrHash(bytes, text.size(), 1)); },
      [&] { benchmark::DoNotOptimize(plainHash(bytes, text.size())); }, {.bound = 1 / 1.3});
}
BENCHMARK(BM_HashStrHash)
    ->Arg(12)
    ->Arg(24)
    ->Arg(64)
    ->ArgName("bytes")
    ->Iterations(pairedTurns)
    ->UseManualTime();

struct Hash {
  std::size_t operator()(const char* string) const { return HashCStrHash(string); }
};
struct Equal {
  bool operator()(const char* one, const char* other) const {
    return HashCStrCompare(one, other) != 0;
  }
};

[[gnu::noinline]] void visitHome(const HashTableSType* table, const char* string, bool hit) {
  const auto size = static_cast<unsigned>(table->tableSize);
  benchmark::DoNotOptimize(table->table[table->hashFunc(string) % size]);
  if (hit) benchmark::DoNotOptimize(table->compareFunc(string, string));
}

// Both tables with the same records, and the strings that they are asked for, in random order.
class Tables {
 public:
  Tables(std::size_t count, bool hit) {
    for (std::size_t i = 0; i < count; ++i) stored_.push_back("symbol." + std::to_string(i));
    asked_ = stored_;
    if (!hit) {
      for (std::string& string : asked_) string[0] = 'S';
    }
    std::shuffle(asked_.begin(), asked_.end(), std::mt19937(1));
    HashTableInit(&table_, 0, 0, HashCStrHash, HashCStrCompare);
    for (std::string& string : stored_) {
      HashTableInsert(&table_, HashTableLookup(&table_, string.c_str()), string.data());
      set_.insert(string.c_str());
    }
  }
  Tables(const Tables&) = delete;
  Tables& operator=(const Tables&) = delete;
  ~Tables() {
    HashTableClear(&table_);
    UtlFree(table_.table);
  }

  double count() const { return static_cast<double>(stored_.size()); }

  void lookUp() {
    for (const std::string& string : asked_) {
      benchmark::DoNotOptimize(*HashTableLookup(&table_, string.c_str()));
    }
  }

  void findInSet() {
    for (const std::string& string : asked_) {
      benchmark::DoNotOptimize(set_.find(string.c_str()) != set_.end());
    }
  }

  // What no look-up in a table of this record can do without: the hash, through its pointer, the
  // division for the slot, a look at it and, for a record that is there, one comparison.
  void visitHomes(bool hit) {
    for (const std::string& string : asked_) visitHome(&table_, string.c_str(), hit);
  }

 private:
  std::vector<std::string> stored_;
  std::vector<std::string> asked_;
  HashTableSType table_;
  std::unordered_set<const char*, Hash, Equal> set_;
};

void BM_HashTableLookup(benchmark::State& state) {
  Tables tables(static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
  comparePaired(
      state, [&] { tables.lookUp(); }, [&] { tables.findInSet(); },
      {.units = tables.count(), .bound = 1 / 1.3});
}
BENCHMARK(BM_HashTableLookup)
    ->ArgsProduct({{1000, 30000}, {1, 0}})
    ->ArgNames({"records", "hit"})
    ->Iterations(pairedTurns)
    ->UseManualTime();

// How far std::unordered_set can be undercut at all. Of 1,000 records in a loop the processor soon
// knows every branch by heart; then the calls, which both tables make, are nearly all the time.
void BM_HashTableLookupFloor(benchmark::State& state) {
  Tables tables(static_cast<std::size_t>(state.range(0)), state.range(1) != 0);
  comparePaired(
      state, [&] { tables.visitHomes(state.range(1) != 0); }, [&] { tables.findInSet(); },
      {.units = tables.count()});
}
BENCHMARK(BM_HashTableLookupFloor)
    ->ArgsProduct({{1000, 30000}, {1, 0}})
    ->ArgNames({"records", "hit"})
    ->Iterations(pairedTurns)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
