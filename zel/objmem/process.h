// The state of one running or suspended program: its value stack and its frames.
//
// Everything a program needs to go on lives here, nothing on the C++ stack, so that suspending is
// leaving the interpreter's loop and continuing is entering it again.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "oops.h"

namespace zel {

struct Code;
struct Op;

// What a frame stands for when an exception is signalled or the program is unwound.
enum class FrameMark : std::uint8_t {
  none,
  handler,      // on:do:, whose block is running
  ensured,      // ensure:, whose own block is still to run
  ifCurtailed,  // ifCurtailed:, the same
  handling,     // runs a handler for its receiver, an exception; see unwinding.cpp
  unwinding,    // runs the block of an ensure: or ifCurtailed: that it replaces
};

// One activation. Stack from `base` on: arguments, temporaries, values in work. Right below `base`
// lies the receiver or the block that was activated, in whose place the answer goes.
struct Frame {
  const Code* code;
  const Op* pc;      // the next op while another frame is active
  OopType receiver;  // self
  OopType environment;
  std::uint32_t base;
  FrameMark mark;
  bool isHome;         // a method that ^ in a block can return from
  std::uint64_t home;  // number of the activation that ^ returns from, 0 if no block does
};

constexpr std::uint32_t noPlace = UINT32_MAX;

// `top` and `depth` count what is in use of the two vectors, which are as long as there is room.
struct ProcessState {
  std::vector<OopType> stack;
  std::vector<Frame> frames;
  std::uint32_t top = 0;
  std::uint32_t depth = 0;
  std::int32_t sessionId = 0;
  bool suspended = false;     // may be continued
  std::uint64_t failure = 0;  // number of the failure that suspended it
  // Where on the stack the value of the message in progress goes; noPlace when none is awaited.
  std::uint32_t place = noPlace;
  // A message that is sent before the next op, 0 if none: receiver and arguments are on the stack.
  OopType sendNext = 0;
  std::uint32_t sendNextCount = 0;
  // Steps for which the next message does not look at soft breaks: one that had to begin once more
  // is to end, however often breaks come.
  std::uint64_t patience = 0;
  std::string stackText;  // of its activations, once it is given up

  std::size_t bytes() const {
    return sizeof *this + stack.capacity() * sizeof(OopType) + frames.capacity() * sizeof(Frame) +
           stackText.capacity();
  }
};

}  // namespace zel
