#include <algorithm>
#include <cstring>

#include "machine.h"
#include "objmem/classes.h"
#include "objmem/clients.h"
#include "objmem/values.h"
#include "printing.h"

namespace zel {

namespace {

constexpr std::size_t mostStackValues = 1U << 20;

constexpr int homeBits = 29;  // of an activation's number in each of the two last slots

bool areSmallInts(OopType a, OopType b) {
  return (a & b & 3) == 3;
}

std::int32_t asSigned(OopType oop) {
  return static_cast<std::int32_t>(oop);
}

// The same as isFloat, for an oop that is known to be a value or to name an object. Floats never
// rest.
bool isFloatObject(const Memory& memory, OopType oop) {
  if ((oop & 3) != 1) return false;
  const Object* object = memory.atHand(oop);
  return object != nullptr && object->classOop == FloatClassOop;
}

std::uint64_t homeOf(const Object& block) {
  const auto low = static_cast<std::uint64_t>(smallIntValue(block.slots[BlockHome]));
  const auto high = static_cast<std::uint64_t>(smallIntValue(block.slots[BlockHome + 1]));
  return high << homeBits | low;
}

[[gnu::always_inline]] inline const Code& codeOf(const Memory& memory, const Object& block) {
  return *memory.lookAt(block.slots[BlockMethod]).extra->routine->code;
}

const BlockCode& bodyOf(const Code& code, const Object& block) {
  return code.blocks[static_cast<std::size_t>(smallIntValue(block.slots[BlockNumber]))];
}

// The same for a block that may be of the store, and then of a method that another version of the
// library had. Throws ErrNotImplemented.
const Code& requireCode(const Memory& memory, OopType oop, const Object& block) {
  if (block.slots[BlockMethod] != NilOop) {
    const Code& code = codeOf(memory, block);
    const auto number = static_cast<std::size_t>(smallIntValue(block.slots[BlockNumber]));
    if (number < code.blocks.size()) return code;
  }
  throw Failure(ErrNotImplemented,
                "the block belongs to a method that this version of the library does not have",
                {oop});
}

}  // namespace

// The process's state while the loop works on it, in registers of the processor.
struct Machine::Registers {
  Frame* frame;
  const Op* pc;  // the op in work
  OopType* sp;   // the topmost value
  OopType* locals;

  explicit Registers(ProcessState& process)
      : frame(&process.frames[process.depth - 1]),
        pc(frame->pc - 1),
        sp(process.stack.data() + process.top - 1),
        locals(process.stack.data() + frame->base) {}

  void store(ProcessState& process, std::uint32_t place = noPlace) const {
    frame->pc = pc + 1;
    process.top = static_cast<std::uint32_t>(sp - process.stack.data()) + 1;
    process.place = place;
  }
  // The same in a message with so many arguments, whose receiver's place takes its value.
  void storeForSend(ProcessState& process, std::size_t argumentCount) const {
    store(process, static_cast<std::uint32_t>(sp - process.stack.data() -
                                              static_cast<std::ptrdiff_t>(argumentCount)));
  }

  void jump() { pc = frame->code->ops.data() + pc->a - 1; }
  // Takes two small integers, and answers what their comparison decides: a jump, where one follows.
  void decide(bool holds) {
    --sp;
    const OpCode next = pc[1].code;
    if (next != OpCode::jumpIfFalse && next != OpCode::jumpIfTrue) {
      *sp = booleanOop(holds);
      return;
    }
    --sp;
    ++pc;
    if (holds == (next == OpCode::jumpIfTrue)) jump();
  }
  // Puts a result in place of the topmost value, or where it is stored at once.
  void answerHere(OopType result) {
    if (pc[1].code != OpCode::popFrame) {
      *sp = result;
      return;
    }
    ++pc;
    --sp;
    locals[pc->a] = result;
  }
  bool hasRoom(const ProcessState& process, const BlockCode& body) const {
    return process.depth < process.frames.size() &&
           sp + body.stackNeed < process.stack.data() + process.stack.size();
  }
  // Begins an activation, for which there is room; the arguments are on the stack.
  void enter(ProcessState& process, const Code& code, const BlockCode& body, OopType receiver,
             OopType environment, std::uint64_t home) {
    frame->pc = pc + 1;
    ++frame;
    ++process.depth;
    locals = sp - body.argumentCount + 1;
    pc = code.ops.data() + body.entry - 1;
    frame->code = &code;
    frame->receiver = receiver;
    frame->environment = environment;
    frame->base = static_cast<std::uint32_t>(locals - process.stack.data());
    frame->mark = FrameMark::none;
    frame->isHome = false;
    frame->home = home;
    for (std::uint32_t i = body.temporaries; i > 0; --i) *++sp = NilOop;
  }
};

Machine::Machine(Memory& memoryToUse, Session& owner) : memory(memoryToUse), session(owner) {
  memory.addRoots(this,
                  [](void* machine, Memory&) { static_cast<Machine*>(machine)->markRoots(); });
}

void Machine::markRoots() {
  memory.mark(running_);
  memory.mark(waiting_);
  for (const auto& [selector, method] : own_) {
    memory.mark(selector);
    memory.mark(method);
  }
  for (const Failure* failure : {inFlight_, settled_}) {
    if (failure == nullptr) continue;
    for (const OopType oop : failure->args) memory.mark(oop);
    memory.mark(failure->exception);
    memory.mark(failure->exceptionClass);
    memory.mark(failure->context);
  }
}

// The object, which may have to be loaded: that can fail between two ops. What is called has no
// reference to the registers, which would not be any more then.
[[gnu::always_inline]] inline Object& Machine::reach(const Registers& at, OopType oop) {
  Object* object = memory.atHand(oop);
  if (object != nullptr) [[likely]]
    return *object;
  at.store(*process_);
  return bring(oop);
}

Object& Machine::bring(OopType oop) {
  withRoom(memory, [&] { memory.at(oop); });
  return memory.at(oop);
}

// What the receiver's messages are found by.
[[gnu::always_inline]] inline OopType Machine::keyFor(const Registers& at, OopType receiver) {
  if (isSmallInt(receiver)) return SmallIntegerClass;
  if ((receiver & 3) == 1) {
    const Object* object = memory.atHand(receiver);
    if (object != nullptr) [[likely]] {
      return object->classOop == ClassClass ? receiver | 2 : object->classOop;
    }
    at.store(*process_);
  }
  return keyOfAbsent(receiver);
}

// What holds a captured variable.
[[gnu::always_inline]] inline Object& Machine::outer(const Registers& at) {
  Object* environment = &reach(at, at.frame->environment);
  for (unsigned hops = at.pc->b; hops > 0; --hops) {
    environment = &reach(at, environment->slots[0]);
  }
  return *environment;
}

// Environments of blocks in the store are changed by their programs alone.
void Machine::noteEnvironment(OopType oop, unsigned hops) {
  withRoom(memory, [&] {
    OopType changed = oop;
    for (unsigned i = 0; i < hops; ++i) changed = memory.at(changed).slots[0];
    const ChangeOfInvariant change(memory, changed);
    prepareWrite(memory, changed);
  });
}

// Called when the countdown has ended, which it has soon after a message that soft breaks wait for.
void Machine::poll() {
  process_->patience = 0;
  memory.meter.heedSoftBreaks();
  memory.meter.check();
  memory.collectIfDue();
}

OopType Machine::callPrimitive(const Routine& routine, OopType receiver, const OopType* arguments) {
  return withRoom(memory, [&] { return routine.primitive(memory, receiver, arguments); });
}

// A temporary that arithmetic made last is known to nothing else: it can become the result. 0 when
// there is no room: the message that follows collects.
[[gnu::always_inline]] inline OopType Machine::floatResult(Op op, OopType left, OopType right,
                                                           double value) {
  const OopType spent = (op.b & temporaryReceiver) != 0 ? left : right;
  if (op.b == noTemporary || spent != fresh_) {
    return fresh_ = memory.tryNumber(FloatClassOop, std::bit_cast<std::uint64_t>(value));
  }
  std::memcpy(memory.at(spent).bytes, &value, sizeof value);
  return spent;
}

[[gnu::always_inline]] inline OopType Machine::calculate(Op op, OopType left, OopType right,
                                                         double a, double b) {
  if (op.code == OpCode::add) return floatResult(op, left, right, a + b);
  if (op.code == OpCode::subtract) return floatResult(op, left, right, a - b);
  if (op.code == OpCode::multiply) return floatResult(op, left, right, a * b);
  if (op.code == OpCode::less) return booleanOop(a < b);
  if (op.code == OpCode::greater) return booleanOop(a > b);
  if (op.code == OpCode::atMost) return booleanOop(a <= b);
  if (op.code == OpCode::atLeast) return booleanOop(a >= b);
  return booleanOop(a == b);
}

// What the operation answers when both are numbers and one is a float, else 0: integers of more
// than 30 bits, and results that find no room, are left to the message.
OopType Machine::floatArithmetic(Op op, OopType left, OopType right) {
  if (!isFloatObject(memory, left) || !isFloatObject(memory, right)) {
    return mixedArithmetic(op, left, right);
  }
  return calculate(op, left, right, floatValue(memory, left), floatValue(memory, right));
}

OopType Machine::mixedArithmetic(Op op, OopType left, OopType right) {
  if (isSmallInt(left) && isFloatObject(memory, right)) {
    return calculate(op, left, right, smallIntValue(left), floatValue(memory, right));
  }
  if (isFloatObject(memory, left) && isSmallInt(right)) {
    return calculate(op, left, right, floatValue(memory, left), smallIntValue(right));
  }
  return 0;
}

// What a loop that began with a float goes on with, 0 if it did not: rounded once, as an interval's
// elements are. Below the counter and the step are the start and the number of turns.
OopType Machine::nextOfFloats(OopType* top) {
  if (!isFloatObject(memory, top[-3])) return 0;
  const double turns = numberValue(memory, top[-2]) + 1;
  return withRoom(memory, [&] {
    const double next = floatValue(memory, top[-3]) + turns * smallIntValue(top[0]);
    const OopType oop = floatOop(memory, next);
    top[-2] = turns <= smallIntMax ? smallIntOop(static_cast<std::int32_t>(turns))
                                   : floatOop(memory, turns);
    return oop;
  });
}

// Makes room for one more frame and `need` more values.
void Machine::growStacks(std::size_t need) {
  ProcessState& process = *process_;
  process.place = noPlace;
  const std::size_t values = process.top + need + 1;
  if (process.depth >= mostFrames || values > mostStackValues) {
    throw Failure(ErrTooDeep,
                  "the recursion is too deep (" + std::to_string(process.depth) + " activations)",
                  {}, FailureKind::noRoom);
  }
  withRoom(memory, [&] {
    if (process.depth >= process.frames.size()) {
      const std::size_t frames = std::min(process.frames.size() * 2 + 8, mostFrames);
      memory.reserve(frames * sizeof(Frame));
      process.frames.reserve(frames);
      process.frames.resize(frames);
    }
    if (values > process.stack.size()) {
      const std::size_t room = std::max(values, process.stack.size() * 2);
      memory.reserve(room * sizeof(OopType));
      process.stack.reserve(room);
      process.stack.resize(room);
    }
  });
  memory.recount(running_);
}

// Begins a method's activation; receiver and arguments are on the stack.
void Machine::enterCode(const Code& code, std::size_t argumentCount, bool usesSpare) {
  const BlockCode& body = code.blocks[0];
  const bool fits = usesSpare && process_->depth < process_->frames.size() &&
                    process_->top + body.stackNeed - spareValues < process_->stack.size();
  if (!fits) growStacks(body.stackNeed);
  const OopType receiver = process_->stack[process_->top - argumentCount - 1];
  Registers registers(*process_);
  registers.enter(*process_, code, body, receiver, NilOop,
                  code.hasHomeReturns ? ++lastActivation_ : 0);
  registers.frame->isHome = code.hasHomeReturns;
  registers.store(*process_);
}

void Machine::activateBlock(std::size_t argumentCount) {
  ProcessState& process = *process_;
  const OopType block = process.stack[process.top - argumentCount - 1];
  const Object* object = withRoom(memory, [&] {
    const Object* found = memory.find(block);
    if (found != nullptr && found->classOop == BlockClass) requireCode(memory, block, *found);
    return found;
  });
  if (object == nullptr || object->classOop != BlockClass) wrongKind(memory, "a block", block);
  const Code& code = codeOf(memory, *object);
  const BlockCode& body = bodyOf(code, *object);
  if (body.argumentCount != argumentCount) {
    throw Failure(ErrBadMessageParts,
                  "the block takes " + std::to_string(body.argumentCount) +
                      (body.argumentCount == 1 ? " argument, not " : " arguments, not ") +
                      std::to_string(argumentCount),
                  {block});
  }
  const std::uint32_t epoch = memory.lookupEpoch();
  growStacks(body.stackNeed);
  if (memory.lookupEpoch() != epoch) return activateBlock(argumentCount);  // it may have gone
  Registers registers(process);
  registers.enter(process, code, body, object->slots[BlockReceiver],
                  object->slots[BlockEnvironment], homeOf(*object));
  registers.store(process);
}

void Machine::replaceArgument(const OopType& argument, OopType value) {
  process_->stack[static_cast<std::size_t>(&argument - process_->stack.data())] = value;
}

void Machine::makeRoomFor(std::size_t arguments) {
  const std::uint32_t place = process_->place;
  growStacks(arguments);
  process_->place = place;
}

void Machine::replaceArguments(std::size_t count, std::span<const OopType> arguments) {
  if (arguments.size() > count) makeRoomFor(arguments.size());
  process_->top -= static_cast<std::uint32_t>(count);
  for (const OopType argument : arguments) process_->stack[process_->top++] = argument;
}

void Machine::sendNext(OopType selector, std::size_t argumentCount) {
  if (briefly_ != nullptr) briefly_->become(memory.roomToRun());
  briefly_ = nullptr;
  process_->sendNext = selector;
  process_->sendNextCount = static_cast<std::uint32_t>(argumentCount);
}

// Sends the message that a control primitive asked for. It stays pending until it has begun, or for
// a primitive ended, so that a break in it can be continued.
void Machine::sendPending() {
  ProcessState& process = *process_;
  process.place = noPlace;
  if (--memory.meter.countdown < 0) poll();
  const OopType selector = process.sendNext;
  const std::uint32_t count = process.sendNextCount;
  process.place = process.top - count - 1;
  const OopType* arguments = process.stack.data() + process.place + 1;
  const OopType receiver = arguments[-1];
  const Routine& routine = find(receiver, keyOf(memory, receiver), selector, count);
  OopType result = frameChanged;
  if (routine.kind == Routine::Kind::primitive) {
    result = callPrimitive(routine, receiver, arguments);
    process.sendNext = 0;
  } else {
    process.sendNext = 0;
    if (routine.kind == Routine::Kind::code) {
      enterCode(*routine.code, count);
    } else {
      try {
        result = routine.control(*this, receiver, arguments);
      } catch (const Failure& failure) {
        if (failure.kind == FailureKind::softBreak) process.sendNext = selector;
        throw;
      }
    }
  }
  if (result == frameChanged) return;
  process.stack[process.place] = result;
  process.top = process.place + 1;
}

OopType Machine::makeBlock(std::uint32_t number) {
  const OopType oop = withRoom(
      memory, [&] { return memory.allocate(BlockClass, Impl::pointers, blockSlots, 0, false); });
  const Frame& frame = process_->frames[process_->depth - 1];
  constexpr std::uint64_t mask = (1U << homeBits) - 1;
  Object& object = memory.at(oop);
  object.slots[BlockEnvironment] = frame.environment;
  object.slots[BlockReceiver] = frame.receiver;
  object.slots[BlockMethod] = frame.code->method;
  object.slots[BlockNumber] = smallIntOop(static_cast<std::int32_t>(number));
  object.slots[BlockHome] = smallIntOop(static_cast<std::int32_t>(frame.home & mask));
  object.slots[BlockHome + 1] = smallIntOop(static_cast<std::int32_t>(frame.home >> homeBits));
  object.invariant = true;
  return oop;
}

OopType Machine::makeEnvironment(std::size_t size) {
  const OopType oop = withRoom(
      memory, [&] { return memory.allocate(EnvironmentClass, Impl::pointers, 0, size + 1, true); });
  memory.at(oop).slots[0] = process_->frames[process_->depth - 1].environment;
  memory.at(oop).invariant = true;  // for everyone but the code that it belongs to
  return oop;
}

OopType Machine::makeArray(std::size_t size) {
  const std::span elements(process_->stack.data() + process_->top - size, size);
  return withRoom(memory, [&] { return arrayOop(memory, elements); });
}

void Machine::notBoolean(OopType value) const {
  throw Failure(ErrNotBoolean, describe(memory, value) + " is used where true or false is expected",
                {value});
}

// Leaves the frames above the one that ^ in the active block returns from; answers false when
// blocks have to run before, the last of which goes on with that.
bool Machine::cutToHome(OopType value) {
  ProcessState& process = *process_;
  const std::uint64_t home = process.frames[process.depth - 1].home;
  std::uint32_t depth = process.depth;
  bool owes = false;
  for (; depth > 0; --depth) {
    const Frame& frame = process.frames[depth - 1];
    if (frame.isHome && frame.home == home) break;
    owes |= owesBlock(frame);
  }
  if (depth == 0) throw Failure(ErrDeadReturn, "^ in a block whose method has ended already");
  if (owes) {
    unwind(depth - 1, Arrival::answer, value);
  } else {
    process.depth = depth;
  }
  return !owes;
}

// Carries the process out until its first frame answers.
OopType Machine::interpret() {
  while (process_->sendNext != 0) sendPending();
  Registers at(*process_);

  while (true) {
    ++at.pc;
    switch (at.pc->code) {
      case OpCode::pushLiteral:
        *++at.sp = at.frame->code->literals[at.pc->a];
        continue;
      case OpCode::pushSelf:
        *++at.sp = at.frame->receiver;
        continue;
      case OpCode::pushFrame:
        *++at.sp = at.locals[at.pc->a];
        if (at.pc[1].code != OpCode::pushFrame) continue;
        ++at.pc;  // two of them are the most frequent pair
        *++at.sp = at.locals[at.pc->a];
        continue;
      case OpCode::storeFrame:
        at.locals[at.pc->a] = *at.sp;
        continue;
      case OpCode::popFrame:
        at.locals[at.pc->a] = *at.sp--;
        continue;
      case OpCode::pushOuter:
        *++at.sp = outer(at).slots[at.pc->a + 1];
        continue;
      case OpCode::storeOuter:
        if (const Object& environment = outer(at); environment.stored && !environment.dirty) {
          at.store(*process_);
          noteEnvironment(at.frame->environment, at.pc->b);
        }
        outer(at).slots[at.pc->a + 1] = *at.sp;
        continue;
      case OpCode::pushInstance:
        *++at.sp = reach(at, at.frame->receiver).slots[at.pc->a];
        continue;
      case OpCode::storeInstance:
        at.store(*process_);
        withRoom(memory, [&] { prepareWrite(memory, at.frame->receiver); });
        memory.at(at.frame->receiver).slots[at.pc->a] = *at.sp;
        continue;
      case OpCode::pushGlobal: {
        at.store(*process_);
        const OopType value = readGlobal(at.frame->code->literals[at.pc->a]);
        *++at.sp = value;
        continue;
      }
      case OpCode::storeGlobal:
        at.store(*process_);
        writeGlobal(at.frame->code->literals[at.pc->a], *at.sp);
        continue;
      case OpCode::makeEnvironment:
        at.store(*process_);
        at.frame->environment = makeEnvironment(at.pc->a);
        continue;
      case OpCode::leaveEnvironment:
        at.frame->environment = reach(at, at.frame->environment).slots[0];
        continue;
      case OpCode::pop:
        --at.sp;
        continue;
      case OpCode::duplicate:
        at.sp[1] = at.sp[0];
        ++at.sp;
        continue;
      case OpCode::jump:
        at.jump();
        continue;
      case OpCode::count: {
        OopType& counter = at.locals[at.pc->a];
        std::int32_t next = 0;
        const std::int32_t step = static_cast<std::int8_t>(at.pc->b) * (1 << 2);
        if (!isSmallInt(counter) || __builtin_add_overflow(asSigned(counter), step, &next))
          continue;
        counter = static_cast<OopType>(next);
        at.pc += countedOps + 1;
        [[fallthrough]];
      }
      case OpCode::jumpBack:
        if (--memory.meter.countdown < 0) {
          at.store(*process_);
          poll();
        }
        at.jump();
        continue;
      case OpCode::jumpIfFalse:
      case OpCode::jumpIfTrue: {
        const OopType value = *at.sp;
        if (!isBoolean(value)) {
          at.store(*process_);
          notBoolean(value);
        }
        --at.sp;
        if ((value == TrueOop) == (at.pc->code == OpCode::jumpIfTrue)) {
          at.jump();
        }
        continue;
      }
      case OpCode::jumpIfNil:
        if (*at.sp == NilOop) at.jump();
        continue;
      case OpCode::jumpIfNotNil:
        if (*at.sp != NilOop) at.jump();
        continue;
      case OpCode::makeBlock: {
        at.store(*process_);
        const OopType block = makeBlock(at.pc->a);
        *++at.sp = block;
        continue;
      }
      case OpCode::makeArray: {
        at.store(*process_);
        const OopType array = makeArray(at.pc->a);
        at.sp -= at.pc->a;
        *++at.sp = array;
        continue;
      }
      case OpCode::answerHome: {
        at.store(*process_);
        const OopType value = *at.sp;
        if (!cutToHome(value)) {
          at = Registers(*process_);
          continue;
        }
        at.frame = &process_->frames[process_->depth - 1];
        at.locals = process_->stack.data() + at.frame->base;
        at.sp = at.locals;
        *at.sp = value;
        [[fallthrough]];
      }
      case OpCode::answer:
      case OpCode::answerSelf: {
        const OopType value = at.pc->code == OpCode::answerSelf ? at.frame->receiver : *at.sp;
        at.sp = at.locals - 1;
        *at.sp = value;
        fresh_ = 0;
        if (--process_->depth == 0) return value;
        --at.frame;
        at.pc = at.frame->pc - 1;
        at.locals = process_->stack.data() + at.frame->base;
        continue;
      }
      case OpCode::advance:
        if (!areSmallInts(at.sp[-1], at.sp[0])) {
          at.store(*process_);
          const OopType next = nextOfFloats(at.sp);
          if (next == 0) break;
          *--at.sp = next;
          continue;
        }
        [[fallthrough]];
      case OpCode::add:
      case OpCode::subtract:
        if (areSmallInts(at.sp[-1], at.sp[0])) {
          // The tag of one operand goes, so that the other's is the result's.
          std::int32_t result = 0;
          const bool adds = at.pc->code != OpCode::subtract;
          const std::int32_t other = asSigned(at.sp[0] & ~3U);
          if (!(adds ? __builtin_add_overflow(asSigned(at.sp[-1]), other, &result)
                     : __builtin_sub_overflow(asSigned(at.sp[-1]), other, &result))) {
            --at.sp;
            at.answerHere(static_cast<OopType>(result));
            continue;
          }
        }
        break;
      case OpCode::multiply:
        if (areSmallInts(at.sp[-1], at.sp[0])) {
          std::int32_t result = 0;
          if (!__builtin_mul_overflow(asSigned(at.sp[-1] & ~3U), smallIntValue(at.sp[0]),
                                      &result)) {
            --at.sp;
            *at.sp = static_cast<OopType>(result) | 3;
            continue;
          }
        }
        break;
      case OpCode::less:
        if (!areSmallInts(at.sp[-1], at.sp[0])) break;
        at.decide(asSigned(at.sp[-1]) < asSigned(at.sp[0]));
        continue;
      case OpCode::greater:
        if (!areSmallInts(at.sp[-1], at.sp[0])) break;
        at.decide(asSigned(at.sp[-1]) > asSigned(at.sp[0]));
        continue;
      case OpCode::atMost:
        if (!areSmallInts(at.sp[-1], at.sp[0])) break;
        at.decide(asSigned(at.sp[-1]) <= asSigned(at.sp[0]));
        continue;
      case OpCode::atLeast:
        if (!areSmallInts(at.sp[-1], at.sp[0])) break;
        at.decide(asSigned(at.sp[-1]) >= asSigned(at.sp[0]));
        continue;
      case OpCode::equal:
        if (!areSmallInts(at.sp[-1], at.sp[0])) break;
        at.decide(at.sp[-1] == at.sp[0]);
        continue;
      case OpCode::send:
        break;
      default:
        __builtin_unreachable();
    }

    if (at.pc->code != OpCode::send) {
      const OopType result = floatArithmetic(*at.pc, at.sp[-1], at.sp[0]);
      if (result != 0) {
        --at.sp;
        at.answerHere(result);
        continue;
      }
    }

    // A message.
    const Code& code = *at.frame->code;
    Site& site = code.sites[at.pc->a];
    const std::uint32_t count = site.argumentCount;
    if (--memory.meter.countdown < 0) {
      at.store(*process_);
      poll();
    }
    OopType* receiver = at.sp - count;
    const OopType key = keyFor(at, *receiver);
    if (site.key != key || site.epoch != memory.lookupEpoch()) {
      at.storeForSend(*process_, count);
      findFor(site, code, *receiver, key);
    }
    const Routine& routine = *site.routine;
    switch (routine.kind) {
      case Routine::Kind::code: {
        const Code& called = *routine.code;
        if (!at.hasRoom(*process_, called.blocks[0])) {
          at.store(*process_);
          growStacks(called.blocks[0].stackNeed);
          at = Registers(*process_);
        }
        const bool isHome = called.hasHomeReturns;
        at.enter(*process_, called, called.blocks[0], at.sp[-static_cast<std::ptrdiff_t>(count)],
                 NilOop, isHome ? ++lastActivation_ : 0);
        at.frame->isHome = isHome;
        continue;
      }
      case Routine::Kind::primitive: {
        at.storeForSend(*process_, count);
        const OopType result = callPrimitive(routine, *receiver, receiver + 1);
        at.sp = receiver;
        *at.sp = result;
        continue;
      }
      case Routine::Kind::block: {
        const Object* block = memory.atHand(*receiver);
        if (block != nullptr && block->classOop == BlockClass && !block->stored) {
          const Code& called = codeOf(memory, *block);
          const BlockCode& body = bodyOf(called, *block);
          if (body.argumentCount == count && at.hasRoom(*process_, body)) {
            at.enter(*process_, called, body, block->slots[BlockReceiver],
                     block->slots[BlockEnvironment], homeOf(*block));
            continue;
          }
        }
        [[fallthrough]];
      }
      case Routine::Kind::control: {
        at.storeForSend(*process_, count);
        const OopType result = routine.control(*this, *receiver, receiver + 1);
        if (result != frameChanged) {
          at.sp = receiver;
          *at.sp = result;
          continue;
        }
        while (process_->sendNext != 0) sendPending();
        at = Registers(*process_);
        continue;
      }
    }
  }
}

std::uint32_t blockArguments(const Memory& memory, OopType block) {
  const Object& object = memory.at(block);
  return bodyOf(requireCode(memory, block, object), object).argumentCount;
}

}  // namespace zel
