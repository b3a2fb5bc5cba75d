// Exceptions, and how programs are unwound.
//
// A handler runs on top of the activation that signalled the exception, in an activation of
// Exception>>_handledBy:at:resumable: that is marked `handling`. When that answers, its value
// becomes that of the message that signalled. Everything else that a handler can do unwinds: to the
// on:do:, or to the handling activation itself for resume:.
//
// Unwinding cuts the stack down to the innermost frame that owes a block, replaces that frame by
// one of Block>>_unwindTo:then:with:, which runs the block and then goes on with the unwinding, and
// so forth to the target. Frames are named by their depth: whoever names one lies above it.
#include <algorithm>

#include "lang/compiler.h"
#include "machine.h"
#include "objmem/classes.h"
#include "objmem/values.h"

namespace zel {

namespace {

constexpr std::size_t notFound = SIZE_MAX;
constexpr std::uint64_t leastPatience = 100'000;

// Arguments of the two activations above, from the frame's base on.
enum HandlingArgument { HandlingBlock, HandlingHandler, HandlingResumable };
enum UnwindingArgument { UnwindingTarget, UnwindingArrival, UnwindingValue };

// Where a frame goes on that is to answer: behind the first.
constexpr Op answering[] = {{OpCode::answer, 0, 0}, {OpCode::answer, 0, 0}};

OopType depthOop(std::size_t depth) {
  return smallIntOop(static_cast<std::int32_t>(depth));
}

bool handles(const Memory& memory, OopType exceptions, OopType exceptionClass) {
  if (isClass(memory, exceptions)) return inheritsFrom(memory, exceptionClass, exceptions);
  const Object& set = memory.at(exceptions);
  return std::any_of(set.slots, set.slots + set.size,
                     [&](OopType each) { return inheritsFrom(memory, exceptionClass, each); });
}

void requireBlock(const Memory& memory, OopType oop, std::uint32_t mostParameters) {
  if (classOf(memory, oop) != BlockClass) wrongKind(memory, "a block", oop);
  const std::uint32_t takes = blockArguments(memory, oop);
  if (takes <= mostParameters) return;
  throw Failure(
      ErrBadMessageParts,
      "the block takes " + argumentsText(takes) + ", not " + std::to_string(mostParameters), {oop});
}

}  // namespace

void requireExceptions(const Memory& memory, OopType oop) {
  const bool areSome = isClass(memory, oop) ? inheritsFrom(memory, oop, ExceptionClass)
                                            : classOf(memory, oop) == ExceptionSetClass;
  if (!areSome) wrongKind(memory, "a class of exceptions", oop);
}

OopType Machine::classOfFailure(const Failure& failure) const {
  if (failure.exception != 0) return classOf(memory, failure.exception);
  return failure.exceptionClass != 0 ? failure.exceptionClass : ErrorClass;
}

OopType Machine::exceptionFor(const Failure& failure) {
  if (failure.exception != 0) return failure.exception;
  const OopType oop = newInstance(memory, classOfFailure(failure));
  const OopType text = stringOop(memory, failure.message);
  const OopType arguments = arrayOop(memory, failure.args);
  OopType* slots = memory.at(oop).slots;
  slots[ExceptionText] = text;
  slots[ExceptionNumber] = smallIntOop(failure.number);
  slots[ExceptionArguments] = arguments;
  return oop;
}

void Machine::protect(FrameMark mark) {
  const std::uint32_t depth = process_->depth - 1;
  const Frame& sender = process_->frames[depth];
  const std::uint32_t arguments = mark == FrameMark::handler ? 2 : 1;
  if (!sender.code->kernel || sender.code->owner != BlockClass ||
      sender.code->argumentCount() != arguments) {
    throw Failure(ErrBadArgumentKind, "only on:do:, ensure: and ifCurtailed: send this message");
  }
  const OopType* given = &process_->stack[sender.base];
  if (mark == FrameMark::handler) {
    withRoom(memory, [&] {
      requireExceptions(memory, given[0]);
      requireBlock(memory, given[1], 1);
    });
  } else {
    withRoom(memory, [&] { requireBlock(memory, given[0], 0); });
  }
  activateBlock(0);
  process_->frames[depth].mark = mark;
}

void Machine::runEnsured() {
  const std::uint32_t depth = process_->depth - 1;
  activateBlock(0);
  Frame& sender = process_->frames[depth];
  if (sender.mark == FrameMark::ensured) sender.mark = FrameMark::none;
}

std::size_t Machine::handlerOf(const Frame& handling) const {
  return static_cast<std::size_t>(smallIntValue(process_->stack[handling.base + HandlingHandler]));
}

// The innermost frame below `depth` with a handler for the class. While a handler runs, it and
// those inside of its on:do: do not count.
std::size_t Machine::handlerDepth(OopType exceptionClass, std::size_t depth) const {
  while (depth-- > 0) {
    const Frame& frame = process_->frames[depth];
    if (frame.mark == FrameMark::handling) {
      depth = handlerOf(frame);
    } else if (frame.mark == FrameMark::handler &&
               handles(memory, process_->stack[frame.base], exceptionClass)) {
      return depth;
    }
  }
  return notFound;
}

// The frame in which the innermost handler runs for the exception.
std::size_t Machine::handlingDepth(OopType exception) const {
  for (std::size_t depth = process_->depth; depth-- > 0;) {
    const Frame& frame = process_->frames[depth];
    if (frame.mark == FrameMark::handling && frame.receiver == exception) return depth;
  }
  throw Failure(ErrDeadReturn, "the exception is not being handled", {exception});
}

void Machine::keepOwn() {
  for (const OopType owner : {BlockClass, ExceptionClass}) {
    const Object& methods = memory.at(memory.at(owner).slots[ClassMethods - 1]);
    for (std::uint32_t i = 0; i + 1 < methods.size; i += 2) {
      if (bytesOf(memory, methods.slots[i]).starts_with('_')) {
        own_.emplace_back(methods.slots[i], methods.slots[i + 1]);
      }
    }
  }
}

const Routine* Machine::ownRoutine(OopType selector) const {
  for (const auto& [name, method] : own_) {
    if (name == selector) return memory.at(method).extra->routine.get();
  }
  return nullptr;
}

// Begins an activation of one of the machine's own methods; receiver and arguments are on the
// stack. Spare values are used before the stack grows, so that this cannot fail while the program
// is unwound.
void Machine::enterOwn(std::string_view selector, FrameMark mark) {
  const Code& code = *ownRoutine(symbolOop(memory, selector))->code;
  enterCode(code, code.argumentCount(), true);
  process_->frames[process_->depth - 1].mark = mark;
}

// Runs the handler of an on:do: for the exception on top of the stack.
void Machine::beginHandling(std::size_t handler, bool resumable) {
  process_->place = noPlace;
  process_->sendNext = 0;
  fresh_ = 0;
  push(process_->stack[process_->frames[handler].base + 1]);
  push(depthOop(handler));
  push(booleanOop(resumable));
  enterOwn("_handledBy:at:resumable:", FrameMark::handling);
}

void Machine::signal(OopType exception, bool outward) {
  ProcessState& process = *process_;
  const std::size_t from =
      outward ? handlerOf(process.frames[handlingDepth(exception)]) : process.depth;
  const std::size_t handler =
      withRoom(memory, [&] { return handlerDepth(classOf(memory, exception), from); });
  process.top = process.place;
  push(exception);
  if (handler != notFound) return beginHandling(handler, true);
  sendNext(withRoom(memory, [&] { return symbolOop(memory, "defaultAction"); }), 0);
}

void Machine::leaveHandler(OopType exception, Arrival arrival, OopType value) {
  unwind(handlerOf(process_->frames[handlingDepth(exception)]), arrival, value);
}

void Machine::retry(OopType exception, OopType block) {
  if (block != 0) requireBlock(memory, block, 0);
  const Frame& handler = process_->frames[handlerOf(process_->frames[handlingDepth(exception)])];
  leaveHandler(exception, Arrival::restart, block != 0 ? block : handler.receiver);
}

void Machine::resume(OopType exception, OopType value) {
  const std::size_t depth = handlingDepth(exception);
  const OopType* arguments = &process_->stack[process_->frames[depth].base];
  if (arguments[HandlingResumable] != TrueOop) {
    throw Failure(ErrDeadReturn, "the program cannot go on where the exception happened",
                  {exception});
  }
  unwind(depth, Arrival::answer, value);
}

// Leaves the frames above the target, and goes on there.
void Machine::unwind(std::size_t target, Arrival arrival, OopType value) {
  ProcessState& process = *process_;
  process.place = noPlace;
  process.sendNext = 0;
  fresh_ = 0;
  for (std::size_t depth = process.depth; --depth > target;) {
    const Frame& frame = process.frames[depth];
    if (!owesBlock(frame)) continue;
    const OopType block = process.stack[frame.base];
    process.depth = static_cast<std::uint32_t>(depth);
    process.top = frame.base - 1;
    push(block);
    push(depthOop(target));
    push(depthOop(static_cast<std::size_t>(arrival)));
    push(value);
    return enterOwn("_unwindTo:then:with:", FrameMark::unwinding);
  }
  arrive(target, arrival, value);
}

void Machine::unwindFurther() {
  const Frame& sender = process_->frames[process_->depth - 1];
  if (sender.mark != FrameMark::unwinding) {
    throw Failure(ErrBadArgumentKind, "only an unwinding sends this message");
  }
  const OopType* arguments = &process_->stack[sender.base];
  unwind(static_cast<std::size_t>(smallIntValue(arguments[UnwindingTarget])),
         static_cast<Arrival>(smallIntValue(arguments[UnwindingArrival])),
         arguments[UnwindingValue]);
}

void Machine::arrive(std::size_t target, Arrival arrival, OopType value) {
  ProcessState& process = *process_;
  // Where the frame's own message stood, the receiver of the frame above.
  if (target + 1 < process.depth) process.top = process.frames[target + 1].base - 1;
  process.depth = static_cast<std::uint32_t>(target) + 1;
  Frame& frame = process.frames[target];
  switch (arrival) {
    case Arrival::answer:
      process.top = frame.base;
      push(value);
      frame.pc = &answering[1];
      return;
    case Arrival::restart:
      process.stack[frame.base - 1] = frame.receiver = value;
      process.top = frame.base + frame.code->argumentCount();
      frame.pc = frame.code->ops.data() + frame.code->blocks[0].entry;
      frame.mark = FrameMark::none;
      return;
    case Arrival::handle:
      push(value);
      return beginHandling(target, false);
  }
}

// Where the program has neither memory nor stack left it is unwound before its handler runs.
bool Machine::startHandler(const Failure& failure) {
  ProcessState& process = *process_;
  const bool noRoom = failure.kind == FailureKind::noRoom;
  if (failure.kind != FailureKind::error && !noRoom) return false;
  const std::size_t handler =
      withRoom(memory, [&] { return handlerDepth(classOfFailure(failure), process.depth); });
  if (handler == notFound) return askDefaultAction(failure);
  const OopType exception = withRoom(memory, [&] { return exceptionFor(failure); });
  if (noRoom) {
    unwind(handler, Arrival::handle, exception);
    return true;
  }
  const bool resumable = process.place != noPlace;
  if (resumable) process.top = process.place;
  push(exception);
  beginHandling(handler, resumable);
  return true;
}

// What a class of exceptions answers for itself is the program's own; that of the kernel would only
// make the same failure of it.
bool Machine::askDefaultAction(const Failure& failure) {
  ProcessState& process = *process_;
  if (failure.kind != FailureKind::error || process.place == noPlace) return false;
  const OopType selector = withRoom(memory, [&] { return symbolOop(memory, "defaultAction"); });
  const OopType method = lookupMethod(memory, classOfFailure(failure), selector, false);
  const Code* code = memory.at(method).extra->routine->code.get();
  if (code == nullptr || code->kernel) return false;
  const OopType exception = withRoom(memory, [&] { return exceptionFor(failure); });
  process.top = process.place;
  push(exception);
  sendNext(selector, 0);
  return true;
}

// A break makes the message or turn that saw it begin once more when the program is continued. What
// a message has done by then is lost.
void Machine::handleOrThrow(Failure failure) {
  const InRoom room(memory, Room::library);
  const Meanwhile<const Failure*> inFlight(inFlight_, &failure);
  ProcessState& process = *process_;
  if (failure.kind == FailureKind::softBreak) {
    if (process.sendNext == 0) --process.frames[process.depth - 1].pc;
    const bool inMessage = process.place != noPlace;
    process.patience = inMessage ? std::max(leastPatience, 2 * process.patience) : 0;
    process.place = noPlace;
    if (settling_) throw Failure(std::move(failure));
  } else if (process.sendNext != 0) {
    process.place = process.top - process.sendNextCount - 1;
  }
  while (true) {
    const bool last = failure.kind == FailureKind::noRoom;
    try {
      if (startHandler(failure)) return;
      break;
    } catch (Failure& inStart) {
      if (last) break;
      failure = std::move(inStart);
    } catch (const std::bad_alloc&) {
      if (last) break;
      failure = memoryFailure(memory);
    }
  }
  putAside(std::move(failure));
}

}  // namespace zel
