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
// Methods of the program are sent `=` for what is inside, by the kernel's methods.
OopType equality(Machine& machine, OopType receiver, const OopType* args) {
  Memory& memory = machine.memory;
  const OopType pairs = withRoom(memory, [&] {
    std::vector<OopType> toAsk;
    const bool equal = compareOops(memory, receiver, args[0], toAsk);
    return !equal || toAsk.empty() ? booleanOop(equal) : arrayOop(memory, toAsk);
  });
  if (isBoolean(pairs)) return pairs;
  machine.replaceArguments(1, {&pairs, 1});
  return sendInstead(machine, "areEqual:");
}
OopType inequality(Memory& memory, OopType receiver, const OopType* args) {
  if ((classTraits(memory, receiver) & AsksEquality) != 0) return undecided;
  std::vector<OopType> toAsk;
  const bool equal = compareOops(memory, receiver, args[0], toAsk);
  return equal && !toAsk.empty() ? undecided : booleanOop(!equal);
}

OopType hash(Memory& memory, OopType receiver, const OopType*) {
  std::vector<OopType> toAsk;
  const std::uint32_t hash = hashOop(memory, receiver, {}, toAsk);
  return toAsk.empty() ? smallIntOop(static_cast<std::int32_t>(hash)) : undecided;
}
OopType partsToHash(Memory& memory, OopType receiver, const OopType*) {
  std::vector<OopType> toAsk;
  hashOop(memory, receiver, {}, toAsk);
  return arrayOop(memory, toAsk);
}
OopType hashWith(Memory& memory, OopType receiver, const OopType* args) {
  const std::span<const OopType> hashes = elementsArgument(memory, args[0]);
  for (const OopType each : hashes) {
    if (isInteger(memory, each)) continue;
    throw Failure(ErrBadArgumentKind,
                  "an integer is expected as the hash, not " + describe(memory, each), {each});
  }
  std::vector<OopType> toAsk;
  return smallIntOop(static_cast<std::int32_t>(hashOop(memory, receiver, hashes, toAsk)));
}
OopType identityHash(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(memory.identityHashOf(receiver)));
}

// The receiver's text as its class and the library have it; undecided where classes inside, or the
// receiver's own, have methods of the program's for it.
template <Printing printing>
OopType printed(Memory& memory, OopType receiver, const OopType*) {
  const bool asks = printing == Printing::print ? (classTraits(memory, receiver) & AsksStream) != 0
                                                : (classTraits(memory, receiver) & AsksPrint) != 0;
  if (asks) return undecided;
  const Printed result = print(memory, receiver, printing, {});
  return result.toAsk.empty() ? stringOop(memory, result.text) : undecided;
}
template <ClassTrait trait>
OopType hasTrait(Memory& memory, OopType receiver, const OopType*) {
  return booleanOop((classTraits(memory, receiver) & trait) != 0);
}
// The text, or an array of what is still to be printed by its own class.
template <Printing printing>
OopType printWith(Memory& memory, OopType receiver, const OopType* args) {
  const Printed result = print(memory, receiver, printing, elementsArgument(memory, args[0]));
  return result.toAsk.empty() ? stringOop(memory, result.text) : arrayOop(memory, result.toAsk);
}
// The text that the library gives the receiver, whatever its class has for it.
OopType ownPrintString(Memory& memory, OopType receiver, const OopType*) {
  const Printed result = print(memory, receiver, Printing::print, {});
  return result.toAsk.empty() ? stringOop(memory, result.text) : undecided;
}
OopType printOn(Machine& machine, OopType, const OopType*) {
  return sendInstead(machine, "putTextOn:");
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
  noteElementsRead(memory, receiver);
  const Object* object = memory.find(receiver);
  memory.meter.chargeCopy(object->size * (object->holdsBytes() ? 1 : sizeof(OopType)));
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
  requireChangeableSlot(memory, receiver, index);
  prepareWrite(memory, receiver);
  return memory.at(receiver).slots[index] = args[1];
}

// Ends as the library's own checks do.
OopType wrongKindMessage(Memory& memory, OopType receiver, const OopType* args) {
  wrongKind(memory, utf8Argument(memory, args[0]), receiver);
}

constexpr char differsFrom[] = "differsFrom:";
constexpr char askingHash[] = "askingHash";
constexpr char askingPrint[] = "askingPrintString";
constexpr char askingOwnPrint[] = "askingOwnPrintString";
constexpr char askingDisplay[] = "askingDisplayString";

constexpr Primitive objectMessages[] = {
    {"class", classMessage},
    {"==", identity<true>},
    {"~~", identity<false>},
    {"=", equality},
    {"~=", directly<inequality, differsFrom>},
    {"hash", directly<hash, askingHash>},
    {"partsToHash", partsToHash},
    {"hashWith:", hashWith},
    {"identityHash", identityHash},
    {"printString", printed<Printing::print>, directly<printed<Printing::print>, askingPrint>},
    {"displayString", printed<Printing::display>,
     directly<printed<Printing::display>, askingDisplay>},
    {"ownPrintString", directly<ownPrintString, askingOwnPrint>},
    {"printOn:", printOn},
    {"printWith:", printWith<Printing::print>},
    {"displayWith:", printWith<Printing::display>},
    {"printsOnStream", hasTrait<AsksStream>},
    {"printsItself", hasTrait<AsksPrint>},
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
