// Blocks, perform: and exceptions: messages that run program code or end it.
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/text.h"
#include "objmem/values.h"
#include "primitives.h"
#include "tracing.h"

namespace zel {

namespace {

template <std::size_t count>
OopType blockValue(Machine& machine, OopType, const OopType*) {
  machine.activateBlock(count);
  return Machine::frameChanged;
}

// The elements of an argument that must be an array of arguments.
std::span<const OopType> argumentsIn(const Memory& memory, OopType array) {
  const Object* object = memory.find(array);
  if (object == nullptr || object->impl != Impl::pointers || object->namedSize != 0) {
    wrongKind(memory, "an array", array);
  }
  if (object->size > mostArguments) {
    throw Failure(ErrBadArgumentKind,
                  "at most " + std::to_string(mostArguments) + " arguments are expected", {array});
  }
  return {object->slots, object->size};
}

OopType blockValueWithArguments(Machine& machine, OopType, const OopType* args) {
  const std::span<const OopType> arguments = argumentsIn(machine.memory, args[0]);
  machine.replaceArguments(1, arguments);
  machine.activateBlock(arguments.size());
  return Machine::frameChanged;
}

OopType numArgs(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(blockArguments(memory, receiver)));
}

OopType onDo(Machine& machine, OopType, const OopType* args) {
  if (!isClass(machine.memory, args[0]) || !inheritsFrom(machine.memory, args[0], ExceptionClass)) {
    wrongKind(machine.memory, "a class of exceptions", args[0]);
  }
  machine.activateBlock(0, FrameMark::handler, 2);
  return Machine::frameChanged;
}

OopType requireSelector(Memory& memory, OopType name, std::size_t argumentCount) {
  const std::string text = utf8Argument(memory, name);
  if (argumentCountOf(text) != static_cast<int>(argumentCount)) {
    throw Failure(ErrBadMessageParts,
                  "'" + std::string(text) + "' is no message with " +
                      std::to_string(argumentCount) + " arguments",
                  {name});
  }
  return withRoom(memory, [&] { return symbolOop(memory, text); });
}

// perform: with the selector first; what follows it are the message's arguments.
template <std::size_t count>
OopType perform(Machine& machine, OopType, const OopType* args) {
  const OopType selector = requireSelector(machine.memory, args[0], count);
  machine.replaceArguments(count + 1, std::vector(args + 1, args + 1 + count));
  machine.sendNext(selector, count);
  return Machine::frameChanged;
}

OopType performWithArguments(Machine& machine, OopType, const OopType* args) {
  const std::span<const OopType> arguments = argumentsIn(machine.memory, args[1]);
  const OopType selector = requireSelector(machine.memory, args[0], arguments.size());
  machine.replaceArguments(2, arguments);
  machine.sendNext(selector, arguments.size());
  return Machine::frameChanged;
}

// A program cannot pass its error off as a break or a suspension, which nothing handles.
std::int32_t numberOf(const Memory& memory, OopType exception) {
  const OopType number = memory.at(exception).slots[ExceptionNumber];
  if (!isSmallInt(number)) return ErrUser;
  const std::int32_t value = smallIntValue(number);
  const bool reserved =
      value == ErrSoftBreak || value == ErrHardBreak || value == ErrSuspended || value == 0;
  return reserved ? std::int32_t{ErrUser} : value;
}

[[noreturn]] void signalException(const Memory& memory, OopType exception) {
  const OopType text = memory.at(exception).slots[ExceptionText];
  throw Failure(numberOf(memory, exception), isText(memory, text)
                                                 ? utf8(textOf(memory, text))
                                                 : nameOf(memory, classOf(memory, exception)))
      .signalledBy(exception);
}

OopType signal(Memory& memory, OopType receiver, const OopType*) {
  signalException(memory, receiver);
}

OopType signalText(Memory& memory, OopType receiver, const OopType* args) {
  textArgument(memory, args[0]);
  storeNamed(memory, receiver, ExceptionText, args[0]);
  signalException(memory, receiver);
}

OopType classSignal(Memory& memory, OopType receiver, const OopType*) {
  signalException(memory, newInstance(memory, receiver));
}

OopType classSignalText(Memory& memory, OopType receiver, const OopType* args) {
  return signalText(memory, newInstance(memory, receiver), args);
}

OopType errorText(Memory& memory, OopType, const OopType* args) {
  return classSignalText(memory, ErrorClass, args);
}

OopType processStack(Memory& memory, OopType receiver, const OopType*) {
  return stringOop(memory, stackText(memory, *memory.at(receiver).extra->process));
}

constexpr Primitive blockMessages[] = {
    {"value", blockValue<0>, Routine::Kind::block},
    {"value:", blockValue<1>, Routine::Kind::block},
    {"value:value:", blockValue<2>, Routine::Kind::block},
    {"value:value:value:", blockValue<3>, Routine::Kind::block},
    {"value:value:value:value:", blockValue<4>, Routine::Kind::block},
    {"value:value:value:value:value:", blockValue<5>, Routine::Kind::block},
    {"value:value:value:value:value:value:", blockValue<6>, Routine::Kind::block},
    {"valueWithArguments:", blockValueWithArguments},
    {"numArgs", numArgs},
    {"on:do:", onDo},
};
constexpr Primitive objectMessages[] = {
    {"perform:", perform<0>},
    {"perform:with:", perform<1>},
    {"perform:with:with:", perform<2>},
    {"perform:with:with:with:", perform<3>},
    {"perform:withArguments:", performWithArguments},
    {"error:", errorText},
};
constexpr Primitive processMessages[] = {
    {"stack", processStack},
};
constexpr Primitive exceptionMessages[] = {
    {"signal", signal},
    {"signal:", signalText},
};
constexpr Primitive exceptionClassMessages[] = {
    {"signal", classSignal},
    {"signal:", classSignalText},
};
constexpr ClassPrimitives families[] = {
    {BlockClass, blockMessages},
    {ObjectClass, objectMessages},
    {ProcessClass, processMessages},
    {ExceptionClass, exceptionMessages, exceptionClassMessages},
};

}  // namespace

constinit const PrimitiveTable controlPrimitives = families;

}  // namespace zel
