// Where the ops of a code stand in its source: three small numbers for each op that stands
// elsewhere than the one before it. Read only when an error is told.
#pragma once

#include <vector>

#include "errors/failure.h"

namespace zel {

class Positions {
 public:
  // Notes that the op, and those after it up to the next one noted, stand there.
  void note(std::size_t op, Position position) {
    if (position.line == last_.line && position.column == last_.column) return;
    put(static_cast<std::uint32_t>(op) - lastOp_);
    put(folded(position.line - last_.line));
    put(folded(position.column - last_.column));
    lastOp_ = static_cast<std::uint32_t>(op);
    last_ = position;
  }

  // Where the op stands; no place when none was noted up to it.
  Position of(std::size_t op) const {
    Position found;
    std::size_t at = 0;
    std::size_t noted = 0;
    while (at < encoded_.size()) {
      noted += take(at);
      if (noted > op) break;
      found.line += unfolded(take(at));
      found.column += unfolded(take(at));
    }
    return found;
  }

  bool empty() const { return encoded_.empty(); }
  std::size_t bytes() const { return encoded_.capacity(); }

 private:
  // Differences, which wrap, with the sign in the lowest bit, so that small ones stay small.
  static std::uint32_t folded(std::uint32_t difference) {
    return difference << 1 ^ (0U - (difference >> 31));
  }
  static std::uint32_t unfolded(std::uint32_t value) { return value >> 1 ^ (0U - (value & 1)); }

  void put(std::uint32_t value) {
    for (; value >= 0x80; value >>= 7) encoded_.push_back(static_cast<ByteType>(value | 0x80));
    encoded_.push_back(static_cast<ByteType>(value));
  }
  std::uint32_t take(std::size_t& at) const {
    std::uint32_t value = 0;
    for (int shift = 0;; shift += 7) {
      const std::uint32_t byte = encoded_[at++];
      value |= (byte & 0x7F) << shift;
      if (byte < 0x80) return value;
    }
  }

  std::vector<ByteType> encoded_;
  std::uint32_t lastOp_ = 0;
  Position last_;
};

}  // namespace zel
