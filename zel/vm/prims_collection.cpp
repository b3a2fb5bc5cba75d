// Collections: elements by index, growing, sets and dictionaries.
#include <algorithm>

#include "objmem/classes.h"
#include "objmem/clients.h"
#include "objmem/hashed.h"
#include "objmem/integers.h"
#include "objmem/text.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

bool holdsCharacters(const Memory& memory, const Object& object) {
  return object.holdsBytes() && (object.classOop == StringClassOop ||
                                 inheritsFrom(memory, object.classOop, StringKindClassOop));
}

OopType elementAt(const Object& object, std::size_t index) {
  if (!object.holdsBytes()) return object.indexed()[index];
  return smallIntOop(object.bytes[index]);
}

bool isAsciiCharacter(OopType value) {
  return isCharacter(value) && characterCode(value) < 0x80;
}

// What a byte object stores for a value.
ByteType byteFor(const Memory& memory, OopType value) {
  return static_cast<ByteType>(integerArgument(memory, value, 0, 255));
}

std::uint32_t codeFor(const Memory& memory, OopType value) {
  if (!isCharacter(value)) {
    throw Failure(ErrNotCharacter, "a character is expected, not " + describe(memory, value),
                  {value});
  }
  return characterCode(value);
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

// A string whose characters are its bytes.
bool isPlainString(const Object& object) {
  return object.width == Width::uniform && object.classOop == StringClassOop;
}

// Where the string's character begins.
std::size_t checkedOffset(Memory& memory, OopType receiver, OopType index) {
  const auto at = static_cast<std::uint32_t>(smallIntValue(index)) - 1;
  const std::size_t offset = isSmallInt(index) ? offsetOf(memory, receiver, at) : noOffset;
  if (offset >= textOf(memory, receiver).bytes.size()) {
    badIndex(memory, receiver, index, characterCount(memory, receiver));
  }
  return offset;
}

OopType size(Memory& memory, OopType receiver, const OopType*) {
  const Object& object = memory.at(receiver);
  const std::size_t count =
      holdsCharacters(memory, object) ? characterCount(memory, receiver) : object.indexedSize();
  return smallIntOop(static_cast<std::int32_t>(count));
}

OopType at(Memory& memory, OopType receiver, const OopType* args) {
  const Object& object = memory.at(receiver);
  if (isPlainString(object)) {
    return characterOop(object.bytes[checkedIndex(memory, receiver, args[0], object.size)]);
  }
  if (holdsCharacters(memory, object)) {
    const std::size_t offset = checkedOffset(memory, receiver, args[0]);
    return characterOop(decode(textOf(memory, receiver), offset).code);
  }
  return elementAt(object, checkedIndex(memory, receiver, args[0], object.indexedSize()));
}

OopType atPut(Memory& memory, OopType receiver, const OopType* args) {
  const Object& object = memory.at(receiver);
  if (isPlainString(object) && isAsciiCharacter(args[1])) {
    const std::size_t index = checkedIndex(memory, receiver, args[0], object.size);
    prepareWrite(memory, receiver);
    memory.at(receiver).bytes[index] = static_cast<ByteType>(characterCode(args[1]));
    return args[1];
  }
  if (holdsCharacters(memory, object)) {
    const std::size_t offset = checkedOffset(memory, receiver, args[0]);
    const std::uint32_t code = codeFor(memory, args[1]);
    prepareWrite(memory, receiver);
    replaceCharacter(memory, receiver, offset, code);
    return args[1];
  }
  const std::size_t index = checkedIndex(memory, receiver, args[0], object.indexedSize());
  if (!object.holdsBytes()) {
    prepareWrite(memory, receiver);
    return memory.at(receiver).indexed()[index] = args[1];
  }
  const ByteType byte = byteFor(memory, args[1]);
  prepareWrite(memory, receiver);
  memory.at(receiver).bytes[index] = byte;
  return args[1];
}

OopType add(Memory& memory, OopType receiver, const OopType* args) {
  const Object& object = memory.at(receiver);
  if (object.classOop == ArrayClassOop || !object.indexable) {
    throw Failure(ErrBadArgumentKind, describe(memory, receiver) + " does not grow", {receiver});
  }
  if (holdsCharacters(memory, object)) {
    const std::uint32_t code = codeFor(memory, args[0]);
    prepareWrite(memory, receiver);
    appendCharacter(memory, receiver, code);
    return args[0];
  }
  const bool bytes = object.holdsBytes();
  const ByteType byte = bytes ? byteFor(memory, args[0]) : ByteType{0};
  prepareWrite(memory, receiver);
  const std::size_t end = memory.at(receiver).size;
  Object& grown = memory.resize(receiver, end + 1);
  if (bytes) {
    grown.bytes[end] = byte;
  } else {
    grown.slots[end] = args[0];
  }
  return args[0];
}

// The size in slots or bytes at which the object has so many elements: what a string is given
// beyond its end are NULs.
std::size_t sizeForElements(Memory& memory, OopType oop, std::size_t count) {
  const Object& object = memory.at(oop);
  if (!holdsCharacters(memory, object)) return object.namedSize + count;
  const std::size_t characters = characterCount(memory, oop);
  if (count <= characters) return offsetOf(memory, oop, count);
  const Text text = textOf(memory, oop);
  return text.bytes.size() + (count - characters) * text.unit();
}

void requireIndexed(const Memory& memory, OopType oop) {
  if (memory.at(oop).indexable) return;
  throw Failure(ErrBadArgumentKind, describe(memory, oop) + " has no indexed part", {oop});
}

OopType setSize(Memory& memory, OopType receiver, const OopType* args) {
  const std::size_t count = countArgument(memory, args[0], memory.at(receiver).impl);
  requireIndexed(memory, receiver);
  const std::size_t size = sizeForElements(memory, receiver, count);
  memory.meter.chargeCopy(size);
  prepareWrite(memory, receiver);
  memory.resize(receiver, size);
  return receiver;
}

// Counts steps for the elements from the index on, unless they stay as they are.
void chargeMove(Memory& memory, OopType oop, std::size_t index) {
  if (index == 0) return;
  memory.meter.chargeCopy((memory.at(oop).indexedSize() - index) * sizeof(OopType));
}

OopType removeAtIndex(Memory& memory, OopType receiver, const OopType* args) {
  const std::size_t index =
      checkedIndex(memory, receiver, args[0], memory.at(receiver).indexedSize());
  chargeMove(memory, receiver, index);
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

OopType addBeforeIndex(Memory& memory, OopType receiver, const OopType* args) {
  const std::size_t count = memory.at(receiver).indexedSize();
  const std::size_t index = checkedIndex(memory, receiver, args[1], count + 1);
  if (index == 0) return addFirst(memory, receiver, args);
  chargeMove(memory, receiver, index);
  prepareWrite(memory, receiver);
  Object& object = memory.resize(receiver, memory.at(receiver).size + 1);
  OopType* place = object.indexed() + index;
  std::copy_backward(place, object.indexed() + count, object.indexed() + count + 1);
  return *place = args[0];
}

// Leaves it to the kernel where a method of the program has a say: for the elements' equality, or
// in a class of its own for what they are.
OopType indexOfElement(Memory& memory, OopType receiver, const OopType* args) {
  constexpr std::size_t comparisonsPerStep = 8;
  const Object& object = memory.at(receiver);
  const bool ownsSlots = object.classOop == ArrayClassOop ||
                         object.classOop == OrderedCollectionClass ||
                         object.classOop == SortedCollectionClass;
  if (!ownsSlots || (classTraits(memory, args[0]) & AsksEquality) != 0) return undecided;
  for (std::size_t i = 0; i < object.indexedSize(); ++i) {
    if (i % comparisonsPerStep == 0) memory.meter.charge(1);
    std::vector<OopType> toAsk;
    if (!compareOops(memory, args[0], object.indexed()[i], toAsk)) continue;
    return toAsk.empty() ? smallIntOop(static_cast<std::int32_t>(i) + 1) : undecided;
  }
  return smallIntOop(0);
}

OopType copyFromTo(Memory& memory, OopType receiver, const OopType* args) {
  const bool text = holdsCharacters(memory, memory.at(receiver));
  const auto count = static_cast<std::int64_t>(text ? characterCount(memory, receiver)
                                                    : memory.at(receiver).indexedSize());
  const std::int64_t first = integerArgument(memory, args[0], 1, count + 1);
  const std::int64_t last = integerArgument(memory, args[1], first - 1, count);
  auto from = static_cast<std::size_t>(first - 1);
  auto end = static_cast<std::size_t>(last);
  if (text) {
    from = offsetOf(memory, receiver, from);
    end = offsetOf(memory, receiver, end);
  }
  memory.meter.chargeCopy((end - from) * sizeof(OopType));
  const OopType classOop = isSymbol(memory, receiver) ? StringClassOop : classOf(memory, receiver);
  const OopType oop = newInstance(memory, classOop, end - from);
  Object& part = memory.at(oop);
  const Object& object = memory.at(receiver);
  if (object.holdsBytes()) {
    std::copy(object.bytes + from, object.bytes + end, part.bytes);
  } else {
    std::copy(object.indexed() + from, object.indexed() + end, part.indexed());
  }
  return oop;
}

// The elements; of a dictionary the values.
std::vector<OopType> elementsOf(Memory& memory, OopType collection) {
  noteElementsRead(memory, collection);
  const Object& object = memory.at(collection);
  std::vector<OopType> elements;
  if (holdsCharacters(memory, object)) {
    for (Reader reader(textOf(memory, collection), &memory.meter); !reader.atEnd();) {
      elements.push_back(characterOop(reader.next()));
    }
    return elements;
  }
  const std::size_t step = inheritsFrom(memory, object.classOop, DictionaryClass) ? 2 : 1;
  const std::size_t count = object.indexedSize();
  memory.meter.chargeRead(count);
  elements.reserve(count / step);
  for (std::size_t i = step - 1; i < count; i += step) elements.push_back(elementAt(object, i));
  return elements;
}

// Replaces all elements, or fails and leaves them as they are.
OopType setElements(Memory& memory, OopType receiver, const OopType* args) {
  requireIndexed(memory, receiver);
  const Object* given = memory.find(args[0]);
  if (given == nullptr || (given->impl == Impl::pointers && !given->indexable)) {
    wrongKind(memory, "an array", args[0]);
  }
  const std::vector<OopType> elements = elementsOf(memory, args[0]);
  if (!memory.at(receiver).holdsBytes()) {
    memory.meter.chargeCopy(elements.size() * sizeof(OopType));
    prepareWrite(memory, receiver);
    Object& object = memory.resize(receiver, memory.at(receiver).namedSize + elements.size());
    std::copy(elements.begin(), elements.end(), object.indexed());
    return receiver;
  }
  std::string bytes;
  const bool characters = holdsCharacters(memory, memory.at(receiver));
  const bool doubleByte = characters && textOf(memory, receiver).doubleByte;
  for (const OopType element : elements) {
    if (characters) {
      append(bytes, codeFor(memory, element), doubleByte);
    } else {
      bytes += static_cast<char>(byteFor(memory, element));
    }
  }
  if (characters && !doubleByte) bytes = withPairsJoined(std::move(bytes));
  memory.meter.chargeRead(bytes.size());
  prepareWrite(memory, receiver);
  Object& object = memory.resize(receiver, bytes.size());
  std::copy(bytes.begin(), bytes.end(), object.bytes);
  object.width = Width::unknown;
  return receiver;
}

// The same with the receiver's own elements in another order, where at:put: is not the program's.
OopType setSorted(Memory& memory, OopType receiver, const OopType* args) {
  const OopType method =
      lookupMethod(memory, classOf(memory, receiver), symbolOop(memory, "at:put:"), false);
  const bool stores = memory.at(method).extra->routine->primitive == atPut;
  return stores ? setElements(memory, receiver, args) : undecided;
}

// The receiver's elements and the other sequence's, in a collection of the receiver's class.
OopType joined(Memory& memory, OopType receiver, const OopType* args) {
  if (memory.find(args[0]) == nullptr) wrongKind(memory, "a collection", args[0]);
  const std::vector<OopType> added = elementsOf(memory, args[0]);
  const Object& left = memory.at(receiver);
  const std::size_t count = left.indexedSize();
  memory.meter.chargeCopy((count + added.size()) * sizeof(OopType));
  const OopType oop = newInstance(memory, left.classOop, count + added.size());
  Object& both = memory.at(oop);
  if (!left.holdsBytes()) {
    std::copy_n(left.indexed(), count, both.indexed());
    std::copy(added.begin(), added.end(), both.indexed() + count);
    return oop;
  }
  std::copy_n(left.bytes, count, both.bytes);
  for (std::size_t i = 0; i < added.size(); ++i) both.bytes[count + i] = byteFor(memory, added[i]);
  return oop;
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
    const KeyPlace place = findKey(memory, oop, element, setStride);
    if (place.kind == KeyPlace::undecided) return undecided;
    if (place.kind == KeyPlace::absent) {
      appendKey(memory, oop, setStride, element, NilOop, place.hash);
    }
  }
  return oop;
}

template <Stride stride>
OopType hashedSize(Memory& memory, OopType receiver, const OopType*) {
  noteElementsRead(memory, receiver);
  return smallIntOop(static_cast<std::int32_t>(memory.at(receiver).indexedSize() / stride));
}

// One of the keys and values: `part` says which of an entry.
template <Stride stride, std::size_t part>
OopType anyPart(Memory& memory, OopType receiver, const OopType*) {
  noteElementsRead(memory, receiver);
  const Object& object = memory.at(receiver);
  return object.indexedSize() < stride ? absent : object.indexed()[part];
}

// Finds a key for a program, whose transaction has looked for it then.
template <Stride stride>
[[gnu::always_inline]] inline KeyPlace search(Memory& memory, OopType receiver, OopType key) {
  const KeyPlace place = findKey(memory, receiver, key, stride);
  if (place.kind != KeyPlace::undecided) noteKeyRead(memory, receiver, place.hash);
  return place;
}
template <Stride stride>
KeyPlace searchIdentical(Memory& memory, OopType receiver, OopType key, std::uint32_t hash,
                         std::vector<OopType>& others) {
  const KeyPlace place = findIdentical(memory, receiver, stride, key, hash, others);
  noteKeyRead(memory, receiver, hash);
  return place;
}

// What a search came to when it did not find the key.
OopType without(const KeyPlace& place) {
  return place.kind == KeyPlace::absent ? absent : undecided;
}

template <Stride stride>
OopType includesKey(Memory& memory, OopType receiver, const OopType* args) {
  const KeyPlace place = search<stride>(memory, receiver, args[0]);
  if (place.kind == KeyPlace::undecided) return undecided;
  return booleanOop(place.kind == KeyPlace::found);
}

OopType valueAtKey(Memory& memory, OopType receiver, const OopType* args) {
  const KeyPlace place = search<dictionaryStride>(memory, receiver, args[0]);
  return place.kind == KeyPlace::found ? valueAt(memory, receiver, place) : without(place);
}

OopType storeAt(Memory& memory, OopType dictionary, const KeyPlace& place, OopType key,
                OopType value) {
  prepareKeyWrite(memory, dictionary, place.hash);
  if (place.kind == KeyPlace::found) {
    valueAt(memory, dictionary, place) = value;
  } else {
    appendKey(memory, dictionary, dictionaryStride, key, value, place.hash);
  }
  return value;
}

OopType storeAtKey(Memory& memory, OopType receiver, const OopType* args) {
  const KeyPlace place = search<dictionaryStride>(memory, receiver, args[0]);
  if (place.kind == KeyPlace::undecided) return undecided;
  return storeAt(memory, receiver, place, args[0], args[1]);
}

OopType addElement(Memory& memory, OopType receiver, const OopType* args) {
  const KeyPlace place = search<setStride>(memory, receiver, args[0]);
  if (place.kind == KeyPlace::undecided) return undecided;
  if (place.kind == KeyPlace::absent) {
    prepareKeyWrite(memory, receiver, place.hash);
    appendKey(memory, receiver, setStride, args[0], NilOop, place.hash);
  }
  return args[0];
}

// Answers the value, of a set the element.
template <Stride stride>
OopType removeAt(Memory& memory, OopType receiver, const KeyPlace& place) {
  const OopType removed = stride == dictionaryStride ? valueAt(memory, receiver, place)
                                                     : foundKey(memory, receiver, stride, place);
  prepareKeyWrite(memory, receiver, place.hash);
  removeKey(memory, receiver, stride, place);
  return removed;
}

template <Stride stride>
OopType removeAtKey(Memory& memory, OopType receiver, const OopType* args) {
  const KeyPlace place = search<stride>(memory, receiver, args[0]);
  return place.kind == KeyPlace::found ? removeAt<stride>(memory, receiver, place) : without(place);
}

// What the kernel's methods need to carry these messages out with the program's `=` and `hash`. A
// key that has been found is handed back itself, and its hash with it, since whatever was asked may
// have changed the collection.
std::uint32_t hashArgument(Memory& memory, OopType oop) {
  if (!isInteger(memory, oop)) {
    throw Failure(ErrBadArgumentKind,
                  "an integer is expected as the hash, not " + describe(memory, oop), {oop});
  }
  return givenHash(memory, oop);
}

template <Stride stride>
OopType keyOfUnknownHash(Memory& memory, OopType receiver, const OopType*) {
  return unknownKey(memory, receiver, stride);
}
template <Stride stride>
OopType noteKeyHash(Memory& memory, OopType receiver, const OopType* args) {
  noteHash(memory, receiver, stride, args[0], hashArgument(memory, args[1]));
  return receiver;
}

// The receiver's hash; nil while some keys have an unknown one. The argument are the hashes of a
// dictionary's values, or none.
template <Stride stride>
OopType entriesHash(Memory& memory, OopType receiver, const OopType* args) {
  noteElementsRead(memory, receiver);
  const std::span<const OopType> hashes = elementsArgument(memory, args[0]);
  if (!hashes.empty() && hashes.size() != memory.at(receiver).indexedSize() / stride) return NilOop;
  for (const OopType each : hashes) hashArgument(memory, each);
  return hashOfEntries(memory, receiver, stride, hashes);
}

// What programs' methods have to say when this collection is compared with another of its class and
// size: nil when the two differ whatever they say, else an array of two, of values to be compared,
// two by two, and of keys to be looked up, each with its hash, or nil, and its value.
template <Stride stride>
OopType leftToCompare(Memory& memory, OopType receiver, const OopType* args) {
  constexpr bool hasValues = stride == dictionaryStride;
  if (!isKindOf(memory, args[0], hasValues ? DictionaryClass : SetClass)) {
    wrongKind(memory, hasValues ? "a dictionary" : "a set", args[0]);
  }
  noteElementsRead(memory, receiver);
  noteElementsRead(memory, args[0]);
  std::vector<OopType> values;
  std::vector<OopType> keys;
  const std::size_t count = memory.at(receiver).indexedSize() / stride;
  for (std::size_t i = 0; i < count; ++i) {
    memory.meter.charge(1);
    const OopType* entry = memory.at(receiver).indexed() + i * stride;
    const OopType value = hasValues ? entry[1] : NilOop;
    const KeyPlace place = findKey(memory, args[0], entry[0], stride);
    if (place.kind == KeyPlace::absent) return NilOop;
    if (place.kind == KeyPlace::undecided) {
      keys.insert(keys.end(), {entry[0], hashOfKey(memory, receiver, stride, i), value});
    } else if (hasValues) {
      const OopType other = valueAt(memory, args[0], place);
      if ((classTraits(memory, value) & AsksEquality) == 0) {
        if (!compareOops(memory, value, other, values)) return NilOop;
      } else if (value != other) {
        values.insert(values.end(), {value, other});
      }
    }
  }
  const OopType toCompare = arrayOop(memory, values);
  return arrayOop(memory, {toCompare, arrayOop(memory, keys)});
}

// The keys that may equal this one; nil while some have an unknown hash.
template <Stride stride>
OopType candidates(Memory& memory, OopType receiver, const OopType* args) {
  std::vector<OopType> keys;
  const std::uint32_t hash = hashArgument(memory, args[1]);
  const KeyPlace place = searchIdentical<stride>(memory, receiver, args[0], hash, keys);
  if (place.kind == KeyPlace::undecided) return NilOop;
  if (place.kind == KeyPlace::found) return arrayOop(memory, {args[0]});
  return arrayOop(memory, keys);
}

// An array of the value, of a set of the element; nil when the key is gone.
template <Stride stride>
OopType entryOfKnown(Memory& memory, OopType receiver, const OopType* args) {
  std::vector<OopType> others;
  const std::uint32_t hash = hashArgument(memory, args[1]);
  const KeyPlace place = searchIdentical<stride>(memory, receiver, args[0], hash, others);
  if (place.kind != KeyPlace::found) return NilOop;
  return arrayOop(memory,
                  {stride == dictionaryStride ? valueAt(memory, receiver, place) : args[0]});
}

template <Stride stride>
OopType removeKnown(Memory& memory, OopType receiver, const OopType* args) {
  const OopType entry = entryOfKnown<stride>(memory, receiver, args);
  if (entry == NilOop) return NilOop;
  std::vector<OopType> others;
  const std::uint32_t hash = hashArgument(memory, args[1]);
  removeAt<stride>(memory, receiver,
                   searchIdentical<stride>(memory, receiver, args[0], hash, others));
  return entry;
}

// Stores under the key, if it is there, or adds it, if these candidates are still all there are.
// Answers whether it did. Arguments: key, hash, candidates, of a dictionary the value.
template <Stride stride>
OopType putKnown(Memory& memory, OopType receiver, const OopType* args) {
  std::vector<OopType> others;
  const std::uint32_t hash = hashArgument(memory, args[1]);
  const KeyPlace place = searchIdentical<stride>(memory, receiver, args[0], hash, others);
  if (place.kind == KeyPlace::undecided) return FalseOop;
  const std::span<const OopType> asked = elementsArgument(memory, args[2]);
  if (place.kind == KeyPlace::absent &&
      !std::equal(others.begin(), others.end(), asked.begin(), asked.end())) {
    return FalseOop;
  }
  if (stride == dictionaryStride) {
    storeAt(memory, receiver, place, args[0], args[3]);
  } else if (place.kind == KeyPlace::absent) {
    prepareKeyWrite(memory, receiver, hash);
    appendKey(memory, receiver, stride, args[0], NilOop, hash);
  }
  return TrueOop;
}

OopType dictionaryKeys(Memory& memory, OopType receiver, const OopType*) {
  noteElementsRead(memory, receiver);
  const Object& object = memory.at(receiver);
  std::vector<OopType> keys;
  memory.meter.chargeRead(object.indexedSize());
  keys.reserve(object.indexedSize() / 2);
  for (std::uint32_t i = 0; i + 1 < object.indexedSize(); i += 2) {
    keys.push_back(object.indexed()[i]);
  }
  return arrayOop(memory, keys);
}

constexpr char askingAsSet[] = "askingAsSet";
constexpr char askingAdd[] = "askingAdd:";
constexpr char askingIncludes[] = "askingIncludes:";
constexpr char askingRemove[] = "askingRemove:ifAbsent:";
constexpr char askingAt[] = "askingAt:";
constexpr char askingAtIfAbsent[] = "askingAt:ifAbsent:";
constexpr char askingAtPut[] = "askingAt:put:";
constexpr char setEach[] = "setEach:";
constexpr char keyIsMissing[] = "keyIsMissing:";
constexpr char absentDo[] = "absent:do:";
constexpr char isEmptyNow[] = "isEmptyNow";
constexpr char askingIndexOf[] = "askingIndexOf:";

constexpr Primitive collectionMessages[] = {
    {"asArray", asArray},
    {"values", asArray},
    {"asOrderedCollection", asOrderedCollection},
    {"asSet", directly<asSet, askingAsSet>},
};
constexpr Primitive sequenceMessages[] = {
    {"size", size},
    {"at:", at},
    {"at:put:", atPut},
    {"add:", add},
    {"size:", setSize},
    {"copyFrom:to:", copyFromTo},
    {"joined:", joined},
    {"indexOf:", directly<indexOfElement, askingIndexOf>},
    {"setElements:", setElements},
    {"setSorted:", directly<setSorted, setEach>},
};
constexpr Primitive orderedCollectionMessages[] = {
    {"removeAtIndex:", removeAtIndex},
    {"addFirst:", addFirst},
    {"add:beforeIndex:", addBeforeIndex},
};
// What the methods of hashed.zel ask of both.
template <Stride stride>
constexpr Primitive hashedMessages[] = {
    {"size", hashedSize<stride>},
    {"keyOfUnknownHash", keyOfUnknownHash<stride>},
    {"note:hash:", noteKeyHash<stride>},
    {"candidates:hash:", candidates<stride>},
    {"hashOfEntries:", entriesHash<stride>},
    {"leftToCompareWith:", leftToCompare<stride>},
    {"entryOf:hash:", entryOfKnown<stride>},
    {"removeEntryOf:hash:", removeKnown<stride>},
};
constexpr Primitive setMessages[] = {
    {"add:", directly<addElement, askingAdd>},
    {"includes:", directly<includesKey<setStride>, askingIncludes>},
    {"remove:ifAbsent:", directly<removeAtKey<setStride>, askingRemove, absentDo>},
    {"put:hash:candidates:", putKnown<setStride>},
    {"any", directly<anyPart<setStride, 0>, isEmptyNow>},
};
constexpr Primitive dictionaryMessages[] = {
    {"at:", directly<valueAtKey, askingAt, keyIsMissing>},
    {"at:ifAbsent:", directly<valueAtKey, askingAtIfAbsent, absentDo>},
    {"at:put:", directly<storeAtKey, askingAtPut>},
    {"includesKey:", directly<includesKey<dictionaryStride>, askingIncludes>},
    {"removeKey:ifAbsent:", directly<removeAtKey<dictionaryStride>, askingRemove, absentDo>},
    {"keys", dictionaryKeys},
    {"put:hash:candidates:value:", putKnown<dictionaryStride>},
    {"any", directly<anyPart<dictionaryStride, 1>, isEmptyNow>},
    {"anyKey", directly<anyPart<dictionaryStride, 0>, isEmptyNow>},
};
constexpr ClassPrimitives families[] = {
    {CollectionClass, collectionMessages},
    {SequenceClass, sequenceMessages},
    {OrderedCollectionClass, orderedCollectionMessages},
    {SetClass, hashedMessages<setStride>},
    {SetClass, setMessages},
    {DictionaryClass, hashedMessages<dictionaryStride>},
    {DictionaryClass, dictionaryMessages},
};

}  // namespace

constinit const PrimitiveTable collectionPrimitives = families;

}  // namespace zel
