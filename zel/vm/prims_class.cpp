// Messages to classes: instances, subclasses, methods, and what a class says about itself.
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "primitives.h"

namespace zel {

namespace {

OopType newMessage(Machine&, OopType receiver, const OopType*) {
  return newInstance(receiver);
}

OopType newSize(Machine&, OopType receiver, const OopType* args) {
  const std::size_t unit = inheritsFrom(receiver, DoubleByteStringClassOop) ? 2 : 1;
  if (inheritsFrom(receiver, DictionaryClass) || inheritsFrom(receiver, SetClass) ||
      inheritsFrom(receiver, OrderedCollectionClass)) {
    integerArgument(args[0], 0, smallIntMax);  // a hint of the size to come
    return newInstance(receiver);
  }
  const std::int64_t count = integerArgument(args[0], 0, std::int64_t{largestObjectBytes});
  return newInstance(receiver, static_cast<std::size_t>(count) * unit);
}

template <ClassSlot slot>
OopType classSlot(Machine&, OopType receiver, const OopType*) {
  return findObject(receiver)->slots[slot - 1];
}

OopType name(Machine&, OopType receiver, const OopType*) {
  return stringOop(nameOf(receiver));
}

std::vector<std::string> namesIn(OopType array) {
  const Object* object = findObject(array);
  if (object == nullptr || object->impl != Impl::pointers) {
    throw Failure(ErrBadArgumentKind, "an array of names is expected", {array});
  }
  std::vector<std::string> names;
  for (const OopType each : object->slots) names.emplace_back(stringArgument(each));
  return names;
}

OopType subclass(Machine&, OopType receiver, const OopType* args) {
  return makeSubclass(receiver, std::string(stringArgument(args[0])), {});
}
OopType subclassWithNames(Machine&, OopType receiver, const OopType* args) {
  return makeSubclass(receiver, std::string(stringArgument(args[0])), namesIn(args[1]));
}

template <bool classSide>
OopType compile(Machine&, OopType receiver, const OopType* args) {
  return compileMethod(receiver, std::string(stringArgument(args[0])), classSide);
}

OopType selectors(Machine&, OopType receiver, const OopType*) {
  const OopType methods = findObject(receiver)->slots[ClassMethods - 1];
  std::vector<OopType> keys;
  const std::vector<OopType>& slots = findObject(methods)->slots;
  for (std::size_t i = 0; i + 1 < slots.size(); i += 2) keys.push_back(slots[i]);
  return arrayOop(keys);
}

OopType methodAt(Machine&, OopType receiver, const OopType* args) {
  const OopType methods = findObject(receiver)->slots[ClassMethods - 1];
  const OopType method = dictionaryAt(methods, symbolOop(stringArgument(args[0])));
  return method != 0 ? method : NilOop;
}
// nil for a method that the library itself carries out.
OopType methodSource(Machine&, OopType receiver, const OopType*) {
  return findObject(receiver)->slots[2];
}

OopType inheritsFromMessage(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(isClass(args[0]) && receiver != args[0] && inheritsFrom(receiver, args[0]));
}
OopType includesBehavior(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(isClass(args[0]) && inheritsFrom(receiver, args[0]));
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
