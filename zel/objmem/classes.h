// Classes as objects: their twelve named slots, the classes that exist from the start, instances.
//
// A class has no metaclass: the class of every class is Class, and messages to a class itself are
// looked up in slot `classMethods` along the superclasses and then in Class.
#pragma once

#include <string>
#include <string_view>

#include "memory.h"

namespace zel {

// Named slots of a class, counted from 1 as clients count them.
enum ClassSlot : std::uint32_t {
  ClassSuperclass = 1,
  ClassFormat,        // small integer made of ClassFormatBits
  ClassInstVarCount,  // inherited ones included
  ClassInstVarNames,  // Array of Symbol, inherited ones first
  ClassCategory,
  ClassComment,
  ClassMethods,  // Dictionary of Symbol to method
  ClassClassMethods,
  ClassVariables,  // not used, nil
  ClassTimeStamp,  // not used, nil
  ClassName,       // Symbol
  ClassHistory,    // ClassHistory: the versions of this class, oldest first
};
constexpr std::uint32_t classSlotCount = 12;

enum ClassFormatBits : std::uint32_t {
  FormatImpl = 3,  // an Impl
  FormatIndexable = 4,
  FormatFixedSize = 8,      // byte objects whose size is given by the class
  FormatNotCreatable = 16,  // instances come only from literals and primitives
  FormatInvariant = 32,     // instances never change
};

// Makes the classes that exist from the start, and the dictionary of globals.
void bootstrapClasses(Memory& memory);

// The name of a class that exists from the start, empty for any other oop; and the class of such a
// name, 0 if there is none. Neither needs a memory.
std::string_view kernelClassName(OopType classOop);
OopType kernelClassNamed(std::string_view name);

// Whether the oop names a class; any oop is allowed.
bool isClass(const Memory& memory, OopType oop);
// The class of a value or an object; UndefinedObject for nil and for oops that name nothing.
OopType classOf(const Memory& memory, OopType oop);
// What a class says about itself; the argument must be a class. Object's superclass is nil. The
// format is made of ClassFormatBits; the name is for messages and printing.
OopType superclassOf(const Memory& memory, OopType classOop);
std::uint32_t formatOf(const Memory& memory, OopType classOop);
std::string nameOf(const Memory& memory, OopType classOop);
// How errors call a method: "Account>>add:", "Account class>>rich"; the class alone when the
// selector is empty.
std::string methodName(const Memory& memory, OopType owner, bool classSide,
                       std::string_view selector);
// For messages: "a Foo", "an Array", "nil", "the class Foo"; and the article alone.
std::string describe(const Memory& memory, OopType oop);
std::string withArticle(const std::string& name);
// Throws ErrBadArgumentKind: `expected` ("a string") is expected and the argument is none.
[[noreturn]] void wrongKind(const Memory& memory, const std::string& expected, OopType argument);
// Whether the class is `ancestor` or below it.
bool inheritsFrom(const Memory& memory, OopType classOop, OopType ancestor);
// Whether the value or object is an instance of the class or of one below it.
bool isKindOf(const Memory& memory, OopType oop, OopType classOop);

// Throws ErrInvariant where the kernel's methods rely on what the named slot (from 0) holds, and
// nobody else may change it.
void requireChangeableSlot(const Memory& memory, OopType oop, std::size_t slot);

// Whether a copy of the object is an object of its own that can be changed, as one of a literal is.
bool copiesAreChangeable(const Memory& memory, OopType oop);

// What is to be known of a class before its instances are compared, hashed or printed. The `asks`
// bits say that a method written in the language has a say in it.
enum ClassTrait : std::uint8_t {
  AsksEquality = 1,  // `=` or `hash`
  AsksStream = 2,    // printOn:
  AsksPrint = 4,     // printOn: or printString
  AsksDisplay = 8,   // these or displayString
  ByContent = 16,    // equal when what the slots refer to is
};
// Finds the traits below; the key is the class, or a class object with a bit more.
std::uint8_t findTraits(Memory& memory, OopType oop, OopType key);
// The traits of the value's class, for a class itself those of its class side. Numbers, characters,
// strings, byte arrays, booleans and nil are never asked: the library relies on them.
inline std::uint8_t classTraits(Memory& memory, OopType oop) {
  const Object* object = memory.look(oop);
  if (object == nullptr) return 0;
  if (object->holdsBytes() && object->classOop >> 2 < firstFreeIndex) return 0;
  const OopType key = object->classOop == ClassClass ? oop | 2 : object->classOop;
  const Memory::KnownTraits& known = memory.knownTraits[(key >> 2) % memory.knownTraits.size()];
  return known.key == key && known.epoch == memory.lookupEpoch() ? known.traits
                                                                 : findTraits(memory, oop, key);
}

// An empty instance with `indexed` indexed slots or bytes. Throws ErrBadArgumentKind when
// `classOop` is no class or its instances cannot be made this way.
OopType newInstance(Memory& memory, OopType classOop, std::size_t indexed = 0);

// A new class below `superclass` with the further named instance variables, also put under its
// name in the globals. A class of that name that exists already stays as it is for its instances;
// the new one shares its history. Throws on bad names and on classes that cannot be inherited from.
OopType makeSubclass(Memory& memory, OopType superclass, std::string_view name,
                     const std::vector<std::string>& instVarNames);

// The method that instances of the class (with `classSide`, the class itself) carry out; 0 if
// there is none.
OopType lookupMethod(Memory& memory, OopType classOop, OopType selector, bool classSide);
// The same for `super` in a method of that class.
OopType lookupSuper(Memory& memory, OopType classOop, OopType selector, bool classSide);

}  // namespace zel
