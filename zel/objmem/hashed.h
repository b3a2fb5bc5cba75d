// Equality, hashes, and the collections found by them: sets and dictionaries.
//
// A set keeps its elements one per slot; a dictionary keeps keys and values in turn. Both find a
// key in constant time through a HashIndex beside the slots. Equality is by value for numbers,
// strings, arrays, ordered collections, associations and date-times, however deep, and by identity
// for everything else, except where a class has methods of the program's for `=` or `hash`
// (AsksEquality). Those are never called here: what they have to say is left to the caller, who
// asks in the language. Keys that no such method can have a say in (symbols above all) are always
// found here, whatever else the collection holds: of two values the one looked for is asked.
#pragma once

#include <span>

#include "memory.h"

namespace zel {

// Whether the two are equal, however deep; what only programs can tell is told by identity.
// Structures that contain themselves are equal when nothing tells them apart. Long comparisons
// count as steps and can be broken.
bool equalOops(Memory& memory, OopType a, OopType b);
// The same, not asking the class of `a`: whether the two are equal if those in `toAsk`, two by two,
// are, the first asked. `toAsk` is empty beforehand.
bool compareOops(Memory& memory, OopType a, OopType b, std::vector<OopType>& toAsk);

// A hash that equal values share, of 28 bits, not asking the class of `oop`. Elements that have a
// hash of the program's are put into `toAsk`; called again with the integers that they answer, in
// that order, it is complete.
std::uint32_t hashOop(Memory& memory, OopType oop, std::span<const OopType> answers,
                      std::vector<OopType>& toAsk);
// The same for the integer that a program's method answered as a hash.
std::uint32_t givenHash(Memory& memory, OopType answer);

// Slots per key.
enum Stride : std::size_t { setStride = 1, dictionaryStride = 2 };

// Where a key stands, or why that is not known. Good until the collection changes.
struct KeyPlace {
  enum Kind : std::uint8_t { found, absent, undecided };
  Kind kind;
  std::uint32_t hash;
  std::size_t entry;  // of the index, when found
};
// Undecided where a method of the program has a say in it.
KeyPlace findKey(Memory& memory, OopType oop, OopType key, Stride stride);
// The key, of that hash, itself. When it is absent, `others` are all keys of that hash; undecided
// while there are keys of unknown hash.
KeyPlace findIdentical(Memory& memory, OopType oop, Stride stride, OopType key, std::uint32_t hash,
                       std::vector<OopType>& others);
// A key whose hash a program's method has to compute, nil when there is none; noteHash takes what
// it answered, and passes over a key that is not the one to be noted.
OopType unknownKey(Memory& memory, OopType oop, Stride stride);
void noteHash(Memory& memory, OopType oop, Stride stride, OopType key, std::uint32_t hash);
// The hash of the key with the number (from 0), nil while that is unknown.
OopType hashOfKey(Memory& memory, OopType oop, Stride stride, std::size_t number);
// A hash that collections of equal keys and values share, in whatever order they have them: the
// keys' hashes are those that they were found to have, a dictionary's values' are given in the
// order of the slots, or where there are none are what no method of the program has a say in. nil
// while there are keys of unknown hash.
OopType hashOfEntries(Memory& memory, OopType oop, Stride stride,
                      std::span<const OopType> valueHashes);

// What was found. The caller of those that change something has prepared the object for writing.
OopType foundKey(const Memory& memory, OopType oop, Stride stride, const KeyPlace& place);
OopType& valueAt(Memory& memory, OopType dictionary, const KeyPlace& place);
// Adds a key that is absent; for sets without a value. Throws MemoryFull and leaves all as it was.
void appendKey(Memory& memory, OopType oop, Stride stride, OopType key, OopType value,
               std::uint32_t hash);
void removeKey(Memory& memory, OopType oop, Stride stride, const KeyPlace& place);

// For dictionaries of the library's own, whose keys are symbols. dictionaryAt answers 0 when the
// key is absent. It needs no room: what a program that has filled the memory still does for itself
// begins with finding its methods.
// hashOfSymbol is what these go by.
std::uint32_t hashOfSymbol(Memory& memory, OopType symbol);
OopType dictionaryAt(Memory& memory, OopType dictionary, OopType key);
void dictionaryPut(Memory& memory, OopType dictionary, OopType key, OopType value);

// Whether the object is a set or a dictionary, and its slots per key; any object.
bool isHashed(const Memory& memory, OopType oop);
Stride strideOf(const Memory& memory, OopType oop);

// Rows of the store. The hashes that its elements have, each once, unknownHashes for those that are
// not known; the slots of the elements of one; and their replacement by others.
std::vector<std::uint32_t> hashesOf(Memory& memory, OopType oop, Stride stride);
std::vector<OopType> elementsOfHash(Memory& memory, OopType oop, Stride stride, std::uint32_t hash);
void replaceElements(Memory& memory, OopType oop, Stride stride, std::uint32_t hash,
                     std::span<const OopType> slots);
// Whether a program's method has a say in the hash of the key.
bool asksHash(Memory& memory, OopType oop, OopType key);
// Begins an object that is loaded, to which appendLoaded adds the elements of each hash.
void startElements(Memory& memory, OopType oop, Stride stride);
void appendLoaded(Memory& memory, OopType oop, Stride stride, std::uint32_t hash,
                  std::span<const OopType> slots);
// The rows of the object go by the hashes that it has.
void notRehashed(const Memory& memory, OopType oop) noexcept;
// They do not.
void becomeRehashed(const Memory& memory, OopType oop);
// Whether that may be so.
bool goesByOtherHashes(Memory& memory, OopType oop);
// They are older than methods of programs which may have a say in them: to be looked into once one
// that asks them is looked for.
void becomeOutdated(const Memory& memory, OopType oop);

// To be called when slots were changed in another way than through these functions.
void dropIndex(Memory& memory, OopType oop);

}  // namespace zel
