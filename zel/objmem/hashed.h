// Equality, hashes, and the collections found by them: sets and dictionaries.
//
// A set keeps its elements one per slot; a dictionary keeps keys and values in turn. Both find an
// element in constant time through a HashIndex beside the slots. Equality is by value for numbers,
// strings, arrays, associations and date-times and by identity for everything else; it does not
// ask the program's own `=` methods.
#pragma once

#include "memory.h"

namespace zel {

// Whether the program's `=` holds. Throws ErrTooDeep when comparing takes too long.
bool equalOops(OopType a, OopType b);
// A hash that equal values share.
std::uint32_t hashOop(OopType oop);

constexpr std::size_t notFound = SIZE_MAX;

// Position (counted in slots from 0) of the element or key that equals `key`, else notFound.
// `stride` is 1 for sets, 2 for dictionaries; `identity` compares identities.
std::size_t findPosition(OopType collection, OopType key, std::size_t stride, bool identity);

// Sets. The caller has prepared the object for writing. setAdd passes over elements that are there;
// setRemove answers whether there was one.
bool setIncludes(OopType set, OopType element);
void setAdd(OopType set, OopType element);
bool setRemove(OopType set, OopType element);

// Dictionaries, in the same way. dictionaryAt answers 0 when the key is absent.
OopType dictionaryAt(OopType dictionary, OopType key);
void dictionaryPut(OopType dictionary, OopType key, OopType value);
bool dictionaryRemove(OopType dictionary, OopType key);

// To be called when slots were changed in another way than through these functions.
void dropIndex(Object& object);

}  // namespace zel
