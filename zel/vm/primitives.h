// The messages that the library itself carries out. docs/language.md lists what they do.
//
// Each prims_*.cpp has one family of them and ends with its table: the messages of each class, and
// those of the class itself.
#pragma once

#include <span>

#include "machine.h"

namespace zel {

struct Primitive {
  const char* selector;
  Routine::Kind kind;
  PrimitiveFType primitive = nullptr;
  ControlFType control = nullptr;

  constexpr Primitive(const char* name, PrimitiveFType function)
      : selector(name), kind(Routine::Kind::primitive), primitive(function) {}
  constexpr Primitive(const char* name, ControlFType function,
                      Routine::Kind asKind = Routine::Kind::control)
      : selector(name), kind(asKind), control(function) {}
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

// Adds a table's messages, or all tables' above, to their classes, which must exist.
void installPrimitives(Memory& memory, PrimitiveTable table);
void installPrimitives(Memory& memory);

// Stores a value into a named slot (from 0) of an object, as every change goes: checked, noted.
void storeNamed(Memory& memory, OopType oop, std::size_t index, OopType value);

}  // namespace zel
