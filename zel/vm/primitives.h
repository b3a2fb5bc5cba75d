// The messages that the library itself carries out. docs/language.md lists what they do.
//
// Each prims_*.cpp has one family of them and ends with its table: the messages of each class, and
// those of the class itself.
#pragma once

#include <span>

#include "errors/failure.h"
#include "interpreter.h"

namespace zel {

struct Primitive {
  const char* selector;
  PrimitiveFType function;
};

struct ClassPrimitives {
  OopType owner;
  std::span<const Primitive> messages;
  std::span<const Primitive> classMessages = {};  // to the class itself
};

using PrimitiveTable = std::span<const ClassPrimitives>;
extern const PrimitiveTable objectPrimitives;
extern const PrimitiveTable numberPrimitives;
extern const PrimitiveTable stringPrimitives;
extern const PrimitiveTable collectionPrimitives;
extern const PrimitiveTable classPrimitives;
extern const PrimitiveTable controlPrimitives;
extern const PrimitiveTable systemPrimitives;

// Adds all of them to their classes, which must exist.
void installPrimitives();

}  // namespace zel
