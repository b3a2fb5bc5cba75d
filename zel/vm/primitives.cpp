#include "primitives.h"

#include "lang/compiler.h"
#include "objmem/clients.h"
#include "objmem/values.h"
#include "printing.h"

namespace zel {

namespace {

void install(Memory& memory, OopType owner, std::span<const Primitive> messages, bool classSide) {
  for (const Primitive& each : messages) {
    installRoutine(memory, owner, each.selector, classSide,
                   {each.kind, nullptr, each.primitive, each.control});
  }
}

}  // namespace

void installPrimitives(Memory& memory, PrimitiveTable table) {
  for (const auto& [owner, messages, classMessages] : table) {
    install(memory, owner, messages, false);
    install(memory, owner, classMessages, true);
  }
}

void installPrimitives(Memory& memory) {
  for (const PrimitiveTable table : {objectPrimitives, numberPrimitives, stringPrimitives,
                                     collectionPrimitives, classPrimitives, controlPrimitives}) {
    installPrimitives(memory, table);
  }
}

OopType sendInstead(Machine& machine, std::string_view selector) {
  const OopType symbol =
      withRoom(machine.memory, [&] { return symbolOop(machine.memory, selector); });
  machine.sendNext(symbol, static_cast<std::size_t>(argumentCountOf(selector)));
  return Machine::frameChanged;
}

std::span<const OopType> elementsArgument(const Memory& memory, OopType oop) {
  const Object* object = memory.find(oop);
  if (object == nullptr || object->holdsBytes()) {
    throw Failure(ErrBadArgumentKind,
                  "a collection of objects is expected, not " + describe(memory, oop), {oop});
  }
  return {object->indexed(), object->indexedSize()};
}

std::size_t countArgument(const Memory& memory, OopType oop, Impl impl) {
  std::int64_t count = 0;
  if (!toInt64(memory, oop, count) || count < 0 || count > std::int64_t{largestObjectBytes}) {
    const std::size_t most = impl == Impl::bytes ? largestObjectBytes : largestObjectSlots;
    integerArgument(memory, oop, 0, static_cast<std::int64_t>(most));
  }
  return static_cast<std::size_t>(count);  // the allocation says what is still too many
}

void storeNamed(Memory& memory, OopType oop, std::size_t index, OopType value) {
  prepareWrite(memory, oop);
  memory.at(oop).slots[index] = value;
}

}  // namespace zel
