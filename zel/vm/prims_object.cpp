// Messages that every object understands.
#include <algorithm>

#include "objmem/classes.h"
#include "objmem/clients.h"
#include "objmem/hashed.h"
#include "objmem/text.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

OopType classMessage(Memory& memory, OopType receiver, const OopType*) {
  return classOf(memory, receiver);
}
template <bool same>
OopType identity(Memory&, OopType receiver, const OopType* args) {
  return booleanOop((receiver == args[0]) == same);
}
template <bool same>
OopType equality(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(equalOops(memory, receiver, args[0]) == same);
}
OopType hash(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(hashOop(memory, receiver) >> 4));
}
OopType identityHash(Memory&, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(receiver >> 3));
}
OopType printStringMessage(Memory& memory, OopType receiver, const OopType*) {
  return stringOop(memory, printString(memory, receiver));
}
OopType displayStringMessage(Memory& memory, OopType receiver, const OopType*) {
  return stringOop(memory, displayString(memory, receiver));
}
OopType isKindOfMessage(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(isClass(memory, args[0]) && isKindOf(memory, receiver, args[0]));
}
OopType isMemberOf(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(classOf(memory, receiver) == args[0]);
}
OopType respondsTo(Memory& memory, OopType receiver, const OopType* args) {
  const bool classSide = isClass(memory, receiver);
  const OopType selector = symbolOop(memory, utf8Argument(memory, args[0]));
  return booleanOop(lookupMethod(memory, classSide ? receiver : classOf(memory, receiver), selector,
                                 classSide) != 0);
}

OopType copy(Memory& memory, OopType receiver, const OopType*) {
  if (!copiesAreChangeable(memory, receiver)) return receiver;
  const Object* object = memory.find(receiver);
  const OopType oop = memory.allocate(object->classOop, object->impl, object->namedSize,
                                      object->indexedSize(), object->indexable);
  Object& twin = memory.at(oop);
  std::copy_n(object->bytes, object->size * (object->holdsBytes() ? 1 : sizeof(OopType)),
              twin.bytes);
  twin.fixedSize = object->fixedSize;
  return oop;
}

OopType isInvariant(Memory& memory, OopType receiver, const OopType*) {
  const Object* object = memory.find(receiver);
  return booleanOop(object == nullptr || object->invariant);
}
OopType asOop(Memory& memory, OopType receiver, const OopType*) {
  return integerOop(memory, receiver);
}

std::size_t namedIndex(Memory& memory, OopType receiver, OopType index) {
  const Object* object = memory.find(receiver);
  const std::int64_t named = object != nullptr ? object->namedSize : 0;
  return static_cast<std::size_t>(integerArgument(memory, index, 1, named)) - 1;
}
OopType instVarAt(Memory& memory, OopType receiver, const OopType* args) {
  const std::size_t index = namedIndex(memory, receiver, args[0]);
  return memory.at(receiver).slots[index];
}
OopType instVarAtPut(Memory& memory, OopType receiver, const OopType* args) {
  const std::size_t index = namedIndex(memory, receiver, args[0]);
  prepareWrite(memory, receiver);
  return memory.at(receiver).slots[index] = args[1];
}

// Ends as the library's own checks do.
OopType wrongKindMessage(Memory& memory, OopType receiver, const OopType* args) {
  wrongKind(memory, utf8Argument(memory, args[0]), receiver);
}

constexpr Primitive objectMessages[] = {
    {"class", classMessage},
    {"==", identity<true>},
    {"~~", identity<false>},
    {"=", equality<true>},
    {"~=", equality<false>},
    {"hash", hash},
    {"identityHash", identityHash},
    {"printString", printStringMessage},
    {"displayString", displayStringMessage},
    {"isKindOf:", isKindOfMessage},
    {"isMemberOf:", isMemberOf},
    {"respondsTo:", respondsTo},
    {"copy", copy},
    {"isInvariant", isInvariant},
    {"asOop", asOop},
    {"wrongKind:", wrongKindMessage},
    {"instVarAt:", instVarAt},
    {"instVarAt:put:", instVarAtPut},
};
constexpr ClassPrimitives families[] = {
    {ObjectClass, objectMessages},
};

}  // namespace

constinit const PrimitiveTable objectPrimitives = families;

}  // namespace zel
