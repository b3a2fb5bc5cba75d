// What happens when a running program fails.
#include "machine.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "tracing.h"

namespace zel {

OopType Machine::classOfFailure(const Failure& failure) const {
  if (failure.exception != 0) return classOf(memory, failure.exception);
  return failure.exceptionClass != 0 ? failure.exceptionClass : ErrorClass;
}

// The innermost frame with a handler for the class, else SIZE_MAX. The handler lies right below
// the frame, and below it the class that it handles.
std::size_t Machine::handlerDepth(OopType exceptionClass) const {
  for (std::size_t depth = process_->depth; depth-- > 0;) {
    const Frame& frame = process_->frames[depth];
    if (frame.mark != FrameMark::handler) continue;
    if (inheritsFrom(memory, exceptionClass, process_->stack[frame.base - 2])) return depth;
  }
  return SIZE_MAX;
}

// Replaces the protected block's activation by one of its handler. Unwinds first, so that a handler
// that cannot start leaves its failure to those further out.
void Machine::activateHandler(std::size_t depth, const Failure& failure) {
  ProcessState& process = *process_;
  const Frame& frame = process.frames[depth];
  const OopType handler = process.stack[frame.base - 1];
  process.depth = static_cast<std::uint32_t>(depth);
  process.top = frame.base - frame.below;
  process.stack[process.top - 1] = handler;
  process.place = noPlace;
  process.sendNext = 0;
  const OopType exception = failure.exception != 0
                                ? failure.exception
                                : withRoom(memory, [&] { return exceptionFor(failure); });
  const Object* block = memory.find(handler);
  const bool takesException =
      block != nullptr && block->classOop == BlockClass && blockArguments(memory, handler) > 0;
  process.place = process.top - 1;
  if (takesException) process.stack[process.top++] = exception;
  activateBlock(takesException ? 1 : 0);
}

// Ends a program for good.
void Machine::giveUp(OopType processOop) {
  ProcessState& process = *memory.at(processOop).extra->process;
  keepStackText(memory, process);
  process.suspended = false;
  process.top = process.depth = 0;
  process.sendNext = 0;
  process.stack = std::vector<OopType>();
  process.frames = std::vector<Frame>();
  memory.recount(processOop);
}

// Ends the session's program that failed before this one, unless that is gone already.
void Machine::giveUpFailed() {
  const Object* object = memory.find(names->failedProcess);
  const bool there = object != nullptr && object->extra != nullptr && object->extra->process &&
                     object->extra->process->failure == names->failure;
  if (there && names->failedProcess != running_) giveUp(names->failedProcess);
  names->failedProcess = 0;
}

void Machine::putAside(Failure failure) {
  giveUpFailed();
  // A program that filled the memory must not go on holding what it made.
  const bool awaitsValue = process_->place != noPlace && (failure.kind == FailureKind::error ||
                                                          failure.kind == FailureKind::suspension);
  process_->suspended = awaitsValue || failure.kind == FailureKind::softBreak;
  locate(memory, *process_, failure);
  failure.context = running_;
  if (process_->suspended) {
    process_->failure = names->failure = ++lastFailure_;
    names->failedProcess = running_;
  } else {
    giveUp(running_);
  }
  if (failure.kind == FailureKind::suspension) failure.args.insert(failure.args.begin(), running_);
  throw Failure(failure);
}

// A break makes the message or turn that saw it begin once more when the program is continued.
void Machine::handleOrThrow(const Failure& failure) {
  const InRoom room(memory, Room::library);
  Failure current = failure;
  inFlight_ = &current;
  if (current.kind == FailureKind::softBreak) {
    if (process_->sendNext == 0) --process_->frames[process_->depth - 1].pc;
    process_->place = noPlace;
  }
  while (true) {
    const bool handled =
        current.kind == FailureKind::error || current.kind == FailureKind::memoryFull;
    const std::size_t depth = handled ? handlerDepth(classOfFailure(current)) : SIZE_MAX;
    if (depth == SIZE_MAX) putAside(current);
    try {
      activateHandler(depth, current);
      inFlight_ = nullptr;
      return;
    } catch (const Failure& inHandler) {
      // The handler could not even start; its own failure goes to the next one out.
      current = inHandler;
    } catch (const std::bad_alloc&) {
      current = memoryFailure(memory);
    }
  }
}

OopType Machine::exceptionFor(const Failure& failure) {
  const OopType oop = newInstance(memory, classOfFailure(failure));
  const OopType text = stringOop(memory, failure.message);
  const OopType arguments = arrayOop(memory, failure.args);
  OopType* slots = memory.at(oop).slots;
  slots[ExceptionText] = text;
  slots[ExceptionNumber] = smallIntOop(failure.number);
  slots[ExceptionArguments] = arguments;
  return oop;
}

}  // namespace zel
