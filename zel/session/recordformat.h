// What the bytes of rows are made of: part of the file's format.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "store/store.h"

namespace zel {

// Each value begins with one.
enum class Tag : std::uint8_t {
  nil,
  falseValue,
  trueValue,
  smallInteger,  // zigzag
  character,     // its code
  floatNumber,   // eight bytes, the lowest first
  largeInteger,  // size and bytes
  symbol,        // size and bytes
  reference,     // id
  kernelMethod,  // id of the class, 1 for its class side, and the selector as a symbol
};

// Of an object's row, in its first byte.
enum Form : std::uint8_t {
  FormImpl = 3,
  FormIndexable = 4,
  FormFixedSize = 8,
  FormInvariant = 16,
  FormHashed = 32,     // its elements have rows of their own
  FormClassSide = 64,  // a method of the class itself
};

// Seven bits a byte, the lowest first.
inline void appendNumber(std::string& bytes, std::uint64_t value) {
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  bytes += static_cast<char>(value);
}

constexpr std::uint32_t zigzag(std::int32_t value) {
  return static_cast<std::uint32_t>(value) << 1 ^ static_cast<std::uint32_t>(value >> 31);
}
constexpr std::int32_t fromZigzag(std::uint32_t coded) {
  return static_cast<std::int32_t>(coded >> 1 ^ (0U - (coded & 1U)));
}

// Reads the bytes of a row one after the other. Throws ErrDamaged where there are not enough.
class RowReader {
 public:
  explicit RowReader(const Row& row) : row_(row), left_(row.bytes) {}

  [[noreturn]] void damaged() const {
    throw Failure(ErrDamaged, "the store is damaged: object " + std::to_string(row_.place.id) +
                                  " is not as it was written");
  }
  bool atEnd() const { return left_.empty(); }
  std::uint8_t byte() { return static_cast<std::uint8_t>(text(1)[0]); }
  std::uint64_t number() {
    std::uint64_t value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      const std::uint8_t next = byte();
      value |= std::uint64_t{next & 0x7FU} << shift;
      if (next < 0x80) return value;
    }
    damaged();
  }
  std::string_view text(std::uint64_t size) {
    if (size > left_.size()) damaged();
    const std::string_view taken = left_.substr(0, static_cast<std::size_t>(size));
    left_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view sizedText() { return text(number()); }

 private:
  const Row& row_;
  std::string_view left_;
};

}  // namespace zel
