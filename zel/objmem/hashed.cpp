#include "hashed.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <unordered_set>

#include "classes.h"
#include "errors/failure.h"
#include "integers.h"
#include "text.h"
#include "values.h"

namespace zel {

namespace {

constexpr int deepestHash = 4;
constexpr int mostHashed = 1024;  // elements of one value, at all depths
// Of one array, evenly spaced, and of one that is an element; and pieces of a string in one.
constexpr std::size_t hashedElements = 512;
constexpr std::size_t hashedInnerElements = 16;
constexpr std::size_t hashedInnerPieces = 1;
constexpr std::size_t plainComparisons = 1000;
constexpr std::uint32_t freeEntry = 0;
constexpr std::uint32_t removedEntry = 1;
constexpr std::uint32_t firstPosition = 2;

bool comparesByContent(const Memory& memory, const Object& object) {
  return object.classOop == ArrayClassOop || object.classOop == OrderedCollectionClass ||
         object.classOop == AssociationClass ||
         inheritsFrom(memory, object.classOop, DateTimeClassOop);
}

bool equalBytes(Memory& memory, OopType a, OopType b) {
  const Object& left = memory.at(a);
  const Object& right = memory.at(b);
  if (left.classOop == FloatClassOop || right.classOop == FloatClassOop) return false;
  if (isText(memory, a) && isText(memory, b)) {
    return compareTexts(memory, textOf(memory, a), textOf(memory, b)) == 0;
  }
  return left.classOop == right.classOop && left.text() == right.text();
}

// Compares pair by pair, what they contain after them, so that depth costs no C++ stack. Beyond a
// number of pairs it remembers them: structures may share parts along exponentially many paths, or
// contain themselves.
class Comparison {
 public:
  explicit Comparison(Memory& memory) : memory_(memory) {}

  bool equal(OopType a, OopType b) {
    if (!accept(a, b)) return false;
    while (!open_.empty()) {
      const auto [left, right] = open_.back();
      open_.pop_back();
      memory_.meter.charge(1);
      const Object& one = memory_.at(left);
      const Object& other = memory_.at(right);
      for (std::uint32_t i = 0; i < one.size; ++i) {
        if (!accept(one.slots[i], other.slots[i])) return false;
      }
    }
    return true;
  }

 private:
  // Whether the two may be equal; what they contain is still to be compared.
  bool accept(OopType a, OopType b) {
    if (a == b) return true;
    if (isSmallInt(a) && isSmallInt(b)) return false;
    if (isNumber(memory_, a) && isNumber(memory_, b)) return compareNumbers(memory_, a, b) == 0;
    const Object* left = memory_.find(a);
    const Object* right = memory_.find(b);
    if (left == nullptr || right == nullptr || left->impl != right->impl) return false;
    if (left->holdsBytes()) {
      memory_.meter.charge(left->size / 4096);
      return equalBytes(memory_, a, b);
    }
    if (left->classOop != right->classOop || left->size != right->size) return false;
    if (!comparesByContent(memory_, *left)) return false;
    if (++pairs_ > plainComparisons && !known_.insert(std::uint64_t{a} << 32 | b).second)
      return true;
    open_.emplace_back(a, b);
    return true;
  }

  Memory& memory_;
  std::size_t pairs_ = 0;
  std::vector<std::pair<OopType, OopType>> open_;
  std::unordered_set<std::uint64_t> known_;
};

std::uint32_t mix(std::uint64_t value) {
  value *= 0x9E3779B97F4A7C15ULL;
  return static_cast<std::uint32_t>(value >> 32);
}

std::uint32_t hashOf(const Memory& memory, OopType oop, int depth, int& budget) {
  if (isInteger(memory, oop)) return mix(foldInteger(memory, oop));
  const Object* object = memory.find(oop);
  if (object == nullptr) return mix(oop);
  if (object->classOop == FloatClassOop) {
    const double value = floatValue(memory, oop);
    return value == std::floor(value) && std::isfinite(value)
               ? mix(foldIntegral(value))
               : static_cast<std::uint32_t>(std::hash<double>{}(value));
  }
  if (object->holdsBytes()) {
    return hashText(textOf(memory, oop), depth == deepestHash ? SIZE_MAX : hashedInnerPieces);
  }
  if (!comparesByContent(memory, *object)) return mix(oop);
  std::uint32_t hash = mix(object->size);
  if (depth == 0) return hash;
  const std::size_t most = depth == deepestHash ? hashedElements : hashedInnerElements;
  const std::size_t step = object->size / most + 1;
  for (std::size_t i = 0; i < object->size && --budget > 0; i += step) {
    hash = hash * 31 + hashOf(memory, object->slots[i], depth - 1, budget);
  }
  return hash;
}

std::uint32_t hashFor(const Memory& memory, OopType key, bool identity) {
  return identity ? mix(key) : hashOop(memory, key);
}

// The same before anything is changed: counts steps.
std::uint32_t hashToFind(Memory& memory, OopType key, bool identity) {
  if (identity) return mix(key);
  int budget = mostHashed;
  const std::uint32_t hash = hashOf(memory, key, deepestHash, budget);
  memory.meter.charge(static_cast<std::size_t>(mostHashed - budget) / 8);
  return hash;
}

void insertPosition(HashIndex& index, std::uint32_t hash, std::size_t position) {
  const std::size_t mask = index.table.size() - 1;
  std::size_t at = hash & mask;
  while (index.table[at] >= firstPosition) at = (at + 1) & mask;
  if (index.table[at] == freeEntry) ++index.used;
  index.table[at] = static_cast<std::uint32_t>(position) + firstPosition;
}

void buildIndex(Memory& memory, OopType oop, std::size_t stride, bool identity) {
  const Object& object = memory.at(oop);
  const std::size_t count = object.indexedSize() / stride;
  std::size_t capacity = 16;
  while (capacity < count * 3) capacity *= 2;
  memory.reserve(capacity * sizeof(std::uint32_t));
  auto index = std::make_unique<HashIndex>();
  index->table.assign(capacity, freeEntry);
  for (std::size_t i = object.namedSize; i + stride <= object.size; i += stride) {
    memory.meter.charge(1);
    insertPosition(*index, hashToFind(memory, object.slots[i], identity), i);
  }
  memory.extraOf(oop).index = std::move(index);
  memory.recount(oop);
}

HashIndex& indexOf(Memory& memory, OopType oop, std::size_t stride, bool identity) {
  const Extra* extra = memory.at(oop).extra;
  if (extra == nullptr || !extra->index) buildIndex(memory, oop, stride, identity);
  return *memory.at(oop).extra->index;
}

// Entry of the table that holds the key's position, else notFound.
std::size_t findEntry(Memory& memory, OopType oop, const HashIndex& index, OopType key,
                      bool identity) {
  const Object& object = memory.at(oop);
  const std::size_t mask = index.table.size() - 1;
  for (std::size_t at = hashToFind(memory, key, identity) & mask; index.table[at] != freeEntry;
       at = (at + 1) & mask) {
    if (index.table[at] == removedEntry) continue;
    const OopType there = object.slots[index.table[at] - firstPosition];
    if (there == key || (!identity && equalOops(memory, there, key))) return at;
  }
  return notFound;
}

// Position (counted in slots from 0) of the element or key that equals `key`, else notFound.
// `stride` is 1 for sets, 2 for dictionaries; `identity` compares identities.
std::size_t findPosition(Memory& memory, OopType oop, OopType key, std::size_t stride,
                         bool identity) {
  const HashIndex& index = indexOf(memory, oop, stride, identity);
  const std::size_t entry = findEntry(memory, oop, index, key, identity);
  return entry == notFound ? notFound : index.table[entry] - firstPosition;
}

void append(Memory& memory, OopType oop, OopType key, std::size_t stride, bool identity) {
  const std::size_t position = memory.at(oop).size;
  memory.resize(oop, position + stride).slots[position] = key;
  HashIndex& index = *memory.at(oop).extra->index;
  if ((index.used + 1) * 2 > index.table.size()) {
    dropIndex(memory, oop);  // built anew, larger, when it is next needed
  } else {
    insertPosition(index, hashFor(memory, key, identity), position);
  }
}

// Removes the entry by moving the last one into its place.
void removeEntry(Memory& memory, OopType oop, std::size_t entry, std::size_t stride,
                 bool identity) {
  Object& object = memory.at(oop);
  HashIndex& index = *object.extra->index;
  const std::size_t position = index.table[entry] - firstPosition;
  const std::size_t last = object.size - stride;
  index.table[entry] = removedEntry;
  if (position != last) {
    // The moved element is found by identity of its position, not by equality.
    const std::size_t mask = index.table.size() - 1;
    std::size_t at = hashFor(memory, object.slots[last], identity) & mask;
    while (index.table[at] != freeEntry && index.table[at] != last + firstPosition) {
      at = (at + 1) & mask;
    }
    if (index.table[at] == freeEntry) {  // its hash changed since it was added
      dropIndex(memory, oop);
    } else {
      index.table[at] = static_cast<std::uint32_t>(position) + firstPosition;
    }
    for (std::size_t i = 0; i < stride; ++i) object.slots[position + i] = object.slots[last + i];
  }
  memory.resize(oop, last);
}

bool isIdentitySet(const Memory& memory, OopType oop) {
  return inheritsFrom(memory, memory.at(oop).classOop, IdentitySetClass);
}

bool removeKey(Memory& memory, OopType oop, OopType key, std::size_t stride, bool identity) {
  const HashIndex& index = indexOf(memory, oop, stride, identity);
  const std::size_t entry = findEntry(memory, oop, index, key, identity);
  if (entry == notFound) return false;
  removeEntry(memory, oop, entry, stride, identity);
  return true;
}

}  // namespace

bool equalOops(Memory& memory, OopType a, OopType b) {
  return a == b || Comparison(memory).equal(a, b);
}

std::uint32_t hashOop(const Memory& memory, OopType oop) {
  int budget = mostHashed;
  return hashOf(memory, oop, deepestHash, budget);
}

bool setIncludes(Memory& memory, OopType set, OopType element) {
  return findPosition(memory, set, element, 1, isIdentitySet(memory, set)) != notFound;
}

void setAdd(Memory& memory, OopType set, OopType element) {
  const bool identity = isIdentitySet(memory, set);
  if (findPosition(memory, set, element, 1, identity) != notFound) return;
  append(memory, set, element, 1, identity);
}

bool setRemove(Memory& memory, OopType set, OopType element) {
  return removeKey(memory, set, element, 1, isIdentitySet(memory, set));
}

OopType dictionaryAt(Memory& memory, OopType dictionary, OopType key) {
  const std::size_t position = findPosition(memory, dictionary, key, 2, false);
  return position == notFound ? 0 : memory.at(dictionary).slots[position + 1];
}

void dictionaryPut(Memory& memory, OopType dictionary, OopType key, OopType value) {
  std::size_t position = findPosition(memory, dictionary, key, 2, false);
  if (position == notFound) {
    position = memory.at(dictionary).size;
    append(memory, dictionary, key, 2, false);
  }
  memory.at(dictionary).slots[position + 1] = value;
}

bool dictionaryRemove(Memory& memory, OopType dictionary, OopType key) {
  return removeKey(memory, dictionary, key, 2, false);
}

void dropIndex(Memory& memory, OopType oop) {
  Extra* extra = memory.at(oop).extra;
  if (extra == nullptr || !extra->index) return;
  extra->index.reset();
  memory.recount(oop);
}

}  // namespace zel
