// Runs compiled code.
//
// A program runs in a process object of its own until it answers a value or fails. A failure that
// no handler in the program takes is thrown to the caller; where it makes sense to go on with a
// replacement value, Failure::context names the process, which can be continued.
//
// No message makes the machine call itself: what runs program code changes the process's stack and
// frames and goes back to the one loop.
#pragma once

#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "objmem/memory.h"

namespace zel {

struct Session;

// Names that belong to a session, and which session that is.
struct Names {
  // What the memory counts for a variable: a node of the map, and its share of the buckets.
  static constexpr std::size_t variableBytes = sizeof(std::pair<OopType, OopType>) + 16;

  std::int32_t sessionId = 0;
  std::unordered_map<OopType, OopType> variables;  // Symbol to value
  // The program of the session that failed last, while its object lives: only that one can be
  // continued.
  OopType failedProcess = 0;
  std::uint64_t failure = 0;
  bool failedOwes = false;  // blocks of ensure: or ifCurtailed:, and therefore stays
  // What programs that were given up owe: blocks, innermost last, and instead of one that a soft
  // break interrupted the program that carries it out.
  std::vector<OopType> left;
  // That they have, however many texts they keep waiting.
  Meter::Clock::duration timeLeft{};
};

// Gives a variable another value for as long as it lives.
template <typename Value>
class Meanwhile {
 public:
  Meanwhile(Value& variable, Value value)
      : variable_(variable), before_(std::exchange(variable, value)) {}
  ~Meanwhile() { variable_ = before_; }
  Meanwhile(const Meanwhile&) = delete;
  Meanwhile& operator=(const Meanwhile&) = delete;

 private:
  Value& variable_;
  Value before_;
};

// What happens where an unwinding ends, in a frame that becomes the active one.
enum class Arrival : std::uint8_t {
  answer,   // it answers the value
  restart,  // it begins again, with the value as its receiver
  handle,   // it runs its handler, with the value as the exception
};

class Machine {
 public:
  Machine(Memory& memoryToUse, Session& owner);
  ~Machine() { memory.forgetRoots(this); }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  Memory& memory;
  Session& session;                 // for the messages that concern sessions
  Names* names = nullptr;           // of the current session
  std::size_t mostFrames = 20'000;  // activations at a time

  // To be called when the kernel is compiled: what its methods for blocks and exceptions need of
  // the machine, named with a _ at its front, is theirs from now on whatever programs compile.
  void keepOwn();
  // Compiles and runs a text and answers its value. Throws the Failure that no handler took.
  OopType execute(std::string_view source);
  // Sends a message from outside, in the same way.
  OopType perform(OopType receiver, std::string_view selector, std::span<const OopType> arguments);
  // Continues a suspended process: with the value of the message it waits for, or with a failure
  // in place of it. Throws ErrNotSuspended, and ErrBadSession for another session's.
  OopType continueWithValue(OopType process, OopType value);
  OopType continueWithFailure(OopType process, Failure failure);
  // Gives the session's program that failed last up, if it owes blocks of ensure: or ifCurtailed:.
  // They run now, whatever becomes of them. Answers the break that came meanwhile, if one did: a
  // hard one has ended them, after a soft one those that are left run the next time.
  std::optional<Failure> settleFailed();

  // For control primitives, which find receiver and arguments on top of the stack, change it
  // through these and answer frameChanged.
  static constexpr OopType frameChanged = 0;
  // Makes room for so many more, where arguments on the stack may move to.
  void makeRoomFor(std::size_t arguments);
  // Replaces one of the arguments on top of the stack, or so many of them.
  void replaceArgument(const OopType& argument, OopType value);
  void replaceArguments(std::size_t count, std::span<const OopType> arguments);
  // Has a message sent to the receiver with so many arguments on top of the stack.
  void sendNext(OopType selector, std::size_t argumentCount);
  // Activates the block below the arguments on top of the stack.
  void activateBlock(std::size_t argumentCount);
  // Activates the block on top of the stack for on:do:, ensure: or ifCurtailed:, which sends the
  // message and whose activation gets the mark. Its arguments are checked.
  void protect(FrameMark mark);
  // Activates the block of ensure: on top of the stack, which ensure: no longer owes.
  void runEnsured();
  // Signals the exception in place of the message; `outward` passes over the handlers inside of the
  // one that runs for it.
  void signal(OopType exception, bool outward = false);
  // Unwinds from the handler that runs for the exception to its on:do:.
  void leaveHandler(OopType exception, Arrival arrival, OopType value);
  // The same for a retry, with another block unless that is 0.
  void retry(OopType exception, OopType block);
  // Unwinds to where the exception was signalled, which gets the value.
  void resume(OopType exception, OopType value);
  // Goes on with the unwinding that the sender of the message was activated for.
  void unwindFurther();

 private:
  struct Registers;
  struct CachedLookup {
    OopType key = 0;
    OopType selector = 0;
    const Routine* routine = nullptr;
  };

  OopType newProcess(OopType method);
  OopType run(OopType process, Failure* failure = nullptr, bool briefly = false);
  OopType carryOut(OopType process, Failure* failure, bool briefly);
  OopType suspendedProcess(OopType process) const;
  OopType interpret();
  Object& reach(const Registers& at, OopType oop);
  Object& bring(OopType oop);
  OopType keyFor(const Registers& at, OopType receiver);
  OopType keyOfAbsent(OopType receiver);
  Object& outer(const Registers& at);
  void noteEnvironment(OopType oop, unsigned hops);
  void poll();
  void sendPending();
  const Routine& find(OopType receiver, OopType key, OopType selector, std::size_t argumentCount);
  const Routine& findAtOnce(OopType receiver, OopType key, OopType selector,
                            std::size_t argumentCount);
  const Routine& findSuper(const Code& code, OopType selector, std::size_t argumentCount);
  void findFor(Site& site, const Code& code, OopType receiver, OopType key);
  [[noreturn]] void doesNotUnderstand(OopType selector, std::size_t argumentCount);
  OopType nextOfFloats(OopType* top);
  OopType floatArithmetic(Op op, OopType left, OopType right);
  OopType mixedArithmetic(Op op, OopType left, OopType right);
  OopType calculate(Op op, OopType left, OopType right, double a, double b);
  OopType floatResult(Op op, OopType left, OopType right, double value);
  OopType callPrimitive(const Routine& routine, OopType receiver, const OopType* arguments);
  void growStacks(std::size_t need);
  void enterCode(const Code& code, std::size_t argumentCount, bool usesSpare = false);
  OopType readGlobal(OopType name);
  void writeGlobal(OopType name, OopType value);
  OopType makeBlock(std::uint32_t number);
  OopType makeEnvironment(std::size_t size);
  OopType makeArray(std::size_t size);
  [[noreturn]] void notBoolean(OopType value) const;
  bool cutToHome(OopType value);

  // What happens when a running program fails: a handler takes over, or the process is put aside
  // and the failure is thrown.
  void handleOrThrow(Failure failure);
  bool startHandler(const Failure& failure);
  bool askDefaultAction(const Failure& failure);
  void beginHandling(std::size_t handler, bool resumable);
  void enterOwn(std::string_view selector, FrameMark mark);
  const Routine* ownRoutine(OopType selector) const;
  std::size_t handlerDepth(OopType exceptionClass, std::size_t depth) const;
  std::size_t handlingDepth(OopType exception) const;
  std::size_t handlerOf(const Frame& handling) const;
  OopType classOfFailure(const Failure& failure) const;
  OopType exceptionFor(const Failure& failure);
  void push(OopType value) { process_->stack[process_->top++] = value; }

  void unwind(std::size_t target, Arrival arrival, OopType value);
  void arrive(std::size_t target, Arrival arrival, OopType value);

  [[noreturn]] void putAside(Failure failure);
  void giveUp(OopType process);
  void giveUpFailed();
  void forgetFailed() const;
  std::optional<Failure> runLeftBlocks();
  void settleBefore(OopType process);
  [[noreturn]] void suspendBefore(OopType process, Failure failure);

  void markRoots();

  static constexpr std::size_t cacheSize = 1024;
  CachedLookup cache_[cacheSize];
  std::uint32_t cacheEpoch_ = 0;
  std::vector<std::pair<OopType, OopType>> own_;  // selectors and methods, see keepOwn
  std::uint64_t lastActivation_ = 0;
  std::uint64_t lastFailure_ = 0;
  OopType fresh_ = 0;                  // the float that arithmetic made last, unless answered since
  OopType running_ = 0;                // the process object
  ProcessState* process_ = nullptr;    // its state
  InRoom* briefly_ = nullptr;          // of a message from outside that the library carries out
  const Failure* inFlight_ = nullptr;  // whose objects a collection must not take
  // While programs that were given up run what they owed: the failure that ended one, and the
  // program that begins afterwards.
  const Failure* settled_ = nullptr;
  OopType waiting_ = 0;
  bool settling_ = false;
};

// Whether the frame has a block that runs however it is left.
constexpr bool owesBlock(const Frame& frame) {
  return frame.mark == FrameMark::ensured || frame.mark == FrameMark::ifCurtailed;
}

// Throws ErrBadArgumentKind unless `oop` is what on:do: takes: a class of exceptions, or an
// ExceptionSet of some.
void requireExceptions(const Memory& memory, OopType oop);

// What lookups go by: the class of the receiver, or for a class itself the class with a bit more,
// since it finds other methods than its instances.
OopType keyOf(const Memory& memory, OopType receiver);

// How many arguments the block takes. Throws ErrNotImplemented for a block of the store whose
// method this version of the library does not have.
std::uint32_t blockArguments(const Memory& memory, OopType block);

// Named slots of exceptions, from 0.
enum ExceptionSlot { ExceptionText, ExceptionNumber, ExceptionArguments, ExceptionStack };

}  // namespace zel
