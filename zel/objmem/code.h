// Compiled code: what the compiler makes and the interpreter runs.
#pragma once

#include <vector>

#include "oops.h"
#include "positions.h"

namespace zel {

struct Routine;

enum class OpCode : std::uint8_t {
  pushLiteral,  // a: literal
  pushSelf,
  pushFrame,        // a: place in the frame
  storeFrame,       // a; leaves the value
  popFrame,         // a; takes the value
  pushOuter,        // a: place in the environment b hops out
  storeOuter,       // a, b; leaves the value
  pushInstance,     // a: named slot, from 0
  storeInstance,    // a; leaves the value
  pushGlobal,       // a: literal, the name
  storeGlobal,      // a; leaves the value
  makeEnvironment,  // a: captured variables; it becomes the frame's
  leaveEnvironment,
  pop,
  duplicate,
  send,     // a: site
  add,      // a: site; small integers and floats need no message for these
  advance,  // the same for a loop's counter, to which its step is added
  subtract,
  multiply,
  less,
  greater,
  atMost,
  atLeast,
  equal,
  jump,          // a: target
  count,         // a: place of a loop's counter, b: a signed step; see countedOps
  jumpBack,      // a: target; counts as a step
  jumpIfFalse,   // a; takes a Boolean
  jumpIfTrue,    // a; takes a Boolean
  jumpIfNil,     // a; leaves the value
  jumpIfNotNil,  // a; leaves the value
  makeBlock,     // a: number of the block
  makeArray,     // a: elements, taken from the stack
  answer,        // from the method or the block
  answerSelf,    // from the method
  answerHome,    // from the method that the block belongs to
};

// Operands of arithmetic that are results of arithmetic and seen by nothing else: a float among
// them may become the result.
enum Temporary : std::uint8_t { noTemporary = 0, temporaryReceiver = 1, temporaryArgument = 2 };

struct Op {
  OpCode code;
  std::uint8_t b;
  std::uint16_t a;
};
static_assert(sizeof(Op) == 4);

// A small integer that `count` can add its step to needs no more, and goes on behind the ops that
// follow for every other counter: at a jumpBack.
constexpr std::ptrdiff_t countedOps = 4;

constexpr std::size_t mostOps = 65535;
constexpr std::size_t mostLiterals = 65535;
constexpr std::size_t mostArguments = 255;
// Values for which each activation leaves room, so that what takes its place when the program is
// unwound always has some.
constexpr std::uint32_t spareValues = 8;

// Slots of a method's object; the selector of a text is nil.
enum MethodSlot { MethodSelector, MethodOwner, MethodSource };

// A block's slots; in the last two lies the number of the activation that ^ returns from.
enum BlockSlot { BlockEnvironment, BlockReceiver, BlockMethod, BlockNumber, BlockHome };
constexpr std::size_t blockSlots = 6;
constexpr bool isHomeOfBlock(std::size_t slot) {
  return slot >= BlockHome;
}

struct BlockCode {
  std::uint32_t entry;  // first op
  std::uint32_t argumentCount;
  std::uint32_t temporaries;
  std::uint32_t stackNeed;  // values at most, temporaries and spare ones included
};

// A place that sends a message, and what the last send from there found.
struct Site {
  OopType selector;
  std::uint32_t argumentCount;
  bool toSuper;
  OopType key;          // of the receiver, see Machine; 0 when nothing is known
  std::uint32_t epoch;  // of the memory when it was found
  const Routine* routine;
};

struct Code {
  std::vector<Op> ops;
  std::vector<OopType> literals;
  mutable std::vector<Site> sites;  // what they found is no part of what the code does
  std::vector<BlockCode> blocks;    // 0 is the method or text itself
  OopType method = 0;               // the object that holds this code
  OopType owner = 0;                // class whose superclass `super` starts from
  bool classSide = false;           // of the class itself
  bool hasHomeReturns = false;      // a block in it answers from the method
  bool kernel = false;              // a method of the kernel's, which errors look past
  Positions positions;              // none of what a client sends
  std::uint32_t argumentCount() const { return blocks[0].argumentCount; }
  std::size_t bytes() const {
    return sizeof *this + ops.capacity() * sizeof(Op) + literals.capacity() * sizeof(OopType) +
           sites.capacity() * sizeof(Site) + blocks.capacity() * sizeof(BlockCode) +
           positions.bytes();
  }
};

}  // namespace zel
