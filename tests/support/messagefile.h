// Message files for tests: built byte by byte, so that nothing of the code under test is in them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <povzel/hash.h>

using Transform = std::array<unsigned char, 4>;
constexpr Transform littleEndian = {0, 1, 2, 3};
constexpr Transform bigEndian = {3, 2, 1, 0};

inline std::string stored(std::uint32_t value, const Transform& transform) {
  std::string bytes;
  for (const unsigned char significance : transform) {
    bytes += static_cast<char>(value >> 8 * significance);
  }
  return bytes;
}

inline std::string storedHeader(const Transform& transform, std::uint32_t vers,
                                std::uint32_t tabSize, std::uint32_t textBegin) {
  return "\xDE\xAD\xBE\xEF" + std::string(transform.begin(), transform.end()) +
         stored(vers, transform) + stored(tabSize, transform) + stored(textBegin, transform);
}

// The bytes of a compiled file. Each entry is a symbol and its lines; with `keyed` every slot has a
// key string.
inline std::string compiledFile(const std::vector<std::pair<std::string, std::string>>& entries,
                                const Transform& transform = littleEndian,
                                std::uint32_t tabSize = 8, bool keyed = false) {
  struct Slot {
    std::uint32_t hash, keyLoc, valLoc;
  };
  const std::uint32_t begin = 20 + 12 * tabSize;
  std::vector<Slot> slots(tabSize, Slot{0, 0, 0});
  std::string rest;
  for (const auto& [symbol, lines] : entries) {
    const auto hash = static_cast<std::uint32_t>(
        HashStrHash(reinterpret_cast<const ByteType*>(symbol.data()), symbol.size(), 1));
    std::uint32_t index = hash % tabSize;
    while (slots[index].valLoc != 0) index = (index + 1) % tabSize;
    slots[index].hash = hash;
    if (keyed) {
      slots[index].keyLoc = begin + static_cast<std::uint32_t>(rest.size());
      rest += symbol + '\0';
    }
    slots[index].valLoc = begin + static_cast<std::uint32_t>(rest.size());
    rest += lines;
  }
  std::string bytes = storedHeader(transform, 1, tabSize, begin);
  for (const Slot& slot : slots) {
    for (const std::uint32_t value : {slot.hash, slot.keyLoc, slot.valLoc}) {
      bytes += stored(value, transform);
    }
  }
  return bytes + rest;
}
