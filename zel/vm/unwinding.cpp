#include "unwinding.h"

#include "objmem/classes.h"
#include "objmem/values.h"
#include "session/changes.h"

namespace zel {

namespace {

bool isForThePrograms(const Failure& failure) {
  return failure.number != ErrSoftBreak && failure.number != ErrHardBreak &&
         failure.number != ErrSuspended;
}

OopType classOfFailure(const Failure& failure) {
  if (failure.exception != 0) return classOf(failure.exception);
  return failure.exceptionClass != 0 ? failure.exceptionClass : ErrorClass;
}

std::size_t handlerDepth(const ProcessState& process, OopType exceptionClass) {
  for (std::size_t depth = process.frames.size(); depth-- > 0;) {
    const OopType handled = process.frames[depth].handlerClass;
    if (handled != 0 && inheritsFrom(exceptionClass, handled)) return depth;
  }
  return SIZE_MAX;
}

// Replaces the protected block's activation by one of its handler. Unwinds first, so that a handler
// that cannot start leaves its failure to those further out.
void activateHandler(Machine& machine, std::size_t depth, const Failure& failure) {
  ProcessState& process = *machine.process;
  const Frame frame = process.frames[depth];
  process.frames.erase(process.frames.begin() + static_cast<std::ptrdiff_t>(depth),
                       process.frames.end());
  process.stack.resize(frame.base);
  process.stack.back() = frame.handlerBlock;
  process.awaiting = notAwaiting;
  const OopType exception = failure.exception != 0 ? failure.exception : exceptionFor(failure);
  const Object* block = findObject(frame.handlerBlock);
  const bool takesException =
      block != nullptr && block->classOop == BlockClass && blockArguments(frame.handlerBlock) > 0;
  if (takesException) process.stack.push_back(exception);
  process.awaiting = takesException ? 2 : 1;
  activateBlock(machine, takesException ? 1 : 0);
}

[[noreturn]] void putAside(Machine& machine, Failure failure) {
  ProcessState& process = *machine.process;
  // A program that filled the memory must not go on holding what it made.
  process.suspended = failure.number != ErrNoMemory &&
                      (process.awaiting != notAwaiting || failure.number == ErrSoftBreak);
  if (process.suspended) {
    failure.context = machine.processOop;
  } else {
    process.frames = std::vector<Frame>();
    process.stack = std::vector<OopType>();
  }
  if (failure.number == ErrSuspended) failure.args.insert(failure.args.begin(), machine.processOop);
  throw Failure(failure);
}

}  // namespace

void handleOrThrow(Machine& machine, const Failure& failure) {
  Failure current = failure;
  while (true) {
    const std::size_t depth = isForThePrograms(current)
                                  ? handlerDepth(*machine.process, classOfFailure(current))
                                  : SIZE_MAX;
    if (depth == SIZE_MAX) putAside(machine, current);
    try {
      activateHandler(machine, depth, current);
      return;
    } catch (const Failure& inHandler) {
      // The handler could not even start; its own failure goes to the next one out.
      current = inHandler;
    }
  }
}

OopType exceptionFor(const Failure& failure) {
  const OopType oop = newInstance(classOfFailure(failure));
  const OopType text = stringOop(failure.message);
  const OopType arguments = arrayOop(failure.args);
  std::vector<OopType>& slots = findObject(oop)->slots;
  slots[ExceptionText] = text;
  slots[ExceptionNumber] = smallIntOop(failure.number);
  slots[ExceptionArguments] = arguments;
  return oop;
}

void storeNamed(OopType oop, std::size_t index, OopType value) {
  prepareWrite(oop);
  findObject(oop)->slots[index] = value;
}

}  // namespace zel
