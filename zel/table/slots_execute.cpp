// Running programs.
#include <cstring>

#include "frame.h"
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "slots.h"
#include "vm/unwinding.h"

namespace zel::slots {

namespace {

// The symbol list of a session is always the globals; the argument only has to be an object.
OopType execute(std::string_view source, OopType symbolList) {
  requireSession();
  requireValue(symbolList);
  return handOut(executeMethod(compileText(source)));
}

}  // namespace

OopType ZelExecuteStr(const char* source, OopType symbolList) {
  return guarded(NoOop, [&] {
    requirePointer(source, 1, "the source");
    return execute(source, symbolList);
  });
}

OopType ZelExecute(OopType source, OopType symbolList) {
  return guarded(NoOop, [&] {
    requireSession();
    requireValue(source);
    if (isDoubleByteString(source)) return execute(encodeUtf8(unitsOf(source)), symbolList);
    return execute(stringArgument(source), symbolList);
  });
}

OopType ZelPerform(OopType receiver, const char* selector, const OopType* args,
                   ArraySizeType count) {
  return guarded(NoOop, [&] {
    requireSession();
    requirePointer(selector, 1, "the selector");
    requirePointer(args, count, "the argument array");
    requireValue(receiver);
    if (argumentCountOf(selector) < 0 ||
        static_cast<ArraySizeType>(argumentCountOf(selector)) != count) {
      throw Failure(ErrBadMessageParts, "'" + std::string(selector) + "' is no message with " +
                                            std::to_string(count) + " arguments");
    }
    if (count > mostArguments) throw Failure(ErrBadMessageParts, "too many arguments");
    for (ArraySizeType i = 0; i < count; ++i) requireValue(args[i]);
    return handOut(performMessage(receiver, symbolOop(selector), {args, args + count}));
  });
}

OopType ZelContinueWith(OopType process, OopType replacement, long, ZelErrSType* error) {
  return guarded(NoOop, [&] {
    requireSession();
    if (error != nullptr) {
      const Failure failure(
          error->number,
          std::string(error->message, strnlen(error->message, sizeof error->message)));
      return handOut(continueWithFailure(process, failure));
    }
    if (replacement == NoOop) return handOut(continueWithValue(process, NilOop));
    const Object& array = objectAt(replacement);
    if (array.impl != Impl::pointers || array.slots.empty() || array.slots.size() > 2) {
      throw Failure(ErrBadArgumentKind,
                    "an array with a value, or with a message and a stack text, is expected",
                    {replacement});
    }
    if (array.slots.size() == 1) return handOut(continueWithValue(process, array.slots[0]));
    const Failure failure(ErrUser, std::string(stringArgument(array.slots[0])));
    const OopType exception = newInstance(ErrorClass);
    std::vector<OopType>& slots = findObject(exception)->slots;
    slots[ExceptionText] = array.slots[0];
    slots[ExceptionStack] = array.slots[1];
    return handOut(continueWithFailure(process, failure.signalledBy(exception)));
  });
}

}  // namespace zel::slots
