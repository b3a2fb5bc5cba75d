#include "hashed.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>

#include "classes.h"
#include "errors/failure.h"
#include "values.h"

namespace zel {

namespace {

constexpr int deepestComparison = 16;
constexpr int mostComparisons = 20'000'000;
constexpr int deepestHash = 2;
constexpr std::size_t hashedElements = 16;
constexpr std::uint32_t freeEntry = 0;
constexpr std::uint32_t removedEntry = 1;
constexpr std::uint32_t firstPosition = 2;

bool comparesByContent(const Object& object) {
  return object.classOop == ArrayClassOop || object.classOop == OrderedCollectionClass ||
         object.classOop == AssociationClass || inheritsFrom(object.classOop, DateTimeClassOop);
}

// `budget` counts comparisons: arrays that share arrays may have exponentially many paths.
bool equalTo(OopType a, OopType b, int depth, int& budget) {
  if (a == b) return true;
  if (--budget < 0) throw Failure(ErrTooDeep, "the objects are too large to compare", {a, b});
  if (isNumber(a) && isNumber(b)) {
    if (isInteger(a) && isInteger(b)) return integerValue(a) == integerValue(b);
    return numberValue(a) == numberValue(b);
  }
  const Object* left = findObject(a);
  const Object* right = findObject(b);
  if (left == nullptr || right == nullptr || left->impl != right->impl) return false;
  if (left->impl == Impl::bytes) {
    if (isFloat(a) || isFloat(b)) return false;
    const bool sameKind = left->classOop == right->classOop || (isString(a) && isString(b));
    return sameKind && left->bytes == right->bytes;
  }
  if (left->classOop != right->classOop || left->slots.size() != right->slots.size()) return false;
  if (!comparesByContent(*left) || depth == 0) return false;
  for (std::size_t i = 0; i < left->slots.size(); ++i) {
    if (!equalTo(left->slots[i], right->slots[i], depth - 1, budget)) return false;
  }
  return true;
}

std::uint32_t mix(std::uint64_t value) {
  value *= 0x9E3779B97F4A7C15ULL;
  return static_cast<std::uint32_t>(value >> 32);
}

std::uint32_t hashOf(OopType oop, int depth) {
  if (isInteger(oop)) return mix(static_cast<std::uint64_t>(integerValue(oop)));
  const Object* object = findObject(oop);
  if (object == nullptr) return mix(oop);
  if (isFloat(oop)) {
    const double value = floatValue(oop);
    const bool integral = value == std::floor(value) && std::fabs(value) < 9e18;
    return integral ? mix(static_cast<std::uint64_t>(static_cast<std::int64_t>(value)))
                    : static_cast<std::uint32_t>(std::hash<double>{}(value));
  }
  if (object->impl == Impl::bytes) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(bytesOf(oop)));
  }
  if (!comparesByContent(*object) || depth == 0) {
    return comparesByContent(*object) ? 7 : mix(oop);
  }
  std::uint32_t hash = mix(object->slots.size());
  const std::size_t sampled = std::min(object->slots.size(), hashedElements);
  for (std::size_t i = 0; i < sampled; ++i) hash = hash * 31 + hashOf(object->slots[i], depth - 1);
  return hash;
}

std::uint32_t hashFor(OopType key, bool identity) {
  return identity ? mix(key) : hashOf(key, deepestHash);
}

bool matches(OopType a, OopType b, bool identity) {
  return identity ? a == b : equalOops(a, b);
}

void insertPosition(HashIndex& index, std::uint32_t hash, std::size_t position) {
  const std::size_t mask = index.table.size() - 1;
  std::size_t at = hash & mask;
  while (index.table[at] >= firstPosition) at = (at + 1) & mask;
  if (index.table[at] == freeEntry) ++index.used;
  index.table[at] = static_cast<std::uint32_t>(position) + firstPosition;
}

void buildIndex(Object& object, std::size_t first, std::size_t stride, bool identity) {
  const std::size_t count = (object.slots.size() - first) / stride;
  std::size_t capacity = 16;
  while (capacity < count * 3) capacity *= 2;
  auto index = std::make_unique<HashIndex>();
  index->table.assign(capacity, freeEntry);
  for (std::size_t i = first; i + stride <= object.slots.size(); i += stride) {
    insertPosition(*index, hashFor(object.slots[i], identity), i);
  }
  object.more().index = std::move(index);
}

HashIndex& indexOf(Object& object, std::size_t stride, bool identity) {
  if (!object.extra || !object.extra->index) {
    buildIndex(object, static_cast<std::size_t>(object.namedSize), stride, identity);
  }
  return *object.extra->index;
}

// Entry of the table that holds the key's position, else notFound.
std::size_t findEntry(const Object& object, const HashIndex& index, OopType key, bool identity) {
  const std::size_t mask = index.table.size() - 1;
  for (std::size_t at = hashFor(key, identity) & mask; index.table[at] != freeEntry;
       at = (at + 1) & mask) {
    if (index.table[at] == removedEntry) continue;
    if (matches(object.slots[index.table[at] - firstPosition], key, identity)) return at;
  }
  return notFound;
}

void append(Object& object, OopType key, std::size_t stride, bool identity) {
  HashIndex& index = indexOf(object, stride, identity);
  const std::size_t position = object.slots.size();
  resizeBody(object, position + stride);
  object.slots[position] = key;
  if ((index.used + 1) * 2 > index.table.size()) {
    dropIndex(object);
    indexOf(object, stride, identity);
  } else {
    insertPosition(index, hashFor(key, identity), position);
  }
}

// Removes the entry by moving the last one into its place.
void removeEntry(Object& object, std::size_t entry, std::size_t stride, bool identity) {
  HashIndex& index = *object.extra->index;
  const std::size_t position = index.table[entry] - firstPosition;
  const std::size_t last = object.slots.size() - stride;
  index.table[entry] = removedEntry;
  if (position != last) {
    // The moved element is found by identity of its position, not by equality.
    const std::size_t mask = index.table.size() - 1;
    std::size_t at = hashFor(object.slots[last], identity) & mask;
    while (index.table[at] != freeEntry && index.table[at] != last + firstPosition) {
      at = (at + 1) & mask;
    }
    if (index.table[at] == freeEntry) {  // its hash changed since it was added
      dropIndex(object);
    } else {
      index.table[at] = static_cast<std::uint32_t>(position) + firstPosition;
    }
    for (std::size_t i = 0; i < stride; ++i) object.slots[position + i] = object.slots[last + i];
  }
  resizeBody(object, last);
}

bool isIdentitySet(const Object& object) {
  return inheritsFrom(object.classOop, IdentitySetClass);
}

}  // namespace

bool equalOops(OopType a, OopType b) {
  int budget = mostComparisons;
  return equalTo(a, b, deepestComparison, budget);
}

std::uint32_t hashOop(OopType oop) {
  return hashOf(oop, deepestHash);
}

std::size_t findPosition(OopType collection, OopType key, std::size_t stride, bool identity) {
  Object& object = *findObject(collection);
  HashIndex& index = indexOf(object, stride, identity);
  const std::size_t entry = findEntry(object, index, key, identity);
  return entry == notFound ? notFound : index.table[entry] - firstPosition;
}

bool setIncludes(OopType set, OopType element) {
  return findPosition(set, element, 1, isIdentitySet(*findObject(set))) != notFound;
}

void setAdd(OopType set, OopType element) {
  Object& object = *findObject(set);
  const bool identity = isIdentitySet(object);
  if (findPosition(set, element, 1, identity) == notFound) append(object, element, 1, identity);
}

bool setRemove(OopType set, OopType element) {
  Object& object = *findObject(set);
  const bool identity = isIdentitySet(object);
  const std::size_t entry = findEntry(object, indexOf(object, 1, identity), element, identity);
  if (entry == notFound) return false;
  removeEntry(object, entry, 1, identity);
  return true;
}

OopType dictionaryAt(OopType dictionary, OopType key) {
  const std::size_t position = findPosition(dictionary, key, 2, false);
  return position == notFound ? 0 : findObject(dictionary)->slots[position + 1];
}

void dictionaryPut(OopType dictionary, OopType key, OopType value) {
  Object& object = *findObject(dictionary);
  std::size_t position = findPosition(dictionary, key, 2, false);
  if (position == notFound) {
    position = object.slots.size();
    append(object, key, 2, false);
  }
  object.slots[position + 1] = value;
}

bool dictionaryRemove(OopType dictionary, OopType key) {
  Object& object = *findObject(dictionary);
  const std::size_t entry = findEntry(object, indexOf(object, 2, false), key, false);
  if (entry == notFound) return false;
  removeEntry(object, entry, 2, false);
  return true;
}

void dropIndex(Object& object) {
  if (object.extra) object.extra->index.reset();
}

}  // namespace zel
