// Collections: elements by index, growing, sets and dictionaries.
#include <algorithm>
#include <cstring>

#include "objmem/classes.h"
#include "objmem/clients.h"
#include "objmem/hashed.h"
#include "objmem/integers.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

bool isDoubleByte(const Memory& memory, const Object& object) {
  return object.holdsBytes() && object.classOop != StringClassOop &&
         inheritsFrom(memory, object.classOop, DoubleByteStringClassOop);
}
bool holdsCharacters(const Memory& memory, const Object& object) {
  return object.classOop == StringClassOop ||
         inheritsFrom(memory, object.classOop, StringKindClassOop);
}

// Elements as the program sees them: oops, bytes, characters of one or two bytes.
std::size_t elementCount(const Memory& memory, const Object& object) {
  return isDoubleByte(memory, object) ? object.size / 2 : object.indexedSize();
}

OopType elementAt(const Memory& memory, const Object& object, std::size_t index) {
  if (!object.holdsBytes()) return object.indexed()[index];
  if (isDoubleByte(memory, object)) {
    std::uint16_t unit = 0;
    std::memcpy(&unit, object.bytes + index * 2, 2);
    return characterOop(unit);
  }
  const ByteType byte = object.bytes[index];
  return holdsCharacters(memory, object) ? characterOop(byte) : smallIntOop(byte);
}

// What is stored for an element of a byte object: its value, or the character's code.
std::uint16_t unitFor(const Memory& memory, const Object& object, OopType value) {
  if (!holdsCharacters(memory, object)) {
    return static_cast<std::uint16_t>(integerArgument(memory, value, 0, 255));
  }
  const std::uint32_t most = isDoubleByte(memory, object) ? 0xFFFF : 0xFF;
  if (!isCharacter(value) || characterCode(value) > most) {
    throw Failure(ErrNotCharacter,
                  "a character up to " + std::to_string(most) + " is expected, not " +
                      describe(memory, value),
                  {value});
  }
  return static_cast<std::uint16_t>(characterCode(value));
}

void storeUnit(const Memory& memory, Object& object, std::size_t index, std::uint16_t unit) {
  if (isDoubleByte(memory, object)) {
    std::memcpy(object.bytes + index * 2, &unit, 2);
  } else {
    object.bytes[index] = static_cast<ByteType>(unit);
  }
}

Object& resizeElements(Memory& memory, OopType oop, std::size_t count) {
  const Object& object = memory.at(oop);
  const std::size_t unit = isDoubleByte(memory, object) ? 2 : 1;
  return memory.resize(oop, object.namedSize + count * unit);
}

[[noreturn]] void badIndex(const Memory& memory, OopType receiver, OopType index,
                           std::size_t size) {
  if (!isInteger(memory, index)) integerArgument(memory, index, 0, 0);
  throw Failure(
      ErrBadSubscript,
      "index " + describeInteger(memory, index) + " is not between 1 and " + std::to_string(size),
      {receiver, index});
}

std::size_t checkedIndex(const Memory& memory, OopType receiver, OopType index, std::size_t size) {
  const auto at = static_cast<std::uint32_t>(smallIntValue(index)) - 1;
  if (!isSmallInt(index) || at >= size) badIndex(memory, receiver, index, size);
  return at;
}

OopType size(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(elementCount(memory, memory.at(receiver))));
}

OopType at(Memory& memory, OopType receiver, const OopType* args) {
  const Object& object = memory.at(receiver);
  return elementAt(memory, object,
                   checkedIndex(memory, receiver, args[0], elementCount(memory, object)));
}

OopType atPut(Memory& memory, OopType receiver, const OopType* args) {
  const Object& object = memory.at(receiver);
  const std::size_t index = checkedIndex(memory, receiver, args[0], elementCount(memory, object));
  if (!object.holdsBytes()) {
    prepareWrite(memory, receiver);
    return memory.at(receiver).indexed()[index] = args[1];
  }
  const std::uint16_t unit = unitFor(memory, object, args[1]);
  prepareWrite(memory, receiver);
  storeUnit(memory, memory.at(receiver), index, unit);
  return args[1];
}

OopType add(Memory& memory, OopType receiver, const OopType* args) {
  const Object& object = memory.at(receiver);
  if (object.classOop == ArrayClassOop || !object.indexable) {
    throw Failure(ErrBadArgumentKind, describe(memory, receiver) + " does not grow", {receiver});
  }
  const std::size_t count = elementCount(memory, object);
  const bool bytes = object.holdsBytes();
  const std::uint16_t unit = bytes ? unitFor(memory, object, args[0]) : std::uint16_t{0};
  prepareWrite(memory, receiver);
  Object& grown = resizeElements(memory, receiver, count + 1);
  if (bytes) {
    storeUnit(memory, grown, count, unit);
  } else {
    grown.indexed()[count] = args[0];
  }
  return args[0];
}

OopType setSize(Memory& memory, OopType receiver, const OopType* args) {
  const auto count = static_cast<std::size_t>(
      integerArgument(memory, args[0], 0, std::int64_t{largestObjectBytes}));
  if (!memory.at(receiver).indexable) {
    throw Failure(ErrBadArgumentKind, describe(memory, receiver) + " has no indexed part",
                  {receiver});
  }
  prepareWrite(memory, receiver);
  resizeElements(memory, receiver, count);
  return receiver;
}

OopType removeAtIndex(Memory& memory, OopType receiver, const OopType* args) {
  const std::size_t index =
      checkedIndex(memory, receiver, args[0], memory.at(receiver).indexedSize());
  prepareWrite(memory, receiver);
  Object& object = memory.at(receiver);
  const OopType removed = object.indexed()[index];
  if (index == 0) {
    memory.removeFirst(receiver);
  } else {
    std::copy(object.indexed() + index + 1, object.slots + object.size, object.indexed() + index);
    --object.size;
  }
  return removed;
}

OopType addFirst(Memory& memory, OopType receiver, const OopType* args) {
  prepareWrite(memory, receiver);
  *memory.insertFirst(receiver).indexed() = args[0];
  return args[0];
}

OopType copyFromTo(Memory& memory, OopType receiver, const OopType* args) {
  const Object* object = &memory.at(receiver);
  const auto count = static_cast<std::int64_t>(elementCount(memory, *object));
  const std::int64_t first = integerArgument(memory, args[0], 1, count + 1);
  const std::int64_t last = integerArgument(memory, args[1], first - 1, count);
  const std::size_t unit = isDoubleByte(memory, *object) ? 2 : 1;
  const std::size_t length = static_cast<std::size_t>(last - first + 1) * unit;
  const std::size_t from = static_cast<std::size_t>(first - 1) * unit;
  const OopType classOop = isSymbol(memory, receiver) ? StringClassOop : object->classOop;
  const OopType oop = newInstance(memory, classOop, length);
  Object& part = memory.at(oop);
  object = &memory.at(receiver);
  if (object->holdsBytes()) {
    std::copy_n(object->bytes + from, length, part.bytes);
  } else {
    std::copy_n(object->indexed() + from, length, part.indexed());
  }
  return oop;
}

OopType concatenate(Memory& memory, OopType receiver, const OopType* args) {
  const Object& left = memory.at(receiver);
  const Object* right = memory.find(args[0]);
  if (right == nullptr || right->impl != left.impl || holdsCharacters(memory, *right)) {
    wrongKind(memory, "a collection of the same kind", args[0]);
  }
  const std::size_t count = left.indexedSize();
  const OopType oop = newInstance(memory, left.classOop, count + right->indexedSize());
  Object& both = memory.at(oop);
  if (left.holdsBytes()) {
    std::copy_n(left.bytes, count, both.bytes);
    std::copy_n(right->bytes, right->size, both.bytes + count);
  } else {
    std::copy_n(left.indexed(), count, both.indexed());
    std::copy_n(right->indexed(), right->indexedSize(), both.indexed() + count);
  }
  return oop;
}

// The elements; of a dictionary the values.
std::vector<OopType> elementsOf(const Memory& memory, OopType collection) {
  const Object& object = memory.at(collection);
  if (!object.holdsBytes() && !inheritsFrom(memory, object.classOop, DictionaryClass)) {
    return std::vector<OopType>(object.indexed(), object.indexed() + object.indexedSize());
  }
  const std::size_t step = object.holdsBytes() ? 1 : 2;
  const std::size_t count = elementCount(memory, object);
  std::vector<OopType> elements;
  elements.reserve(count / step);
  for (std::size_t i = step - 1; i < count; i += step) {
    elements.push_back(elementAt(memory, object, i));
  }
  return elements;
}

OopType asArray(Memory& memory, OopType receiver, const OopType*) {
  return arrayOop(memory, elementsOf(memory, receiver));
}
OopType asOrderedCollection(Memory& memory, OopType receiver, const OopType*) {
  const std::vector<OopType> elements = elementsOf(memory, receiver);
  const OopType oop = newInstance(memory, OrderedCollectionClass, elements.size());
  std::copy(elements.begin(), elements.end(), memory.at(oop).slots);
  return oop;
}
OopType asSet(Memory& memory, OopType receiver, const OopType*) {
  const OopType oop = newInstance(memory, SetClass);
  for (const OopType element : elementsOf(memory, receiver)) {
    memory.meter.charge(1);
    setAdd(memory, oop, element);
  }
  return oop;
}

// Of a set with stride 1, of a dictionary with stride 2.
template <std::size_t stride>
OopType hashedSize(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(memory.at(receiver).indexedSize() / stride));
}

OopType setAddMessage(Memory& memory, OopType receiver, const OopType* args) {
  if (!setIncludes(memory, receiver, args[0])) {
    prepareWrite(memory, receiver);
    setAdd(memory, receiver, args[0]);
  }
  return args[0];
}
OopType setIncludesMessage(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(setIncludes(memory, receiver, args[0]));
}
OopType setRemoveMessage(Memory& memory, OopType receiver, const OopType* args) {
  if (!setIncludes(memory, receiver, args[0])) return FalseOop;
  prepareWrite(memory, receiver);
  return booleanOop(setRemove(memory, receiver, args[0]));
}

OopType dictionaryValueAt(Memory& memory, OopType receiver, const OopType* args) {
  const OopType value = dictionaryAt(memory, receiver, args[0]);
  return value != 0 ? value : NilOop;
}
OopType dictionaryAtPut(Memory& memory, OopType receiver, const OopType* args) {
  prepareWrite(memory, receiver);
  dictionaryPut(memory, receiver, args[0], args[1]);
  return args[1];
}
OopType dictionaryIncludesKey(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(dictionaryAt(memory, receiver, args[0]) != 0);
}
OopType dictionaryRemoveKey(Memory& memory, OopType receiver, const OopType* args) {
  if (dictionaryAt(memory, receiver, args[0]) == 0) return FalseOop;
  prepareWrite(memory, receiver);
  return booleanOop(dictionaryRemove(memory, receiver, args[0]));
}
OopType dictionaryKeys(Memory& memory, OopType receiver, const OopType*) {
  const Object& object = memory.at(receiver);
  std::vector<OopType> keys;
  keys.reserve(object.indexedSize() / 2);
  for (std::uint32_t i = 0; i + 1 < object.indexedSize(); i += 2) {
    keys.push_back(object.indexed()[i]);
  }
  return arrayOop(memory, keys);
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
