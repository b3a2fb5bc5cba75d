#include "store/filestore.h"

#include <algorithm>
#include <map>
#include <optional>

#include "store/filetools.h"
#include "store/newfile.h"
#include "store/openfile.h"

namespace zel {

namespace {

constexpr ObjectId idsAtOnce = 4096;
constexpr std::size_t mostConflicts = 10;
constexpr std::size_t keptBytes = 4U << 20;  // of old rows in memory
constexpr std::size_t scannedObjects = 256;

std::vector<const Write*> sorted(const std::vector<Write>& writes) {
  std::vector<const Write*> result;
  result.reserve(writes.size());
  for (const Write& write : writes) result.push_back(&write);
  const auto before = [](const Write* a, const Write* b) { return a->place < b->place; };
  if (!std::is_sorted(result.begin(), result.end(), before)) {
    std::sort(result.begin(), result.end(), before);
  }
  return result;
}

// Those of the objects read or written that are among the places, which are in order.
std::vector<ObjectId> conflictsOf(const Changes& changes, const std::vector<Place>& places) {
  std::vector<ObjectId> found;
  if (places.empty()) return found;
  const auto look = [&](Place place) {
    if (found.size() == mostConflicts) return;
    const bool any = place.part == Place::any;
    const auto at = std::lower_bound(places.begin(), places.end(), any ? Place{place.id} : place);
    if (at == places.end() || (any ? at->id != place.id : *at != place)) return;
    if (std::find(found.begin(), found.end(), place.id) == found.end()) found.push_back(place.id);
  };
  for (const Place& place : changes.reads) look(place);
  for (const Write& write : changes.writes) look(write.place);
  return found;
}

// Old rows that only this process needs are kept in its memory: mostly those that a commit has
// just replaced, until its session has moved on.
class Kept {
 public:
  // Takes a row that was valid until the version, or answers false when there is no room.
  bool add(Stored& row, Version until) {
    const std::size_t size = sizeof(Stored) + row.row.bytes.size();
    if (bytes_ + size > keptBytes) return false;
    rows_.emplace_hint(rows_.end(), Key{row.row.place, until}, std::move(row));
    bytes_ += size;
    return true;
  }
  // Removes what `isNeeded(from, until)` says no to.
  template <typename IsNeeded>
  void prune(IsNeeded isNeeded) noexcept {
    std::erase_if(rows_, [&](const auto& old) {
      const auto& [key, row] = old;
      if (isNeeded(row.changed, key.second)) return false;
      bytes_ -= sizeof(Stored) + row.row.bytes.size();
      return true;
    });
  }
  // Adds the objects in a range that there are rows of.
  void addIds(ObjectId first, ObjectId end, std::vector<ObjectId>& ids) const {
    for (auto old = rows_.lower_bound({Place{first}, 0}); old != rows_.end(); ++old) {
      if (old->first.first.id >= end) break;
      ids.push_back(old->first.first.id);
    }
  }
  // Calls `take` with the rows of the object that were valid at the version.
  void find(ObjectId id, Version at, const std::function<void(const Stored& row)>& take) const {
    for (auto old = rows_.lower_bound({Place{id}, 0}); old != rows_.end(); ++old) {
      const auto& [key, row] = *old;
      if (key.first.id != id) break;
      if (row.changed <= at && at < key.second) take(row);
    }
  }

 private:
  using Key = std::pair<Place, Version>;  // until when
  std::map<Key, Stored> rows_;
  std::size_t bytes_ = 0;
};

class FileStore final : public Store {
 public:
  explicit FileStore(const FileOptions& options) : file_(options), create_(options.create) {
    if (!file_.open() && !create_) {
      throw Failure(ErrLoginDenied,
                    "there is no database " + file_.path() +
                        ": create it with --create, or ?create=true behind its name");
    }
  }

  Version lease() override;
  void giveUp(Version version) noexcept override;
  void read(Version at, std::span<const ObjectId> ids, const TakeRow& take) override;
  void scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) override;
  std::vector<Place> changedSince(Version from, Version to) override;
  ObjectId newIds(std::uint32_t count) override;
  Outcome commit(const Changes& changes) override;
  StoreStatistics statistics() override;
  bool isStillThere() override;
  void backUp(const std::string& file, const Progress& progress) override;

 private:
  bool isOpen();
  void checkLeased(Version version);
  void create(const Changes& changes);
  Outcome write(const Changes& changes);
  bool load(Version at, ObjectId id, std::vector<Stored>& rows);
  void loadEntries(Version at, const Stored& object, bool isCurrent, std::vector<Stored>& rows);
  bool loadOld(Version at, ObjectId id, std::vector<Stored>& rows);

  OpenFile file_;
  bool create_;
  Kept kept_;
  // Of a file that is not there yet: its only version is 0.
  int emptyLeases_ = 0;
  ObjectId nextId_ = firstFreeId;
  ObjectId endOfIds_ = firstFreeId;
};

// Whether there is a file. What was given out of an empty store binds it to make its own.
bool FileStore::isOpen() {
  file_.checkProcess();
  const bool isBound = emptyLeases_ > 0 || nextId_ != firstFreeId;
  return file_.isOpen() || !isBound ? file_.open() : false;
}

// What commits have changed since is kept from the leases on.
void FileStore::checkLeased(Version version) {
  if (file_.locks().own().contains(version)) return;
  throw Failure(ErrInternal, "version " + std::to_string(version) + " is not leased");
}

Version FileStore::lease() {
  if (!isOpen()) {
    ++emptyLeases_;
    return 0;
  }
  return file_.locks().lease([this] { return file_.tables().state().version; });
}

void FileStore::giveUp(Version version) noexcept {
  if (!file_.isOpen()) {
    if (emptyLeases_ > 0) --emptyLeases_;
    return;
  }
  if (file_.isForked()) return;
  file_.locks().giveUp(version);
  const std::map<Version, int>& leases = file_.locks().own();
  kept_.prune([&leases](Version from, Version until) {
    const auto first = leases.lower_bound(from);
    return first != leases.end() && first->first < until;
  });
}

// Reading

// The rows of the object that were valid at the version, its own first; answers false for none.
bool FileStore::load(Version at, ObjectId id, std::vector<Stored>& rows) {
  rows.resize(1);
  Stored& object = rows.front();
  const bool exists = file_.tables().getObject(id, object);
  if (exists && object.changed <= at) {
    if (object.parts > 0) loadEntries(at, Stored(object), true, rows);
    return true;
  }
  const bool wasThere = exists && object.born <= at;
  if (loadOld(at, id, rows)) return true;
  if (wasThere) {
    file_.tables().damaged("an old version of object " + std::to_string(id) + " is missing");
  }
  rows.clear();
  return false;
}

bool FileStore::loadOld(Version at, ObjectId id, std::vector<Stored>& rows) {
  std::optional<Stored> object;
  std::vector<Stored> entries;
  const auto take = [&](const Stored& row) {
    if (row.row.place.part != Place::itself) {
      entries.push_back(row);
    } else {
      object = row;
    }
  };
  kept_.find(id, at, take);
  file_.tables().getOld(id, at, take);
  rows.clear();
  if (!object) return false;
  rows = std::move(entries);
  loadEntries(at, *object, false, rows);
  rows.insert(rows.begin(), std::move(*object));
  return true;
}

// Adds the entries that are still as they were then, and looks whether all are there.
void FileStore::loadEntries(Version at, const Stored& object, bool isCurrent,
                            std::vector<Stored>& rows) {
  const std::size_t first = isCurrent ? 1 : 0;
  const ObjectId id = object.row.place.id;
  file_.tables().getEntries(id, [&](Stored& entry) {
    if (entry.changed <= at) rows.push_back(entry);
  });
  std::uint64_t sum = 0;
  for (std::size_t i = first; i < rows.size(); ++i) sum += rows[i].sum;
  if (rows.size() - first != object.parts || sum != object.partSum) {
    file_.tables().damaged("rows of object " + std::to_string(id) + " are missing");
  }
  if (isCurrent) return;
  std::sort(rows.begin(), rows.end(),
            [](const Stored& a, const Stored& b) { return a.row.place < b.row.place; });
}

void FileStore::read(Version at, std::span<const ObjectId> ids, const TakeRow& take) {
  const bool isThere = isOpen();
  std::optional<Transaction> transaction;
  if (isThere) transaction.emplace(file_.tables());
  std::vector<Stored> rows;
  for (const ObjectId id : ids) {
    rows.resize(1);
    const bool found = isThere && load(at, id, rows) && rows.front().isThere;
    if (!found && id >= firstFreeId) {
      const std::string what = "object " + std::to_string(id) + " is missing";
      if (isThere) file_.tables().damaged(what);
      throw Failure(ErrDamaged, "the database " + file_.path() + " is damaged: " + what);
    }
    if (!isThere) continue;
    for (const Stored& row : rows) {
      if (row.isThere) take(row.row);
    }
  }
}

void FileStore::scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) {
  if (!isOpen()) return;
  std::vector<Stored> rows;
  while (first < end) {
    // Nothing is open while others are at work.
    std::vector<Row> found;
    {
      const Transaction transaction(file_.tables());
      const bool old = file_.tables().state().version != at;
      std::vector<ObjectId> ids = file_.tables().objectsFrom(first, end, scannedObjects, old);
      const ObjectId behind = ids.size() < scannedObjects ? end : ids.back() + 1;
      kept_.addIds(first, behind, ids);
      std::sort(ids.begin(), ids.end());
      ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
      first = behind;
      std::size_t size = 0;
      for (const ObjectId id : ids) {
        if (!load(at, id, rows)) continue;
        for (Stored& row : rows) {
          size += row.row.bytes.size();
          if (row.isThere) found.push_back(std::move(row.row));
        }
        if (size < keptBytes) continue;
        first = id + 1;
        break;
      }
    }
    for (const Row& row : found) take(row);
  }
}

std::vector<Place> FileStore::changedSince(Version from, Version to) {
  if (!isOpen() || from >= to) return {};
  checkLeased(from);
  return file_.tables().places(from, to);
}

StoreStatistics FileStore::statistics() {
  if (!isOpen()) return {};
  const State state = file_.tables().state();
  return {state.version, state.objects, state.objects + state.entries + state.olds, file_.bytes()};
}

bool FileStore::isStillThere() {
  if (!file_.isForked()) isOpen();
  return file_.isStillThere();
}

// Writing

ObjectId FileStore::newIds(std::uint32_t count) {
  if (!isOpen()) return std::exchange(nextId_, nextId_ + count);
  if (endOfIds_ - nextId_ < count) {
    file_.checkWritable();
    const Locked still(file_.locks(), FileLocks::write);
    file_.prepareToWrite();
    Transaction transaction(file_.tables(), true);
    State state = file_.tables().state();
    const ObjectId first = state.nextId;
    state.nextId += std::max<ObjectId>(count, idsAtOnce);
    state.tick += 1;
    file_.tables().setState(state);
    transaction.commit();
    nextId_ = first;
    endOfIds_ = state.nextId;
  }
  return std::exchange(nextId_, nextId_ + count);
}

Outcome FileStore::commit(const Changes& changes) {
  const bool isThere = isOpen();
  if (changes.writes.empty()) return {changes.base, {}};
  if (isThere) {
    checkLeased(changes.base);
    return write(changes);
  }
  create(changes);
  return {1, {}};
}

void FileStore::create(const Changes& changes) {
  NewFile made(file_.calls(), file_.waiting(), file_.path());
  made.state.version = 1;
  made.state.tick = 1;
  made.state.nextId = nextId_;
  const std::vector<const Write*> writes = sorted(changes.writes);
  made.tables().apply(writes, made.state, std::nullopt, nullptr);
  made.tables().addLog(1, writes);
  auto locks = made.finish();
  locks->lock(FileLocks::use, false);
  requireNobodyBeside(file_.calls(), file_.path());
  for (int i = 0; i < emptyLeases_; ++i) {
    locks->lease([] { return Version{0}; });
  }
  if (!made.publish(true)) {
    throw Failure(ErrInUseElsewhere, "somebody else has created the database " + file_.path() +
                                         " meanwhile: log in again");
  }
  try {
    removeBeside(file_.calls(), file_.path());
  } catch (...) {
    file_.calls().unlink(file_.path().c_str());  // nobody else can have it open yet
    throw;
  }
  locks->lock(FileLocks::use, true);
  file_.adopt(std::move(locks));
  endOfIds_ = nextId_;
  made.settle();
}

// Whether a commit is so short that who begins a lease can wait for its end.
bool isShort(const std::vector<Write>& writes) {
  std::size_t size = 0;
  for (const Write& write : writes) size += sizeof write + write.bytes.size();
  return size <= keptBytes;
}

// A short commit that keeps no old rows in the file, because nobody else leases any version.
class Dropping {
 public:
  Dropping(FileLocks& locks, Version newest, bool isShort, std::set<Version>& others)
      : locks_(locks) {
    others = locks.others(newest);
    isOn_ = isShort && others.empty() && locks.tryLock(FileLocks::dropping, false);
    if (!isOn_) return;
    others = locks.others(newest);  // who has come before the lock
    if (!others.empty()) end();
  }
  ~Dropping() { end(); }
  Dropping(const Dropping&) = delete;
  Dropping& operator=(const Dropping&) = delete;
  bool isOn() const { return isOn_; }

 private:
  void end() noexcept {
    if (std::exchange(isOn_, false)) locks_.unlock(FileLocks::dropping);
  }
  FileLocks& locks_;
  bool isOn_ = false;
};

Outcome FileStore::write(const Changes& changes) {
  const std::vector<const Write*> writes = sorted(changes.writes);
  file_.checkWritable();
  FileLocks& locks = file_.locks();
  const Locked still(locks, FileLocks::write);
  file_.prepareToWrite();
  Tables& tables = file_.tables();
  State state;
  Version next = 0;
  try {
    Transaction transaction(tables, true);
    state = tables.state();
    const auto conflicts = conflictsOf(changes, tables.places(changes.base, state.version));
    if (!conflicts.empty()) return {0, conflicts};

    std::set<Version> leases;
    const Dropping dropping(locks, state.version, isShort(changes.writes), leases);
    for (const auto& [version, count] : locks.own()) leases.insert(version);
    // Others may be about to lease this one.
    if (!dropping.isOn()) leases.insert(state.version);
    next = state.version += 1;
    state.tick += 1;
    std::optional<Version> lastLease;
    if (!leases.empty()) lastLease = *leases.rbegin();
    tables.apply(writes, state, lastLease, [&](Stored& row) {
      if (dropping.isOn() && kept_.add(row, state.version)) return;
      tables.addOld(row, state.version, *lastLease);
      state.olds += 1;
    });
    tables.addLog(state.version, writes);
    tables.prune(state, leases, 1000 + 4 * writes.size());
    tables.dropLog(leases.empty() ? state.version - 1 : *leases.begin());
    tables.setState(state);
    transaction.commit();
  } catch (...) {
    kept_.prune([next](Version, Version until) { return until != next; });
    throw;
  }
  try {
    file_.fill(false);
  } catch (...) {
    // The commit is made; whoever writes next tries that again.
    return {state.version, {}};
  }
  return {state.version, {}};
}

void FileStore::backUp(const std::string& file, const Progress& progress) {
  if (!isOpen()) {
    throw Failure(ErrLoginDenied, "there is no database " + file_.path() + " yet: commit first");
  }
  copyFile(file_, file, progress);
}

}  // namespace

std::unique_ptr<Store> openFileStore(const FileOptions& options) {
  return std::make_unique<FileStore>(options);
}

}  // namespace zel
