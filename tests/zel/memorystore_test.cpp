// The store in memory against maps of every version, and what it takes.
#include "store/memorystore.h"

#include <cstdlib>
#include <random>
#include <set>

static int allocationsLeft = -1;  // until one fails; below 0 none does

void* operator new(std::size_t size) {
  if (allocationsLeft >= 0 && allocationsLeft-- == 0) throw std::bad_alloc();
  return std::malloc(size);
}
void operator delete(void* room) noexcept {
  std::free(room);
}
void operator delete(void* room, std::size_t) noexcept {
  std::free(room);
}

namespace zel {

using Rows = std::map<Place, std::pair<Version, std::string>>;

// A store with all that ever happened to it, by version.
class MemoryStoreTest : public testing::Test {
 protected:
  MemoryStore store{[](const std::string&, Store&, const Progress&) {}};
  std::mt19937 random{17};
  std::vector<Rows> rows{1};
  std::vector<std::set<Place>> written{1};
  std::multiset<Version> leases;
  Rows read;
  TakeRow take = [this](const Row& row) { read[row.place] = {row.version, row.bytes}; };

  unsigned below(std::size_t end) { return static_cast<unsigned>(random() % end); }
  Version anyLease() { return *std::next(leases.begin(), below(leases.size())); }
  Place anyPlace() { return {1 + below(8) + below(2) * firstFreeId, below(3) * below(4)}; }
  const Rows& rowsAt(Version at) {
    read.clear();
    return store.scan(at, 0, UINT64_MAX, take), read;
  }
  void put(const std::vector<Write>& writes) {
    const Version base = store.lease();
    EXPECT_NE(0, store.commit({base, {}, writes}).version);
    store.giveUp(base);
  }
  std::vector<Place> writtenIn(Version from, Version to) {
    std::set<Place> places;
    while (from < to) ++from, places.insert(written[from].begin(), written[from].end());
    return {places.begin(), places.end()};
  }
  void commit() {
    Changes changes{anyLease(), {anyPlace(), {anyPlace().id, Place::any}}, {}};
    changes.reads.resize(below(3));
    std::set<Place> concerned(changes.reads.begin(), changes.reads.end());
    std::set<Place> changed;
    Rows after = rows.back();
    for (unsigned count = 1 + below(4); count > 0; --count) {
      const Write write{anyPlace(), 5, std::string(below(40), 'a'), below(3) == 0};
      if (!concerned.insert(write.place).second) continue;
      changes.writes.push_back(write);
      if (!write.gone) after[write.place] = {rows.size(), write.bytes};
      if (!write.gone || after.erase(write.place) != 0) changed.insert(write.place);
    }
    std::set<ObjectId> conflicts;
    for (const Place& place : writtenIn(changes.base, rows.size() - 1)) {
      const bool asAny = concerned.contains({place.id, Place::any});
      if (asAny || concerned.contains(place)) conflicts.insert(place.id);
    }
    const Outcome outcome = store.commit(changes);
    ASSERT_THAT(conflicts, testing::UnorderedElementsAreArray(outcome.conflicts));
    ASSERT_EQ(conflicts.empty() ? rows.size() : 0, outcome.version);
    if (outcome.version != 0) rows.push_back(after), written.push_back(changed);
  }
  void check(Version at) {
    ASSERT_EQ(rows[at], rowsAt(at));
    ASSERT_EQ(writtenIn(*leases.begin(), at), store.changedSince(*leases.begin(), at));
    read.clear();
    for (ObjectId id = 1; id <= 8; ++id) store.read(at, {&id, 1}, take);
    ASSERT_EQ(Rows(rows[at].begin(), rows[at].lower_bound({9, 0})), read);
    std::set<std::pair<Place, Rows::mapped_type>> needed(rows.back().begin(), rows.back().end());
    for (const Version lease : leases) needed.insert(rows[lease].begin(), rows[lease].end());
    ASSERT_EQ(needed.size(), store.statistics().rows);
  }
};

TEST_F(MemoryStoreTest, KeepsWhatLeasesNeedAndNothingElse) {
  for (int turn = 0; (turn < 2000 || !leases.empty()) && !HasFatalFailure(); ++turn) {
    if (turn < 2000 && (leases.empty() || below(4) == 0)) leases.insert(store.lease());
    if (below(2) == 0) commit();
    check(anyLease());
    if (leases.size() > below(7)) store.giveUp(leases.extract(anyLease()).value());
  }
  const StoreStatistics left = store.statistics();
  std::vector<Write> writes;
  for (const auto& [place, row] : rows.back()) writes.push_back({place, 5, row.second, true});
  put(writes);
  EXPECT_EQ(0, store.bytes());
  for (Write& write : writes) write.gone = false;
  put(writes);
  EXPECT_EQ(left.bytes, store.bytes());
  EXPECT_EQ(left.objects, store.statistics().objects);
  const ObjectId missing = 70'000;
  EXPECT_THROW(store.read(store.lease(), {&missing, 1}, take), Failure);
}

TEST_F(MemoryStoreTest, FailedAllocationsAndManyCommitsLeaveNothing) {
  const std::vector<Write> kept{{{1, 0}, 5, "a"}, {{1, 8}, 0, "b"}, {{70'000, 3}, 0, "c"}};
  const std::vector<Write> more{{{1, 8}, 0, "d"}, {{1, 9}, 0, "e"}, {{80'000, 4}, 0, "f"}};
  put(kept);
  const Changes changes{store.lease(), {}, more};
  const Rows before = rowsAt(changes.base);
  const std::size_t bytes = store.bytes();
  int failures = 0;
  for (Outcome outcome; outcome.version == 0; ++failures) {
    EXPECT_EQ(bytes, store.bytes());
    allocationsLeft = failures;
    try {
      outcome = store.commit(changes);
    } catch (const std::bad_alloc&) {
    }
    allocationsLeft = -1;
    EXPECT_EQ(before, rowsAt(changes.base));
  }
  EXPECT_LT(8, failures);
  const auto commitOften = [&](int times) {
    while (times-- > 0) put(more), put(kept), put({{{1, 8}, 0, "", true}});
    return store.bytes();
  };
  EXPECT_EQ(commitOften(10), commitOften(1000));
  EXPECT_EQ(before, rowsAt(changes.base));
}

TEST_F(MemoryStoreTest, RetainsWhatAnyKeptVersionReaches) {
  const auto retained = [&](const std::vector<ObjectId>& roots) {
    store.retain(roots, [](const Row& row, auto& ids) { ids.push_back(std::stoull(row.bytes)); });
    return store.statistics().objects;
  };
  const ObjectId end = store.newIds(100'000) + 100'000;
  std::vector<Write> list{{{9, 4}, 0, "65536"}};
  for (ObjectId id = firstFreeId; id < end; ++id) list.push_back({{id}, 5, std::to_string(id + 1)});
  put(list);
  const Version old = store.lease();
  put({{{9, 4}, 0, std::to_string(end - 50)}});
  EXPECT_EQ(100'000, retained({}));
  store.giveUp(old);
  allocationsLeft = 3;
  EXPECT_THROW(retained({end}), std::bad_alloc);
  allocationsLeft = -1;
  EXPECT_EQ(100'000, store.statistics().objects);
  EXPECT_EQ(60, retained({end - 60}));
  put({{{9, 4}, 0, "", true}});
  EXPECT_EQ(0, retained({}) + store.bytes());
}

}  // namespace zel
