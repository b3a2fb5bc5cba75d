// Programs that fail for good: which can be continued, and what becomes of those that cannot.
#include <algorithm>

#include "lang/compiler.h"
#include "machine.h"
#include "objmem/classes.h"
#include "tracing.h"

namespace zel {

namespace {

bool owesBlocks(const ProcessState& process) {
  return std::ranges::any_of(std::span(process.frames).first(process.depth), owesBlock);
}

}  // namespace

void Machine::putAside(Failure failure) {
  if (!settling_) giveUpFailed();
  // A program that filled the memory must not go on holding what it made.
  const bool awaitsValue = process_->place != noPlace && (failure.kind == FailureKind::error ||
                                                          failure.kind == FailureKind::unhandled ||
                                                          failure.kind == FailureKind::suspension);
  process_->suspended = !settling_ && (awaitsValue || failure.kind == FailureKind::softBreak);
  locate(memory, *process_, failure);
  failure.context = running_;
  if (process_->suspended) {
    process_->failure = names->failure = ++lastFailure_;
    names->failedProcess = running_;
    names->failedOwes = owesBlocks(*process_);
  } else {
    giveUp(running_);
  }
  if (failure.kind == FailureKind::suspension) failure.args.insert(failure.args.begin(), running_);
  throw Failure(std::move(failure));
}

// Ends a program for good. Blocks that it owes are left over, see runLeftBlocks.
void Machine::giveUp(OopType processOop) {
  ProcessState& process = *memory.at(processOop).extra->process;
  keepStackText(memory, process);
  // They move to the stack's start: each frame lies above as many values as there are frames
  // below it.
  std::size_t count = 0;
  for (std::uint32_t depth = 0; depth < process.depth; ++depth) {
    const Frame& frame = process.frames[depth];
    if (owesBlock(frame)) process.stack[count++] = process.stack[frame.base];
  }
  std::vector<OopType> blocks = std::move(process.stack);
  process.suspended = false;
  process.top = process.depth = 0;
  process.sendNext = 0;
  process.stack = std::vector<OopType>();
  process.frames = std::vector<Frame>();
  memory.recount(processOop);
  if (count == 0) return;
  if (!settling_) names->timeLeft = std::chrono::seconds(1);
  blocks.resize(count);
  std::vector<OopType>& left = names->left;
  if (left.capacity() - left.size() >= count) {
    left.insert(left.end(), blocks.begin(), blocks.end());
  } else {
    // The stack had room for more, which may be all the memory that there is.
    blocks.insert(blocks.begin(), left.begin(), left.end());
    left = std::move(blocks);
  }
}

void Machine::forgetFailed() const {
  names->failedProcess = 0;
  names->failedOwes = false;
}

// Ends the session's program that failed before this one, unless that is gone already.
void Machine::giveUpFailed() {
  const Object* object = memory.find(names->failedProcess);
  const bool there = object != nullptr && object->extra != nullptr && object->extra->process &&
                     object->extra->process->failure == names->failure;
  if (there) giveUp(names->failedProcess);
  forgetFailed();
}

std::optional<Failure> Machine::settleFailed() {
  if (names->failedOwes) giveUpFailed();
  return runLeftBlocks();
}

// Runs what programs owed which were given up, each block as a program of its own. Their failures
// are dropped; what they owe in turn comes next. A break that came meanwhile is answered: a hard
// one ends them all, as the end of the time that they have does, a soft one leaves them for later.
std::optional<Failure> Machine::runLeftBlocks() {
  std::vector<OopType>& left = names->left;
  if (left.empty()) return {};
  const InRoom room(memory, Room::library);
  Respite respite(memory.meter, names->timeLeft);
  std::optional<Failure> broken;
  const Meanwhile<bool> settling(settling_, true);
  while (!left.empty() && !broken) {
    const OopType next = left.back();
    OopType process = classOf(memory, next) == ProcessClass ? next : 0;
    try {
      if (process == 0) {
        process =
            withRoom(memory, [&] { return newProcess(compileMessage(memory, next, "value", {})); });
      }
      left.pop_back();
      respite.next();
      carryOut(process, nullptr, false);
    } catch (Failure& failure) {
      if (failure.kind == FailureKind::softBreak) {
        // In the place that its block had.
        if (process != 0) left.push_back(process);
        broken = std::move(failure);
      } else if (failure.kind == FailureKind::timeUp || failure.number == ErrHardBreak) {
        left = std::vector<OopType>();
        if (failure.kind != FailureKind::timeUp) broken = std::move(failure);
      }
    } catch (const std::bad_alloc&) {
      if (!left.empty() && left.back() == next) left.pop_back();
    }
  }
  if (left.empty()) left = std::vector<OopType>();
  return broken;
}

// What is owed comes before the program. A break that comes meanwhile is the program's.
void Machine::settleBefore(OopType process) {
  std::optional<Failure> broken;
  {
    const Meanwhile waiting(waiting_, process);
    const bool goesOn = process == names->failedProcess;
    broken = goesOn ? runLeftBlocks() : settleFailed();
  }
  if (broken) suspendBefore(process, *std::move(broken));
}

void Machine::suspendBefore(OopType process, Failure failure) {
  if (failure.kind != FailureKind::softBreak) throw Failure(std::move(failure));
  ProcessState& state = *memory.at(process).extra->process;
  state.suspended = true;
  state.place = noPlace;
  state.failure = names->failure = ++lastFailure_;
  names->failedProcess = process;
  failure.context = process;
  throw Failure(std::move(failure));
}

}  // namespace zel
