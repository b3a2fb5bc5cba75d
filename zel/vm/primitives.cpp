#include "primitives.h"

#include "lang/compiler.h"

namespace zel {

void installPrimitives() {
  for (const PrimitiveTable table :
       {objectPrimitives, numberPrimitives, stringPrimitives, collectionPrimitives, classPrimitives,
        controlPrimitives, systemPrimitives}) {
    for (const auto& [owner, messages, classMessages] : table) {
      for (const Primitive& each : messages) {
        installPrimitive(owner, each.selector, false, each.function);
      }
      for (const Primitive& each : classMessages) {
        installPrimitive(owner, each.selector, true, each.function);
      }
    }
  }
}

}  // namespace zel
