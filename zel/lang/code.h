// Compiled code: what the compiler makes and the interpreter runs.
#pragma once

#include <vector>

#include "objmem/object.h"

namespace zel {

enum class OpCode : std::uint8_t {
  pushLiteral,  // a: literal
  pushSelf,
  pushFrame,        // a: place in the frame
  storeFrame,       // a; leaves the value
  pushOuter,        // a: place in the environment b hops out
  storeOuter,       // a, b; leaves the value
  pushInstance,     // a: named slot, from 0
  storeInstance,    // a; leaves the value
  pushGlobal,       // a: literal, the name
  storeGlobal,      // a; leaves the value
  makeEnvironment,  // a: captured variables
  pop,
  duplicate,
  send,          // a: literal, the selector; b: arguments
  sendSuper,     // a, b
  arithmetic,    // a: literal, the selector; b: an ArithmeticKind
  jump,          // a: target
  jumpBack,      // a: target; counts as a step
  jumpIfFalse,   // a; takes a Boolean
  jumpIfTrue,    // a; takes a Boolean
  jumpIfNil,     // a; leaves the value
  jumpIfNotNil,  // a; leaves the value
  makeBlock,     // a: number of the block
  makeArray,     // a: elements, taken from the stack
  answer,        // from the method or the block
  answerHome,    // from the method that the block belongs to
};

enum class ArithmeticKind : std::uint8_t { add, subtract, less, greater, atMost, atLeast, equal };

struct Op {
  OpCode code;
  std::uint8_t b;
  std::uint16_t a;
};
static_assert(sizeof(Op) == 4);

constexpr std::size_t mostOps = 65535;
constexpr std::size_t mostLiterals = 65535;
constexpr std::size_t mostArguments = 255;

struct BlockCode {
  std::uint32_t entry;  // first op
  std::uint32_t argumentCount;
  std::uint32_t temporaries;
};

struct Code {
  std::vector<Op> ops;
  std::vector<OopType> literals;
  std::vector<BlockCode> blocks;  // 0 is the method or text itself
  OopType owner = 0;              // class whose superclass `super` starts from
  std::uint32_t argumentCount() const { return blocks[0].argumentCount; }
};

}  // namespace zel
