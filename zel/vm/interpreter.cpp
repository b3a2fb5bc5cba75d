#include "interpreter.h"

#include <atomic>

#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/values.h"
#include "printing.h"
#include "session/session.h"
#include "unwinding.h"

namespace zel {

namespace {

constexpr std::size_t mostStackValues = 1U << 20;
constexpr std::uint32_t serialMask = 0x1FFFFFFF;  // fits a small integer

ExecutionLimits limits;
Machine* running = nullptr;
std::uint32_t lastSerial = 0;

enum BreakRequest { noBreak, softBreak, hardBreak };
std::atomic<int> breakRequest{noBreak};

struct CachedLookup {
  OopType receiverKey = 0;
  OopType selector = 0;
  OopType method = 0;
};
constexpr std::size_t cacheSize = 1024;
CachedLookup lookupCache[cacheSize];
std::uint32_t cacheEpoch = 0;

// Makes a machine the running one, whose stacks a collection visits.
class Running {
 public:
  explicit Running(Machine& machine) { running = &machine; }
  ~Running() { running = nullptr; }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
};

std::uint32_t nextSerial() {
  lastSerial = (lastSerial + 1) & serialMask;
  return lastSerial;
}

OopType findInDictionaries(OopType classOop, OopType selector, ClassSlot slot) {
  for (OopType at = classOop; at != NilOop; at = superclassOf(at)) {
    const OopType method = dictionaryAt(findObject(at)->slots[slot - 1], selector);
    if (method != 0) return method;
  }
  return 0;
}

OopType cachedLookup(OopType receiver, OopType selector) {
  if (cacheEpoch != lookupEpoch) {
    for (CachedLookup& entry : lookupCache) entry = {};
    cacheEpoch = lookupEpoch;
  }
  const OopType classOop = classOf(receiver);
  const bool classSide = classOop == ClassClass;
  // A class as receiver and the same class of an instance must not be taken for each other.
  const OopType key = classSide ? receiver | 2 : classOop;
  CachedLookup& entry = lookupCache[((key >> 2) * 31 ^ (selector >> 2)) % cacheSize];
  if (entry.receiverKey == key && entry.selector == selector) return entry.method;
  const OopType method = lookupMethod(classSide ? receiver : classOop, selector, classSide);
  if (method != 0) entry = {key, selector, method};
  return method;
}

void pushFrame(Machine& machine, const Frame& frame, std::size_t temporaries) {
  ProcessState& process = *machine.process;
  if (process.frames.size() >= limits.frames || process.stack.size() >= mostStackValues) {
    process.awaiting = notAwaiting;
    throw Failure(ErrTooDeep, "the recursion is too deep (" +
                                  std::to_string(process.frames.size()) + " activations)");
  }
  process.frames.push_back(frame);
  process.stack.resize(process.stack.size() + temporaries, NilOop);
}

void activateMethod(Machine& machine, OopType method, const Code& code, std::size_t argumentCount) {
  ProcessState& process = *machine.process;
  const std::size_t base = process.stack.size() - argumentCount;
  const std::uint32_t serial = nextSerial();
  const Frame frame{&code,  method, process.stack[base - 1], NilOop,
                    0,      0,      code.blocks[0].entry,    static_cast<std::uint32_t>(base),
                    serial, serial};
  pushFrame(machine, frame, code.blocks[0].temporaries);
}

[[noreturn]] void doesNotUnderstand(const ProcessState& process, OopType selector,
                                    std::size_t argumentCount) {
  const OopType* arguments = process.stack.data() + process.stack.size() - argumentCount;
  const OopType receiver = arguments[-1];
  throw Failure(ErrDoesNotUnderstand,
                describe(receiver) + " does not understand #" + std::string(bytesOf(selector)),
                {receiver, selector, arrayOop({arguments, arguments + argumentCount})})
      .ofClass(MessageNotUnderstoodClass);
}

OopType callPrimitive(Machine& machine, PrimitiveFType primitive, std::size_t argumentCount) {
  std::vector<OopType>& stack = machine.process->stack;
  const auto arguments = [&] { return stack.data() + stack.size() - argumentCount; };
  const std::size_t height = stack.size();
  try {
    return primitive(machine, arguments()[-1], arguments());
  } catch (const Failure& failure) {
    if (failure.number != ErrNoMemory || stack.size() != height) throw;
  }
  // The memory was full, perhaps of garbage.
  collect();
  return primitive(machine, arguments()[-1], arguments());
}

void countStep(Machine& machine) {
  ProcessState& process = *machine.process;
  collectIfDue();
  const int request = breakRequest.load(std::memory_order_relaxed);
  if (request == noBreak && --machine.stepsLeft > 0) return;
  breakRequest.store(noBreak, std::memory_order_relaxed);
  process.awaiting = notAwaiting;
  --process.frames.back().pc;  // a program that goes on begins with the same step
  if (request == softBreak) throw Failure(ErrSoftBreak, "the program was interrupted");
  if (request == hardBreak) throw Failure(ErrHardBreak, "the program was stopped");
  throw Failure(ErrHardBreak,
                "the program was stopped after " + std::to_string(limits.steps) + " steps");
}

OopType readGlobal(Machine& machine, OopType name) {
  Session* session = currentSession();
  if (session != nullptr) {
    const auto variable = session->variables.find(name);
    if (variable != session->variables.end()) return variable->second;
  }
  const OopType value = dictionaryAt(GlobalsOop, name);
  if (value != 0) return value;
  machine.process->awaiting = 0;
  throw Failure(ErrUnknownName, std::string(bytesOf(name)) + " is not defined", {name});
}

void writeGlobal(Machine& machine, OopType name, OopType value) {
  constexpr std::size_t mostVariables = 100'000;
  Session& session = requireSession();
  const auto variable = session.variables.find(name);
  if (variable != session.variables.end()) {
    variable->second = value;
    return;
  }
  machine.process->awaiting = notAwaiting;
  if (dictionaryAt(GlobalsOop, name) != 0) {
    throw Failure(ErrInvariant,
                  std::string(bytesOf(name)) + " is a global: use Globals at: put: to change it",
                  {name});
  }
  if (session.variables.size() >= mostVariables) {
    throw Failure(ErrNoMemory, "the session has too many variables");
  }
  session.variables[name] = value;
}

OopType& outerPlace(const Frame& frame, std::size_t place, std::size_t hops) {
  OopType environment = frame.environment;
  for (; hops > 0; --hops) environment = findObject(environment)->slots[0];
  return findObject(environment)->slots[place + 1];
}

OopType makeBlock(const Frame& frame, std::uint32_t number) {
  const OopType oop = allocate(BlockClass, Impl::pointers, 5, 0, false);
  findObject(oop)->slots = {frame.environment, frame.receiver, frame.method,
                            smallIntOop(static_cast<std::int32_t>(number)),
                            smallIntOop(static_cast<std::int32_t>(frame.home))};
  findObject(oop)->invariant = true;
  return oop;
}

bool takeCondition(ProcessState& process) {
  const OopType value = process.stack.back();
  if (!isBoolean(value)) {
    process.awaiting = notAwaiting;
    throw Failure(ErrNotBoolean, describe(value) + " is used where true or false is expected",
                  {value});
  }
  process.stack.pop_back();
  return value == TrueOop;
}

// The result of the operation on two small integers, 0 when it is not for this path.
OopType smallArithmetic(ArithmeticKind kind, OopType left, OopType right) {
  if (!isSmallInt(left) || !isSmallInt(right)) return 0;
  const std::int32_t a = smallIntValue(left);
  const std::int32_t b = smallIntValue(right);
  switch (kind) {
    case ArithmeticKind::add:
      return fitsSmallInt(a + b) ? smallIntOop(a + b) : 0;
    case ArithmeticKind::subtract:
      return fitsSmallInt(a - b) ? smallIntOop(a - b) : 0;
    case ArithmeticKind::less:
      return booleanOop(a < b);
    case ArithmeticKind::greater:
      return booleanOop(a > b);
    case ArithmeticKind::atMost:
      return booleanOop(a <= b);
    case ArithmeticKind::atLeast:
      return booleanOop(a >= b);
    case ArithmeticKind::equal:
      return booleanOop(a == b);
  }
  return 0;
}

// Returns from frame `depth` with the value on top of the stack. Answers false when that was the
// program's first frame.
bool answerFrom(ProcessState& process, std::size_t depth) {
  const OopType value = process.stack.back();
  process.stack.resize(process.frames[depth].base - 1);
  process.stack.push_back(value);
  process.frames.erase(process.frames.begin() + static_cast<std::ptrdiff_t>(depth),
                       process.frames.end());
  return depth > 0;
}

std::size_t homeDepth(ProcessState& process) {
  process.awaiting = notAwaiting;
  const std::uint32_t home = process.frames.back().home;
  for (std::size_t depth = process.frames.size(); depth-- > 0;) {
    if (process.frames[depth].serial == home) return depth;
  }
  throw Failure(ErrDeadReturn, "^ in a block whose method has ended already");
}

void makeEnvironment(Frame& frame, std::size_t size) {
  const OopType oop = allocate(EnvironmentClass, Impl::pointers, 0, size + 1, true);
  findObject(oop)->slots[0] = frame.environment;
  findObject(oop)->invariant = true;  // for everyone but the code that it belongs to
  frame.environment = oop;
}

void storeInstance(Machine& machine, const Frame& frame, std::size_t index) {
  machine.process->awaiting = notAwaiting;
  storeNamed(frame.receiver, index, machine.process->stack.back());
}

void countAndSend(Machine& machine, OopType selector, std::size_t argumentCount,
                  OopType lookupClass = 0) {
  countStep(machine);
  sendMessage(machine, selector, argumentCount, lookupClass);
}

// Replaces two small integers on top of the stack by their result; false when it is no work for
// this path.
bool computeSmall(std::vector<OopType>& stack, ArithmeticKind kind) {
  const OopType result = smallArithmetic(kind, stack[stack.size() - 2], stack.back());
  if (result == 0) return false;
  stack.pop_back();
  stack.back() = result;
  return true;
}

void makeArray(std::vector<OopType>& stack, std::size_t size) {
  const OopType array = arrayOop({stack.end() - static_cast<std::ptrdiff_t>(size), stack.end()});
  stack.resize(stack.size() - size);
  stack.push_back(array);
}

// Carries out one program until its first frame answers.
OopType interpret(Machine& machine) {
  ProcessState& process = *machine.process;
  std::vector<OopType>& stack = process.stack;
  while (true) {
    Frame& frame = process.frames.back();
    const Op op = frame.code->ops[frame.pc++];
    const auto literal = [&] { return frame.code->literals[op.a]; };
    const auto jumpIf = [&](bool condition) {
      if (condition) frame.pc = op.a;
    };
    // One line an operation.
    // clang-format off
    switch (op.code) {
      case OpCode::pushLiteral: stack.push_back(literal()); break;
      case OpCode::pushSelf: stack.push_back(frame.receiver); break;
      case OpCode::pushFrame: stack.push_back(stack[frame.base + op.a]); break;
      case OpCode::storeFrame: stack[frame.base + op.a] = stack.back(); break;
      case OpCode::pushOuter: stack.push_back(outerPlace(frame, op.a, op.b)); break;
      case OpCode::storeOuter: outerPlace(frame, op.a, op.b) = stack.back(); break;
      case OpCode::pushInstance: stack.push_back(findObject(frame.receiver)->slots[op.a]); break;
      case OpCode::storeInstance: storeInstance(machine, frame, op.a); break;
      case OpCode::pushGlobal: stack.push_back(readGlobal(machine, literal())); break;
      case OpCode::storeGlobal: writeGlobal(machine, literal(), stack.back()); break;
      case OpCode::makeEnvironment: makeEnvironment(frame, op.a); break;
      case OpCode::pop: stack.pop_back(); break;
      case OpCode::duplicate: stack.push_back(stack.back()); break;
      case OpCode::send: countAndSend(machine, literal(), op.b); break;
      case OpCode::sendSuper: countAndSend(machine, literal(), op.b, frame.code->owner); break;
      case OpCode::arithmetic:
        if (!computeSmall(stack, ArithmeticKind{op.b})) countAndSend(machine, literal(), 1);
        break;
      case OpCode::jumpBack: countStep(machine); frame.pc = op.a; break;
      case OpCode::jump: frame.pc = op.a; break;
      case OpCode::jumpIfFalse: jumpIf(!takeCondition(process)); break;
      case OpCode::jumpIfTrue: jumpIf(takeCondition(process)); break;
      case OpCode::jumpIfNil: jumpIf(stack.back() == NilOop); break;
      case OpCode::jumpIfNotNil: jumpIf(stack.back() != NilOop); break;
      case OpCode::makeBlock: stack.push_back(makeBlock(frame, op.a)); break;
      case OpCode::makeArray: makeArray(stack, op.a); break;
      case OpCode::answer:
        if (!answerFrom(process, process.frames.size() - 1)) return stack.back();
        break;
      case OpCode::answerHome:
        if (!answerFrom(process, homeDepth(process))) return stack.back();
        break;
    }
    // clang-format on
  }
}

// Runs the machine's process; `failure`, if given, happens at the point where it stands.
OopType run(Machine& machine, const Failure* failure = nullptr) {
  const Running scope(machine);
  machine.stepsLeft = limits.steps;
  machine.process->suspended = false;
  if (failure != nullptr) handleOrThrow(machine, *failure);
  while (true) {
    try {
      return interpret(machine);
    } catch (const Failure& raised) {
      handleOrThrow(machine, raised);
    } catch (const std::bad_alloc&) {
      machine.process->awaiting = notAwaiting;
      handleOrThrow(machine, Failure(ErrNoMemory, "the process has no memory left"));
    }
  }
}

Machine newMachine() {
  Machine machine;
  machine.processOop = allocate(ProcessClass, Impl::pointers, 0, 0, false);
  Object& object = *findObject(machine.processOop);
  object.invariant = true;
  object.more().process = std::make_unique<ProcessState>();
  machine.process = object.extra->process.get();
  machine.process->sessionId = requireSession().id;
  return machine;
}

Machine suspendedMachine(OopType process) {
  const Object& object = objectAt(process);
  ProcessState* state = object.extra ? object.extra->process.get() : nullptr;
  if (state == nullptr) throw Failure(ErrBadArgumentKind, "a process is expected", {process});
  if (!state->suspended) {
    throw Failure(ErrNotSuspended, "the process is not suspended", {process});
  }
  if (state->sessionId != requireSession().id) {
    throw Failure(ErrBadSession,
                  "the process belongs to session " + std::to_string(state->sessionId), {process});
  }
  return {process, state, 0};
}

}  // namespace

void setExecutionLimits(const ExecutionLimits& newLimits) {
  limits = newLimits;
}

OopType lookupMethod(OopType classOop, OopType selector, bool classSide) {
  if (!classSide) return findInDictionaries(classOop, selector, ClassMethods);
  const OopType own = findInDictionaries(classOop, selector, ClassClassMethods);
  return own != 0 ? own : findInDictionaries(ClassClass, selector, ClassMethods);
}

void sendMessage(Machine& machine, OopType selector, std::size_t argumentCount,
                 OopType lookupClass) {
  ProcessState& process = *machine.process;
  process.awaiting = static_cast<int>(argumentCount) + 1;
  const OopType receiver = process.stack[process.stack.size() - argumentCount - 1];
  OopType method = 0;
  if (lookupClass == 0) {
    method = cachedLookup(receiver, selector);
  } else if (superclassOf(lookupClass) != NilOop) {
    method = lookupMethod(superclassOf(lookupClass), selector, isClass(receiver));
  }
  if (method == 0) doesNotUnderstand(process, selector, argumentCount);

  const Extra& extra = *findObject(method)->extra;
  if (extra.code) return activateMethod(machine, method, *extra.code, argumentCount);
  const OopType result = callPrimitive(machine, extra.primitive, argumentCount);
  if (result == frameChanged) return;
  process.stack.resize(process.stack.size() - argumentCount);
  process.stack.back() = result;
}

void activateBlock(Machine& machine, std::size_t argumentCount) {
  ProcessState& process = *machine.process;
  const std::size_t base = process.stack.size() - argumentCount;
  const OopType block = process.stack[base - 1];
  const Object* object = findObject(block);
  if (object == nullptr || object->classOop != BlockClass) {
    throw Failure(ErrBadArgumentKind, "a block is expected", {block});
  }
  const OopType method = object->slots[2];
  const Code& code = *findObject(method)->extra->code;
  const BlockCode& body = code.blocks[static_cast<std::size_t>(smallIntValue(object->slots[3]))];
  if (body.argumentCount != argumentCount) {
    throw Failure(ErrBadMessageParts,
                  "the block takes " + std::to_string(body.argumentCount) + " arguments, not " +
                      std::to_string(argumentCount),
                  {block});
  }
  const auto home = static_cast<std::uint32_t>(smallIntValue(object->slots[4]));
  const Frame frame{&code, method, object->slots[1], object->slots[0],
                    0,     0,      body.entry,       static_cast<std::uint32_t>(base),
                    0,     home};
  pushFrame(machine, frame, body.temporaries);
}

void activateProtected(Machine& machine) {
  std::vector<OopType>& stack = machine.process->stack;
  const OopType handler = stack.back();
  const OopType exceptionClass = stack[stack.size() - 2];
  if (!isClass(exceptionClass) || !inheritsFrom(exceptionClass, ExceptionClass)) {
    throw Failure(ErrBadArgumentKind, "a class of exceptions is expected", {exceptionClass});
  }
  stack.resize(stack.size() - 2);
  machine.process->awaiting = 1;
  activateBlock(machine, 0);
  machine.process->frames.back().handlerClass = exceptionClass;
  machine.process->frames.back().handlerBlock = handler;
}

std::uint32_t blockArguments(OopType block) {
  const std::vector<OopType>& slots = findObject(block)->slots;
  const Code& code = *findObject(slots[2])->extra->code;
  return code.blocks[static_cast<std::size_t>(smallIntValue(slots[3]))].argumentCount;
}

OopType executeMethod(OopType method) {
  Machine machine = newMachine();
  machine.process->stack.push_back(NilOop);
  activateMethod(machine, method, *findObject(method)->extra->code, 0);
  return run(machine);
}

OopType performMessage(OopType receiver, OopType selector, const std::vector<OopType>& arguments) {
  // A frame that sends the one message and answers its value.
  auto code = std::make_shared<Code>();
  code->literals = {receiver, selector};
  code->blocks = {{0, 0, 0}};
  code->ops.push_back({OpCode::pushLiteral, 0, 0});
  for (const OopType argument : arguments) {
    code->ops.push_back(
        {OpCode::pushLiteral, 0, static_cast<std::uint16_t>(code->literals.size())});
    code->literals.push_back(argument);
  }
  code->ops.push_back({OpCode::send, static_cast<std::uint8_t>(arguments.size()), 1});
  code->ops.push_back({OpCode::answer, 0, 0});
  const OopType method = allocate(MethodClass, Impl::pointers, 3, 0, false);
  findObject(method)->more().code = std::move(code);
  return executeMethod(method);
}

OopType continueWithValue(OopType process, OopType value) {
  Machine machine = suspendedMachine(process);
  ProcessState& state = *machine.process;
  if (state.awaiting != notAwaiting) {
    state.stack.resize(state.stack.size() - static_cast<std::size_t>(state.awaiting));
    state.stack.push_back(value);
  }
  return run(machine);
}

OopType continueWithFailure(OopType process, const Failure& failure) {
  Machine machine = suspendedMachine(process);
  return run(machine, &failure);
}

void requestBreak(bool hard) {
  breakRequest.store(hard ? hardBreak : softBreak, std::memory_order_relaxed);
}

void markRunning(Marker mark) {
  if (running != nullptr) mark(running->processOop);
}

void markProcess(const ProcessState& process, Marker mark) {
  for (const OopType value : process.stack) mark(value);
  for (const Frame& frame : process.frames) {
    mark(frame.method);
    mark(frame.receiver);
    mark(frame.environment);
    mark(frame.handlerClass);
    mark(frame.handlerBlock);
  }
}

}  // namespace zel
