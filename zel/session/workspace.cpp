#include "workspace.h"

#include <algorithm>
#include <utility>

#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"

namespace zel {

namespace {

// Its elements' rows tell of changes of `=` and `hash`, for each dictionary of methods.
constexpr ObjectId equalityId = 1;
// Ids of the kernel's dictionaries of methods, by the entries of their classes.
constexpr ObjectId firstMethodsId = 2048;
static_assert(firstMethodsId + ObjectId{2} * firstFreeIndex <= firstFreeId);

// Among the system's objects that have rows.
bool isKernelDictionary(ObjectId id) {
  return id == GlobalsOop >> 2 || (id >= firstMethodsId && id < firstFreeId);
}

bool isCode(const Memory& memory, OopType oop) {
  const Object* object = memory.loaded(oop >> 2);
  return object != nullptr && object->invariant && object->classOop == DictionaryClass;
}

// Of selectors and methods, those of methods that another version of the library had.
void dropMissing(std::vector<OopType>& slots) {
  for (std::size_t i = slots.size(); i != 0; i -= dictionaryStride) {
    const auto entry = slots.begin() + static_cast<std::ptrdiff_t>(i - dictionaryStride);
    if (entry[1] == NilOop) slots.erase(entry, entry + dictionaryStride);
  }
}

}  // namespace

// Turns the transaction's changes into rows.
class Workspace::Writing {
 public:
  Writing(Workspace& workspace) : workspace_(workspace), memory_(workspace.memory_) {}
  ~Writing() {
    for (std::size_t i = 0; i < bound_; ++i) {
      memory_.identities.unbind(fresh_[i].first >> 2, fresh_[i].second);
    }
  }
  Writing(const Writing&) = delete;
  Writing& operator=(const Writing&) = delete;

  Changes changes;
  bool changesEquality = false;

  // Collects what is to be written; nothing changes by that.
  void collect() {
    Transaction& transaction = workspace_.client_.transaction;
    changes.base = workspace_.view_;
    for (const std::uint32_t index : memory_.touched()) {
      const ObjectId id = memory_.identities.idOf(index);
      if (id != 0) changes.reads.push_back({id, Place::itself});
    }
    changes.reads.insert(changes.reads.end(), transaction.keysRead.begin(),
                         transaction.keysRead.end());
    for (auto& [oop, written] : transaction.written) {
      if (!written.hashes.empty() && goesByOtherHashes(memory_, oop)) written.elements = true;
      if (written.itself) writeObject(oop, memory_.identities.idOf(oop >> 2));
      written.elements ? writeAllElements(oop, written) : writeElements(oop, written.hashes);
    }
    for (Write& write :
         writesOf(*workspace_.repository_.store, workspace_.view_, workspace_.users_)) {
      changes.writes.push_back(std::move(write));
    }
    // What is met while it is written is added.
    for (std::size_t i = 0; i < fresh_.size(); ++i) {
      const auto [oop, id] = fresh_[i];
      writeObject(oop, id);
      if (isHashed(memory_, oop)) {
        const Stride stride = strideOf(memory_, oop);
        for (const std::uint32_t hash : hashesOf(memory_, oop, stride)) {
          writeElementsOf(oop, id, stride, hash);
        }
      }
    }
    memory_.reserveTouched(fresh_.size());
    for (; bound_ < fresh_.size(); ++bound_) {
      memory_.identities.bind(fresh_[bound_].first >> 2, fresh_[bound_].second);
    }
  }

  // Makes the objects those of the store.
  void keep() noexcept {
    for (const auto& [oop, id] : fresh_) {
      memory_.becomeStored(oop >> 2);
      notRehashed(memory_, oop);
    }
    bound_ = 0;
    for (const auto& [oop, written] : workspace_.client_.transaction.written) {
      Object& object = *memory_.loaded(oop >> 2);
      object.dirty = object.dirtyKeys = false;
      if (written.elements) notRehashed(memory_, oop);
    }
  }

 private:
  ObjectId idFor(OopType oop) {
    const ObjectId known = memory_.identities.idOf(oop >> 2);
    if (known != 0) return known;
    const auto [place, isNew] = ids_.try_emplace(oop, 0);
    if (isNew) {
      place->second = workspace_.repository_.newId();
      fresh_.emplace_back(oop, place->second);
    }
    return place->second;
  }

  void writeObject(OopType oop, ObjectId id) {
    memory_.meter.charge(1);
    std::string bytes = encodeObject(memory_, oop, asIdFor_);
    const ObjectId classId = idFor(memory_.at(oop).classOop);
    changes.writes.push_back({{id, Place::itself}, classId, std::move(bytes), false});
  }

  void writeElementsOf(OopType oop, ObjectId id, Stride stride, std::uint32_t hash) {
    memory_.meter.charge(1);
    const std::vector<OopType> slots = elementsOfHash(memory_, oop, stride, hash);
    Write write{{id, Place::ofHash(hash)}, 0, {}, slots.empty()};
    if (id < firstFreeId && slots == workspace_.kernelEntries(oop, hash)) {
      write.gone = true;
    } else {
      const bool asked =
          hash == unknownHashes || (!slots.empty() && asksHash(memory_, oop, slots.front()));
      write.bytes = encodeElements(memory_, slots, asked, asIdFor_);
      // That the kernel's own are gone is something to be kept.
      if (id < firstFreeId) write.gone = false;
    }
    const bool equality = isCode(memory_, oop) && workspace_.changesEquality(write.place);
    changes.writes.push_back(std::move(write));
    if (!equality) return;
    const auto part = static_cast<std::uint32_t>(id % unknownHashes);
    const auto written = [&](const Write& each) {
      return each.place == Place{equalityId, Place::ofHash(part)};
    };
    if (std::ranges::none_of(changes.writes, written)) {
      changes.writes.push_back({{equalityId, Place::ofHash(part)}, 0, std::string(1, 0), false});
    }
    changesEquality = true;
  }

  void writeElements(OopType oop, const std::unordered_set<std::uint32_t>& hashes) {
    const ObjectId id = memory_.identities.idOf(oop >> 2);
    for (const std::uint32_t hash : hashes) {
      writeElementsOf(oop, id, strideOf(memory_, oop), hash);
    }
  }

  // All rows anew: those that the store has, and those of today's hashes.
  void writeAllElements(OopType oop, const Written& written) {
    const ObjectId id = memory_.identities.idOf(oop >> 2);
    std::unordered_set<std::uint32_t> hashes = written.hashes;
    workspace_.repository_.store->read(workspace_.view_, {&id, 1}, [&](const Row& row) {
      if (row.place.part != Place::itself) hashes.insert(row.place.part - Place::ofHash(0));
    });
    const std::vector<std::uint32_t> now = hashesOf(memory_, oop, strideOf(memory_, oop));
    hashes.insert(now.begin(), now.end());
    writeElements(oop, hashes);
  }

  Workspace& workspace_;
  Memory& memory_;
  const IdForFType asIdFor_ = [this](OopType oop) { return idFor(oop); };
  std::unordered_map<OopType, ObjectId> ids_;
  std::vector<std::pair<OopType, ObjectId>> fresh_;  // objects that the store does not have yet
  std::size_t bound_ = 0;                            // so many of them are bound
};

Workspace::Workspace(Memory& memory, Client& client, Repository& repository)
    : memory_(memory), client_(client), repository_(repository) {
  findKernelMethod_ = [this](const KernelMethod& method) { return kernelMethod(method); };
  keepKernel();
  memory_.source = {this, [](void* owner, Memory&, std::uint32_t index) {
                      static_cast<Workspace*>(owner)->load(index);
                    }};
  view_ = repository_.store->lease();
  try {
    std::vector<std::pair<OopType, std::vector<std::uint32_t>>> changed;
    repository_.store->scan(view_, 1, firstFreeId, [&](const Row& row) {
      const std::uint32_t index = repository_.identities.indexOf(row.place.id);
      if (row.place.id == equalityId) equality_ = std::max(equality_, row.version);
      if (index == 0 || !isKernelDictionary(row.place.id)) return;
      if (changed.empty() || changed.back().first != fixedOop(index)) {
        changed.push_back({fixedOop(index), {}});
      }
      changed.back().second.push_back(row.place.part - Place::ofHash(0));
    });
    for (const auto& [dictionary, hashes] : changed) applyToKernel(dictionary, hashes);
    equalityEpoch_ = memory_.equalityEpoch;
  } catch (...) {
    repository_.store->giveUp(view_);
    throw;
  }
}

Workspace::~Workspace() {
  repository_.store->giveUp(view_);
}

// Remembers the kernel's dictionaries, and binds them to their ids.
void Workspace::keepKernel() {
  const auto keep = [&](OopType dictionary, ObjectId id) {
    Object& object = memory_.at(dictionary);
    kernel_.push_back({dictionary, {object.indexed(), object.indexed() + object.indexedSize()}});
    object.stored = true;
    if (repository_.identities.idOf(dictionary >> 2) == 0) {
      repository_.identities.bind(dictionary >> 2, id);
    }
    startElements(memory_, dictionary, dictionaryStride);
  };
  keep(GlobalsOop, GlobalsOop >> 2);
  for (std::uint32_t index = 0; index < firstFreeIndex; ++index) {
    if (!isClass(memory_, fixedOop(index))) continue;
    const OopType* slots = memory_.at(fixedOop(index)).slots;
    keep(slots[ClassMethods - 1], firstMethodsId + ObjectId{2} * index);
    keep(slots[ClassClassMethods - 1], firstMethodsId + ObjectId{2} * index + 1);
  }
}

OopType Workspace::kernelMethod(const KernelMethod& method) const {
  const Object* owner = memory_.loaded(method.owner >> 2);
  if (owner == nullptr || method.owner >> 2 >= firstFreeIndex) return 0;
  const OopType dictionary =
      owner->slots[(method.classSide ? ClassClassMethods : ClassMethods) - 1];
  for (const Entries& each : kernel_) {
    if (each.dictionary != dictionary) continue;
    for (std::size_t i = 0; i < each.slots.size(); i += dictionaryStride) {
      if (each.slots[i] == method.selector) return each.slots[i + 1];
    }
  }
  return 0;
}

std::vector<OopType> Workspace::kernelEntries(OopType dictionary, std::uint32_t hash) {
  std::vector<OopType> slots;
  for (const Entries& each : kernel_) {
    if (each.dictionary != dictionary) continue;
    for (std::size_t i = 0; i < each.slots.size(); i += dictionaryStride) {
      if (hashOfSymbol(memory_, each.slots[i]) != hash) continue;
      slots.insert(slots.end(), {each.slots[i], each.slots[i + 1]});
    }
  }
  return slots;
}

// Has the dictionary hold what the store has for the hashes, else what the kernel has.
void Workspace::applyToKernel(OopType dictionary, const std::vector<std::uint32_t>& hashes) {
  const ObjectId id = repository_.identities.idOf(dictionary >> 2);
  std::unordered_map<std::uint32_t, Row> rows;
  repository_.store->read(view_, {&id, 1}, [&](const Row& row) {
    if (row.place.part != Place::itself) rows.emplace(row.place.part - Place::ofHash(0), row);
  });
  for (const std::uint32_t hash : hashes) {
    const auto row = rows.find(hash);
    std::vector<OopType> slots = row != rows.end()
                                     ? decodeElements(memory_, row->second, findKernelMethod_)
                                     : kernelEntries(dictionary, hash);
    if (dictionary != GlobalsOop) dropMissing(slots);
    replaceElements(memory_, dictionary, dictionaryStride, hash, slots);
  }
}

// Reads the object, and with it those that may be wanted next. Of them nothing is said if they
// cannot be read.
void Workspace::load(std::uint32_t index) {
  if (behind_) throw Failure(*behind_);
  const ObjectId id = repository_.identities.idOf(index);
  std::vector<ObjectId> ids = relativesOf(index);
  ids.insert(ids.begin(), id);
  std::vector<Row> rows;
  const auto read = [&] {
    rows.clear();
    repository_.store->read(view_, ids, [&](const Row& row) { rows.push_back(row); });
  };
  try {
    read();
  } catch (const Failure&) {
    if (ids.size() == 1) throw;
    ids.resize(1);
    read();
  }
  std::vector<std::uint32_t> loaded;
  for (std::size_t first = 0, end = 0; first < rows.size(); first = end) {
    const ObjectId each = rows[first].place.id;
    while (end < rows.size() && rows[end].place.id == each) ++end;
    const std::uint32_t entry = repository_.identities.indexOf(each);
    if (entry == 0 || memory_.loaded(entry) != nullptr) continue;
    if (each != id && memory_.isShort()) continue;
    try {
      place(entry, std::span(rows).subspan(first, end - first));
      loaded.push_back(entry);
    } catch (const std::exception&) {
      if (each == id) throw;
      break;
    } catch (const Failure&) {
      if (each == id) throw;
      break;
    }
  }
  if (memory_.loaded(index) == nullptr) {
    throw Failure(ErrDamaged, "the store is damaged: object " + std::to_string(id) + " is missing");
  }
  noteFamily(loaded);
}

void Workspace::place(std::uint32_t index, std::span<const Row> rows) {
  const OopType oop = fixedOop(index);
  try {
    decodeObject(memory_, index, rows.front(), findKernelMethod_);
    for (const Row& row : rows.subspan(1)) {
      const std::vector<OopType> slots = decodeElements(memory_, row, findKernelMethod_);
      std::uint32_t hash = row.place.part - Place::ofHash(0);
      const bool isOld = row.version < equality_ || equalityEpoch_ != memory_.equalityEpoch;
      if (isOld && hash != unknownHashes && isAsked(row)) {
        hash = unknownHashes;
        becomeRehashed(memory_, oop);
      } else if (isOld) {
        becomeOutdated(memory_, oop);
      }
      appendLoaded(memory_, oop, strideOf(memory_, oop), hash, slots);
    }
  } catch (...) {
    memory_.rest(index);
    memory_.unload(index);
    throw;
  }
  memory_.at(oop).exported = isExported(client_, oop);
  memory_.rest(index);
}

void Workspace::noteFamily(std::span<const std::uint32_t> loaded) {
  std::vector<std::uint32_t> entries;
  for (const std::uint32_t index : loaded) {
    const Object& object = *memory_.loaded(index);
    if (object.holdsBytes()) continue;
    for (const OopType slot : std::span(object.slots, object.size)) {
      const bool isStub =
          isReference(slot) && memory_.knows(slot >> 2) && memory_.loaded(slot >> 2) == nullptr;
      if (isStub) entries.push_back(slot >> 2);
    }
  }
  if (entries.size() < 2) return;
  *std::ranges::min_element(families_, {}, &Family::lastUse) = {std::move(entries), 0, 1,
                                                                ++lastUse_};
}

std::vector<ObjectId> Workspace::relativesOf(std::uint32_t index) {
  constexpr std::size_t most = 512;
  constexpr std::size_t skipped = 16;  // that are not touched, or have been
  std::vector<ObjectId> ids;
  for (Family& family : families_) {
    const std::vector<std::uint32_t>& entries = family.entries;
    const std::size_t end = std::min(family.next + skipped, entries.size());
    std::size_t at = family.next;
    while (at < end && entries[at] != index) ++at;
    if (at == end) continue;
    for (++at; at < entries.size() && ids.size() + 1 < family.count; ++at) {
      if (memory_.knows(entries[at]) && memory_.loaded(entries[at]) == nullptr) {
        ids.push_back(repository_.identities.idOf(entries[at]));
      }
    }
    family.next = at;
    family.lastUse = ++lastUse_;
    family.count = std::min(2 * family.count, most);
    break;
  }
  return ids;
}

void Workspace::begin() {
  const Transaction& transaction = client_.transaction;
  if (!memory_.touched().empty() || !transaction.keysRead.empty() || hasChanges()) return;
  const Version newest = repository_.store->lease();
  if (newest == view_) return repository_.store->giveUp(newest);
  try {
    requireFounder(newest);
    moveTo(newest);
  } catch (...) {
    repository_.store->giveUp(newest);
    throw;
  }
}

// Moves the view, of which nothing was seen, to a version that is leased.
void Workspace::moveTo(Version version) {
  const std::vector<Place> changes = repository_.store->changedSince(view_, version);
  const Version before = std::exchange(view_, version);
  try {
    apply(changes);
  } catch (const Failure& failure) {  // some of it has been applied
    view_ = before;
    behind_ = failure;
    throw;
  } catch (const std::bad_alloc&) {
    view_ = before;
    behind_ = memoryFailure(memory_);
    throw;
  }
  equalityEpoch_ = memory_.equalityEpoch;
  behind_.reset();
  repository_.store->giveUp(before);
}

bool Workspace::changesEquality(Place place) {
  for (const char* selector : {"=", "hash"}) {
    const std::uint32_t hash = hashOfSymbol(memory_, symbolOop(memory_, selector));
    if (place.part == Place::ofHash(hash)) return true;
  }
  return false;
}

// Of a key that is gone only the memory, or the kernel, may know.
void Workspace::addAllOfKernel(HashesOfKernel& hashes) {
  for (const Entries& each : kernel_) {
    std::vector<std::uint32_t>& all = hashes[each.dictionary];
    for (const std::uint32_t hash : hashesOf(memory_, each.dictionary, dictionaryStride)) {
      all.push_back(hash);
    }
    for (std::size_t i = 0; i < each.slots.size(); i += dictionaryStride) {
      all.push_back(hashOfSymbol(memory_, each.slots[i]));
    }
    if (isExported(client_, each.dictionary)) noteChanged(memory_, each.dictionary);
  }
  memory_.forgetLookups();
}

// Takes what others have changed out of the memory.
void Workspace::apply(std::span<const Place> changes) {
  HashesOfKernel ofKernel;
  for (const Place place : changes) {
    if (place.part == Place::any) {
      addAllOfKernel(ofKernel);
      continue;
    }
    if (place.id == equalityId) {
      equality_ = view_;
      ++memory_.equalityEpoch;
      continue;
    }
    const std::uint32_t index = repository_.identities.indexOf(place.id);
    if (index == 0 || !memory_.knows(index)) continue;
    // Of the kernel's others may have written what it is.
    if (index < Memory::kernelEnd && !isKernelDictionary(place.id)) continue;
    const OopType oop = fixedOop(index);
    if (isCode(memory_, oop)) {
      memory_.forgetLookups();
      if (changesEquality(place)) ++memory_.equalityEpoch;
    }
    if (place.id < firstFreeId) {
      ofKernel[oop].push_back(place.part - Place::ofHash(0));
    } else {
      memory_.unload(index);
    }
    if (isExported(client_, oop)) noteChanged(memory_, oop);
  }
  for (const auto& [dictionary, hashes] : ofKernel) applyToKernel(dictionary, hashes);
}

std::optional<std::string> Workspace::passwordOf(std::string_view user) {
  const auto changed = users_.find(user);
  return changed != users_.end()
             ? changed->second
             : zel::passwordOf(*repository_.store, view_, repository_.inMemory != nullptr, user);
}

void Workspace::endTransaction() {
  families_ = {};
  forgetAccesses(memory_, client_);
  users_ = founders_;
  client_.transaction.changesUsers = false;
  equalityEpoch_ = memory_.equalityEpoch;
  memory_.restAll();
  beginTransaction(memory_, client_);
}

Failure Workspace::conflict(const Outcome& outcome) {
  Failure failure(ErrCommitConflict,
                  "another session has changed what this transaction has read or written: abort, "
                  "and do it again");
  for (const ObjectId id : outcome.conflicts) failure.args.push_back(fixedOop(memory_.learn(id)));
  return failure;
}

// Who would have created the database that others have created may not be a user of it.
void Workspace::requireFounder(Version newest) const {
  if (founders_.empty() || newest == 0) return;
  throw Failure(ErrInUseElsewhere,
                "another session has created the database meanwhile: log in again");
}

// Of a first commit whose outcome is unknown: what is there then, if anything, is of this session.
Outcome Workspace::write(const Changes& changes) {
  try {
    return repository_.store->commit(changes);
  } catch (const Failure& failure) {
    if (failure.number == ErrOutcomeUnknown) founders_.clear();
    throw;
  }
}

void Workspace::commit() {
  if (hasChanges()) {
    if (!founders_.empty()) requireFounder(Lease(*repository_.store).version);
    Writing writing(*this);
    writing.collect();
    const Outcome outcome = write(writing.changes);
    if (outcome.version == 0) throw conflict(outcome);
    writing.keep();
    lastCommit_ = outcome.version;
    if (writing.changesEquality) equality_ = outcome.version;
    keepChanges(memory_, client_);
    founders_.clear();
    endTransaction();
    try {
      follow(writing.changes, outcome.version);
    } catch (Failure& failure) {
      behind_ = std::move(failure);  // what is committed is so all the same
    } catch (const std::bad_alloc&) {
      behind_ = memoryFailure(memory_);
    }
    repository_.tidy(false);
    return;
  }
  keepChanges(memory_, client_);
  endTransaction();
  begin();
}

// After a commit the view is at its version. What others have committed between is among it where
// this one read nothing of it.
void Workspace::follow(const Changes& changes, Version version) {
  if (version == changes.base + 1) {
    const Version newest = repository_.store->lease();
    if (newest == version) {
      repository_.store->giveUp(std::exchange(view_, version));
      behind_.reset();
      return;
    }
    repository_.store->giveUp(newest);
  }
  begin();
}

void Workspace::abort() {
  undoChanges(memory_, client_);
  bool code = false;
  for (const auto& [oop, written] : client_.transaction.written) {
    code |= isCode(memory_, oop);
    if (oop >> 2 < Memory::kernelEnd) {
      applyToKernel(oop, {written.hashes.begin(), written.hashes.end()});
      memory_.at(oop).dirty = memory_.at(oop).dirtyKeys = false;
    }
    if (client_.tracksChanges && isExported(client_, oop)) noteChanged(memory_, oop);
  }
  for (const auto& [oop, written] : client_.transaction.written) {
    if (oop >> 2 >= Memory::kernelEnd) memory_.unload(oop >> 2);
  }
  memory_.forgetLookups();
  if (code) ++memory_.equalityEpoch;
  endTransaction();
}

}  // namespace zel
