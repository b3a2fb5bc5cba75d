// The state of one running or suspended program: its value stack and its frames.
//
// Everything a program needs to go on lives here, nothing on the C++ stack, so that suspending is
// leaving the interpreter's loop and continuing is entering it again.
#pragma once

#include <cstddef>
#include <vector>

#include "objmem/memory.h"

namespace zel {

struct Code;

// One activation. Stack from `base` on: arguments, temporaries, values in work; below `base` lies
// the receiver or the block that was activated.
struct Frame {
  const Code* code;
  OopType method;    // keeps `code` alive
  OopType receiver;  // self
  OopType environment;
  OopType handlerClass;  // on:do: around this block, else 0
  OopType handlerBlock;
  std::uint32_t pc;
  std::uint32_t base;
  std::uint32_t serial;  // identifies a method's activation
  std::uint32_t home;    // serial that ^ returns from
};

constexpr int notAwaiting = -1;

struct ProcessState {
  std::vector<OopType> stack;
  std::vector<Frame> frames;
  std::int32_t sessionId = 0;
  bool suspended = false;  // may be continued
  // Values on top of the stack that the awaited value of the message in progress replaces;
  // notAwaiting when continuing goes on without a value.
  int awaiting = notAwaiting;
};

// Bytes that a process takes beside its object.
inline std::size_t processBytes(const ProcessState& process) {
  return process.stack.capacity() * sizeof(OopType) + process.frames.capacity() * sizeof(Frame) +
         sizeof process;
}

}  // namespace zel
