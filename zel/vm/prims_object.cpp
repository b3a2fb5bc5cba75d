// Messages that every object understands.
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"
#include "session/changes.h"

namespace zel {

namespace {

OopType classMessage(Machine&, OopType receiver, const OopType*) {
  return classOf(receiver);
}
template <bool same>
OopType identity(Machine&, OopType receiver, const OopType* args) {
  return booleanOop((receiver == args[0]) == same);
}
template <bool same>
OopType equality(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(equalOops(receiver, args[0]) == same);
}
OopType hash(Machine&, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(hashOop(receiver) >> 4));
}
OopType identityHash(Machine&, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(receiver >> 3));
}
OopType printStringMessage(Machine&, OopType receiver, const OopType*) {
  return stringOop(printString(receiver));
}
OopType displayStringMessage(Machine&, OopType receiver, const OopType*) {
  return stringOop(displayString(receiver));
}
OopType isKindOfMessage(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(isClass(args[0]) && isKindOf(receiver, args[0]));
}
OopType isMemberOf(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(classOf(receiver) == args[0]);
}
OopType respondsTo(Machine&, OopType receiver, const OopType* args) {
  const bool classSide = isClass(receiver);
  const OopType selector = symbolOop(stringArgument(args[0]));
  return booleanOop(lookupMethod(classSide ? receiver : classOf(receiver), selector, classSide) !=
                    0);
}

OopType copy(Machine&, OopType receiver, const OopType*) {
  const Object* object = findObject(receiver);
  if (object == nullptr || object->invariant || isClass(receiver)) return receiver;
  const OopType oop =
      allocate(object->classOop, object->impl, static_cast<std::size_t>(object->namedSize),
               object->indexedSize(), object->indexable);
  Object& twin = *findObject(oop);
  twin.slots = findObject(receiver)->slots;
  twin.bytes = findObject(receiver)->bytes;
  twin.fixedSize = findObject(receiver)->fixedSize;
  return oop;
}

OopType isInvariant(Machine&, OopType receiver, const OopType*) {
  const Object* object = findObject(receiver);
  return booleanOop(object == nullptr || object->invariant);
}
OopType asOop(Machine&, OopType receiver, const OopType*) {
  return integerOop(receiver);
}

std::size_t namedIndex(OopType receiver, OopType index) {
  const Object* object = findObject(receiver);
  const std::int64_t named = object != nullptr ? object->namedSize : 0;
  return static_cast<std::size_t>(integerArgument(index, 1, named)) - 1;
}
OopType instVarAt(Machine&, OopType receiver, const OopType* args) {
  const std::size_t index = namedIndex(receiver, args[0]);
  return findObject(receiver)->slots[index];
}
OopType instVarAtPut(Machine&, OopType receiver, const OopType* args) {
  const std::size_t index = namedIndex(receiver, args[0]);
  prepareWrite(receiver);
  return findObject(receiver)->slots[index] = args[1];
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
    {"instVarAt:", instVarAt},
    {"instVarAt:put:", instVarAtPut},
};
constexpr ClassPrimitives families[] = {
    {ObjectClass, objectMessages},
};

}  // namespace

constinit const PrimitiveTable objectPrimitives = families;

}  // namespace zel
