#include "tool/graph.h"

#include <algorithm>
#include <limits>

#include "store/idset.h"
#include "tool/transfer.h"

namespace zel {

namespace {

constexpr std::uint64_t rowsAtOnce = 1024;
constexpr std::size_t mostFaults = 100;
constexpr ObjectId endOfIds = std::numeric_limits<std::int64_t>::max();

// Passes over all rows of the newest version, and tells how far they are.
class Walk {
 public:
  Walk(Store& store, ProgressLine& progress, unsigned passes)
      : lease_(store), progress_(progress), all_(passes * store.statistics().rows) {}

  void run(const TakeRow& take) {
    lease_.store.scan(lease_.version, 1, endOfIds, [&](const Row& row) {
      take(row);
      if (++done_ % rowsAtOnce == 0) tell(progress_, done_, all_);
    });
  }
  Version version() const { return lease_.version; }

 private:
  const Lease lease_;
  ProgressLine& progress_;
  std::uint64_t all_;
  std::uint64_t done_ = 0;
};

// Which objects each refers to. They are added in the order of their ids.
class References {
 public:
  void add(const Row& row) {
    if (ids_.empty() || ids_.back() != row.place.id) {
      ids_.push_back(row.place.id);
      begins_.push_back(targets_.size());
    }
    references(row, targets_);
  }

  // Those that the system's objects lead to, and these themselves.
  IdSet reached() const {
    IdSet reached;
    std::vector<ObjectId> open;
    const auto reach = [&](ObjectId id) {
      if (reached.add(id)) open.push_back(id);
    };
    for (const ObjectId id : ids_) {
      if (id < firstFreeId) reach(id);
    }
    while (!open.empty()) {
      const ObjectId id = open.back();
      open.pop_back();
      const auto found = std::ranges::lower_bound(ids_, id);
      if (found == ids_.end() || *found != id) continue;
      const auto index = static_cast<std::size_t>(found - ids_.begin());
      const std::size_t end = index + 1 < ids_.size() ? begins_[index + 1] : targets_.size();
      for (std::size_t i = begins_[index]; i < end; ++i) reach(targets_[i]);
    }
    return reached;
  }

 private:
  std::vector<ObjectId> ids_;
  std::vector<std::size_t> begins_;
  std::vector<ObjectId> targets_;
};

class Verifier {
 public:
  Verifier(Store& store, ProgressLine& progress) : walk_(store, progress, 2) {}

  std::vector<std::string> run() {
    try {
      IdSet there;
      walk_.run([&](const Row& row) {
        if (row.place.part == Place::itself) there.add(row.place.id);
      });
      walk_.run([&](const Row& row) { check(row, there); });
    } catch (const Failure& failure) {
      if (failure.number != ErrDamaged) throw;
      faults_.push_back(failure.message);
    }
    return std::move(faults_);
  }

 private:
  void check(const Row& row, const IdSet& there) {
    const std::string object = "object " + std::to_string(row.place.id);
    ids_.clear();
    try {
      references(row, ids_);
    } catch (const Failure& failure) {
      if (failure.number != ErrDamaged) throw;
      complain(object + " has bytes that are none of an object");
    }
    for (const ObjectId id : ids_) {
      if (id < firstFreeId || there.contains(id)) continue;
      complain(object + " refers to object " + std::to_string(id) + ", which is missing");
    }
  }

  void complain(const std::string& text) {
    if (faults_.size() + 1 < mostFaults) faults_.push_back(text);
  }

  Walk walk_;
  std::vector<ObjectId> ids_;
  std::vector<std::string> faults_;
};

}  // namespace

std::vector<std::string> faultsOf(Store& store, ProgressLine& progress) {
  return Verifier(store, progress).run();
}

Dropped dropUnreachable(Store& store, const std::function<bool()>& isAlone,
                        ProgressLine& progress) {
  Walk walk(store, progress, 2);
  if (!isAlone()) {
    throw Failure(ErrInUseElsewhere, "the database is in use; compacting needs it alone");
  }
  References all;
  walk.run([&](const Row& row) { all.add(row); });
  const IdSet reached = all.reached();
  Dropped result;
  Changes changes{.base = walk.version(), .reads = {}, .writes = {}};
  walk.run([&](const Row& row) {
    const bool isOwn = row.place.part == Place::itself && row.place.id >= firstFreeId;
    const bool isKept = reached.contains(row.place.id);
    if (isOwn) ++(isKept ? result.objects : result.dropped);
    if (!isKept) changes.writes.push_back({row.place, 0, "", true});
  });
  if (store.commit(changes).version == 0) {
    throw Failure(ErrStoreBusy, "others have changed what was to be dropped");
  }
  return result;
}

}  // namespace zel
