// Reading and writing what objects hold.
#include <algorithm>
#include <cstring>

#include "frame.h"
#include "objmem/classes.h"
#include "objmem/clients.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "slots.h"

namespace zel::slots {

namespace {

// Turns an index that counts from 1 into one from 0. It may be one past the end.
std::size_t offsetOf(OopType oop, long index, std::size_t size) {
  if (index < 1 || static_cast<unsigned long>(index) - 1 > size) {
    throw Failure(
        ErrBadOffset,
        "index " + std::to_string(index) + " is not between 1 and " + std::to_string(size + 1),
        {oop});
  }
  return static_cast<std::size_t>(index) - 1;
}

Object& bytesObject(const Memory& memory, OopType oop) {
  Object& object = memory.require(oop);
  if (!object.holdsBytes()) {
    throw Failure(ErrBadArgumentKind, "the object does not hold bytes", {oop});
  }
  return object;
}

Object& oopsObject(const Memory& memory, OopType oop) {
  Object& object = memory.require(oop);
  if (object.holdsBytes()) throw Failure(ErrBadArgumentKind, "the object holds bytes", {oop});
  return object;
}

// Copies up to `count` of the elements from `first` on, as far as `end`.
template <typename Element>
long copyElements(const Element* elements, std::size_t first, std::size_t end, void* buffer,
                  std::size_t count) {
  const std::size_t copied = std::min(count, end - first);
  if (copied != 0) std::memcpy(buffer, elements + first, copied * sizeof(Element));
  return static_cast<long>(copied);
}

// Stores oops from `first` on, enlarging the object as needed.
void storeOops(Memory& memory, OopType oop, std::size_t first, const OopType* oops,
               ArraySizeType count) {
  if (count > largestObjectBytes / sizeof(OopType)) {
    throw Failure(ErrBadArgument, "the count " + std::to_string(count) + " is too large", {oop});
  }
  for (ArraySizeType i = 0; i < count; ++i) memory.requireValue(oops[i]);
  if (count == 0) return;
  prepareWrite(memory, oop);
  if (first >= memory.at(oop).namedSize) dropIndex(memory, oop);
  if (first + count > memory.at(oop).size) memory.resize(oop, first + count);
  std::copy(oops, oops + count, memory.at(oop).slots + first);
}

// Where the indexed part may be written: nowhere in what places its elements itself.
Object& indexedOopsObject(const Memory& memory, OopType oop) {
  Object& object = oopsObject(memory, oop);
  if (object.impl == Impl::set) {
    throw Failure(ErrBadArgumentKind, "a set has no order: use its message add:", {oop});
  }
  if (inheritsFrom(memory, object.classOop, DictionaryClass)) {
    throw Failure(ErrInvariant,
                  "a Dictionary places its keys itself: use its message at:put:", {oop});
  }
  if (inheritsFrom(memory, object.classOop, SortedCollectionClass)) {
    throw Failure(ErrInvariant,
                  "a SortedCollection places its elements itself: use its message add:", {oop});
  }
  if (!object.indexable) {
    throw Failure(ErrBadArgumentKind, "the object has no indexed part", {oop});
  }
  return object;
}

void describeObject(Memory& memory, OopType oop, ZelObjInfoSType& info) {
  noteElementsRead(memory, oop);
  info = {};
  info.objId = oop;
  info.objClass = classOf(memory, oop);
  info.segment = NilOop;
  const Object* object = memory.find(oop);
  if (object == nullptr) {
    info.objImpl = static_cast<std::uint16_t>(Impl::special);
    info.isInvariant = 1;
    return;
  }
  info.namedSize = object->namedSize;
  info.objSize = static_cast<std::int32_t>(object->size);
  info.isIndexable = object->indexable ? 1 : 0;
  info.isInvariant = object->invariant ? 1 : 0;
  info.objImpl = static_cast<std::uint16_t>(object->impl) & 7;
}

// Copies the body from index `start` on, as many bytes as fit, whole oops only.
ArraySizeType copyBody(const Memory& memory, OopType oop, long start, ArraySizeType bufferSize,
                       ByteType* buffer) {
  const Object* object = memory.find(oop);
  if (object == nullptr) return 0;
  const std::size_t end = object->size;
  const std::size_t first = offsetOf(oop, start, end);
  const long copied =
      object->holdsBytes()
          ? copyElements(object->bytes, first, end, buffer, bufferSize)
          : copyElements(object->slots, first, end, buffer, bufferSize / sizeof(OopType));
  return static_cast<ArraySizeType>(copied);
}

}  // namespace

BoolType ZelFetchObjInfo(OopType oop, long start, ArraySizeType bufferSize, ZelObjInfoSType* info,
                         ByteType* buffer, ArraySizeType* count) {
  return inSession(BoolType{0}, [&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(info, 1, "the information record");
    requirePointer(buffer, bufferSize, "the value buffer");
    memory.requireValue(oop);
    describeObject(memory, oop, *info);
    const ArraySizeType copied =
        bufferSize != 0 ? copyBody(memory, oop, start, bufferSize, buffer) : 0;
    if (count != nullptr) *count = copied;
    return BoolType{1};
  });
}

long ZelFetchBytes(OopType oop, long start, ByteType* buffer, ArraySizeType count) {
  return inSession(0L, [&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(buffer, count, "the byte buffer");
    const Object& object = bytesObject(memory, oop);
    return copyElements(object.bytes, offsetOf(oop, start, object.size), object.size, buffer,
                        count);
  });
}

long ZelFetchVaryingOops(OopType oop, long start, OopType* buffer, ArraySizeType count) {
  return inSession(0L, [&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(buffer, count, "the oop buffer");
    const Object& object = oopsObject(memory, oop);
    noteElementsRead(memory, oop);
    const std::size_t first = offsetOf(oop, start, object.indexedSize()) + object.namedSize;
    return copyElements(object.slots, first, object.size, buffer, count);
  });
}

OopType ZelFetchNamedOop(OopType oop, long index) {
  return inSession(NoOop, [&](Session& session) {
    Memory& memory = session.memory;
    const Object& object = memory.require(oop);
    if (index < 1 || index > object.namedSize) {
      throw Failure(ErrBadOffset, "the object has no named slot " + std::to_string(index), {oop});
    }
    return object.slots[static_cast<std::size_t>(index) - 1];
  });
}

long ZelFetchNamedOops(OopType oop, long start, OopType* buffer, ArraySizeType count) {
  return inSession(0L, [&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(buffer, count, "the oop buffer");
    const Object& object = memory.require(oop);
    const std::size_t named = object.namedSize;
    return copyElements(object.slots, offsetOf(oop, start, named), named, buffer, count);
  });
}

void ZelStoreBytesInstanceOf(OopType classOop, OopType oop, long start, const ByteType* bytes,
                             ArraySizeType count) {
  inSession([&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(bytes, count, "the byte buffer");
    const Object& object = bytesObject(memory, oop);
    if (classOop != NilOop && !(isClass(memory, classOop) && isKindOf(memory, oop, classOop))) {
      throw Failure(ErrBadArgumentKind, "the object is not of the class given", {oop, classOop});
    }
    const std::size_t size = object.size;
    const std::size_t first = offsetOf(oop, start, size);
    if (count == 0) return;
    if (object.fixedSize && count > size - first) {
      throw Failure(ErrBadOffset, "the object's size is fixed", {oop});
    }
    prepareWrite(memory, oop);
    if (count > size - first) {
      // A sum that does not wrap: a larger one is refused in any case.
      memory.resize(oop, first + std::min<std::size_t>(count, largestObjectBytes + 1));
    }
    std::memcpy(memory.at(oop).bytes + first, bytes, count);
    memory.at(oop).width = Width::unknown;
  });
}

void ZelStoreIdxOops(OopType oop, long start, const OopType* oops, ArraySizeType count) {
  inSession([&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(oops, count, "the oop array");
    const Object& object = indexedOopsObject(memory, oop);
    const std::size_t first = offsetOf(oop, start, object.indexedSize());
    storeOops(memory, oop, first + object.namedSize, oops, count);
  });
}

void ZelStoreNamedOops(OopType oop, long start, const OopType* oops, ArraySizeType count) {
  inSession([&](Session& session) {
    Memory& memory = session.memory;
    requirePointer(oops, count, "the oop array");
    const Object& object = oopsObject(memory, oop);
    const std::size_t named = object.namedSize;
    const std::size_t first = offsetOf(oop, start, named);
    if (count > named - first) {
      throw Failure(ErrBadOffset, "the object has " + std::to_string(named) + " named slots",
                    {oop});
    }
    if (count != 0) requireChangeableSlot(memory, oop, first);
    storeOops(memory, oop, first, oops, count);
  });
}

void ZelStoreOop(OopType oop, long index, OopType value) {
  inSession([&](Session& session) {
    Memory& memory = session.memory;
    const Object& object = oopsObject(memory, oop);
    const std::size_t first = offsetOf(oop, index, object.size);
    const bool named = first < object.namedSize;
    named ? requireChangeableSlot(memory, oop, first) : void(indexedOopsObject(memory, oop));
    storeOops(memory, oop, first, &value, 1);
  });
}

}  // namespace zel::slots
