// Letters and their case, the same wherever the process runs: of the Latin, Greek and Cyrillic
// scripts, one character for one.
#pragma once

#include <cstdint>

namespace zel {

bool isLetterCode(std::uint32_t code);
bool isDigitCode(std::uint32_t code);  // 0 to 9
// The character itself where it has no other; wide ones are those beyond ASCII.
std::uint32_t wideUpperCase(std::uint32_t code);
std::uint32_t wideLowerCase(std::uint32_t code);
constexpr std::uint32_t upperCase(std::uint32_t code) {
  if (code >= 0x80) return wideUpperCase(code);
  return code >= 'a' && code <= 'z' ? code - ('a' - 'A') : code;
}
constexpr std::uint32_t lowerCase(std::uint32_t code) {
  if (code >= 0x80) return wideLowerCase(code);
  return code >= 'A' && code <= 'Z' ? code + ('a' - 'A') : code;
}

}  // namespace zel
