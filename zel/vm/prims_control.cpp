// Blocks, perform: and exceptions: messages that run program code or end it.
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "primitives.h"
#include "unwinding.h"

namespace zel {

namespace {

template <std::size_t count>
OopType blockValue(Machine& machine, OopType, const OopType*) {
  activateBlock(machine, count);
  return frameChanged;
}

OopType blockValueWithArguments(Machine& machine, OopType, const OopType* args) {
  const Object* array = findObject(args[0]);
  if (array == nullptr || array->impl != Impl::pointers) {
    throw Failure(ErrBadArgumentKind, "an array of arguments is expected", {args[0]});
  }
  if (array->slots.size() > mostArguments) {
    throw Failure(ErrBadMessageParts, "a block takes at most 255 arguments");
  }
  std::vector<OopType>& stack = machine.process->stack;
  stack.pop_back();
  stack.insert(stack.end(), array->slots.begin(), array->slots.end());
  machine.process->awaiting = static_cast<int>(array->slots.size()) + 1;
  activateBlock(machine, array->slots.size());
  return frameChanged;
}

OopType numArgs(Machine&, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(blockArguments(receiver)));
}

OopType onDo(Machine& machine, OopType, const OopType*) {
  activateProtected(machine);
  return frameChanged;
}

OopType requireSelector(OopType name, std::size_t argumentCount) {
  const std::string_view text = stringArgument(name);
  if (argumentCountOf(text) != static_cast<int>(argumentCount)) {
    throw Failure(ErrBadMessageParts,
                  "'" + std::string(text) + "' is no message with " +
                      std::to_string(argumentCount) + " arguments",
                  {name});
  }
  return symbolOop(text);
}

// perform: with the selector first; what follows it are the message's arguments.
template <std::size_t count>
OopType perform(Machine& machine, OopType, const OopType* args) {
  const OopType selector = requireSelector(args[0], count);
  std::vector<OopType>& stack = machine.process->stack;
  stack.erase(stack.end() - static_cast<std::ptrdiff_t>(count) - 1);
  sendMessage(machine, selector, count);
  return frameChanged;
}

OopType performWithArguments(Machine& machine, OopType, const OopType* args) {
  const Object* array = findObject(args[1]);
  if (array == nullptr || array->impl != Impl::pointers || array->slots.size() > mostArguments) {
    throw Failure(ErrBadArgumentKind, "an array of at most 255 arguments is expected", {args[1]});
  }
  const OopType selector = requireSelector(args[0], array->slots.size());
  std::vector<OopType>& stack = machine.process->stack;
  stack.resize(stack.size() - 2);
  stack.insert(stack.end(), array->slots.begin(), array->slots.end());
  sendMessage(machine, selector, array->slots.size());
  return frameChanged;
}

// A program cannot pass its error off as a break or a suspension, which nothing handles.
std::int32_t numberOf(OopType exception) {
  const OopType number = findObject(exception)->slots[ExceptionNumber];
  if (!isSmallInt(number)) return ErrUser;
  const std::int32_t value = smallIntValue(number);
  const bool reserved =
      value == ErrSoftBreak || value == ErrHardBreak || value == ErrSuspended || value == 0;
  return reserved ? std::int32_t{ErrUser} : value;
}

[[noreturn]] void signalException(OopType exception) {
  const OopType text = findObject(exception)->slots[ExceptionText];
  throw Failure(numberOf(exception),
                isString(text) ? std::string(bytesOf(text)) : nameOf(classOf(exception)))
      .signalledBy(exception);
}

OopType signal(Machine&, OopType receiver, const OopType*) {
  signalException(receiver);
}

OopType signalText(Machine&, OopType receiver, const OopType* args) {
  stringArgument(args[0]);
  storeNamed(receiver, ExceptionText, args[0]);
  signalException(receiver);
}

OopType classSignal(Machine&, OopType receiver, const OopType*) {
  signalException(newInstance(receiver));
}

OopType classSignalText(Machine& machine, OopType receiver, const OopType* args) {
  return signalText(machine, newInstance(receiver), args);
}

OopType errorText(Machine& machine, OopType, const OopType* args) {
  return classSignalText(machine, ErrorClass, args);
}

constexpr Primitive blockMessages[] = {
    {"value", blockValue<0>},
    {"value:", blockValue<1>},
    {"value:value:", blockValue<2>},
    {"value:value:value:", blockValue<3>},
    {"value:value:value:value:", blockValue<4>},
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
    {ExceptionClass, exceptionMessages, exceptionClassMessages},
};

}  // namespace

constinit const PrimitiveTable controlPrimitives = families;

}  // namespace zel
