#include "primitives.h"

#include "lang/compiler.h"
#include "objmem/clients.h"

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

void storeNamed(Memory& memory, OopType oop, std::size_t index, OopType value) {
  prepareWrite(memory, oop);
  memory.at(oop).slots[index] = value;
}

}  // namespace zel
