// What happens when a running program fails: a handler takes over, or the process is put aside
// and the failure goes to whoever started the program.
#pragma once

#include "interpreter.h"

namespace zel {

// Lets the innermost handler that takes the failure take over. If there is none the failure is
// thrown; if the program waits for the value of a message, its process is suspended and named in
// the failure. Breaks, suspensions and a used-up budget are never handled by the program.
void handleOrThrow(Machine& machine, const Failure& failure);

// Stores a value into a named slot (from 0) of an object, as every change goes: checked, noted.
void storeNamed(OopType oop, std::size_t index, OopType value);

// The exception object that stands for the failure in the program.
OopType exceptionFor(const Failure& failure);

// Named slots of exceptions, from 0.
enum ExceptionSlot { ExceptionText, ExceptionNumber, ExceptionArguments, ExceptionStack };

}  // namespace zel
