// Programs as processes: how they begin, run, fail and go on.
#include <algorithm>

#include "lang/compiler.h"
#include "machine.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "printing.h"

namespace zel {

// `briefly` is for what keeps nothing of what it makes.
OopType Machine::run(OopType processOop, Failure* failure, bool briefly) {
  try {
    return carryOut(processOop, failure, briefly);
  } catch (const Failure& raised) {
    const Meanwhile<const Failure*> settled(settled_, &raised);
    runLeftBlocks();
    throw;
  }
}

OopType Machine::carryOut(OopType processOop, Failure* failure, bool briefly) {
  struct Running {
    Machine& machine;
    ~Running() {
      machine.running_ = 0;
      machine.process_ = nullptr;
      machine.inFlight_ = nullptr;
      machine.briefly_ = nullptr;
    }
  } const scope{*this};
  running_ = processOop;
  process_ = memory.at(processOop).extra->process.get();
  process_->suspended = false;
  if (names->failedProcess == processOop) forgetFailed();
  fresh_ = 0;
  memory.beginProgram();
  inFlight_ = failure;
  InRoom room(memory, briefly ? Room::library : memory.roomToRun());
  if (briefly) briefly_ = &room;
  if (failure != nullptr) handleOrThrow(std::move(*failure));
  if (process_->patience != 0) memory.meter.deferSoftBreaks(process_->patience);
  while (true) {
    try {
      const OopType value = interpret();
      giveUp(processOop);
      return value;
    } catch (Failure& raised) {
      handleOrThrow(std::move(raised));
    } catch (const std::bad_alloc&) {
      process_->place = noPlace;
      handleOrThrow(memoryFailure(memory));
    }
  }
}

// A process that is about to begin a method without arguments.
OopType Machine::newProcess(OopType method) {
  const Code& code = *memory.at(method).extra->routine->code;
  const BlockCode& body = code.blocks[0];
  auto state = std::make_unique<ProcessState>();
  state->sessionId = names->sessionId;
  state->frames.resize(16);
  state->stack.resize(std::max<std::size_t>(64, body.stackNeed + 2));
  std::fill_n(state->stack.begin(), body.temporaries + 1, NilOop);
  state->frames[0] = {&code,
                      code.ops.data() + body.entry,
                      NilOop,
                      NilOop,
                      1,
                      FrameMark::none,
                      code.hasHomeReturns,
                      code.hasHomeReturns ? ++lastActivation_ : 0};
  state->depth = 1;
  state->top = body.temporaries + 1;
  memory.reserve(state->bytes());
  const OopType process = memory.allocate(ProcessClass, Impl::pointers, 0, 0, false);
  memory.at(process).invariant = true;
  memory.extraOf(process).process = std::move(state);
  memory.recount(process);
  return process;
}

OopType Machine::execute(std::string_view source) {
  std::optional<Failure> broken = settleFailed();
  const InRoom room(memory, Room::library);
  const OopType process = withRoom(memory, [&] { return newProcess(compileText(memory, source)); });
  if (broken) suspendBefore(process, *std::move(broken));
  return run(process);
}

OopType Machine::perform(OopType receiver, std::string_view selector,
                         std::span<const OopType> arguments) {
  const InRoom room(memory, Room::library);
  // A full memory can still be printed.
  const Routine* routine = withRoom(memory, [&]() -> const Routine* {
    const OopType key = keyOf(memory, receiver);
    const bool classSide = (key & 2) != 0;
    const OopType method =
        lookupMethod(memory, classSide ? receiver : key, symbolOop(memory, selector), classSide);
    return method != 0 ? memory.at(method).extra->routine.get() : nullptr;
  });
  const bool briefly = routine != nullptr && routine->primitive != nullptr;
  const bool ofKernel = routine != nullptr && routine->code && routine->code->kernel;
  const OopType process = withRoom(
      memory, [&] { return newProcess(compileMessage(memory, receiver, selector, arguments)); });
  if (!briefly && !ofKernel) settleBefore(process);
  return run(process, nullptr, briefly);
}

OopType Machine::suspendedProcess(OopType process) const {
  const Object& object = memory.require(process);
  const ProcessState* state = object.extra != nullptr ? object.extra->process.get() : nullptr;
  if (state == nullptr) wrongKind(memory, "a process", process);
  if (!state->suspended) {
    throw Failure(ErrNotSuspended, "the process is not suspended", {process});
  }
  if (state->sessionId != names->sessionId) {
    throw Failure(ErrBadSession,
                  "the process belongs to session " + std::to_string(state->sessionId), {process});
  }
  return process;
}

OopType Machine::continueWithValue(OopType process, OopType value) {
  ProcessState& state = *memory.at(suspendedProcess(process)).extra->process;
  if (state.place != noPlace) {
    state.stack[state.place] = value;
    state.top = state.place + 1;
    state.sendNext = 0;
  }
  settleBefore(process);
  return run(process);
}

OopType Machine::continueWithFailure(OopType process, Failure failure) {
  return run(suspendedProcess(process), &failure);
}

}  // namespace zel
