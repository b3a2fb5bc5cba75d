// Programs that fail for good: which can be continued, and what becomes of those that cannot.
#include <algorithm>

#include "lang/compiler.h"
#include "machine.h"
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
  throw Failure(failure);
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
  blocks.resize(count);
  if (leftBlocks_.empty()) {
    leftBlocks_ = std::move(blocks);
  } else {
    leftBlocks_.insert(leftBlocks_.end(), blocks.begin(), blocks.end());
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

void Machine::settleFailed() {
  if (!names->failedOwes) return;
  giveUpFailed();
  runLeftBlocks();
}

// Runs the blocks that programs owed which were given up, each as a program of its own. Their
// failures are dropped; what they owe in turn comes next. A hard break, or the end of the time that
// they have, ends them all.
void Machine::runLeftBlocks() {
  if (leftBlocks_.empty()) return;
  const InRoom room(memory, Room::library);
  Respite respite(memory.meter);
  settling_ = true;
  while (!leftBlocks_.empty()) {
    const OopType block = leftBlocks_.back();
    try {
      const OopType process =
          withRoom(memory, [&] { return newProcess(compileMessage(memory, block, "value", {})); });
      leftBlocks_.pop_back();
      respite.next();
      carryOut(process, nullptr, false);
    } catch (const Failure& failure) {
      if (failure.number == ErrHardBreak) break;
    } catch (const std::bad_alloc&) {
      if (!leftBlocks_.empty() && leftBlocks_.back() == block) leftBlocks_.pop_back();
    }
  }
  leftBlocks_ = std::vector<OopType>();
  settling_ = false;
}

}  // namespace zel
