// Reading and writing what objects hold.
#include <algorithm>
#include <cstring>

#include "frame.h"
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "session/changes.h"
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

Object& bytesObject(OopType oop) {
  Object& object = objectAt(oop);
  if (object.impl != Impl::bytes) {
    throw Failure(ErrBadArgumentKind, "the object does not hold bytes", {oop});
  }
  return object;
}

Object& oopsObject(OopType oop) {
  Object& object = objectAt(oop);
  if (object.impl == Impl::bytes) {
    throw Failure(ErrBadArgumentKind, "the object holds bytes", {oop});
  }
  return object;
}

// Copies up to `count` of the elements from `first` on, as far as `end`.
template <typename Element>
long copyElements(const std::vector<Element>& elements, std::size_t first, std::size_t end,
                  void* buffer, std::size_t count) {
  const std::size_t copied = std::min(count, end - first);
  if (copied != 0) std::memcpy(buffer, elements.data() + first, copied * sizeof(Element));
  return static_cast<long>(copied);
}

// Stores oops from `first` on, enlarging the object as needed.
void storeOops(OopType oop, std::size_t first, const OopType* oops, ArraySizeType count) {
  if (count > largestObjectBytes / sizeof(OopType)) {
    throw Failure(ErrBadArgument, "the count " + std::to_string(count) + " is too large", {oop});
  }
  for (ArraySizeType i = 0; i < count; ++i) requireValue(oops[i]);
  if (count == 0) return;
  prepareWrite(oop);
  Object& object = *findObject(oop);
  dropIndex(object);
  if (first + count > object.slots.size()) resizeBody(object, first + count);
  std::copy(oops, oops + count, object.slots.begin() + static_cast<std::ptrdiff_t>(first));
}

// Where the indexed part may be written: nowhere in sets, which have no order.
Object& indexedOopsObject(OopType oop) {
  Object& object = oopsObject(oop);
  if (object.impl == Impl::set) {
    throw Failure(ErrBadArgumentKind, "a set has no order: use its message add:", {oop});
  }
  if (!object.indexable) {
    throw Failure(ErrBadArgumentKind, "the object has no indexed part", {oop});
  }
  return object;
}

void describeObject(OopType oop, ZelObjInfoSType& info) {
  info = {};
  info.objId = oop;
  info.objClass = classOf(oop);
  info.segment = NilOop;
  const Object* object = findObject(oop);
  if (object == nullptr) {
    info.objImpl = static_cast<std::uint16_t>(Impl::special);
    info.isInvariant = 1;
    return;
  }
  info.namedSize = object->namedSize;
  info.objSize = static_cast<std::int32_t>(object->size());
  info.isIndexable = object->indexable ? 1 : 0;
  info.isInvariant = object->invariant ? 1 : 0;
  info.objImpl = static_cast<std::uint16_t>(object->impl) & 7;
}

// Copies the body from index `start` on, as many bytes as fit, whole oops only.
ArraySizeType copyBody(OopType oop, long start, ArraySizeType bufferSize, ByteType* buffer) {
  const Object* object = findObject(oop);
  if (object == nullptr) return 0;
  const std::size_t end = object->size();
  const std::size_t first = offsetOf(oop, start, end);
  const long copied =
      object->impl == Impl::bytes
          ? copyElements(object->bytes, first, end, buffer, bufferSize)
          : copyElements(object->slots, first, end, buffer, bufferSize / sizeof(OopType));
  return static_cast<ArraySizeType>(copied);
}

}  // namespace

BoolType ZelFetchObjInfo(OopType oop, long start, ArraySizeType bufferSize, ZelObjInfoSType* info,
                         ByteType* buffer, ArraySizeType* count) {
  return guarded(BoolType{0}, [&] {
    requireSession();
    requirePointer(info, 1, "the information record");
    requirePointer(buffer, bufferSize, "the value buffer");
    requireValue(oop);
    describeObject(oop, *info);
    const ArraySizeType copied = bufferSize != 0 ? copyBody(oop, start, bufferSize, buffer) : 0;
    if (count != nullptr) *count = copied;
    return BoolType{1};
  });
}

long ZelFetchBytes(OopType oop, long start, ByteType* buffer, ArraySizeType count) {
  return guarded(0L, [&] {
    requireSession();
    requirePointer(buffer, count, "the byte buffer");
    const std::vector<ByteType>& bytes = bytesObject(oop).bytes;
    return copyElements(bytes, offsetOf(oop, start, bytes.size()), bytes.size(), buffer, count);
  });
}

long ZelFetchVaryingOops(OopType oop, long start, OopType* buffer, ArraySizeType count) {
  return guarded(0L, [&] {
    requireSession();
    requirePointer(buffer, count, "the oop buffer");
    const Object& object = oopsObject(oop);
    const auto named = static_cast<std::size_t>(object.namedSize);
    const std::size_t first = offsetOf(oop, start, object.indexedSize()) + named;
    return copyElements(object.slots, first, object.slots.size(), buffer, count);
  });
}

OopType ZelFetchNamedOop(OopType oop, long index) {
  return guarded(NoOop, [&] {
    requireSession();
    const Object& object = objectAt(oop);
    if (index < 1 || index > object.namedSize) {
      throw Failure(ErrBadOffset, "the object has no named slot " + std::to_string(index), {oop});
    }
    return object.slots[static_cast<std::size_t>(index) - 1];
  });
}

long ZelFetchNamedOops(OopType oop, long start, OopType* buffer, ArraySizeType count) {
  return guarded(0L, [&] {
    requireSession();
    requirePointer(buffer, count, "the oop buffer");
    const Object& object = objectAt(oop);
    const auto named = static_cast<std::size_t>(object.namedSize);
    return copyElements(object.slots, offsetOf(oop, start, named), named, buffer, count);
  });
}

void ZelStoreBytesInstanceOf(OopType classOop, OopType oop, long start, const ByteType* bytes,
                             ArraySizeType count) {
  guarded([&] {
    requireSession();
    requirePointer(bytes, count, "the byte buffer");
    Object& object = bytesObject(oop);
    if (classOop != NilOop && !(isClass(classOop) && isKindOf(oop, classOop))) {
      throw Failure(ErrBadArgumentKind, "the object is not of the class given", {oop, classOop});
    }
    const std::size_t first = offsetOf(oop, start, object.bytes.size());
    if (count == 0) return;
    if (object.fixedSize && count > object.bytes.size() - first) {
      throw Failure(ErrBadOffset, "the object's size is fixed", {oop});
    }
    prepareWrite(oop);
    if (count > largestObjectBytes || first + count > object.bytes.size()) {
      resizeBody(object, first + count);
    }
    std::memcpy(object.bytes.data() + first, bytes, count);
  });
}

void ZelStoreIdxOops(OopType oop, long start, const OopType* oops, ArraySizeType count) {
  guarded([&] {
    requireSession();
    requirePointer(oops, count, "the oop array");
    const Object& object = indexedOopsObject(oop);
    const std::size_t first = offsetOf(oop, start, object.indexedSize());
    storeOops(oop, first + static_cast<std::size_t>(object.namedSize), oops, count);
  });
}

void ZelStoreNamedOops(OopType oop, long start, const OopType* oops, ArraySizeType count) {
  guarded([&] {
    requireSession();
    requirePointer(oops, count, "the oop array");
    const Object& object = oopsObject(oop);
    const auto named = static_cast<std::size_t>(object.namedSize);
    const std::size_t first = offsetOf(oop, start, named);
    if (count > named - first) {
      throw Failure(ErrBadOffset, "the object has " + std::to_string(named) + " named slots",
                    {oop});
    }
    storeOops(oop, first, oops, count);
  });
}

void ZelStoreOop(OopType oop, long index, OopType value) {
  guarded([&] {
    requireSession();
    const Object& object = oopsObject(oop);
    const std::size_t first = offsetOf(oop, index, object.slots.size());
    const bool named = first < static_cast<std::size_t>(object.namedSize);
    if (!named) indexedOopsObject(oop);
    storeOops(oop, first, &value, 1);
  });
}

}  // namespace zel::slots
