// The seam between sessions and what keeps their objects: numbered rows in versions, and commits
// that take effect whole or conflict. A store knows nothing of what the rows mean.
//
// An object has one row of its own and, if it is a set or a dictionary, one for each hash among its
// elements: those that concern different keys can be changed side by side. A row that refers to
// other objects does so by their ids.
//
// A store belongs to one process and is called from one thread at a time. Every function throws
// Failure: ErrStoreBusy when others keep it busy for too long, ErrDamaged for rows that are not as
// they were written, ErrStoreFull, ErrReadOnly, ErrConnectionLost, and whatever it says more. After
// a failure the store is as it was before the call, and can be called again.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "errors/failure.h"

namespace zel {

using ObjectId = std::uint64_t;  // 0 is none
using Version = std::uint64_t;   // counts the commits; 0 is that of an empty store

// Objects below are the system's: they exist without rows, and their ids are agreed upon.
constexpr ObjectId firstFreeId = 65536;

struct Place {
  static constexpr std::uint32_t itself = 0;        // the object's own row
  static constexpr std::uint32_t any = UINT32_MAX;  // in reads: every row of the object
  // The row of the elements with a hash, which has 28 bits.
  static constexpr std::uint32_t ofHash(std::uint32_t hash) { return hash + 1; }

  ObjectId id = 0;
  std::uint32_t part = itself;

  auto operator<=>(const Place&) const = default;
};

struct Row {
  Place place;
  ObjectId classId = 0;  // of an object's own row
  Version version = 0;   // of the commit that wrote it
  std::string bytes;
};
using TakeRow = std::function<void(const Row& row)>;

struct Write {
  Place place;
  ObjectId classId = 0;
  std::string bytes;
  bool gone = false;  // there is no such row any more
};

// What a transaction did. Each place stands in `writes` at most once. What was written counts as
// read, but an object that is new conflicts with nothing.
struct Changes {
  Version base = 0;  // the leased version that it went by
  std::vector<Place> reads;
  std::vector<Write> writes;
};

struct Outcome {
  Version version = 0;              // of the commit; 0 for a conflict: nothing was changed
  std::vector<ObjectId> conflicts;  // objects that others have changed since, at most ten
};

// How far long work is, for those who wait for it; answers false to have it given up, which ends
// the work with ErrHardBreak and nothing changed.
using Progress = std::function<bool(std::uint64_t done, std::uint64_t all)>;

struct StoreStatistics {
  Version version = 0;
  std::uint64_t objects = 0;
  std::uint64_t rows = 0;  // old versions that somebody needs included
  std::uint64_t bytes = 0;
};

class Store {
 public:
  Store() = default;
  virtual ~Store() = default;
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Answers the newest version and keeps what is read at it until it is given up. A version can be
  // leased several times. A commit needs its base leased.
  virtual Version lease() = 0;
  virtual void giveUp(Version version) noexcept = 0;

  // Calls `take`, which leaves the store alone, with each row that the objects had at the leased
  // version, an object's own row before the others of it. Throws ErrDamaged when one that is not
  // the system's has none.
  virtual void read(Version at, std::span<const ObjectId> ids, const TakeRow& take) = 0;
  // The same for all objects from `first` to before `end` that have rows, in the order of the ids.
  // Here `take` may use the store.
  virtual void scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) = 0;
  // What commits after `from`, which is leased, up to `to` wrote, each place once. {0, any} is
  // among it when rows of the system's objects may be gone that are not told one by one.
  virtual std::vector<Place> changedSince(Version from, Version to) = 0;

  // So many ids, in sequence, that nobody had before; answers the first.
  virtual ObjectId newIds(std::uint32_t count) = 0;
  // Writes the changes as the next version, unless a commit after the base changed what they read
  // or wrote. It is on the disk, where the store has one, before this returns. Without writes
  // nothing is done, and the version answered is the base.
  virtual Outcome commit(const Changes& changes) = 0;

  virtual StoreStatistics statistics() = 0;
  // Whether who opens the name that this was opened by would get the same. Where that lies in a
  // file, it may have been removed or replaced.
  virtual bool isStillThere() { return true; }
  // Copies the newest version into a new file of the file store's. Never writes over a file.
  virtual void backUp(const std::string& file, const Progress& progress) = 0;
};

// The newest version, leased while it lives.
struct Lease {
  explicit Lease(Store& leased) : store(leased), version(leased.lease()) {}
  ~Lease() { store.giveUp(version); }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  Store& store;
  const Version version;
};

}  // namespace zel
