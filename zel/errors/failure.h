// Errors inside the embedded interface library.
//
// Whatever goes wrong below the table is thrown as a Failure. Two places catch it: the interpreter,
// which looks for a handler in the running program, and the frame around each table function,
// which stores it as the session's pending error. No exception ever leaves the table.
//
//   if (index > size) throw zel::Failure(zel::ErrBadSubscript, "index 9 is out of range", {oop});
#pragma once

#include <initializer_list>
#include <new>
#include <string>
#include <vector>

#include <povzel/povzeltypes.h>

namespace zel {

// Numbers of the database's own errors, in sequence where none is written. Those from 2501 to 2599
// belong to the embedded library alone.
enum ErrorNumber : std::int32_t {
  ErrBadSubscript = 2004,
  ErrBadMessageParts,
  ErrDoesNotUnderstand = 2010,
  ErrNotInCollection = 2015,
  ErrBadArgumentKind = 2094,
  ErrBadOffset = 2110,
  ErrNotFloat = 2120,
  ErrTooDeep = 2138,
  ErrDateTimeRange = 2161,
  ErrNotLong = 2163,
  ErrNotCharacter,
  ErrInternal = 2183,
  ErrUnknownName = 2189,
  ErrNoMemory = 2208,
  ErrNotBoolean = 2211,
  ErrCompile = 2501,
  ErrSuspended,
  ErrUser,
  ErrZeroDivide,
  ErrOverflow,
  ErrInvariant,
  ErrNoSuchObject,
  ErrNotImplemented = 2509,
  ErrNotSuspended,
  ErrDeadReturn,
  ErrTooManySessions,
  ErrCommitConflict,
  ErrStoreBusy,
  ErrDamaged,
  ErrNewerStore,
  ErrReadOnly,
  ErrStoreFull,
  ErrConnectionLost,
  ErrOutcomeUnknown,
  ErrNotPermitted,
  ErrStepLimit,
  ErrInUseElsewhere,
  ErrLoginDenied = 4051,
  ErrBadSession = 4100,
  ErrBadArgument = 5065,
  ErrSoftBreak = 6003,
  ErrHardBreak,
};
static_assert(ErrNotCharacter == 2164 && ErrTooManySessions == 2512 && ErrStepLimit == 2522 &&
              ErrHardBreak == 6004);

// What becomes of a program in which a failure happens. Only the first two go to its handlers.
enum class FailureKind : std::uint8_t {
  error,       // the program can be continued with the value of the message that failed
  noRoom,      // of memory or of the stack: the program is given up, which frees what it holds
  unhandled,   // an error that no handler took: can be continued as one
  suspension,  // the program asked for it and can be continued with a value
  softBreak,   // the program can be continued as if nothing had happened
  stop,        // the program is given up
  timeUp,      // the same, of what programs that were given up still do
};

// A place in a text: lines and characters, both from 1; no place when the line is 0.
struct Position {
  std::uint32_t line = 0;
  std::uint32_t column = 0;
};

// One error on its way up.
struct Failure {
  std::int32_t number;
  std::string message;
  std::vector<OopType> args;
  FailureKind kind = FailureKind::error;
  OopType exceptionClass = 0;  // what handlers in the program compare with; 0 means Error
  OopType exception = 0;       // the program's own exception object, if it signalled one
  OopType context = 0;         // the process in which it happened, 0 if there is none
  Position position{};         // where, in a method of that name or in a text when it is empty
  std::string method{};

  Failure(std::int32_t errorNumber, std::string text, std::initializer_list<OopType> arguments = {},
          FailureKind kindOfFailure = FailureKind::error)
      : number(errorNumber), message(std::move(text)), args(arguments), kind(kindOfFailure) {}

  // The same failure, for handlers of the class.
  Failure ofClass(OopType handledAs) const {
    Failure failure = *this;
    failure.exceptionClass = handledAs;
    return failure;
  }
  // The same failure, in a text that is compiled.
  Failure in(Position place) const {
    Failure failure = *this;
    failure.position = place;
    return failure;
  }
  // The same failure, signalled by the program with its own exception object.
  Failure signalledBy(OopType signalled) const {
    Failure failure = *this;
    failure.exception = signalled;
    failure.args = {signalled};
    return failure;
  }
};

// An allocation found no room. Whoever can collect does so and repeats what it did, so nothing may
// be half done where this is thrown; only a second one becomes a Failure.
struct MemoryFull : std::bad_alloc {};

}  // namespace zel
