// The store of a database without a file: all rows are in memory and go with the process.
//
// Each row is a chain of versions, the newest first, of which those are kept that a lease or the
// newest version shows. Each lease has a log of the places that were written after it and before
// the next lease, so that what it alone kept is found when it is given up.
#pragma once

#include <cstddef>
#include <list>
#include <map>

#include "store/store.h"

namespace zel {

// Copies the newest version of `from` into the new file.
using CopyFType = std::function<void(const std::string& file, Store& from, const Progress&)>;
// Appends the ids that the row refers to, its class included.
using RefersFType = std::function<void(const Row& row, std::vector<ObjectId>& ids)>;

// As every store, with these differences: all functions may throw std::bad_alloc as well, which
// leaves the store as it was. Versions that are not leased are refused with ErrInternal. The
// functions that take rows must not change the store.
class MemoryStore final : public Store {
 public:
  // `copy` is what backUp does: a file is another store's business, which this one knows nothing
  // of. It must be callable, and reads the rows by a lease of its own and `scan`.
  explicit MemoryStore(CopyFType copy);
  ~MemoryStore() override;

  Version lease() override;
  void giveUp(Version version) noexcept override;
  void read(Version at, std::span<const ObjectId> ids, const TakeRow& take) override;
  void scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) override;
  // Both versions must be leased, but for `to` if it is the newest. The places are in their order.
  std::vector<Place> changedSince(Version from, Version to) override;
  ObjectId newIds(std::uint32_t count) override;
  // A row that is written as gone and was not there is no change.
  Outcome commit(const Changes& changes) override;
  StoreStatistics statistics() override;
  void backUp(const std::string& file, const Progress& progress) override;

  // About how many bytes of memory it takes.
  std::size_t bytes() const { return bytes_; }
  // Drops the objects that are reached, in all versions that are kept, neither from the system's
  // rows nor from the roots. No commit, and no conflict of one, tells of it. Nothing is dropped
  // when it or `refersTo` throws.
  void retain(std::span<const ObjectId> roots, const RefersFType& refersTo);

 private:
  struct Kept;   // one version of a row
  struct Parts;  // the rows of an object besides its own
  struct Slot;   // an object
  struct Chunk;  // the objects of consecutive ids
  class Giver;
  class Plan;  // a commit that is prepared
  using Log = std::list<std::vector<Place>>;
  struct Entry {
    ObjectId number;  // the chunk's ids divided by how many they are
    std::unique_ptr<Chunk> chunk;
  };
  struct Lease {
    std::uint32_t holders = 0;
    Log written;  // each place once, and all have chains
  };

  void requireLeased(Version version) const;
  std::vector<Entry>::iterator entryFrom(std::uint64_t number);
  Chunk* chunkOf(ObjectId id);
  Slot* slotOf(ObjectId id);  // null if there is no such object
  Kept** chainOf(const Place& place);
  Slot& makeSlot(ObjectId id);
  Kept* makeKept(const Write& write);
  void drop(Kept* kept) noexcept;
  void dropAll(Slot& slot) noexcept;
  void dropEmpty(const Place& place) noexcept;
  void dropEmptyChunks() noexcept;
  template <typename IsLeftOut>
  void thin(Log& log, IsLeftOut isLeftOut) noexcept;
  bool forget(const Place& place, Version given, const Version* before) noexcept;
  bool isChangedAfter(const Place& place, Version base);
  std::vector<ObjectId> conflictsOf(const Changes& changes);
  void markReached(std::span<const ObjectId> roots, const RefersFType& refersTo);

  CopyFType copy_;
  std::vector<Entry> chunks_;  // in the order of their numbers
  std::map<Version, Lease> leases_;
  Version version_ = 0;
  ObjectId nextId_ = firstFreeId;
  std::uint64_t objects_ = 0;
  std::uint64_t rows_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace zel
