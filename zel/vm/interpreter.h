// Runs compiled code.
//
// A program runs in a process object of its own until it answers a value or fails. A failure that
// no handler in the program takes is thrown to the caller; where it makes sense to go on with a
// replacement value, Failure::context names the process, which can be continued.
#pragma once

#include <string>
#include <vector>

#include "errors/failure.h"
#include "lang/code.h"
#include "process.h"

namespace zel {

// One run: the process and what is left of the budget.
struct Machine {
  OopType processOop = 0;
  ProcessState* process = nullptr;
  std::uint64_t stepsLeft = 0;
};

struct ExecutionLimits {
  std::uint64_t steps = 200'000'000;  // messages and turns of loops in one run
  std::size_t frames = 20'000;        // activations at a time
};
// Sets the limits of all further runs.
void setExecutionLimits(const ExecutionLimits& limits);

// Runs a compiled text and answers its value. Throws the Failure that no handler took.
OopType executeMethod(OopType method);
// Sends a message from outside, in the same way.
OopType performMessage(OopType receiver, OopType selector, const std::vector<OopType>& arguments);

// Continues a suspended process: with the value of the message it waits for, with a failure in
// place of it, or without either (the message answers nil). Throws ErrNotSuspended.
OopType continueWithValue(OopType process, OopType value);
OopType continueWithFailure(OopType process, const Failure& failure);

// Asks the running program to stop at its next step; callable from any thread or a signal
// handler. After a soft break it can be continued. A request when nothing runs stops the next run.
void requestBreak(bool hard);

// For primitives that run program code. Each expects receiver and arguments on top of the stack,
// replaces them by an activation, and is followed by returning frameChanged.
constexpr OopType frameChanged = 0;
void sendMessage(Machine& machine, OopType selector, std::size_t argumentCount,
                 OopType lookupClass = 0);
void activateBlock(Machine& machine, std::size_t argumentCount);
// How many arguments the block takes.
std::uint32_t blockArguments(OopType block);
// on:do: with the block, the exception class and the handler block on the stack.
void activateProtected(Machine& machine);

// The method that instances of the class (with `classSide`, the class itself) carry out; 0 if
// there is none.
OopType lookupMethod(OopType classOop, OopType selector, bool classSide);

// Mark the running process, and what a process's stacks hold, for collections.
void markRunning(Marker mark);
void markProcess(const ProcessState& process, Marker mark);

}  // namespace zel
