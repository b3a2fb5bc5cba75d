// Message files for tests: built byte by byte, so that nothing of the code under test is in them.
#pragma once

#include <povzel/hash.h>
#include "tests.h"

using Transform = std::array<unsigned char, 4>;
constexpr Transform littleEndian = {0, 1, 2, 3};
constexpr Transform bigEndian = {3, 2, 1, 0};

inline std::string stored(const std::vector<std::uint32_t>& values, const Transform& transform) {
  std::string bytes;
  for (const std::uint32_t value : values) {
    for (const unsigned char significance : transform) {
      bytes += static_cast<char>(value >> 8 * significance);
    }
  }
  return bytes;
}

// The bytes of a compiled file. Each entry is a symbol and its lines; with `keyed` every slot has a
// key string.
inline std::string compiledFile(const std::vector<std::pair<std::string, std::string>>& entries,
                                const Transform& transform = littleEndian,
                                std::uint32_t tabSize = 8, bool keyed = false) {
  std::string bytes = "\xDE\xAD\xBE\xEF" + std::string(transform.begin(), transform.end()) +
                      stored({1, tabSize, 20 + 12 * tabSize}, transform);
  bytes.resize(20 + 12 * tabSize);
  const std::string empty(12, '\0');
  for (const auto& [symbol, lines] : entries) {
    const std::uint32_t hash = HashCStrHash(symbol.c_str());
    std::uint32_t index = hash % tabSize;
    while (bytes.substr(20 + 12 * index, 12) != empty) index = (index + 1) % tabSize;
    const auto key = static_cast<std::uint32_t>(bytes.size());
    if (keyed) bytes += symbol + '\0';
    const auto value = static_cast<std::uint32_t>(bytes.size());
    bytes.replace(20 + 12 * index, 12, stored({hash, keyed ? key : 0, value}, transform));
    bytes += lines;
  }
  return bytes;
}
