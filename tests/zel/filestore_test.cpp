// The store in a file: what it keeps and says, alone, beside others, and after whatever happens to
// the process or the file.
#include "store/filestore.h"

#include <sqlite3.h>
#include "tests.h"

namespace zel {
namespace {

constexpr ObjectId dictionary = 200;  // one of the system's, without a row of its own
constexpr std::uint32_t parts = 20;
constexpr ObjectId objects = 12;

using Model = std::map<Place, std::string>;  // a state: what there is

std::string textOf(const Row& row) { return std::to_string(row.classId) + ":" + row.bytes; }
TakeRow into(Model& model) {
  return [&model](const Row& row) { model[row.place] = textOf(row); };
}

Write writing(Place place, const std::string& bytes) {
  const bool own = place.part == Place::itself;
  return {place, own ? place.id % 7 : 0, bytes, false};
}
void apply(Model& model, const Write& write) {
  if (write.gone) model.erase(write.place);
  if (!write.gone) model[write.place] = std::to_string(write.classId) + ":" + write.bytes;
}

Model scanned(Store& store, Version at) {
  Model model;
  store.scan(at, 0, UINT64_MAX, into(model));
  return model;
}
// The newest version, scanned, and read by the ids that were found.
Model newest(Store& store) {
  const Version at = store.lease();
  const Model model = scanned(store, at);
  std::vector<ObjectId> ids;
  for (const auto& [place, text] : model) {
    if (ids.empty() || ids.back() != place.id) ids.push_back(place.id);
  }
  Model again;
  store.read(at, ids, into(again));
  store.giveUp(at);
  EXPECT_EQ(model, again);
  return model;
}

// Commits on the newest version and gives the lease up.
Outcome commit(Store& store, std::vector<Write> writes, std::vector<Place> reads = {}) {
  const Version base = store.lease();
  const std::unique_ptr<Store, std::function<void(Store*)>> end(
      &store, [base](Store* leased) { leased->giveUp(base); });
  return store.commit({base, std::move(reads), std::move(writes)});
}
Outcome put(Store& store, ObjectId id, const std::string& bytes) {
  return commit(store, {writing({id}, bytes)});
}

// The number of the failure, which is then in `message`; 0 if there was none.
std::string message;
int numberOf(const std::function<void()>& action) {
  try {
    action();
    return 0;
  } catch (const Failure& failure) {
    message = failure.message;
    return failure.number;
  }
}
int openingOf(const std::string& path) {
  return numberOf([&] { openFileStore({.path = path}); });
}

// Some commits that leave a dictionary and objects; the state after each, by its version.
std::vector<Model> filled(const std::string& path, int commits, bool kill = false) {
  std::vector<Model> models(1);
  const auto work = [&](bool real) {
    auto store = real ? openFileStore({.path = path, .create = true}) : nullptr;
    for (int i = 0; i < commits; ++i) {
      std::vector<Write> writes;
      for (ObjectId id = firstFreeId; id < firstFreeId + objects; ++id) {
        if (i == 0 || (id + i) % 4 == 0) {
          writes.push_back(writing({id}, std::string(i * 37 % 5000, 'a' + i % 26)));
        }
      }
      for (std::uint32_t part = 1; part < parts; part += 1 + i % 3) {
        writes.push_back(writing({dictionary, part}, std::to_string(i)));
      }
      if (real) commit(*store, writes);
      if (real) continue;
      models.push_back(models.back());
      for (const Write& write : writes) apply(models.back(), write);
    }
    if (real && kill) _exit(0);
  };
  work(false);
  if (kill) {
    runInChild([&] { work(true); });
  } else {
    work(true);
  }
  return models;
}

References noReferences() {
  return [](const Row&, std::vector<ObjectId>&) {};
}

class FileStoreTest : public testing::Test {
 protected:
  ScratchDirectory scratch;
  std::string path = scratch / "some.povzel";
  std::string frames = path + "-wal";
};

// Two stores on one file take turns in random transactions on whatever versions they lease; every
// answer is that of the model.
TEST_F(FileStoreTest, AnswersAsTheModel) {
  std::mt19937 random(stormSeed());
  const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
  std::vector<Model> models = filled(path, 3);
  std::vector<std::set<Place>> changes(models.size());  // of each version
  struct One {
    std::unique_ptr<Store> store;
    std::vector<Version> leases;
  };
  std::array<One, 2> both;
  const auto anyPlace = [&]() -> Place {
    if (below(3) == 0) return {dictionary, 1 + below(parts)};
    return {firstFreeId + below(objects), below(4) == 0 ? 1 + below(3) : 0};
  };
  const auto read = [&](Store& store, Version at) {
    Model expected = models[at];
    ASSERT_EQ(scanned(store, at), expected) << at;
    const ObjectId id = firstFreeId + below(objects);
    Model found;
    const int number = numberOf([&] { store.read(at, std::array{id}, into(found)); });
    ASSERT_EQ(number != 0, !expected.contains({id}));
    std::erase_if(expected, [id](const auto& row) { return row.first.id != id; });
    if (number != 0) return;
    ASSERT_EQ(found, expected);
  };
  const auto write = [&](Store& store, Version base) {
    Changes now{base, {}, {}};
    std::set<Place> written;
    for (unsigned i = below(3); i > 0; --i) {
      now.reads.push_back(anyPlace());
      if (below(3) == 0) now.reads.back().part = Place::any;
    }
    for (unsigned i = 1 + below(5); i > 0; --i) {
      const Place place = anyPlace();
      if (!written.insert(place).second) continue;
      now.writes.push_back(writing(place, std::string(below(9) == 0 ? 9000 : below(50), 'x')));
      now.writes.back().gone = below(6) == 0;
      if (now.writes.back().gone) now.writes.back() = {place, 0, "", true};
      // A row of an object that has none of its own would be damage.
      const Place own{place.id};
      if (place.id == dictionary || place == own || written.contains(own)) continue;
      written.insert(own);
      now.writes.push_back(writing(own, "o"));
    }
    std::set<ObjectId> conflicts;
    for (Version v = base + 1; v < models.size(); ++v) {
      for (const Place& place : changes[v]) {
        if (written.contains(place)) conflicts.insert(place.id);
        for (const Place& wanted : now.reads) {
          const bool any = wanted.part == Place::any && wanted.id == place.id;
          if (any || wanted == place) conflicts.insert(place.id);
        }
      }
    }
    const Outcome outcome = store.commit(now);
    ASSERT_EQ(std::set<ObjectId>(outcome.conflicts.begin(), outcome.conflicts.end()), conflicts);
    ASSERT_EQ(outcome.version, conflicts.empty() ? models.size() : 0);
    if (outcome.version == 0) return;
    models.push_back(models.back());
    for (const Write& each : now.writes) apply(models.back(), each);
    changes.push_back(std::move(written));
  };
  const auto step = [&] {
    One& one = both[below(2)];
    if (one.store == nullptr) one.store = openFileStore({.path = path, .create = true});
    if (one.leases.empty() || below(4) == 0) {
      one.leases.push_back(one.store->lease());
      ASSERT_EQ(one.leases.back(), models.size() - 1);
    }
    const unsigned which = below(static_cast<unsigned>(one.leases.size()));
    const Version at = one.leases[which];
    if (below(2) == 0) write(*one.store, below(3) == 0 ? at : one.leases.back());
    if (below(3) == 0) read(*one.store, at);
    if (below(5) == 0) {
      std::set<Place> since;
      for (Version v = at + 1; v < models.size(); ++v) since.merge(std::set(changes[v]));
      const auto told = one.store->changedSince(at, models.size() - 1);
      ASSERT_EQ(told, std::vector(since.begin(), since.end()));
    }
    if (below(3) == 0) {
      one.store->giveUp(at);
      one.leases.erase(one.leases.begin() + which);
    }
    if (below(200) == 0) one = {};
  };
  for (int i = 0; i < 4000 && !HasFatalFailure(); ++i) ASSERT_EQ(numberOf(step), 0) << message;
  both[0] = {};
  both[1] = {};
  EXPECT_THAT(verifyFile({.path = path}, noReferences(), nullptr), testing::IsEmpty());
  EXPECT_FALSE(fs::exists(frames));
  auto store = openFileStore({.path = path});
  for (ObjectId id = firstFreeId; id < firstFreeId + objects; ++id) put(*store, id, "last");
  EXPECT_EQ(store->statistics().rows, newest(*store).size()) << "old rows that nobody needs";
}

TEST_F(FileStoreTest, Opens) { EXPECT_EQ(openingOf(path), ErrLoginDenied); }
}  // namespace
}  // namespace zel
