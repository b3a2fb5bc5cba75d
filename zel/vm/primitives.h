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
  // A control primitive that carries `function` out, where that decides, and makes nothing that
  // stays.
  constexpr Primitive(const char* name, PrimitiveFType function, ControlFType otherwise)
      : selector(name), kind(Routine::Kind::control), primitive(function), control(otherwise) {}
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

// What a function answers that leaves a message to the kernel's methods in the language: because
// methods of the program have a say in it, or because a key is not there.
constexpr OopType undecided = Machine::frameChanged;
constexpr OopType absent = NoOop;

// Sends another message to the receiver, with the arguments that it has.
OopType sendInstead(Machine& machine, std::string_view selector);

// A message that `direct` carries out where it decides.
template <PrimitiveFType direct, const char* whenUndecided, const char* whenAbsent = whenUndecided>
OopType directly(Machine& machine, OopType receiver, const OopType* args) {
  const OopType result =
      withRoom(machine.memory, [&] { return direct(machine.memory, receiver, args); });
  if (result != undecided && result != absent) return result;
  constexpr const char* messages[] = {whenUndecided, whenAbsent};
  return sendInstead(machine, messages[result == absent ? 1 : 0]);
}

// The elements of an argument that must be a collection of objects.
std::span<const OopType> elementsArgument(const Memory& memory, OopType oop);

// An argument that must be a number of elements for an object of that kind.
std::size_t countArgument(const Memory& memory, OopType oop, Impl impl);

// Stores a value into a named slot (from 0) of an object, as every change goes: checked, noted.
void storeNamed(Memory& memory, OopType oop, std::size_t index, OopType value);

}  // namespace zel
