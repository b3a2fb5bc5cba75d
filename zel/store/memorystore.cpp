#include "memorystore.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <unordered_map>
#include <utility>

namespace zel {

namespace {

constexpr std::size_t chunkSize = 64;
static_assert(firstFreeId % chunkSize == 0, "a chunk is the system's as a whole or not at all");
constexpr std::size_t mostConflicts = 10;

// What the heap takes for an allocation.
constexpr std::size_t onHeap(std::size_t size) {
  constexpr std::size_t grain = 16;
  return (size + sizeof(void*) + grain - 1) / grain * grain;
}
// Of an element of Parts, with its share of the table.
constexpr std::size_t partBytes = onHeap(3 * sizeof(void*)) + sizeof(void*);
// Of the places of one commit in a log, without the places.
constexpr std::size_t logBytes = onHeap(5 * sizeof(void*)) + onHeap(0);

}  // namespace

// Its bytes follow it.
struct MemoryStore::Kept {
  Kept* older;
  Version version;
  ObjectId classId;
  std::uint32_t size : 31;
  std::uint32_t gone : 1;

  char* bytes() { return reinterpret_cast<char*>(this + 1); }
  std::size_t heapBytes() const { return onHeap(sizeof(Kept) + size); }
};

struct MemoryStore::Parts {
  Version version = 0;  // of the newest write to any of them
  std::unordered_map<std::uint32_t, Kept*> rows;
};

struct MemoryStore::Slot {
  Kept* own = nullptr;
  std::unique_ptr<Parts> parts;

  bool isEmpty() const { return own == nullptr && parts == nullptr; }

  template <typename Take>
  void eachRow(ObjectId id, Take take) const {
    if (own != nullptr) take(Place{id, Place::itself}, own);
    if (parts == nullptr) return;
    for (const auto& [part, kept] : parts->rows) take(Place{id, part}, kept);
  }
};

struct MemoryStore::Chunk {
  std::array<Slot, chunkSize> slots;
  std::uint64_t marks = 0;  // a bit for each slot

  static constexpr std::size_t heapBytes() { return onHeap(sizeof(Chunk)) + sizeof(Entry); }
  static std::uint64_t bitOf(ObjectId id) { return std::uint64_t{1} << id % chunkSize; }
  bool isEmpty() const {
    return std::all_of(slots.begin(), slots.end(), [](const Slot& slot) { return slot.isEmpty(); });
  }
};

// Hands all rows of a call out in one record.
class MemoryStore::Giver {
 public:
  explicit Giver(const TakeRow& take) : take_(take) {}

  void give(const Place& place, Kept& kept) {
    row_.place = place;
    row_.classId = kept.classId;
    row_.version = kept.version;
    row_.bytes.assign(kept.bytes(), kept.size);
    take_(row_);
  }
  // What the chain shows at the version; answers whether that is anything.
  bool giveAt(Version at, const Place& place, Kept* chain) {
    while (chain != nullptr && chain->version > at) chain = chain->older;
    if (chain == nullptr || chain->gone) return false;
    give(place, *chain);
    return true;
  }

 private:
  const TakeRow& take_;
  Row row_;
};

// Everything that can fail is done before the first change.
class MemoryStore::Plan {
 public:
  explicit Plan(MemoryStore& store) : store_(store) {}
  ~Plan() {
    for (const Step& step : steps_) store_.drop(step.row);
    for (const auto& places : written_) {
      for (const Place& place : places) store_.dropEmpty(place);
    }
  }
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;

  void prepare(std::span<const Write> writes) {
    steps_.reserve(writes.size());
    written_.emplace_back().reserve(writes.size());
    for (const Write& write : writes) {
      if (!write.gone || isThere(write.place)) add(write);
    }
  }
  void carryOut() noexcept {
    ++store_.version_;
    for (const Step& step : steps_) apply(step);
    steps_.clear();
    for (const Place& place : written_.front()) {
      store_.nextId_ = std::max(store_.nextId_, place.id + 1);
    }
    store_.bytes_ += logBytes + written_.front().size() * sizeof(Place);
    Log& log = std::prev(store_.leases_.end())->second.written;
    log.splice(log.end(), written_);
  }

 private:
  struct Step {
    Kept** chain;
    Version* partsVersion;  // null for an object's own row
    Kept* row;
  };

  bool isThere(const Place& place) {
    Kept** chain = store_.chainOf(place);
    return chain != nullptr && !(*chain)->gone;
  }
  void add(const Write& write) {
    written_.front().push_back(write.place);
    Slot& slot = store_.makeSlot(write.place.id);
    if (write.place.part == Place::itself) {
      steps_.push_back({&slot.own, nullptr, store_.makeKept(write)});
      return;
    }
    if (slot.parts == nullptr) {
      slot.parts = std::make_unique<Parts>();
      store_.bytes_ += onHeap(sizeof(Parts));
    }
    const auto [row, isNew] = slot.parts->rows.try_emplace(write.place.part, nullptr);
    if (isNew) store_.bytes_ += partBytes;
    steps_.push_back({&row->second, &slot.parts->version, store_.makeKept(write)});
  }
  // What it takes the place of stays: the base shows it, or it would have been a conflict.
  void apply(const Step& step) noexcept {
    Kept* before = *step.chain;
    if (step.partsVersion != nullptr) {
      *step.partsVersion = store_.version_;
    } else {
      if (before != nullptr && !before->gone) --store_.objects_;
      if (!step.row->gone) ++store_.objects_;
    }
    step.row->version = store_.version_;
    step.row->older = before;
    *step.chain = step.row;
  }

  MemoryStore& store_;
  std::vector<Step> steps_;
  Log written_;
};

MemoryStore::MemoryStore(CopyFType copy) : copy_(std::move(copy)) {}

MemoryStore::~MemoryStore() {
  for (const Entry& entry : chunks_) {
    for (Slot& slot : entry.chunk->slots) dropAll(slot);
  }
}

void MemoryStore::requireLeased(Version version) const {
  if (leases_.contains(version)) return;
  throw Failure(ErrInternal, "version " + std::to_string(version) + " is not leased");
}

std::vector<MemoryStore::Entry>::iterator MemoryStore::entryFrom(std::uint64_t number) {
  return std::lower_bound(chunks_.begin(), chunks_.end(), number,
                          [](const Entry& entry, std::uint64_t n) { return entry.number < n; });
}

MemoryStore::Chunk* MemoryStore::chunkOf(ObjectId id) {
  const auto entry = entryFrom(id / chunkSize);
  return entry != chunks_.end() && entry->number == id / chunkSize ? entry->chunk.get() : nullptr;
}

MemoryStore::Slot* MemoryStore::slotOf(ObjectId id) {
  Chunk* chunk = chunkOf(id);
  if (chunk == nullptr) return nullptr;
  Slot& slot = chunk->slots[id % chunkSize];
  return slot.isEmpty() ? nullptr : &slot;
}

// Where the newest version of the row hangs; null if there is none.
MemoryStore::Kept** MemoryStore::chainOf(const Place& place) {
  Slot* slot = slotOf(place.id);
  if (slot == nullptr) return nullptr;
  if (place.part == Place::itself) return slot->own != nullptr ? &slot->own : nullptr;
  if (slot->parts == nullptr) return nullptr;
  const auto row = slot->parts->rows.find(place.part);
  return row != slot->parts->rows.end() && row->second != nullptr ? &row->second : nullptr;
}

MemoryStore::Slot& MemoryStore::makeSlot(ObjectId id) {
  auto entry = entryFrom(id / chunkSize);
  if (entry == chunks_.end() || entry->number != id / chunkSize) {
    entry = chunks_.insert(entry, Entry{id / chunkSize, std::make_unique<Chunk>()});
    bytes_ += Chunk::heapBytes();
  }
  return entry->chunk->slots[id % chunkSize];
}

MemoryStore::Kept* MemoryStore::makeKept(const Write& write) {
  const std::size_t size = write.gone ? 0 : write.bytes.size();
  auto* kept = new (::operator new(sizeof(Kept) + size)) Kept{};
  kept->classId = write.classId;
  kept->size = size & INT32_MAX;
  kept->gone = write.gone;
  std::memcpy(kept->bytes(), write.bytes.data(), size);
  bytes_ += kept->heapBytes();
  if (!write.gone) ++rows_;
  return kept;
}

void MemoryStore::drop(Kept* kept) noexcept {
  bytes_ -= kept->heapBytes();
  if (!kept->gone) --rows_;
  ::operator delete(kept);
}

void MemoryStore::dropAll(Slot& slot) noexcept {
  if (slot.own != nullptr && !slot.own->gone) --objects_;
  slot.eachRow(0, [this](const Place&, Kept* kept) {
    while (kept != nullptr) {
      Kept* older = kept->older;
      drop(kept);
      kept = older;
    }
  });
  if (slot.parts != nullptr) {
    bytes_ -= onHeap(sizeof(Parts)) + slot.parts->rows.size() * partBytes;
  }
  slot = Slot();
}

// Drops whatever holds nothing any more, of what holds the row.
void MemoryStore::dropEmpty(const Place& place) noexcept {
  const auto entry = entryFrom(place.id / chunkSize);
  if (entry == chunks_.end() || entry->number != place.id / chunkSize) return;
  std::unique_ptr<Parts>& parts = entry->chunk->slots[place.id % chunkSize].parts;
  if (parts != nullptr) {
    const auto row = parts->rows.find(place.part);
    if (row != parts->rows.end() && row->second == nullptr) {
      parts->rows.erase(row);
      bytes_ -= partBytes;
    }
    if (parts->rows.empty()) {
      parts.reset();
      bytes_ -= onHeap(sizeof(Parts));
    }
  }
  if (!entry->chunk->isEmpty()) return;
  chunks_.erase(entry);
  bytes_ -= Chunk::heapBytes();
}

void MemoryStore::dropEmptyChunks() noexcept {
  const std::size_t dropped =
      std::erase_if(chunks_, [](const Entry& entry) { return entry.chunk->isEmpty(); });
  bytes_ -= dropped * Chunk::heapBytes();
}

Version MemoryStore::lease() {
  ++leases_[version_].holders;
  return version_;
}

template <typename IsLeftOut>
void MemoryStore::thin(Log& log, IsLeftOut isLeftOut) noexcept {
  for (auto& places : log) {
    bytes_ -= std::erase_if(places, isLeftOut) * sizeof(Place);
    if (places.size() < places.capacity() / 2) places.shrink_to_fit();
  }
  bytes_ -= log.remove_if([](const auto& places) { return places.empty(); }) * logBytes;
}

void MemoryStore::giveUp(Version version) noexcept {
  const auto given = leases_.find(version);
  if (given == leases_.end() || --given->second.holders != 0) return;
  const auto before = given != leases_.begin() ? std::prev(given) : leases_.end();
  const Version* versionBefore = before != leases_.end() ? &before->first : nullptr;
  Log& written = given->second.written;
  thin(written, [&](const Place& place) { return forget(place, version, versionBefore); });
  if (before != leases_.end()) {
    Log& log = before->second.written;
    log.splice(log.end(), written);
  }
  leases_.erase(given);
}

// Drops what only the lease that is given up needs of a row that was written after it: the version
// that it shows, unless the lease before shows it, too; and if there is no lease before, the sign
// that the row is gone. Answers whether the log of the lease before, if any, has the place already.
bool MemoryStore::forget(const Place& place, Version given, const Version* before) noexcept {
  Kept** chain = chainOf(place);
  Kept** after = chain;
  while ((*after)->older != nullptr && (*after)->older->version > given) after = &(*after)->older;
  Kept* shown = (*after)->older;
  const bool isOurs = shown != nullptr && (before == nullptr || shown->version > *before);
  if (isOurs) {
    (*after)->older = shown->older;
    drop(shown);
  }
  if (before != nullptr) return isOurs;
  if ((*after)->gone) drop(std::exchange(*after, nullptr));
  if (*chain == nullptr) dropEmpty(place);
  return true;
}

void MemoryStore::read(Version at, std::span<const ObjectId> ids, const TakeRow& take) {
  requireLeased(at);
  Giver giver(take);
  for (const ObjectId id : ids) {
    bool any = id < firstFreeId;
    if (const Slot* slot = slotOf(id)) {
      slot->eachRow(id, [&](const Place& place, Kept* chain) {
        any = giver.giveAt(at, place, chain) || any;
      });
    }
    if (!any) throw Failure(ErrDamaged, "object " + std::to_string(id) + " has no rows");
  }
}

void MemoryStore::scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) {
  requireLeased(at);
  Giver giver(take);
  for (auto entry = entryFrom(first / chunkSize); entry != chunks_.end(); ++entry) {
    ObjectId id = entry->number * chunkSize;
    if (id >= end) return;
    for (const Slot& slot : entry->chunk->slots) {
      const ObjectId its = id++;
      if (its < first || its >= end) continue;
      slot.eachRow(its, [&](const Place& place, Kept* chain) { giver.giveAt(at, place, chain); });
    }
  }
}

std::vector<Place> MemoryStore::changedSince(Version from, Version to) {
  requireLeased(from);
  if (to != version_) requireLeased(to);
  std::vector<Place> changed;
  for (auto lease = leases_.find(from); lease != leases_.end() && lease->first < to; ++lease) {
    for (const auto& places : lease->second.written) {
      changed.insert(changed.end(), places.begin(), places.end());
    }
  }
  std::sort(changed.begin(), changed.end());
  changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
  return changed;
}

ObjectId MemoryStore::newIds(std::uint32_t count) {
  return std::exchange(nextId_, nextId_ + count);
}

bool MemoryStore::isChangedAfter(const Place& place, Version base) {
  if (place.part != Place::any) {
    Kept** chain = chainOf(place);
    return chain != nullptr && (*chain)->version > base;
  }
  const Slot* slot = slotOf(place.id);
  if (slot == nullptr) return false;
  return (slot->own != nullptr && slot->own->version > base) ||
         (slot->parts != nullptr && slot->parts->version > base);
}

std::vector<ObjectId> MemoryStore::conflictsOf(const Changes& changes) {
  std::vector<ObjectId> conflicts;
  const auto look = [&](const Place& place) {
    if (conflicts.size() == mostConflicts || !isChangedAfter(place, changes.base)) return;
    if (std::find(conflicts.begin(), conflicts.end(), place.id) == conflicts.end()) {
      conflicts.push_back(place.id);
    }
  };
  for (const Place& place : changes.reads) look(place);
  for (const Write& write : changes.writes) look(write.place);
  return conflicts;
}

Outcome MemoryStore::commit(const Changes& changes) {
  requireLeased(changes.base);
  if (changes.base != version_) {
    std::vector<ObjectId> conflicts = conflictsOf(changes);
    if (!conflicts.empty()) return {0, std::move(conflicts)};
  }
  Plan plan(*this);
  plan.prepare(changes.writes);
  plan.carryOut();
  return {version_, {}};
}

StoreStatistics MemoryStore::statistics() {
  return {version_, objects_, rows_, bytes_};
}

void MemoryStore::backUp(const std::string& file, const Progress& progress) {
  copy_(file, *this, progress);
}

// Marks without recursion, however deep the objects are.
void MemoryStore::markReached(std::span<const ObjectId> roots, const RefersFType& refersTo) {
  std::vector<ObjectId> waiting;
  std::vector<ObjectId> ids;
  const auto mark = [&](ObjectId id) {
    Chunk* chunk = chunkOf(id);
    if (chunk == nullptr || (chunk->marks & Chunk::bitOf(id)) != 0) return;
    waiting.push_back(id);
    chunk->marks |= Chunk::bitOf(id);
  };
  const TakeRow takeIds = [&](const Row& row) { refersTo(row, ids); };
  Giver giver(takeIds);
  const auto follow = [&](ObjectId id) {
    ids.clear();
    const Slot* slot = slotOf(id);
    if (slot == nullptr) return;
    slot->eachRow(id, [&](const Place& place, Kept* kept) {
      for (; kept != nullptr; kept = kept->older) {
        if (!kept->gone) giver.give(place, *kept);
      }
    });
    for (const ObjectId reached : ids) mark(reached);
  };
  for (const Entry& entry : chunks_) entry.chunk->marks = 0;
  for (const ObjectId id : roots) mark(id);
  for (ObjectId id = 0; id < firstFreeId; ++id) mark(id);
  while (!waiting.empty()) {
    const ObjectId id = waiting.back();
    waiting.pop_back();
    follow(id);
  }
}

void MemoryStore::retain(std::span<const ObjectId> roots, const RefersFType& refersTo) {
  markReached(roots, refersTo);
  for (const Entry& entry : chunks_) {
    ObjectId id = entry.number * chunkSize;
    for (Slot& slot : entry.chunk->slots) {
      const bool isReached = (entry.chunk->marks & Chunk::bitOf(id++)) != 0;
      if (!isReached) dropAll(slot);
    }
  }
  dropEmptyChunks();
  for (auto& [version, lease] : leases_) {
    thin(lease.written, [this](const Place& place) { return slotOf(place.id) == nullptr; });
  }
}

}  // namespace zel
