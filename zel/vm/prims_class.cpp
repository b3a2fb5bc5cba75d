// Messages to classes: instances, subclasses, methods, and what a class says about itself.
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/text.h"
#include "objmem/values.h"
#include "primitives.h"

namespace zel {

namespace {

OopType newMessage(Memory& memory, OopType receiver, const OopType*) {
  return newInstance(memory, receiver);
}

OopType newSize(Memory& memory, OopType receiver, const OopType* args) {
  const bool isArray = receiver == ArrayClassOop;
  const std::size_t unit =
      !isArray && inheritsFrom(memory, receiver, DoubleByteStringClassOop) ? 2 : 1;
  if (!isArray && (inheritsFrom(memory, receiver, DictionaryClass) ||
                   inheritsFrom(memory, receiver, SetClass) ||
                   inheritsFrom(memory, receiver, OrderedCollectionClass))) {
    integerArgument(memory, args[0], 0, smallIntMax);  // a hint of the size to come
    return newInstance(memory, receiver);
  }
  const auto impl = static_cast<Impl>(formatOf(memory, receiver) & FormatImpl);
  const std::size_t count = countArgument(memory, args[0], impl);
  memory.meter.chargeCopy(count * sizeof(OopType));
  return newInstance(memory, receiver, count * unit);
}

template <ClassSlot slot>
OopType classSlot(Memory& memory, OopType receiver, const OopType*) {
  return memory.find(receiver)->slots[slot - 1];
}

OopType name(Memory& memory, OopType receiver, const OopType*) {
  return stringOop(memory, nameOf(memory, receiver));
}

std::vector<std::string> namesIn(const Memory& memory, OopType array) {
  const Object* object = memory.find(array);
  if (object == nullptr || object->impl != Impl::pointers) {
    wrongKind(memory, "an array of names", array);
  }
  std::vector<std::string> names;
  for (std::uint32_t i = 0; i < object->size; ++i) {
    names.push_back(utf8Argument(memory, object->slots[i]));
  }
  return names;
}

OopType subclass(Memory& memory, OopType receiver, const OopType* args) {
  return makeSubclass(memory, receiver, utf8Argument(memory, args[0]), {});
}
OopType subclassWithNames(Memory& memory, OopType receiver, const OopType* args) {
  return makeSubclass(memory, receiver, utf8Argument(memory, args[0]), namesIn(memory, args[1]));
}

template <bool classSide>
OopType compile(Memory& memory, OopType receiver, const OopType* args) {
  return compileMethod(memory, receiver, utf8Argument(memory, args[0]), classSide);
}

OopType selectors(Memory& memory, OopType receiver, const OopType*) {
  const Object& methods = memory.at(memory.at(receiver).slots[ClassMethods - 1]);
  std::vector<OopType> keys;
  for (std::uint32_t i = 0; i + 1 < methods.size; i += 2) keys.push_back(methods.slots[i]);
  return arrayOop(memory, keys);
}

OopType methodAt(Memory& memory, OopType receiver, const OopType* args) {
  const OopType methods = memory.find(receiver)->slots[ClassMethods - 1];
  const OopType method =
      dictionaryAt(memory, methods, symbolOop(memory, utf8Argument(memory, args[0])));
  return method != 0 ? method : NilOop;
}
// nil for a method that the library itself carries out.
OopType methodSource(Memory& memory, OopType receiver, const OopType*) {
  return memory.find(receiver)->slots[MethodSource];
}

OopType inheritsFromMessage(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(isClass(memory, args[0]) && receiver != args[0] &&
                    inheritsFrom(memory, receiver, args[0]));
}
OopType includesBehavior(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(isClass(memory, args[0]) && inheritsFrom(memory, receiver, args[0]));
}

constexpr Primitive classMessages[] = {
    {"new", newMessage},
    {"new:", newSize},
    {"name", name},
    {"superclass", classSlot<ClassSuperclass>},
    {"instVarNames", classSlot<ClassInstVarNames>},
    {"classHistory", classSlot<ClassHistory>},
    {"subclass:", subclass},
    {"subclass:instVarNames:", subclassWithNames},
    {"compile:", compile<false>},
    {"compileClassMethod:", compile<true>},
    {"selectors", selectors},
    {"methodAt:", methodAt},
    {"inheritsFrom:", inheritsFromMessage},
    {"includesBehavior:", includesBehavior},
};
constexpr Primitive methodMessages[] = {
    {"source", methodSource},
};
constexpr ClassPrimitives families[] = {
    {ClassClass, classMessages},
    {MethodClass, methodMessages},
};

}  // namespace

constinit const PrimitiveTable classPrimitives = families;

}  // namespace zel
