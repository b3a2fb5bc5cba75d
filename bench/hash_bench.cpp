// The string hashes beside a plain loop, the open table beside std::unordered_set.
#include <povzel/hash.h>

#include <absl/container/flat_hash_set.h>
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

// What the work cannot do without: a look at each byte, once.
[[gnu::noinline]] unsigned readAll(const ByteType* bytes, std::size_t count) {
  unsigned sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum += bytes[i];
  return sum;
}

void BM_HashStrHashFloor(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
  const auto* bytes = reinterpret_cast<const ByteType*>(text.data());
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(readAll(bytes, text.size())); },
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

[[gnu::noinline]] void visitHome(const HashTableSType* table, const char* string) {
  const auto size = static_cast<unsigned>(table->tableSize);
  const void* const stored = table->table[HashCStrHash(string) % size];
  benchmark::DoNotOptimize(stored != nullptr ? *static_cast<const char*>(stored) : '\0');
}

using Strings = std::vector<const char*>;

// Each is a table, and does the same with it. Their own calls of the hash are the library's.
class Ours {
 public:
  Ours() { HashTableInit(&table_, 0, 0, HashCStrHash, HashCStrCompare); }
  Ours(const Ours&) = delete;
  Ours& operator=(const Ours&) = delete;
  ~Ours() {
    HashTableClear(&table_);
    UtlFree(table_.table);
  }

  bool has(const char* string) { return *HashTableLookup(&table_, string) != nullptr; }
  void insert(const char* string) {
    HashTableInsert(&table_, HashTableLookup(&table_, string), const_cast<char*>(string));
  }
  void remove(const char* string) { HashTableRemove(&table_, HashTableLookup(&table_, string)); }

  // What no look-up in a table of this record can do without: the hash, the division for the slot,
  // a look at it and one at the record there.
  void visit(const char* string) { visitHome(&table_, string); }

 private:
  HashTableSType table_;
};

template <typename Set>
class Theirs {
 public:
  bool has(const char* string) { return set_.find(string) != set_.end(); }
  void insert(const char* string) { set_.insert(string); }
  void remove(const char* string) { set_.erase(string); }

 private:
  Set set_;
};
using UnorderedSet = Theirs<std::unordered_set<const char*, Hash, Equal>>;
using FlatHashSet = Theirs<absl::flat_hash_set<const char*, Hash, Equal>>;

template <typename Table>
void insertAll(Table& table, const Strings& strings) {
  for (const char* string : strings) table.insert(string);
}

// As many names as the first argument says that are stored, and as many others.
struct Names {
  explicit Names(const benchmark::State& state, const std::string& tail = {}) {
    const auto count = static_cast<std::size_t>(state.range(0));
    for (std::size_t i = 0; i < 2 * count; ++i) {
      texts.push_back((i < count ? "symbol." : "Symbol.") + std::to_string(i % count) + tail);
    }
    for (std::size_t i = 0; i < 2 * count; ++i) {
      (i < count ? stored : absent).push_back(texts[i].c_str());
    }
  }

  double count() const { return static_cast<double>(stored.size()); }

  std::vector<std::string> texts;
  Strings stored;
  Strings absent;
};

template <typename Other>
void BM_Lookup(benchmark::State& state, bool hit, double bound) {
  Names names(state);
  Ours ours;
  Other other;
  insertAll(ours, names.stored);
  insertAll(other, names.stored);
  Strings& asked = hit ? names.stored : names.absent;
  const auto ask = [&asked](auto& table) {
    for (const char* string : asked) benchmark::DoNotOptimize(table.has(string));
  };
  comparePaired(
      state, [&] { ask(ours); }, [&] { ask(other); },
      {.units = names.count(), .bound = bound, .beforeRound = [&] { reorder(asked); }});
}

void BM_LookupFloor(benchmark::State& state) {
  Names names(state);
  Ours ours;
  insertAll(ours, names.stored);
  comparePaired(
      state,
      [&] {
        for (const char* string : names.stored) benchmark::DoNotOptimize(ours.has(string));
      },
      [&] {
        for (const char* string : names.stored) ours.visit(string);
      },
      {.units = names.count(), .beforeRound = [&] { reorder(names.stored); }});
}

// Filling a new table, which grows as it goes. The names are long.
template <typename Other>
void BM_Fill(benchmark::State& state, double bound) {
  Names names(state, ".of.a.name.that.is.long");
  comparePaired(
      state,
      [&] {
        Ours ours;
        insertAll(ours, names.stored);
      },
      [&] {
        Other other;
        insertAll(other, names.stored);
      },
      {.units = names.count(), .bound = bound, .beforeRound = [&] { reorder(names.stored); }});
}

// Removing a record and inserting another, and back, a thousand times.
template <typename Other>
void BM_Churn(benchmark::State& state, double bound) {
  constexpr std::size_t renewed = 1000;
  Names names(state);
  Ours ours;
  Other other;
  insertAll(ours, names.stored);
  insertAll(other, names.stored);
  const auto churn = [&](auto& table) {
    for (const bool back : {false, true}) {
      const Strings& from = back ? names.absent : names.stored;
      const Strings& to = back ? names.stored : names.absent;
      for (std::size_t i = 0; i < renewed; ++i) {
        table.remove(from[i]);
        table.insert(to[i]);
      }
    }
  };
  const auto reorderBoth = [&] {
    reorder(names.stored);
    reorder(names.absent);
  };
  comparePaired(
      state, [&] { churn(ours); }, [&] { churn(other); },
      {.units = 2 * renewed, .bound = bound, .beforeRound = reorderBoth});
}

// Look-ups of absent records at the last size, 0.9 and 0.95 full: after 350,000 removals and
// inserts beside a fresh table with the same records.
void BM_WornMiss(benchmark::State& state) {
  Names names(state);
  Ours worn;
  insertAll(worn, names.absent);
  for (const int renewals : {0, 1, 2, 3, 4, 5}) {
    Strings& from = renewals % 2 == 0 ? names.absent : names.stored;
    Strings& to = renewals % 2 == 0 ? names.stored : names.absent;
    reorder(from);
    for (std::size_t i = 0; i < from.size(); ++i) {
      worn.remove(from[i]);
      worn.insert(to[i]);
    }
  }
  Ours fresh;
  insertAll(fresh, names.absent);
  Strings asked = names.stored;
  reorder(asked);
  asked.resize(2000);
  const auto ask = [&](Ours& table) {
    for (const char* string : asked) benchmark::DoNotOptimize(table.has(string));
  };
  comparePaired(
      state, [&] { ask(worn); }, [&] { ask(fresh); },
      {.units = 2000, .bound = 4, .beforeRound = [&] { reorder(asked); }});
}

template <typename... Arguments>
benchmark::internal::Benchmark* add(const std::string& name, Arguments... arguments) {
  return benchmark::RegisterBenchmark(name.c_str(), arguments...)
      ->ArgName("records")
      ->Iterations(pairedTurns)
      ->UseManualTime();
}

template <typename Other>
void addPeer(const std::string& peer, double lookupBound, double insertBound) {
  for (const bool hit : {true, false}) {
    add((hit ? "BM_HashTableHit/" : "BM_HashTableMiss/") + peer, BM_Lookup<Other>, hit, lookupBound)
        ->Arg(1000)
        ->Arg(30000);
  }
  add("BM_HashTableFill/" + peer, BM_Fill<Other>, insertBound)
      ->Arg(1000)
      ->Arg(30000)
      ->Iterations(pairedTurns / 4);
  add("BM_HashTableChurn/" + peer, BM_Churn<Other>, insertBound)->Arg(1000)->Arg(30000);
}

}  // namespace

int main(int argc, char** argv) {
  addPeer<UnorderedSet>("unordered_set", 1 / 1.3, 1);
  // Its hits take longer than ours, which compare short names without a call. A miss of 30,000 does
  // not: it is over with its marks, while ours is to answer with the slot, a line of its own in an
  // array of 256 KiB, and notes it for an insert.
  addPeer<FlatHashSet>("flat_hash_set", 0, 0);
  add("BM_HashTableHitFloor", BM_LookupFloor)->Arg(1000)->Arg(30000);
  add("BM_HashTableWornMiss", BM_WornMiss)->Arg(58983)->Arg(62260);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
