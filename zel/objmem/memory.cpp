#include "memory.h"

#include <algorithm>
#include <deque>
#include <string>

#include "errors/failure.h"
#include "vm/process.h"

namespace zel {

Extra::Extra() = default;
Extra::~Extra() = default;

namespace {

constexpr std::size_t leastBytesBetweenCollections = 4U << 20;
constexpr std::size_t handedOutKept = 1024;
constexpr std::size_t handedOutBytesKept = 4U << 20;
constexpr std::size_t objectOverhead = sizeof(Object) + 16;

// A free entry links to the next one; entries are reused in the order in which they became free,
// so that an oop that a client still holds by mistake is not soon another object's.
struct Entry {
  std::unique_ptr<Object> object;
  std::uint32_t nextFree = 0;
};

struct HandedOut {
  OopType oop;
  std::uint32_t serial;
};

struct Memory {
  std::vector<Entry> table;
  std::uint32_t firstFree = 0;
  std::uint32_t lastFree = 0;
  std::size_t limit = defaultMemoryLimit;
  std::size_t used = 0;
  std::size_t usedAfterCollection = 0;
  std::size_t usedAfterTrim = 0;
  std::size_t objects = 0;
  std::uint32_t creationSerial = 0;
  std::uint32_t handSerial = 0;
  std::size_t handedOutLive = 0;
  std::deque<HandedOut> handedOut;
  std::vector<OopType> markStack;
  std::vector<void (*)(Marker)> rootVisitors;
  std::vector<void (*)()> weakVisitors;
  void (*processVisitor)(const ProcessState&, Marker) = nullptr;
  void (*codeVisitor)(const Code&, Marker) = nullptr;
};

Memory memory;

std::size_t bodyBytes(const Object& object) {
  return object.slots.capacity() * sizeof(OopType) + object.bytes.capacity();
}

std::size_t weightOf(const Object& object) {
  std::size_t weight = objectOverhead + bodyBytes(object);
  if (object.extra && object.extra->process) weight += processBytes(*object.extra->process);
  return weight;
}

void reserveBytes(std::size_t bytes) {
  if (bytes > largestObjectBytes) {
    throw Failure(ErrNoMemory,
                  "an object may have at most " + std::to_string(largestObjectBytes) + " bytes");
  }
  if (memory.used + bytes > memory.limit) {
    throw Failure(ErrNoMemory,
                  "the object memory is full (" + std::to_string(memory.limit) + " bytes)");
  }
}

std::uint32_t takeIndex() {
  if (memory.firstFree != 0) {
    const std::uint32_t index = memory.firstFree;
    memory.firstFree = memory.table[index].nextFree;
    if (memory.firstFree == 0) memory.lastFree = 0;
    return index;
  }
  if (memory.table.size() < firstFreeIndex) memory.table.resize(firstFreeIndex);
  memory.table.emplace_back();
  return static_cast<std::uint32_t>(memory.table.size() - 1);
}

void giveIndexBack(std::uint32_t index) {
  memory.table[index].nextFree = 0;
  if (memory.lastFree != 0) {
    memory.table[memory.lastFree].nextFree = index;
  } else {
    memory.firstFree = index;
  }
  memory.lastFree = index;
}

void markOop(OopType oop) {
  Object* object = findObject(oop);
  if (object == nullptr || object->marked) return;
  object->marked = true;
  memory.markStack.push_back(oop);
}

void markContents(const Object& object) {
  markOop(object.classOop);
  for (const OopType slot : object.slots) markOop(slot);
  if (!object.extra) return;
  if (object.extra->code) memory.codeVisitor(*object.extra->code, markOop);
  if (object.extra->process) memory.processVisitor(*object.extra->process, markOop);
}

void markAll() {
  for (std::uint32_t index = 0; index < std::min<std::size_t>(firstFreeIndex, memory.table.size());
       ++index) {
    markOop(fixedOop(index));
  }
  for (const HandedOut& handed : memory.handedOut) {
    const Object* object = findObject(handed.oop);
    if (object != nullptr && object->handSerial == handed.serial) markOop(handed.oop);
  }
  for (const auto visitor : memory.rootVisitors) visitor(markOop);
  while (!memory.markStack.empty()) {
    const Object* object = findObject(memory.markStack.back());
    memory.markStack.pop_back();
    markContents(*object);
  }
}

void sweep() {
  for (std::uint32_t index = 0; index < memory.table.size(); ++index) {
    std::unique_ptr<Object>& object = memory.table[index].object;
    if (!object) continue;
    if (object->marked) {
      object->marked = false;
      continue;
    }
    memory.used -= std::min(memory.used, objectOverhead + bodyBytes(*object));
    --memory.objects;
    object.reset();
    giveIndexBack(index);
  }
}

void fill(Object& object, std::size_t named, std::size_t indexed) {
  object.namedSize = static_cast<std::int32_t>(named);
  if (object.impl == Impl::bytes) {
    object.bytes.resize(indexed);
  } else {
    object.slots.assign(named + indexed, NilOop);
  }
  memory.used += objectOverhead + bodyBytes(object);
  ++memory.objects;
}

}  // namespace

void setMemoryLimit(std::size_t bytes) {
  memory.limit = bytes;
}

Object* findObject(OopType oop) {
  if (!isReference(oop)) return nullptr;
  const std::uint32_t index = oop >> 2;
  return index < memory.table.size() ? memory.table[index].object.get() : nullptr;
}

Object& objectAt(OopType oop) {
  Object* object = findObject(oop);
  if (object == nullptr) {
    throw Failure(ErrNoSuchObject, isImmediate(oop)
                                       ? "oop " + std::to_string(oop) + " is a value without a body"
                                       : "oop " + std::to_string(oop) + " names no object");
  }
  return *object;
}

void requireValue(OopType oop) {
  if (!isImmediate(oop)) objectAt(oop);
}

OopType allocate(OopType classOop, Impl impl, std::size_t named, std::size_t indexed,
                 bool indexable) {
  const std::size_t unit = impl == Impl::bytes ? 1 : sizeof(OopType);
  if (named > largestObjectBytes || indexed > largestObjectBytes) reserveBytes(SIZE_MAX);
  reserveBytes((named + indexed) * unit + objectOverhead);
  auto object = std::make_unique<Object>();
  object->classOop = classOop;
  object->impl = impl;
  object->indexable = indexable;
  object->createdIn = memory.creationSerial;
  fill(*object, named, indexed);
  const std::uint32_t index = takeIndex();
  memory.table[index].object = std::move(object);
  return fixedOop(index);
}

Object& allocateFixed(OopType oop, OopType classOop, Impl impl, std::size_t named, bool indexable) {
  const std::uint32_t index = oop >> 2;
  if (memory.table.size() < firstFreeIndex) memory.table.resize(firstFreeIndex);
  std::unique_ptr<Object>& place = memory.table[index].object;
  place = std::make_unique<Object>();
  place->classOop = classOop;
  place->impl = impl;
  place->indexable = indexable;
  fill(*place, named, 0);
  return *place;
}

void resizeBody(Object& object, std::size_t size) {
  const std::size_t before = bodyBytes(object);
  if (object.impl == Impl::bytes) {
    if (size > object.bytes.capacity()) reserveBytes(size);
    object.bytes.resize(size);
  } else {
    if (size > object.slots.capacity()) {
      reserveBytes(size > largestObjectBytes ? SIZE_MAX / 2 : size * sizeof(OopType));
    }
    object.slots.resize(size, NilOop);
  }
  memory.used += bodyBytes(object) - before;
}

void accountBytes(std::ptrdiff_t bytes) {
  if (bytes > 0 && memory.used + static_cast<std::size_t>(bytes) > memory.limit) {
    throw Failure(ErrNoMemory,
                  "the object memory is full (" + std::to_string(memory.limit) + " bytes)");
  }
  memory.used += static_cast<std::size_t>(bytes);
}

void setCreationSerial(std::uint32_t serial) {
  memory.creationSerial = serial;
}

void addRootVisitor(void (*visitor)(Marker mark)) {
  memory.rootVisitors.push_back(visitor);
}
void addWeakVisitor(void (*visitor)()) {
  memory.weakVisitors.push_back(visitor);
}
bool isMarked(OopType oop) {
  const Object* object = findObject(oop);
  return object == nullptr || object->marked;
}
void setProcessVisitor(void (*visitor)(const ProcessState& process, Marker mark)) {
  memory.processVisitor = visitor;
}
void setCodeVisitor(void (*visitor)(const Code& code, Marker mark)) {
  memory.codeVisitor = visitor;
}

void collectIfDue() {
  const std::size_t since = memory.used - std::min(memory.used, memory.usedAfterCollection);
  const std::size_t enough = std::max(leastBytesBetweenCollections, memory.usedAfterCollection / 2);
  const bool nearlyFull = memory.used > memory.limit - memory.limit / 4;
  if (since >= enough || (nearlyFull && since >= leastBytesBetweenCollections)) collect();
}

void collect() {
  markAll();
  for (const auto visitor : memory.weakVisitors) visitor();
  sweep();
  memory.usedAfterCollection = memory.used;
  memory.usedAfterTrim = std::min(memory.usedAfterTrim, memory.used);
  ++lookupEpoch;
}

OopType handOut(OopType oop) {
  Object* object = findObject(oop);
  if (object == nullptr || object->handSerial != 0 || oop >> 2 < firstFreeIndex) return oop;
  if (++memory.handSerial == 0) ++memory.handSerial;
  object->handSerial = memory.handSerial;
  memory.handedOut.push_back({oop, memory.handSerial});
  ++memory.handedOutLive;
  return oop;
}

void releaseHandedOut(OopType oop) {
  Object* object = findObject(oop);
  if (object == nullptr || object->handSerial == 0) return;
  object->handSerial = 0;
  --memory.handedOutLive;
  if (memory.handedOut.size() <= 2 * (memory.handedOutLive + handedOutKept)) return;
  std::erase_if(memory.handedOut, [](const HandedOut& handed) {
    const Object* held = findObject(handed.oop);
    return held == nullptr || held->handSerial != handed.serial;
  });
}

void trimHandedOut() {
  // Walking the list is worth it only when there is something to gain.
  const std::size_t grown = memory.used - std::min(memory.used, memory.usedAfterTrim);
  if (memory.handedOut.size() < 2 * handedOutKept && grown < handedOutBytesKept) return;
  memory.usedAfterTrim = memory.used;
  std::size_t kept = 0;
  std::size_t bytes = 0;
  auto cut = memory.handedOut.rbegin();
  for (; cut != memory.handedOut.rend() && kept < handedOutKept; ++cut, ++kept) {
    const Object* object = findObject(cut->oop);
    if (object == nullptr || object->handSerial != cut->serial) continue;
    bytes += weightOf(*object);
    if (bytes > handedOutBytesKept) break;
  }
  for (auto drop = cut; drop != memory.handedOut.rend(); ++drop) {
    Object* object = findObject(drop->oop);
    if (object == nullptr || object->handSerial != drop->serial) continue;
    object->handSerial = 0;
    --memory.handedOutLive;
  }
  memory.handedOut.erase(memory.handedOut.begin(), cut.base());
}

MemoryStatistics memoryStatistics() {
  return {memory.objects, memory.used, memory.table.size()};
}

void clearMemory() {
  const std::size_t limit = memory.limit;
  memory = Memory{};
  memory.limit = limit;
}

}  // namespace zel
