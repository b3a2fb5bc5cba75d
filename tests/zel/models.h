// What a store holds, as a test keeps it beside.
#pragma once

#include "store/store.h"
#include "tests.h"

namespace zel {

constexpr ObjectId dictionary = 200;  // one of the system's, without a row of its own
constexpr ObjectId objects = 12;
constexpr std::uint32_t parts = 20;

using Model = std::map<Place, std::string>;  // a state: what there is
using Models = std::vector<Model>;           // by their versions

inline TakeRow into(Model& model) {
  return [&model](const Row& row) {
    EXPECT_EQ(row.classId, row.place.part == Place::itself ? row.place.id % 7 : 0);
    model[row.place] = row.bytes;
  };
}
inline Write writing(Place place, std::string bytes) {
  return {place, place.part == Place::itself ? place.id % 7 : 0, std::move(bytes), false};
}
inline Model changed(Model model, const std::vector<Write>& writes) {
  for (const Write& write : writes) {
    model.erase(write.place);
    if (!write.gone) model[write.place] = write.bytes;
  }
  return model;
}
inline Model scanned(Store& store, Version at) {
  Model model;
  store.scan(at, 0, UINT64_MAX, into(model));
  return model;
}
// The newest version, scanned, and read by the ids that were found.
inline Model newest(Store& store) {
  const Version at = store.lease();
  const Model model = scanned(store, at);
  std::set<ObjectId> ids;
  for (const auto& [place, text] : model) ids.insert(place.id);
  Model again;
  store.read(at, std::vector(ids.begin(), ids.end()), into(again));
  store.giveUp(at);
  EXPECT_EQ(model, again);
  return model;
}

inline std::string message;  // of the last failure
// The number of the failure; 0 if there is none.
inline int numberOf(const std::function<void()>& action) {
  try {
    action();
    return 0;
  } catch (const Failure& failure) {
    message = failure.message;
    return failure.number;
  } catch (const std::bad_alloc&) {
    return ErrNoMemory;
  }
}
// Commits on the newest version.
inline Version commit(Store& store, std::vector<Write> writes) {
  const Version base = store.lease();
  Outcome outcome;
  const int number = numberOf([&] { outcome = store.commit({base, {}, std::move(writes)}); });
  store.giveUp(base);
  if (number == ErrNoMemory) throw std::bad_alloc();
  if (number != 0) throw Failure(number, message);
  return outcome.version;
}
inline Version put(Store& store, ObjectId id, const std::string& bytes) {
  return commit(store, {writing({id}, bytes)});
}

// Two stores on one database, which has the states and nothing else, take turns in random
// transactions on whatever versions they lease; every answer is that of the model.
inline void playRandomly(const std::function<std::unique_ptr<Store>()>& open, Models models,
                         int steps) {
  std::mt19937 random(stormSeed());
  const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
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
    // Who meets a reference that leads nowhere writes no more to a file.
    const auto other = expected.contains({id}) ? nullptr : open();
    Store& reader = other != nullptr ? *other : store;
    const int number = numberOf([&] { reader.read(at, std::array{id}, into(found)); });
    ASSERT_EQ(number != 0, !expected.contains({id}));
    std::erase_if(expected, [id](const auto& row) { return row.first.id != id; });
    ASSERT_TRUE(number != 0 || found == expected);
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
      if (below(6) == 0) now.writes.back() = {place, 0, "", true};
      // An entry without an object would be damage.
      const Place own{place.id};
      if (place.id == dictionary || !written.insert(own).second) continue;
      now.writes.push_back(writing(own, "o"));
    }
    std::set<ObjectId> conflicts;
    for (Version v = base + 1; v < models.size(); ++v) {
      for (const Place& place : changes[v]) {
        if (written.contains(place)) conflicts.insert(place.id);
        for (const Place& wanted : now.reads) {
          const bool isAny = wanted.part == Place::any && wanted.id == place.id;
          if (isAny || wanted == place) conflicts.insert(place.id);
        }
      }
    }
    const Outcome outcome = store.commit(now);
    ASSERT_EQ(std::set(outcome.conflicts.begin(), outcome.conflicts.end()), conflicts);
    ASSERT_EQ(outcome.version, conflicts.empty() ? models.size() : 0);
    if (outcome.version == 0) return;
    models.push_back(changed(models.back(), now.writes));
    changes.push_back(std::move(written));
  };
  const auto step = [&] {
    One& one = both[below(2)];
    if (one.store == nullptr) one.store = open();
    if (one.leases.empty() || below(4) == 0) {
      one.leases.push_back(one.store->lease());
      ASSERT_EQ(one.leases.back(), models.size() - 1);
    }
    const auto which = one.leases.begin() + below(static_cast<unsigned>(one.leases.size()));
    const Version at = *which;
    if (below(2) == 0) write(*one.store, below(3) == 0 ? at : one.leases.back());
    if (below(3) == 0) read(*one.store, at);
    if (below(5) == 0) {
      std::set<Place> since;
      for (Version v = at + 1; v < models.size(); ++v) since.merge(std::set(changes[v]));
      ASSERT_EQ(one.store->changedSince(at, models.size() - 1),
                std::vector(since.begin(), since.end()));
    }
    if (below(3) == 0) {
      one.store->giveUp(at);
      one.leases.erase(which);
    }
    if (below(200) == 0) one = {};
  };
  for (int i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i)
    ASSERT_EQ(numberOf(step), 0) << message;
  both = {};
}

}  // namespace zel
