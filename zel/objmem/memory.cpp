#include "memory.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "clients.h"

namespace zel {

namespace {

constexpr std::size_t leastBytesBetweenCollections = 512U << 10;
constexpr int mostFutileCollections = 8;
constexpr std::size_t mostKeptBack = 1U << 20;
constexpr std::size_t leastOfItsOwn = 4U << 20;
// A header, an entry of the table and of the mark stack, and what the allocator adds.
constexpr std::size_t objectOverhead = sizeof(Object) + 12;
constexpr std::uint32_t leastCapacity = 4;
// An entry of the map of symbols, and its share of the array that finds it.
constexpr std::size_t symbolEntryBytes = 32 + 2 * sizeof(void*);

std::size_t unitOf(const Object& object) {
  return object.holdsBytes() ? 1 : sizeof(OopType);
}

ByteType* startOfBody(Object& object) {
  return reinterpret_cast<ByteType*>(&object + 1);
}

std::size_t gapBytes(Object& object) {
  return static_cast<std::size_t>(object.bytes - startOfBody(object));
}

// In the object's own block, the header aside.
std::size_t bodyBytes(Object& object) {
  return object.shared ? 0 : gapBytes(object) + object.capacity * unitOf(object);
}

SharedBytes& sharedBytes(const Object& object) {
  return *(reinterpret_cast<SharedBytes*>(object.bytes) - 1);
}

std::size_t footprint(Object& object) {
  return objectOverhead + bodyBytes(object) +
         (object.extra != nullptr ? object.extra->accounted : 0);
}

// Sets the elements from `first` to the end to nil or 0.
void clear(Object& object, std::size_t first) {
  if (object.holdsBytes()) {
    std::fill(object.bytes + first, object.bytes + object.size, ByteType{0});
  } else {
    std::fill(object.slots + first, object.slots + object.size, NilOop);
  }
}

[[noreturn]] void tooLarge(Impl impl) {
  const std::string most = impl == Impl::bytes ? std::to_string(largestObjectBytes) + " bytes"
                                               : std::to_string(largestObjectSlots) + " slots";
  throw Failure(ErrNoMemory, "an object may have at most " + most);
}

std::size_t extraBytes(const Extra& extra) {
  std::size_t bytes = sizeof(Extra);
  if (extra.index) bytes += extra.index->bytes();
  if (extra.routine)
    bytes += sizeof(Routine) + (extra.routine->code ? extra.routine->code->bytes() : 0);
  if (extra.text) bytes += sizeof(TextIndex) + extra.text->offsets.capacity() * 4;
  if (extra.process) bytes += extra.process->bytes();
  return bytes;
}

// Nothing refers to it but through its object.
bool isLoadedWhole(const Extra& extra) {
  return !extra.routine && !extra.process;
}

// As FNV has it, in 28 bits.
std::uint32_t hashOfText(std::string_view text) {
  std::uint32_t hash = 2166136261U;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash >> 4 ^ (hash & 15);
}

}  // namespace

Memory::Memory(BreakRequest& breaks, Identities& identitiesToUse)
    : identities(identitiesToUse), meter(breaks), cursor_(firstFreeIndex) {
  widen(kernelEnd);
  for (std::uint32_t index = firstFreeIndex; index < kernelEnd; ++index) freeEntry(index);
  // Others draw from elsewhere in the same sequence.
  lastIdentityHash_ =
      static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  blocks_.fillSpares(Blocks::mostSpares);
  setLimit(defaultMemoryLimit);
}

Memory::~Memory() {
  for (std::uint32_t index = 0; index < table_.size(); ++index) {
    if (Object* object = loaded(index); object != nullptr) release(object);
    if ((flags_[index] & Known) != 0) identities.drop(index);
  }
  identities.returnPages(*this);
}

Object& Memory::require(OopType oop) const {
  Object* object = find(oop);
  if (object == nullptr) {
    throw Failure(ErrNoSuchObject, isImmediate(oop)
                                       ? "oop " + std::to_string(oop) + " is a value without a body"
                                       : "oop " + std::to_string(oop) + " names no object");
  }
  return *object;
}

void Memory::requireValue(OopType oop) const {
  if (!isImmediate(oop) && !exists(oop)) require(oop);
}

// The room to mark what the entries will name comes first.
void Memory::widen(std::size_t entries) {
  if (entries <= table_.size()) return;
  const auto grow = [&](std::size_t room) {
    markStack_.reserve(room);
    table_.reserve(room);
    resting_.reserve(room);
    flags_.reserve(room);
  };
  if (entries > flags_.capacity()) {
    try {
      grow(entries + entries / 2);
    } catch (const std::bad_alloc&) {
      grow(entries);
    }
  }
  table_.resize(entries);
  resting_.resize(entries);
  flags_.resize(entries);
}

void Memory::growTable() try {
  if (!sealed_) return;
  for (std::size_t wanted = pages_ / 2 + 2; wanted > 0; --wanted) {
    const std::uint32_t first = identities.nextPage() * Identities::pageEntries;
    widen(first + Identities::pageEntries);
    identities.takePage(*this);
    ++pages_;
    for (std::uint32_t index = first; index < first + Identities::pageEntries; ++index) {
      if (identities.idOf(index) == 0) freeEntry(index);
    }
    cursor_ = first;
  }
} catch (const std::bad_alloc&) {
  if (free_ <= bounds_.entries) noRoom();
}

void Memory::sealKernel() {
  for (std::uint32_t index = firstFreeIndex; index < kernelEnd; ++index) flags_[index] = 0;
  free_ = 0;
  usedByKernel_ = used_;
  while (table_[endOfKernel_ - 1] == nullptr) --endOfKernel_;
  sealed_ = true;
  growTable();
}

std::uint32_t Memory::learn(ObjectId id) {
  std::uint32_t index = identities.indexOf(id);
  if (index != 0 && index < kernelEnd) return index;
  if (index == 0) {
    index = freeIndex();
    identities.bind(index, id);
    flags_[index] = Known;
    --free_;
    return index;
  }
  widen(index + 1);
  if ((flags_[index] & Known) == 0) identities.use(index);
  flags_[index] |= Known;
  return index;
}

Object& Memory::load(std::uint32_t index) const {
  source.load(source.owner, const_cast<Memory&>(*this), index);
  return *resting_[index];
}

// The first touch in a transaction.
Object& Memory::arrive(std::uint32_t index) const {
  if (resting_[index] == nullptr) load(index);
  if ((flags_[index] & Read) == 0) touched_.push_back(index);
  return *(table_[index] = std::exchange(resting_[index], nullptr));
}

void Memory::becomeStored(std::uint32_t index) noexcept {
  table_[index]->stored = true;
  if (index >= kernelEnd) {
    flags_[index] |= Known;
    ++stored_;
  }
  touched_.push_back(index);
}

void Memory::unload(std::uint32_t index) noexcept {
  Object* object = loaded(index);
  if (object == nullptr) return;
  if (table_[index] != nullptr) flags_[index] |= Read;
  release(object);
  table_[index] = resting_[index] = nullptr;
  --objects_;
  --stored_;
}

void Memory::restAll() noexcept {
  for (const std::uint32_t index : touched_) {
    flags_[index] &= static_cast<std::uint8_t>(~Read);
    Object* object = table_[index];
    if (object == nullptr || !object->stored || index < kernelEnd) continue;
    resting_[index] = std::exchange(table_[index], nullptr);
  }
  touched_.clear();
}

// Symbols and numbers have that of their contents, which rows of the store bring anew; those of the
// kernel's objects and of values go by their oops.
std::uint32_t Memory::identityHashOf(OopType oop) const {
  Object* found = look(oop);
  if (found == nullptr || (oop >> 2 < kernelEnd && found->classOop != SymbolClass)) {
    return hashOfText({reinterpret_cast<const char*>(&oop), sizeof oop});
  }
  Object& object = *found;
  if (object.identityHash == 0) {
    lastIdentityHash_ = lastIdentityHash_ * 1664525U + 1013904223U;
    const bool byContent = object.classOop == SymbolClass || object.classOop == FloatClassOop ||
                           object.classOop == LargeIntegerClass;
    const std::uint32_t hash = byContent ? hashOfText(object.text()) : lastIdentityHash_ >> 4;
    object.identityHash = std::max(hash, 1U);
  }
  return object.identityHash;
}

void Memory::noRoom(std::size_t bytes) {
  missed_ = bytes;
  throw MemoryFull();
}

void* Memory::spareBlock(std::size_t size) {
  void* block = blocks_.allocateSpare(size, bounds_.spares);
  if (block == nullptr) noRoom();
  return block;
}

// Makes an object whose body is still to be filled.
inline Object* Memory::place(void* block, OopType classOop, Impl impl, std::size_t named,
                             std::size_t size, bool indexable, bool fixedSize, bool invariant) {
  auto* object = new (block) Object{
      .classOop = classOop,
      .bytes = static_cast<ByteType*>(block) + sizeof(Object),
      .size = static_cast<std::uint32_t>(size),
      .capacity = static_cast<std::uint32_t>(size),
      .createdIn = current != nullptr ? current->transaction.serial : 0,
      .namedSize = static_cast<std::uint16_t>(named),
      .impl = impl,
      .indexable = indexable,
      .fixedSize = fixedSize,
      .invariant = invariant,
  };
  used_ += objectOverhead + size * unitOf(*object);
  ++objects_;
  return object;
}

OopType Memory::allocate(OopType classOop, Impl impl, std::size_t named, std::size_t indexed,
                         bool indexable) {
  if (named > UINT16_MAX || indexed > largestObjectBytes) tooLarge(impl);
  const std::size_t bytes = (named + indexed) * (impl == Impl::bytes ? 1 : sizeof(OopType));
  if (bytes > largestObjectBytes) tooLarge(impl);
  reserve(bytes + objectOverhead);
  const std::uint32_t index = freeIndex();
  Object* object = place(newBlock(bytes), classOop, impl, named, named + indexed, indexable);
  clear(*object, 0);
  occupy(index, object);
  return fixedOop(index);
}

OopType Memory::tryNumber(OopType classOop, std::uint64_t bits) try {
  reserve(objectOverhead + sizeof bits);
  const std::uint32_t index = freeIndex();
  Object* object =
      place(newBlock(sizeof bits), classOop, Impl::bytes, 0, sizeof bits, false, true, true);
  std::memcpy(object->bytes, &bits, sizeof bits);
  occupy(index, object);
  return fixedOop(index);
} catch (const std::bad_alloc&) {
  return 0;
}

OopType Memory::allocateNumber(OopType classOop, std::uint64_t bits) {
  const OopType oop = tryNumber(classOop, bits);
  if (oop == 0) noRoom();
  return oop;
}

OopType Memory::allocateJoined(OopType left, std::string_view text, OopType classOop) {
  constexpr std::size_t least = 512;  // below, a copy costs less than the sharing
  const Object& first = at(left);
  const std::size_t size = first.size + text.size();
  if (size > largestObjectBytes) tooLarge(Impl::bytes);
  if (size < least) {
    const OopType oop = allocate(classOop, Impl::bytes, 0, size, true);
    std::copy_n(first.bytes, first.size, at(oop).bytes);
    std::memcpy(at(oop).bytes + first.size, text.data(), text.size());
    return oop;
  }
  SharedBytes* bytes = first.shared ? &sharedBytes(first) : nullptr;
  const bool fits = bytes != nullptr && bytes->used == first.size && size <= bytes->capacity;
  // Room to spare only for what is not appended to for the first time.
  const std::size_t capacity = first.shared ? std::min(size + size / 2, largestObjectBytes) : size;
  const std::size_t added = fits ? 0 : sizeof(SharedBytes) + capacity;
  meter.chargeCopy(fits ? text.size() : size);
  reserve(added + objectOverhead);
  const std::uint32_t index = freeIndex();
  void* block = newBlock(0);
  if (!fits) {
    void* shared = blocks_.allocate(added);
    if (shared == nullptr) shared = blocks_.allocateSpare(added, bounds_.spares);
    if (shared == nullptr) {
      blocks_.release(block, sizeof(Object));
      noRoom();
    }
    bytes = static_cast<SharedBytes*>(shared);
    *bytes = {0, first.size, static_cast<std::uint32_t>(capacity)};
    std::copy_n(first.bytes, first.size, reinterpret_cast<ByteType*>(bytes + 1));
    used_ += added;
  }
  Object* object = place(block, classOop, Impl::bytes, 0, 0, true);
  object->bytes = reinterpret_cast<ByteType*>(bytes + 1);
  object->shared = true;
  std::memcpy(object->bytes + first.size, text.data(), text.size());
  object->size = object->capacity = bytes->used = static_cast<std::uint32_t>(size);
  ++bytes->owners;
  occupy(index, object);
  return fixedOop(index);
}

Object& Memory::allocateFixed(OopType oop, OopType classOop, Impl impl, std::size_t named,
                              bool indexable) {
  Object* object =
      place(newBlock(named * sizeof(OopType)), classOop, impl, named, named, indexable);
  clear(*object, 0);
  return *(table_[oop >> 2] = object);
}

Object& Memory::placeLoaded(std::uint32_t index, OopType classOop, Impl impl, std::size_t named,
                            std::size_t size, bool indexable) {
  const std::size_t bytes = size * (impl == Impl::bytes ? 1 : sizeof(OopType));
  reserve(bytes + objectOverhead);
  Object* object = place(newBlock(bytes), classOop, impl, named, size, indexable);
  clear(*object, 0);
  object->createdIn = 0;
  object->stored = true;
  if (stored_++ == 0) dueAt_ = std::min(dueAt_, shortAt());
  return *(table_[index] = object);
}

// Moves the body into a block with so many elements of room, of which a gap stands in front.
Object& Memory::moveBody(OopType oop, std::size_t gap, std::size_t capacity) {
  Object* object = &at(oop);
  const std::size_t unit = unitOf(*object);
  const std::size_t before = footprint(*object);
  const std::size_t bytes = (gap + capacity) * unit;
  const std::size_t now = bodyBytes(*object);
  if (bytes > now) reserve(bytes - now);
  auto* moved = new (newBlock(bytes)) Object(*object);
  moved->bytes = startOfBody(*moved) + gap * unit;
  moved->capacity = static_cast<std::uint32_t>(capacity);
  std::memcpy(moved->bytes, object->bytes, object->size * unit);
  blocks_.release(object, sizeof *object + now);
  table_[oop >> 2] = moved;
  used_ += footprint(*moved) - before;
  return *moved;
}

// Grows in proportion, less where memory is short, but never so little that growing by small steps
// takes quadratic time. Uses the gap in front where that pays, or where there is no other room.
Object& Memory::enlarge(OopType oop, std::size_t size) {
  const Object& object = at(oop);
  const std::size_t gap = gapBytes(at(oop)) / unitOf(object);
  const std::size_t capacity = object.capacity;
  const std::size_t most = largestObjectBytes / unitOf(object);
  const auto grownBy = [&](std::size_t share) {
    return std::min(std::max(size, capacity + capacity / share + leastCapacity), most);
  };
  const bool fits = size <= gap + capacity;
  if (fits && gap > size / 2) return closeGap(oop);
  try {
    return moveBody(oop, 0, grownBy(2));
  } catch (const MemoryFull&) {
    return fits ? closeGap(oop) : moveBody(oop, 0, grownBy(32));
  }
}

Object& Memory::closeGap(OopType oop) const {
  Object& object = at(oop);
  ByteType* start = startOfBody(object);
  object.capacity += static_cast<std::uint32_t>(gapBytes(object) / unitOf(object));
  std::memmove(start, object.bytes, object.size * unitOf(object));
  object.bytes = start;
  return object;
}

void Memory::unshare(OopType oop) {
  Object* object = &at(oop);
  if (!object->shared) return;
  reserve(object->size);
  auto* own = new (newBlock(object->size)) Object(*object);
  own->bytes = startOfBody(*own);
  own->shared = false;
  std::copy_n(object->bytes, object->size, own->bytes);
  used_ += object->size;
  releaseShare(*object);
  blocks_.release(object, sizeof(Object));
  table_[oop >> 2] = own;
}

void Memory::releaseShare(Object& object) {
  SharedBytes& bytes = sharedBytes(object);
  if (--bytes.owners != 0) return;
  const std::size_t size = sizeof(SharedBytes) + bytes.capacity;
  used_ -= size;
  blocks_.release(&bytes, size);
}

Object& Memory::resize(OopType oop, std::size_t size) {
  unshare(oop);
  Object* object = &at(oop);
  if (size > largestObjectBytes / unitOf(*object)) tooLarge(object->impl);
  if (size > object->capacity) object = &enlarge(oop, size);
  const std::uint32_t before = object->size;
  object->size = static_cast<std::uint32_t>(size);
  object->width = Width::unknown;
  if (size > before) clear(*object, before);
  return *object;
}

Object& Memory::insertFirst(OopType oop) {
  Object* object = &at(oop);
  if (object->size + 1U > largestObjectSlots) tooLarge(object->impl);
  if (gapBytes(*object) == 0)
    object = &moveBody(oop, object->size / 2 + leastCapacity, object->size);
  --object->slots;
  ++object->size;
  ++object->capacity;
  std::memmove(object->slots, object->slots + 1, object->namedSize * sizeof(OopType));
  *object->indexed() = NilOop;
  return *object;
}

void Memory::removeFirst(OopType oop) const {
  Object& object = at(oop);
  std::memmove(object.slots + 1, object.slots, object.namedSize * sizeof(OopType));
  ++object.slots;
  --object.size;
  --object.capacity;
}

Extra& Memory::extraOf(OopType oop) const {
  Object& object = at(oop);
  if (object.extra == nullptr) object.extra = new Extra;
  return *object.extra;
}

void Memory::recount(OopType oop) {
  Extra& extra = *at(oop).extra;
  const std::size_t bytes = extraBytes(extra);
  used_ += bytes - extra.accounted;
  extra.accounted = bytes;
}

void Memory::setLimit(std::size_t bytes) {
  limit_ = bytes;
  bounds_ = boundsOf(Room::programs);
  dueAt_ = used_ + leastBytesBetweenCollections;
}

void Memory::setTakenElsewhere(std::size_t bytes) {
  if (bytes == elsewhere_) return;
  elsewhere_ = bytes;
  bounds_ = boundsOf(bounds_.room);
}

std::size_t Memory::mostBytes() const {
  const std::size_t least = std::min(limit_, usedByKernel_ + leastOfItsOwn);
  return limit_ > elsewhere_ + least ? limit_ - elsewhere_ : least;
}

std::size_t Memory::keptBack() const {
  return std::min(mostKeptBack, limit_ / 16);
}

Bounds Memory::boundsOf(Room room) const {
  if (room == Room::library) return {mostBytes(), 0, 0, room};
  if (room == Room::programs) {
    return {mostBytes() - keptBack(), keptEntries, Blocks::mostSpares, room};
  }
  // Half of what is left above the library's half.
  const auto staying = [](std::size_t left, std::size_t kept) {
    return kept / 2 + (std::clamp(left, kept / 2, kept) - kept / 2) / 2;
  };
  const std::size_t top = mostBytes() - keptBack() / 2;
  return {used_ + (top - std::min(used_, top)) / 2, staying(free_, keptEntries),
          staying(blocks_.spares(), Blocks::mostSpares), room};
}

Room Memory::roomToRun() const {
  const bool full = processIsFull_ || free_ <= keptEntries || used_ > mostBytes() - 2 * keptBack();
  return full ? Room::rescue : Room::programs;
}

void Memory::markContents(const Object& object) {
  mark(object.classOop);
  if (!object.holdsBytes()) {
    for (std::uint32_t i = 0; i < object.size; ++i) mark(object.slots[i]);
  }
  if (object.extra == nullptr) return;
  if (object.extra->routine && object.extra->routine->code) {
    const Code& code = *object.extra->routine->code;
    mark(code.owner);
    for (const OopType literal : code.literals) mark(literal);
    for (const Site& site : code.sites) mark(site.selector);
  }
  if (object.extra->process) {
    const ProcessState& process = *object.extra->process;
    for (std::uint32_t i = 0; i < process.top; ++i) mark(process.stack[i]);
    mark(process.sendNext);
    for (std::uint32_t i = 0; i < process.depth; ++i) {
      mark(process.frames[i].code->method);
      mark(process.frames[i].receiver);
      mark(process.frames[i].environment);
    }
  }
}

std::size_t Memory::markReachable() {
  std::size_t bytes = 0;
  while (!markStack_.empty()) {
    Object& object = *loaded(markStack_.back() >> 2);
    markStack_.pop_back();
    bytes += footprint(object) + (object.shared ? object.size : 0);
    markContents(object);
  }
  return bytes;
}

void Memory::releaseRest(Object& object) {
  if (object.shared) releaseShare(object);
  if (object.extra == nullptr) return;
  used_ -= object.extra->accounted;
  delete object.extra;
}

inline void Memory::release(Object* object) {
  const std::size_t bytes = bodyBytes(*object);
  used_ -= objectOverhead + bytes;
  if (object->shared || object->extra != nullptr) releaseRest(*object);
  blocks_.release(object, sizeof *object + bytes);
}

// Entries share the places where there is no memory for more of them.
void Memory::addSymbol(OopType oop) {
  const std::size_t places = symbols.bucket_count();
  const float share = symbols.max_load_factor();
  const bool grows = static_cast<float>(symbols.size() + 1) > static_cast<float>(places) * share;
  try {
    reserve(symbolEntryBytes + (grows ? 2 * places * sizeof(void*) : 0));
    symbols.emplace(at(oop).text(), oop);
  } catch (const std::bad_alloc&) {
    if (!grows) throw;
    reserve(symbolEntryBytes);
    symbols.max_load_factor(2 * share);
    symbols.emplace(at(oop).text(), oop);
  }
  used_ += symbolEntryBytes;
}

void Memory::dropSymbols() {
  used_ -= symbolEntryBytes *
           std::erase_if(symbols, [&](const auto& symbol) { return !at(symbol.second).marked; });
  const std::size_t places = symbols.bucket_count();
  if (symbols.size() <= places) symbols.max_load_factor(1);
  try {
    if (symbols.size() < places / 4) symbols.rehash(0);
  } catch (const std::bad_alloc&) {
    // The larger array serves as well.
  }
}

// Of an object of the store, or of an entry for one: whether the memory goes on knowing it. Read
// ones stay known while the transaction lasts; what can be loaded again goes when room is short.
bool Memory::dropKnown(std::uint32_t index, bool unloads) {
  Object* object = loaded(index);
  const bool named = object != nullptr ? object->marked : (flags_[index] & Named) != 0;
  flags_[index] &= static_cast<std::uint8_t>(~Named);
  if (object != nullptr) object->marked = false;
  const bool kept = named || (flags_[index] & Read) != 0 || table_[index] != nullptr;
  const bool again = object != nullptr && !object->dirty && !object->dirtyKeys &&
                     (object->extra == nullptr || isLoadedWhole(*object->extra));
  if (object != nullptr && (!named || (unloads && again))) unload(index);
  if (kept) return true;
  flags_[index] = 0;
  identities.drop(index);
  return false;
}

void Memory::sweep(bool unloads) {
  std::size_t swept = 0;
  for (std::uint32_t index = 0; index < endOfKernel_; ++index) {
    if (table_[index] != nullptr) table_[index]->marked = false;
  }
  const auto end = static_cast<std::uint32_t>(table_.size());
  for (std::uint32_t index = kernelEnd; index < end; ++index) {
    Object* object = table_[index];
    if (object == nullptr || object->stored) {
      if ((flags_[index] & Known) != 0) dropKnown(index, unloads);
      continue;
    }
    if (object->marked) {
      object->marked = false;
      continue;
    }
    release(object);
    table_[index] = nullptr;
    freeEntry(index);
    ++swept;
  }
  objects_ -= swept;
}

void Memory::collect(bool pressed, bool unloads) {
  for (std::uint32_t index = 0; index < endOfKernel_; ++index) mark(fixedOop(index));
  for (const Client* client : clients) markSaved(*this, *client);
  for (const Roots& each : roots_) each.visit(each.owner, *this);
  markReachable();
  for (Client* client : clients) keepHandedOut(*this, *client, pressed && client == current);
  dropSymbols();
  sweep(unloads);
  dueAt_ = used_ + std::max(leastBytesBetweenCollections, used_ / 2);
  if (stored_ != 0) {
    const std::size_t left = bounds_.bytes - std::min(bounds_.bytes, used_);
    const std::size_t half = used_ + std::max(leastBytesBetweenCollections, left / 2);
    dueAt_ = std::min(dueAt_, std::max(shortAt(), half));
  }
  usedBefore_ = used_;
  forgetLookups();
  const bool hasSpares = blocks_.fillSpares(Blocks::mostSpares);
  if (pressed || !hasSpares) {
    processIsFull_ = !blocks_.fillSpares(2 * Blocks::mostSpares);
    blocks_.giveSpares(Blocks::mostSpares);
  }
}

void Memory::beginProgram() {
  futileCollections_ = 0;
  if (roomToRun() != Room::programs && used_ >= usedBefore_ + keptBack() / 8) collect(true);
}

void Memory::collectForRoom() {
  const std::size_t least = limit_ / 64;
  const std::size_t before = used_;
  const bool worthIt = used_ >= usedBefore_ + least;
  if (relief.relieve != nullptr) relief.relieve(relief.owner, false);
  collect(true);
  const bool fits = missed_ <= bounds_.bytes && used_ <= bounds_.bytes - missed_;
  const bool isEnough = fits && !processIsFull_ && before - used_ >= least;
  missed_ = SIZE_MAX;
  if (!isEnough && relief.relieve != nullptr) {
    relief.relieve(relief.owner, true);
    if (processIsFull_) collect(true);
  }
  futileCollections_ = worthIt ? 0 : futileCollections_ + 1;
  if (bounds_.room == Room::rescue && roomToRun() == Room::programs) {
    bounds_ = boundsOf(Room::programs);
  }
  if (bounds_.room != Room::library && futileCollections_ > mostFutileCollections)
    throw MemoryFull();
  // What found no room need not have been an object.
  blocks_.giveSpares(bounds_.spares);
}

void Memory::forgetLookups() {
  if (++lookupEpoch_ != 0) return;
  // The count begins anew: nothing may remember one of long ago.
  lookupEpoch_ = 1;
  knownTraits = {};
  for (std::uint32_t index = 0; index < table_.size(); ++index) {
    const Object* object = loaded(index);
    if (object == nullptr || object->extra == nullptr || !object->extra->routine) continue;
    Code* code = object->extra->routine->code.get();
    if (code == nullptr) continue;
    for (Site& site : code->sites) site.key = 0;
  }
}

Failure memoryFailure(const Memory& memory) noexcept {
  Failure failure(ErrNoMemory, "memory is full", {}, FailureKind::noRoom);
  try {
    failure.message = "the object memory is full (" + std::to_string(memory.limit()) + " bytes)";
  } catch (const std::bad_alloc&) {
    // The short text needs none.
  }
  return failure;
}

}  // namespace zel
