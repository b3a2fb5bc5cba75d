// Objects as rows of the store: what a value, an object, or the elements of one hash look like in
// bytes, in every version of the library alike.
//
// Numbers, characters and symbols are written where they are referred to; every other object has a
// row of its own. A block is kept with the source of the text or method it stands in, compiled
// again when it is loaded.
#pragma once

#include <functional>

#include "objmem/memory.h"

namespace zel {

// The method that the kernel has for a selector, whatever a program put in its place.
struct KernelMethod {
  OopType owner;
  bool classSide;
  OopType selector;
};

// What encoding asks: the id of an object, which it may have to be given.
using IdForFType = std::function<ObjectId(OopType oop)>;

// The bytes of an object's own row; of a set or dictionary only its named slots. Throws
// ErrBadArgumentKind for a Process, which cannot be stored.
std::string encodeObject(Memory& memory, OopType oop, const IdForFType& idFor);
// The bytes of a row of elements; `asked` says that programs' methods gave their hash.
std::string encodeElements(Memory& memory, std::span<const OopType> slots, bool asked,
                           const IdForFType& idFor);

// Places the object of the row at its entry. Throws ErrDamaged for bytes that are none, MemoryFull.
void decodeObject(Memory& memory, std::uint32_t index, const Row& row,
                  const std::function<OopType(const KernelMethod&)>& kernelMethod);
// Whether programs' methods gave the hash of the row's elements; and their slots.
bool isAsked(const Row& row);
std::vector<OopType> decodeElements(
    Memory& memory, const Row& row,
    const std::function<OopType(const KernelMethod&)>& kernelMethod);

// Appends the ids of the objects that the row refers to, its class included.
void referencesOf(const Row& row, std::vector<ObjectId>& ids);

}  // namespace zel
