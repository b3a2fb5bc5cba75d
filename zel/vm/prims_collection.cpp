// Collections: elements by index, growing, sets and dictionaries.
#include <algorithm>
#include <cstring>

#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"
#include "session/changes.h"

namespace zel {

namespace {

bool isDoubleByte(const Object& object) {
  return inheritsFrom(object.classOop, DoubleByteStringClassOop);
}
bool holdsCharacters(const Object& object) {
  return inheritsFrom(object.classOop, StringKindClassOop);
}

// Elements as the program sees them: oops, bytes, characters of one or two bytes.
std::size_t elementCount(const Object& object) {
  return isDoubleByte(object) ? object.bytes.size() / 2 : object.indexedSize();
}

OopType elementAt(const Object& object, std::size_t index) {
  if (object.impl != Impl::bytes) {
    return object.slots[static_cast<std::size_t>(object.namedSize) + index];
  }
  if (isDoubleByte(object)) {
    std::uint16_t unit = 0;
    std::memcpy(&unit, object.bytes.data() + index * 2, 2);
    return characterOop(unit);
  }
  const ByteType byte = object.bytes[index];
  return holdsCharacters(object) ? characterOop(byte) : smallIntOop(byte);
}

void storeElement(Object& object, std::size_t index, OopType value) {
  if (object.impl != Impl::bytes) {
    object.slots[static_cast<std::size_t>(object.namedSize) + index] = value;
    return;
  }
  if (!holdsCharacters(object)) {
    object.bytes[index] = static_cast<ByteType>(integerArgument(value, 0, 255));
    return;
  }
  const std::uint32_t most = isDoubleByte(object) ? 0xFFFF : 0xFF;
  if (!isCharacter(value) || characterCode(value) > most) {
    throw Failure(
        ErrNotCharacter,
        "a character up to " + std::to_string(most) + " is expected, not " + describe(value),
        {value});
  }
  const auto unit = static_cast<std::uint16_t>(characterCode(value));
  if (isDoubleByte(object)) {
    std::memcpy(object.bytes.data() + index * 2, &unit, 2);
  } else {
    object.bytes[index] = static_cast<ByteType>(unit);
  }
}

void resizeElements(Object& object, std::size_t count) {
  const std::size_t unit = isDoubleByte(object) ? 2 : 1;
  if (count > largestObjectBytes) count = largestObjectBytes;  // refused by resizeBody
  resizeBody(object, static_cast<std::size_t>(object.namedSize) + count * unit);
}

std::size_t checkedIndex(OopType receiver, OopType index, std::size_t size) {
  const std::int64_t value = isInteger(index) ? integerValue(index) : integerArgument(index, 0, 0);
  if (value < 1 || value > static_cast<std::int64_t>(size)) {
    throw Failure(
        ErrBadSubscript,
        "index " + std::to_string(value) + " is not between 1 and " + std::to_string(size),
        {receiver, index});
  }
  return static_cast<std::size_t>(value) - 1;
}

OopType size(Machine&, OopType receiver, const OopType*) {
  const Object& object = *findObject(receiver);
  return integerOop(static_cast<std::int64_t>(elementCount(object)));
}

OopType at(Machine&, OopType receiver, const OopType* args) {
  const Object& object = *findObject(receiver);
  return elementAt(object, checkedIndex(receiver, args[0], elementCount(object)));
}

OopType atPut(Machine&, OopType receiver, const OopType* args) {
  Object& object = *findObject(receiver);
  const std::size_t index = checkedIndex(receiver, args[0], elementCount(object));
  prepareWrite(receiver);
  storeElement(object, index, args[1]);
  return args[1];
}

OopType add(Machine&, OopType receiver, const OopType* args) {
  Object& object = *findObject(receiver);
  if (classOf(receiver) == ArrayClassOop || !object.indexable) {
    throw Failure(ErrBadArgumentKind, describe(receiver) + " does not grow", {receiver});
  }
  const std::size_t count = elementCount(object);
  prepareWrite(receiver);
  resizeElements(object, count + 1);
  try {
    storeElement(object, count, args[0]);
  } catch (const Failure&) {
    resizeElements(object, count);
    throw;
  }
  return args[0];
}

OopType setSize(Machine&, OopType receiver, const OopType* args) {
  Object& object = *findObject(receiver);
  const auto count =
      static_cast<std::size_t>(integerArgument(args[0], 0, std::int64_t{largestObjectBytes}));
  if (!object.indexable) {
    throw Failure(ErrBadArgumentKind, describe(receiver) + " has no indexed part", {receiver});
  }
  prepareWrite(receiver);
  resizeElements(object, count);
  return receiver;
}

OopType removeAtIndex(Machine&, OopType receiver, const OopType* args) {
  Object& object = *findObject(receiver);
  const std::size_t index = checkedIndex(receiver, args[0], object.indexedSize()) +
                            static_cast<std::size_t>(object.namedSize);
  prepareWrite(receiver);
  const OopType removed = object.slots[index];
  object.slots.erase(object.slots.begin() + static_cast<std::ptrdiff_t>(index));
  return removed;
}

OopType addFirst(Machine&, OopType receiver, const OopType* args) {
  Object& object = *findObject(receiver);
  prepareWrite(receiver);
  resizeBody(object, object.slots.size() + 1);
  const auto first = object.slots.begin() + object.namedSize;
  std::copy_backward(first, object.slots.end() - 1, object.slots.end());
  *first = args[0];
  return args[0];
}

OopType copyFromTo(Machine&, OopType receiver, const OopType* args) {
  const Object* object = findObject(receiver);
  const std::size_t count = elementCount(*object);
  const std::int64_t first = integerArgument(args[0], 1, static_cast<std::int64_t>(count) + 1);
  const std::int64_t last = integerArgument(args[1], first - 1, static_cast<std::int64_t>(count));
  const auto length = static_cast<std::size_t>(last - first + 1);
  const OopType classOop = isSymbol(receiver) ? StringClassOop : object->classOop;
  const std::size_t unit = isDoubleByte(*object) ? 2 : 1;
  const OopType oop = newInstance(classOop, length * unit);
  object = findObject(receiver);
  Object& part = *findObject(oop);
  const std::size_t from = static_cast<std::size_t>(first - 1) * unit;
  if (object->impl == Impl::bytes) {
    std::copy_n(object->bytes.data() + from, length * unit, part.bytes.data());
  } else {
    std::copy_n(object->slots.data() + object->namedSize + from, length,
                part.slots.data() + part.namedSize);
  }
  return oop;
}

OopType concatenate(Machine&, OopType receiver, const OopType* args) {
  const Object* left = findObject(receiver);
  const Object* right = findObject(args[0]);
  if (right == nullptr || right->impl != left->impl || holdsCharacters(*right)) {
    throw Failure(ErrBadArgumentKind, "two collections of the same kind are expected", {args[0]});
  }
  const std::size_t count = left->indexedSize();
  const OopType oop = newInstance(left->classOop, count + right->indexedSize());
  Object& both = *findObject(oop);
  if (left->impl == Impl::bytes) {
    std::copy(left->bytes.begin(), left->bytes.end(), both.bytes.begin());
    std::copy(right->bytes.begin(), right->bytes.end(),
              both.bytes.begin() + static_cast<std::ptrdiff_t>(count));
  } else {
    const auto start = both.slots.begin() + both.namedSize;
    std::copy(left->slots.begin() + left->namedSize, left->slots.end(), start);
    std::copy(right->slots.begin() + right->namedSize, right->slots.end(),
              start + static_cast<std::ptrdiff_t>(count));
  }
  return oop;
}

// The elements; of a dictionary the values.
std::vector<OopType> elementsOf(OopType collection) {
  const Object& object = *findObject(collection);
  const bool pairs = inheritsFrom(object.classOop, DictionaryClass);
  const std::size_t count = elementCount(object);
  std::vector<OopType> elements;
  elements.reserve(count);
  for (std::size_t i = pairs ? 1 : 0; i < count; i += pairs ? 2 : 1) {
    elements.push_back(elementAt(object, i));
  }
  return elements;
}

OopType asArray(Machine&, OopType receiver, const OopType*) {
  return arrayOop(elementsOf(receiver));
}
OopType asOrderedCollection(Machine&, OopType receiver, const OopType*) {
  const std::vector<OopType> elements = elementsOf(receiver);
  const OopType oop = newInstance(OrderedCollectionClass, elements.size());
  findObject(oop)->slots = elements;
  return oop;
}
OopType asSet(Machine&, OopType receiver, const OopType*) {
  const OopType oop = newInstance(SetClass);
  for (const OopType element : elementsOf(receiver)) setAdd(oop, element);
  return oop;
}

// Of a set with stride 1, of a dictionary with stride 2.
template <std::size_t stride>
OopType hashedSize(Machine&, OopType receiver, const OopType*) {
  return integerOop(static_cast<std::int64_t>(findObject(receiver)->indexedSize() / stride));
}

OopType setAddMessage(Machine&, OopType receiver, const OopType* args) {
  if (!setIncludes(receiver, args[0])) {
    prepareWrite(receiver);
    setAdd(receiver, args[0]);
  }
  return args[0];
}
OopType setIncludesMessage(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(setIncludes(receiver, args[0]));
}
OopType setRemoveMessage(Machine&, OopType receiver, const OopType* args) {
  if (!setIncludes(receiver, args[0])) return FalseOop;
  prepareWrite(receiver);
  return booleanOop(setRemove(receiver, args[0]));
}

OopType dictionaryValueAt(Machine&, OopType receiver, const OopType* args) {
  const OopType value = dictionaryAt(receiver, args[0]);
  return value != 0 ? value : NilOop;
}
OopType dictionaryAtPut(Machine&, OopType receiver, const OopType* args) {
  prepareWrite(receiver);
  dictionaryPut(receiver, args[0], args[1]);
  return args[1];
}
OopType dictionaryIncludesKey(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(dictionaryAt(receiver, args[0]) != 0);
}
OopType dictionaryRemoveKey(Machine&, OopType receiver, const OopType* args) {
  if (dictionaryAt(receiver, args[0]) == 0) return FalseOop;
  prepareWrite(receiver);
  return booleanOop(dictionaryRemove(receiver, args[0]));
}
OopType dictionaryKeys(Machine&, OopType receiver, const OopType*) {
  const Object& object = *findObject(receiver);
  std::vector<OopType> keys;
  for (std::size_t i = static_cast<std::size_t>(object.namedSize); i + 1 < object.slots.size();
       i += 2) {
    keys.push_back(object.slots[i]);
  }
  return arrayOop(keys);
}

constexpr Primitive collectionMessages[] = {
    {"asArray", asArray},
    {"values", asArray},
    {"asOrderedCollection", asOrderedCollection},
    {"asSet", asSet},
};
constexpr Primitive sequenceMessages[] = {
    {"size", size},     {"at:", at},        {"at:put:", atPut},
    {"add:", add},      {"size:", setSize}, {"copyFrom:to:", copyFromTo},
    {",", concatenate},
};
constexpr Primitive orderedCollectionMessages[] = {
    {"removeAtIndex:", removeAtIndex},
    {"addFirst:", addFirst},
};
constexpr Primitive setMessages[] = {
    {"size", hashedSize<1>},
    {"add:", setAddMessage},
    {"includes:", setIncludesMessage},
    {"removeIfPresent:", setRemoveMessage},
};
constexpr Primitive dictionaryMessages[] = {
    {"size", hashedSize<2>},
    {"valueAt:", dictionaryValueAt},
    {"at:put:", dictionaryAtPut},
    {"includesKey:", dictionaryIncludesKey},
    {"removeKeyIfPresent:", dictionaryRemoveKey},
    {"keys", dictionaryKeys},
};
constexpr ClassPrimitives families[] = {
    {CollectionClass, collectionMessages},
    {SequenceClass, sequenceMessages},
    {OrderedCollectionClass, orderedCollectionMessages},
    {SetClass, setMessages},
    {DictionaryClass, dictionaryMessages},
};

}  // namespace

constinit const PrimitiveTable collectionPrimitives = families;

}  // namespace zel
