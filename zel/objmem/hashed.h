// Equality, hashes, and the collections found by them: sets and dictionaries.
//
// A set keeps its elements one per slot; a dictionary keeps keys and values in turn. Both find an
// element in constant time through a HashIndex beside the slots. Equality is by value for numbers,
// strings, arrays, associations and date-times, however deep, and by identity for everything else;
// it does not ask the program's own `=` methods.
#pragma once

#include "memory.h"

namespace zel {

// Whether the two are equal. Structures that contain themselves are equal when nothing tells them
// apart. Long comparisons count as steps and can be broken.
bool equalOops(Memory& memory, OopType a, OopType b);
// A hash that equal values share.
std::uint32_t hashOop(const Memory& memory, OopType oop);

constexpr std::size_t notFound = SIZE_MAX;

// Sets. The caller has prepared the object for writing. setAdd passes over elements that are there;
// setRemove answers whether there was one.
bool setIncludes(Memory& memory, OopType set, OopType element);
void setAdd(Memory& memory, OopType set, OopType element);
bool setRemove(Memory& memory, OopType set, OopType element);

// Dictionaries, in the same way. dictionaryAt answers 0 when the key is absent.
OopType dictionaryAt(Memory& memory, OopType dictionary, OopType key);
void dictionaryPut(Memory& memory, OopType dictionary, OopType key, OopType value);
bool dictionaryRemove(Memory& memory, OopType dictionary, OopType key);

// To be called when slots were changed in another way than through these functions.
void dropIndex(Memory& memory, OopType oop);

}  // namespace zel
