// Blocks, perform: and exceptions: messages that run program code or end it.
#include <algorithm>
#include <array>

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
std::span<const OopType> elementsIn(const Memory& memory, OopType array) {
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
std::size_t countIn(Memory& memory, OopType array) {
  return withRoom(memory, [&] { return elementsIn(memory, array).size(); });
}
// The same with room for them on the stack: until a collection, which may unload the array.
std::span<const OopType> argumentsIn(Machine& machine, OopType array) {
  Memory& memory = machine.memory;
  machine.makeRoomFor(countIn(memory, array));
  return withRoom(memory, [&] { return elementsIn(memory, array); });
}

OopType blockValueWithArguments(Machine& machine, OopType, const OopType* args) {
  const std::span<const OopType> arguments = argumentsIn(machine, args[0]);
  machine.replaceArguments(1, arguments);
  machine.activateBlock(arguments.size());
  return Machine::frameChanged;
}

OopType numArgs(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(blockArguments(memory, receiver)));
}

template <FrameMark mark>
OopType valueProtected(Machine& machine, OopType, const OopType*) {
  machine.protect(mark);
  return Machine::frameChanged;
}
OopType valueEnsured(Machine& machine, OopType, const OopType*) {
  machine.runEnsured();
  return Machine::frameChanged;
}
OopType unwindFurther(Machine& machine, OopType, const OopType*) {
  machine.unwindFurther();
  return Machine::frameChanged;
}

// Carries a handler out, which takes the exception or nothing.
OopType valueFor(Machine& machine, OopType receiver, const OopType*) {
  const std::size_t count =
      withRoom(machine.memory, [&] { return blockArguments(machine.memory, receiver); });
  if (count == 0) machine.replaceArguments(1, {});
  machine.activateBlock(count);
  return Machine::frameChanged;
}

// The symbol takes the name's place among the arguments: nothing else may refer to it.
OopType requireSelector(Machine& machine, const OopType& name, std::size_t argumentCount) {
  Memory& memory = machine.memory;
  const std::string text = utf8Argument(memory, name);
  if (argumentCountOf(text) != static_cast<int>(argumentCount)) {
    throw Failure(ErrBadMessageParts,
                  "'" + text + "' is no message with " + argumentsText(argumentCount), {name});
  }
  const OopType symbol = withRoom(memory, [&] { return symbolOop(memory, text); });
  machine.replaceArgument(name, symbol);
  return symbol;
}

// perform: with the selector first; what follows it are the message's arguments.
template <std::size_t count>
OopType perform(Machine& machine, OopType, const OopType* args) {
  const OopType selector = requireSelector(machine, args[0], count);
  std::array<OopType, count> arguments;
  std::copy_n(args + 1, count, arguments.begin());
  machine.replaceArguments(count + 1, arguments);
  machine.sendNext(selector, count);
  return Machine::frameChanged;
}

OopType performWithArguments(Machine& machine, OopType, const OopType* args) {
  const std::size_t count = countIn(machine.memory, args[1]);
  const OopType selector = requireSelector(machine, args[0], count);
  machine.replaceArguments(2, argumentsIn(machine, args[1]));
  machine.sendNext(selector, count);
  return Machine::frameChanged;
}

// A program cannot pass its error off as what nothing handles.
bool isForPrograms(std::int64_t number) {
  constexpr std::int32_t reserved[] = {ErrSoftBreak, ErrHardBreak, ErrSuspended, ErrStepLimit};
  return number > 0 && std::ranges::find(reserved, number) == std::end(reserved);
}

OopType setNumber(Memory& memory, OopType receiver, const OopType* args) {
  const std::int64_t number = integerArgument(memory, args[0], 1, smallIntMax);
  if (!isForPrograms(number)) {
    throw Failure(ErrBadSubscript,
                  "the number " + std::to_string(number) + " is no program's to signal", {args[0]});
  }
  storeNamed(memory, receiver, ExceptionNumber, args[0]);
  return receiver;
}

// A text, or nil.
OopType setText(Memory& memory, OopType receiver, const OopType* args) {
  if (args[0] != NilOop) textArgument(memory, args[0]);
  storeNamed(memory, receiver, ExceptionText, args[0]);
  return receiver;
}

template <bool outward>
OopType signal(Machine& machine, OopType receiver, const OopType*) {
  machine.signal(receiver, outward);
  return Machine::frameChanged;
}

OopType signalText(Machine& machine, OopType receiver, const OopType* args) {
  Memory& memory = machine.memory;
  withRoom(memory, [&] { setText(memory, receiver, args); });
  return signal<false>(machine, receiver, args);
}

// A new exception, which takes the receiver's place on the stack.
OopType newException(Machine& machine, OopType classOop, const OopType* args) {
  Memory& memory = machine.memory;
  const OopType oop = withRoom(memory, [&] { return newInstance(memory, classOop); });
  machine.replaceArgument(args[-1], oop);
  return oop;
}

OopType classSignal(Machine& machine, OopType receiver, const OopType* args) {
  return signal<false>(machine, newException(machine, receiver, args), args);
}

OopType classSignalText(Machine& machine, OopType receiver, const OopType* args) {
  return signalText(machine, newException(machine, receiver, args), args);
}

OopType errorText(Machine& machine, OopType, const OopType* args) {
  return classSignalText(machine, ErrorClass, args);
}

// Ends the program with the exception, which nothing handled. Text and number are what its class
// answers for them.
OopType failWith(Memory& memory, OopType receiver, const OopType* args) {
  const bool isNumber = isSmallInt(args[1]) && isForPrograms(smallIntValue(args[1]));
  Failure failure(isNumber ? smallIntValue(args[1]) : std::int32_t{ErrUser},
                  isText(memory, args[0]) ? utf8Argument(memory, args[0])
                                          : nameOf(memory, classOf(memory, receiver)));
  failure.kind = FailureKind::unhandled;
  throw failure.signalledBy(receiver);
}

OopType returnValue(Machine& machine, OopType receiver, const OopType* args) {
  machine.leaveHandler(receiver, Arrival::answer, args[0]);
  return Machine::frameChanged;
}
OopType retry(Machine& machine, OopType receiver, const OopType*) {
  machine.retry(receiver, 0);
  return Machine::frameChanged;
}
OopType retryUsing(Machine& machine, OopType receiver, const OopType* args) {
  machine.retry(receiver, args[0]);
  return Machine::frameChanged;
}
OopType resume(Machine& machine, OopType receiver, const OopType* args) {
  machine.resume(receiver, args[0]);
  return Machine::frameChanged;
}

// The classes of what on:do: takes.
std::span<const OopType> classesIn(const Memory& memory, const OopType& exceptions) {
  requireExceptions(memory, exceptions);
  if (isClass(memory, exceptions)) return {&exceptions, 1};
  const Object& set = memory.at(exceptions);
  return {set.slots, set.size};
}

OopType exceptionSet(Memory& memory, OopType receiver, const OopType* args) {
  const std::span<const OopType> left = classesIn(memory, receiver);
  const std::span<const OopType> right = classesIn(memory, args[0]);
  const std::size_t count = left.size() + right.size();
  if (count > mostArguments) {
    throw Failure(
        ErrBadArgumentKind,
        "at most " + std::to_string(mostArguments) + " classes of exceptions are expected",
        {args[0]});
  }
  const OopType oop = memory.allocate(ExceptionSetClass, Impl::pointers, 0, count, true);
  Object& set = memory.at(oop);
  std::ranges::copy(right, std::ranges::copy(left, set.slots).out);
  set.invariant = true;
  return oop;
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
    {"_valueHandled", valueProtected<FrameMark::handler>},
    {"_valueBeforeBlock", valueProtected<FrameMark::ensured>},
    {"_valueUnlessCurtailed", valueProtected<FrameMark::ifCurtailed>},
    {"_valueEnsured", valueEnsured},
    {"_valueFor:", valueFor},
    {"_unwindFurther", unwindFurther},
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
    {"signal", signal<false>},   {"signal:", signalText},   {"outer", signal<true>},
    {"messageText:", setText},   {"number:", setNumber},    {"_failWith:number:", failWith},
    {"return:", returnValue},    {"_return:", returnValue}, {"retry", retry},
    {"retryUsing:", retryUsing}, {"_resume:", resume},
};
constexpr Primitive exceptionClassMessages[] = {
    {"signal", classSignal},
    {"signal:", classSignalText},
    {",", exceptionSet},
};
constexpr Primitive exceptionSetMessages[] = {
    {",", exceptionSet},
};
constexpr ClassPrimitives families[] = {
    {BlockClass, blockMessages},
    {ObjectClass, objectMessages},
    {ProcessClass, processMessages},
    {ExceptionClass, exceptionMessages, exceptionClassMessages},
    {ExceptionSetClass, exceptionSetMessages},
};

}  // namespace

constinit const PrimitiveTable controlPrimitives = families;

}  // namespace zel
