#include "hashed.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <tuple>
#include <unordered_set>

#include "changes.h"
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
constexpr std::uint32_t firstNumber = 2;
constexpr std::uint32_t hashBits = 28;
constexpr std::uint32_t unknownHash = UINT32_MAX;

// The slots that are compared: of a collection its elements.
std::span<const OopType> contentOf(const Object& object) {
  return {object.indexable ? object.indexed() : object.slots,
          object.indexable ? object.indexedSize() : object.size};
}

bool equalBytes(Memory& memory, OopType a, OopType b) {
  const Object& left = memory.at(a);
  const Object& right = memory.at(b);
  if (left.classOop == FloatClassOop || right.classOop == FloatClassOop) return false;
  const bool sameForm =
      left.classOop == right.classOop || (isUsualText(left) && isUsualText(right));
  if (sameForm && left.text() == right.text()) return true;
  if (isText(memory, a) && isText(memory, b)) {
    return compareTexts(memory, textOf(memory, a), textOf(memory, b)) == 0;
  }
  return false;
}

// What can be said of two values without a look at what they contain.
enum class Likeness : std::uint8_t { different, equal, byContent };

Likeness likenessOf(Memory& memory, OopType a, OopType b) {
  const auto known = [](bool equal) { return equal ? Likeness::equal : Likeness::different; };
  if (a == b || (isSmallInt(a) && isSmallInt(b))) return known(a == b);
  if (isNumber(memory, a) && isNumber(memory, b)) return known(compareNumbers(memory, a, b) == 0);
  const Object* left = memory.find(a);
  const Object* right = memory.find(b);
  if (left == nullptr || right == nullptr || left->impl != right->impl) return Likeness::different;
  if (left->holdsBytes()) {
    memory.meter.chargeCopy(left->size);
    return known(equalBytes(memory, a, b));
  }
  const bool alike = left->classOop == right->classOop && left->size == right->size &&
                     (classTraits(memory, a) & ByContent) != 0;
  return alike ? Likeness::byContent : Likeness::different;
}

// Compares pair by pair, what they contain after them, so that depth costs no C++ stack. Beyond a
// number of pairs it remembers them: structures may share parts along exponentially many paths, or
// contain themselves.
class Comparison {
 public:
  Comparison(Memory& memory, std::vector<OopType>& toAsk) : memory_(memory), toAsk_(toAsk) {}

  // Whether two that are alike by content are equal if those put into `toAsk`, two by two, are.
  bool equal(OopType a, OopType b) {
    for (;;) {
      const std::span<const OopType> content = contentOf(memory_.at(a));
      memory_.meter.charge(1 + content.size() / 16);
      const std::span<const OopType> other = contentOf(memory_.at(b));
      for (std::size_t i = 0; i < content.size(); ++i) {
        if (!accept(content[i], other[i])) return false;
      }
      if (open_.empty()) return true;
      std::tie(a, b) = open_.back();
      open_.pop_back();
    }
  }

 private:
  // Whether the two may be equal; what they contain is still to be compared.
  bool accept(OopType a, OopType b) {
    if (a == b) return true;
    if ((classTraits(memory_, a) & AsksEquality) != 0) {
      if (!isKnown(a, b)) toAsk_.insert(toAsk_.end(), {a, b});
      return true;
    }
    const Likeness likeness = likenessOf(memory_, a, b);
    if (likeness == Likeness::byContent && !isKnown(a, b)) open_.emplace_back(a, b);
    return likeness != Likeness::different;
  }

  bool isKnown(OopType a, OopType b) {
    return ++pairs_ > plainComparisons && !known_.insert(std::uint64_t{a} << 32 | b).second;
  }

  Memory& memory_;
  std::vector<OopType>& toAsk_;
  std::size_t pairs_ = 0;
  std::vector<std::pair<OopType, OopType>> open_;
  std::unordered_set<std::uint64_t> known_;
};

std::uint32_t mix(std::uint64_t value) {
  value *= 0x9E3779B97F4A7C15ULL;
  return static_cast<std::uint32_t>(value >> 32) >> (32 - hashBits);
}

// As that of other integers, which foldInteger folds.
std::uint32_t hashOfSmallInt(OopType oop) {
  return mix(static_cast<std::uint64_t>(std::int64_t{smallIntValue(oop)}));
}

// As far from linear as a sum of them needs, in which else 1 and 4 are what 2 and 3 are.
std::uint32_t scatter(std::uint64_t value) {
  for (int round = 0; round < 2; ++round) {
    value ^= value >> 32;
    value *= 0xD6E8FEB86659FD93ULL;
  }
  return static_cast<std::uint32_t>(value >> 32);
}

// Computes the hash of a value, up to a depth and a number of elements. Elements whose classes have
// a hash of their own are given it from `answers`, in the order in which they are met; those beyond
// are noted.
class Hashing {
 public:
  Hashing(Memory& memory, std::vector<OopType>& toAsk, std::span<const OopType> answers = {})
      : memory_(memory), toAsk_(toAsk), answers_(answers) {}

  std::uint32_t of(OopType oop) { return of(oop, deepestHash); }
  std::size_t steps() const { return static_cast<std::size_t>(mostHashed - budget_) / 8; }

 private:
  std::uint32_t of(OopType oop, int depth) {
    if (isSmallInt(oop)) return hashOfSmallInt(oop);
    const Object* object = memory_.find(oop);
    return object == nullptr ? mix(oop) : ofObject(*object, oop, depth);
  }

  std::uint32_t ofObject(const Object& object, OopType oop, int depth) {
    if (object.classOop == LargeIntegerClass) return mix(foldInteger(memory_, oop));
    if (object.classOop == FloatClassOop) {
      const double value = floatValue(memory_, oop);
      return mix(value == std::floor(value) && std::isfinite(value)
                     ? foldIntegral(value)
                     : std::bit_cast<std::uint64_t>(value));
    }
    if (depth != deepestHash && (classTraits(memory_, oop) & AsksEquality) != 0) {
      return answerFor(oop);
    }
    if (object.holdsBytes()) {
      return mix(hashText(memory_.meter, textOf(memory_, oop),
                          depth == deepestHash ? SIZE_MAX : hashedInnerPieces));
    }
    if ((classTraits(memory_, oop) & ByContent) == 0) return memory_.identityHashOf(oop);
    const std::span<const OopType> content = contentOf(object);
    std::uint32_t hash = mix(content.size());
    if (depth == 0) return hash;
    const std::size_t most = depth == deepestHash ? hashedElements : hashedInnerElements;
    const std::size_t step = content.size() / most + 1;
    for (std::size_t i = 0; i < content.size() && --budget_ > 0; i += step) {
      hash = hash * 31 + of(content[i], depth - 1);
    }
    return mix(hash);
  }

  std::uint32_t answerFor(OopType oop) {
    if (answers_.empty()) {
      toAsk_.push_back(oop);
      return 0;
    }
    const OopType answer = answers_.front();
    answers_ = answers_.subspan(1);
    return givenHash(memory_, answer);
  }

  Memory& memory_;
  std::vector<OopType>& toAsk_;
  std::span<const OopType> answers_;
  int budget_ = mostHashed;
};

std::size_t placeIn(const HashIndex& index, std::uint32_t hash) {
  return (hash * 0x9E3779B1U) >> index.shift;
}

OopType keyAt(const Object& object, Stride stride, std::size_t number) {
  return object.indexed()[number * stride];
}

bool findsByIdentity(const Memory& memory, OopType oop) {
  const OopType classOop = memory.at(oop).classOop;
  if (classOop == DictionaryClass || classOop == SetClass) return false;
  return inheritsFrom(memory, classOop, IdentitySetClass) ||
         inheritsFrom(memory, classOop, IdentityDictionaryClass);
}

// unknownHash where a method of the program has a say in it.
std::uint32_t hashToFind(Memory& memory, OopType key, bool identity) {
  if (identity) return isImmediate(key) ? mix(key) : memory.identityHashOf(key);
  if (isSmallInt(key)) return hashOfSmallInt(key);
  if ((classTraits(memory, key) & AsksEquality) != 0) return unknownHash;
  std::vector<OopType> toAsk;
  Hashing hashing(memory, toAsk);
  const std::uint32_t hash = hashing.of(key);
  memory.meter.charge(hashing.steps());
  return toAsk.empty() ? hash : unknownHash;
}

void insertNumber(HashIndex& index, std::uint32_t hash, std::size_t number) {
  const std::size_t mask = index.table.size() - 1;
  std::size_t at = placeIn(index, hash);
  while (index.table[at] >= firstNumber) at = (at + 1) & mask;
  if (index.table[at] == freeEntry) ++index.used;
  index.table[at] = static_cast<std::uint32_t>(number) + firstNumber;
}

// Gives the index a table for the elements that it has and half as many more.
void makeTable(Memory& memory, HashIndex& index) {
  std::uint32_t bits = 4;
  while (std::size_t{1} << bits < index.hashes.size() * 3) ++bits;
  memory.reserve(sizeof(std::uint32_t) << bits);
  index.table = std::vector<std::uint32_t>(std::size_t{1} << bits, freeEntry);
  index.shift = 32 - bits;
  index.used = 0;
  for (std::size_t i = 0; i < index.hashes.size(); ++i) {
    if (index.hashes[i] != unknownHash) insertNumber(index, index.hashes[i], i);
  }
}

[[gnu::noinline]] HashIndex& buildIndex(Memory& memory, OopType oop, Stride stride) {
  const Object& object = memory.at(oop);
  const std::size_t count = object.indexedSize() / stride;
  memory.reserve(sizeof(HashIndex) + count * sizeof(std::uint32_t));
  auto index = std::make_unique<HashIndex>();
  index->identity = findsByIdentity(memory, oop);
  index->epoch = memory.equalityEpoch;
  index->hashes.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    memory.meter.charge(1);
    index->hashes.push_back(hashToFind(memory, keyAt(object, stride, i), index->identity));
    if (index->hashes.back() == unknownHash) ++index->unknown;
  }
  makeTable(memory, *index);
  Extra& extra = memory.extraOf(oop);
  const bool same = extra.index && !extra.index->rehashed && extra.index->hashes == index->hashes;
  index->rehashed = object.stored && !same;
  extra.index = std::move(index);
  memory.recount(oop);
  return *extra.index;
}

inline HashIndex& indexOf(Memory& memory, OopType oop, Stride stride) {
  const Extra* extra = memory.at(oop).extra;
  if (extra != nullptr && extra->index && extra->index->epoch == memory.equalityEpoch) {
    return *extra->index;
  }
  return buildIndex(memory, oop, stride);
}

// The same for what asks programs' methods for hashes.
HashIndex& indexToAsk(Memory& memory, OopType oop, Stride stride) {
  HashIndex& index = indexOf(memory, oop, stride);
  return index.outdated ? buildIndex(memory, oop, stride) : index;
}

// Makes sure that one more element finds room.
void makeRoom(Memory& memory, OopType oop, HashIndex& index) {
  if (index.hashes.size() == index.hashes.capacity()) {
    const std::size_t capacity = index.hashes.size() * 2 + 8;
    memory.reserve(capacity * sizeof(std::uint32_t));
    index.hashes.reserve(capacity);
    memory.recount(oop);
  }
  if ((index.used + 1) * 2 > index.table.size()) {
    makeTable(memory, index);
    memory.recount(oop);
  }
}

// The value of a symbol, found without an index; 0 when it is absent.
OopType searchedAt(Memory& memory, OopType dictionary, OopType symbol) {
  const Object& object = memory.at(dictionary);
  const OopType* slots = object.indexed();
  for (std::size_t i = 0; i + 1 < object.indexedSize(); i += dictionaryStride) {
    const bool isString = classOf(memory, slots[i]) != SymbolClass;
    if (slots[i] == symbol || (isString && equalOops(memory, symbol, slots[i]))) {
      return slots[i + 1];
    }
  }
  return 0;
}

// Of a key that is looked for and one of the same hash.
KeyPlace::Kind compareKeys(Memory& memory, OopType key, OopType there) {
  std::vector<OopType> toAsk;
  if (!compareOops(memory, key, there, toAsk)) return KeyPlace::absent;
  return toAsk.empty() ? KeyPlace::found : KeyPlace::undecided;
}

}  // namespace

bool equalOops(Memory& memory, OopType a, OopType b) {
  std::vector<OopType> toAsk;
  return compareOops(memory, a, b, toAsk) && toAsk.empty();
}

bool compareOops(Memory& memory, OopType a, OopType b, std::vector<OopType>& toAsk) {
  const Likeness likeness = likenessOf(memory, a, b);
  if (likeness != Likeness::byContent) return likeness == Likeness::equal;
  return Comparison(memory, toAsk).equal(a, b);
}

std::uint32_t hashOop(Memory& memory, OopType oop, std::span<const OopType> answers,
                      std::vector<OopType>& toAsk) {
  return Hashing(memory, toAsk, answers).of(oop);
}

std::uint32_t givenHash(Memory& memory, OopType answer) {
  const bool asItIs =
      isSmallInt(answer) && smallIntValue(answer) >= 0 && smallIntValue(answer) < 1 << hashBits;
  if (asItIs) return static_cast<std::uint32_t>(smallIntValue(answer));
  std::vector<OopType> toAsk;
  return Hashing(memory, toAsk).of(answer);
}

KeyPlace findKey(Memory& memory, OopType oop, OopType key, Stride stride) {
  const HashIndex& index = indexOf(memory, oop, stride);
  const Object& object = *memory.atHand(oop);
  const std::uint32_t hash = hashToFind(memory, key, index.identity);
  if (hash == unknownHash) return {KeyPlace::undecided, 0, 0};
  const std::size_t mask = index.table.size() - 1;
  for (std::size_t at = placeIn(index, hash); index.table[at] != freeEntry; at = (at + 1) & mask) {
    if (index.table[at] == removedEntry) continue;
    const std::size_t number = index.table[at] - firstNumber;
    const OopType there = keyAt(object, stride, number);
    if (there == key) return {KeyPlace::found, hash, at};
    if (index.identity || index.hashes[number] != hash) continue;
    const KeyPlace::Kind kind = compareKeys(memory, key, there);
    if (kind != KeyPlace::absent) return {kind, hash, at};
  }
  return {KeyPlace::absent, hash, 0};
}

OopType unknownKey(Memory& memory, OopType oop, Stride stride) {
  HashIndex& index = indexToAsk(memory, oop, stride);
  if (index.unknown == 0) return NilOop;
  while (index.hashes[index.allKnownBelow] != unknownHash) ++index.allKnownBelow;
  return keyAt(memory.at(oop), stride, index.allKnownBelow);
}

void noteHash(Memory& memory, OopType oop, Stride stride, OopType key, std::uint32_t hash) {
  if (unknownKey(memory, oop, stride) != key) return;
  HashIndex& index = indexOf(memory, oop, stride);
  if (index.unknown == 0) return;
  makeRoom(memory, oop, index);
  index.hashes[index.allKnownBelow] = hash;
  index.rehashed |= memory.at(oop).stored;
  --index.unknown;
  insertNumber(index, hash, index.allKnownBelow);
}

OopType hashOfKey(Memory& memory, OopType oop, Stride stride, std::size_t number) {
  const std::uint32_t hash = indexToAsk(memory, oop, stride).hashes[number];
  return hash == unknownHash ? NilOop : smallIntOop(static_cast<std::int32_t>(hash));
}

OopType hashOfEntries(Memory& memory, OopType oop, Stride stride,
                      std::span<const OopType> valueHashes) {
  const HashIndex& index = indexToAsk(memory, oop, stride);
  if (index.unknown != 0) return NilOop;
  const Object& object = memory.at(oop);
  const std::size_t count = index.hashes.size();
  std::uint32_t sum = mix(count);
  for (std::size_t i = 0; i < count; ++i) {
    memory.meter.charge(1);
    std::uint64_t entry = index.hashes[i];
    if (stride == dictionaryStride) {
      const std::uint32_t ofValue =
          valueHashes.empty() ? hashToFind(memory, object.indexed()[i * stride + 1], false)
                              : givenHash(memory, valueHashes[i]);
      entry = entry << hashBits | (ofValue == unknownHash ? 0 : ofValue);
    }
    sum += scatter(entry + 1);
  }
  return smallIntOop(static_cast<std::int32_t>(sum % (1U << hashBits)));
}

KeyPlace findIdentical(Memory& memory, OopType oop, Stride stride, OopType key, std::uint32_t hash,
                       std::vector<OopType>& others) {
  const HashIndex& index = indexToAsk(memory, oop, stride);
  const Object& object = memory.at(oop);
  const std::size_t mask = index.table.size() - 1;
  for (std::size_t at = placeIn(index, hash); index.table[at] != freeEntry; at = (at + 1) & mask) {
    if (index.table[at] == removedEntry) continue;
    const std::size_t number = index.table[at] - firstNumber;
    if (index.hashes[number] != hash) continue;
    const OopType there = keyAt(object, stride, number);
    if (there == key) return {KeyPlace::found, hash, at};
    others.push_back(there);
    memory.meter.charge(1);
  }
  return {index.unknown == 0 ? KeyPlace::absent : KeyPlace::undecided, hash, 0};
}

OopType& valueAt(Memory& memory, OopType dictionary, const KeyPlace& place) {
  Object& object = *memory.atHand(dictionary);
  const std::size_t number = object.extra->index->table[place.entry] - firstNumber;
  return object.indexed()[number * dictionaryStride + 1];
}

OopType foundKey(const Memory& memory, OopType oop, Stride stride, const KeyPlace& place) {
  const Object& object = *memory.atHand(oop);
  return keyAt(object, stride, object.extra->index->table[place.entry] - firstNumber);
}

void appendKey(Memory& memory, OopType oop, Stride stride, OopType key, OopType value,
               std::uint32_t hash) {
  HashIndex& index = indexOf(memory, oop, stride);
  makeRoom(memory, oop, index);
  const std::size_t number = index.hashes.size();
  Object& object = memory.resize(oop, memory.at(oop).namedSize + (number + 1) * stride);
  object.indexed()[number * stride] = key;
  if (stride == dictionaryStride) object.indexed()[number * stride + 1] = value;
  index.hashes.push_back(hash);
  if (hash != unknownHash) {
    insertNumber(index, hash, number);
  } else if (index.unknown++ == 0) {
    index.allKnownBelow = static_cast<std::uint32_t>(number);
  }
}

// The last one moves into the place that becomes free.
void removeKey(Memory& memory, OopType oop, Stride stride, const KeyPlace& place) {
  Object& object = memory.at(oop);
  HashIndex& index = *object.extra->index;
  const std::size_t number = index.table[place.entry] - firstNumber;
  const std::size_t last = index.hashes.size() - 1;
  index.table[place.entry] = removedEntry;
  if (number != last) {
    const std::uint32_t hash = index.hashes[last];
    if (hash == unknownHash) {
      index.allKnownBelow = std::min(index.allKnownBelow, static_cast<std::uint32_t>(number));
    } else {
      std::size_t at = placeIn(index, hash);
      while (index.table[at] != last + firstNumber) at = (at + 1) & (index.table.size() - 1);
      index.table[at] = static_cast<std::uint32_t>(number) + firstNumber;
    }
    index.hashes[number] = hash;
    std::copy_n(object.indexed() + last * stride, stride, object.indexed() + number * stride);
  }
  index.hashes.pop_back();
  memory.resize(oop, object.namedSize + last * stride);
}

std::uint32_t hashOfSymbol(Memory& memory, OopType symbol) {
  return hashToFind(memory, symbol, false);
}

OopType dictionaryAt(Memory& memory, OopType dictionary, OopType key) {
  try {
    const KeyPlace place = findKey(memory, dictionary, key, dictionaryStride);
    return place.kind == KeyPlace::found ? valueAt(memory, dictionary, place) : 0;
  } catch (const std::bad_alloc&) {
    return searchedAt(memory, dictionary, key);
  }
}

void dictionaryPut(Memory& memory, OopType dictionary, OopType key, OopType value) {
  const KeyPlace place = findKey(memory, dictionary, key, dictionaryStride);
  if (place.kind == KeyPlace::found) {
    valueAt(memory, dictionary, place) = value;
  } else {
    appendKey(memory, dictionary, dictionaryStride, key, value, place.hash);
  }
}

bool isHashed(const Memory& memory, OopType oop) {
  const Object* object = memory.look(oop);
  return object != nullptr && !object->holdsBytes() &&
         (object->impl == Impl::set || inheritsFrom(memory, object->classOop, DictionaryClass));
}

Stride strideOf(const Memory& memory, OopType oop) {
  return memory.look(oop)->impl == Impl::set ? setStride : dictionaryStride;
}

std::vector<std::uint32_t> hashesOf(Memory& memory, OopType oop, Stride stride) {
  std::vector<std::uint32_t> hashes = indexOf(memory, oop, stride).hashes;
  std::ranges::replace(hashes, unknownHash, unknownHashes);
  std::sort(hashes.begin(), hashes.end());
  hashes.erase(std::unique(hashes.begin(), hashes.end()), hashes.end());
  return hashes;
}

std::vector<OopType> elementsOfHash(Memory& memory, OopType oop, Stride stride,
                                    std::uint32_t hash) {
  const HashIndex& index = indexOf(memory, oop, stride);
  const Object& object = memory.at(oop);
  std::vector<OopType> slots;
  const auto add = [&](std::size_t number) {
    const OopType* entry = object.indexed() + number * stride;
    slots.insert(slots.end(), entry, entry + stride);
  };
  if (hash == unknownHashes) {
    for (std::size_t number = 0; number < index.hashes.size(); ++number) {
      if (index.hashes[number] == unknownHash) add(number);
    }
    return slots;
  }
  const std::size_t mask = index.table.size() - 1;
  for (std::size_t at = placeIn(index, hash); index.table[at] != freeEntry; at = (at + 1) & mask) {
    if (index.table[at] == removedEntry) continue;
    const std::size_t number = index.table[at] - firstNumber;
    if (index.hashes[number] == hash) add(number);
  }
  return slots;
}

void replaceElements(Memory& memory, OopType oop, Stride stride, std::uint32_t hash,
                     std::span<const OopType> slots) {
  const std::vector<OopType> old = elementsOfHash(memory, oop, stride, hash);
  for (std::size_t i = 0; i < old.size(); i += stride) {
    std::vector<OopType> others;
    const KeyPlace place = findIdentical(memory, oop, stride, old[i], hash, others);
    if (place.kind == KeyPlace::found) removeKey(memory, oop, stride, place);
  }
  appendLoaded(memory, oop, stride, hash, slots);
}

bool asksHash(Memory& memory, OopType oop, OopType key) {
  const HashIndex& index = *memory.at(oop).extra->index;
  return !index.identity && hashToFind(memory, key, false) == unknownHash;
}

void becomeRehashed(const Memory& memory, OopType oop) {
  memory.at(oop).extra->index->rehashed = true;
}

void becomeOutdated(const Memory& memory, OopType oop) {
  memory.at(oop).extra->index->outdated = !memory.at(oop).extra->index->identity;
}

bool goesByOtherHashes(Memory& memory, OopType oop) {
  const HashIndex& index = indexOf(memory, oop, strideOf(memory, oop));
  return index.rehashed || index.unknown != 0;
}

void startElements(Memory& memory, OopType oop, Stride stride) {
  indexOf(memory, oop, stride).rehashed = false;
}

void appendLoaded(Memory& memory, OopType oop, Stride stride, std::uint32_t hash,
                  std::span<const OopType> slots) {
  for (std::size_t i = 0; i + stride <= slots.size(); i += stride) {
    appendKey(memory, oop, stride, slots[i], stride == dictionaryStride ? slots[i + 1] : NilOop,
              hash == unknownHashes ? unknownHash : hash);
  }
}

void notRehashed(const Memory& memory, OopType oop) noexcept {
  const Object* object = memory.loaded(oop >> 2);
  if (object != nullptr && object->extra != nullptr && object->extra->index) {
    object->extra->index->rehashed = false;
  }
}

void dropIndex(Memory& memory, OopType oop) {
  Extra* extra = memory.at(oop).extra;
  if (extra == nullptr || !extra->index) return;
  extra->index.reset();
  memory.recount(oop);
}

}  // namespace zel
