// Letters and their case, the same wherever the process runs: of the Latin, Greek and Cyrillic
// scripts, one character for one.
#pragma once

#include <cstdint>

namespace zel {

bool isLetterCode(std::uint32_t code);
bool isDigitCode(std::uint32_t code);  // 0 to 9
// The character itself where it has no other.
std::uint32_t upperCase(std::uint32_t code);
std::uint32_t lowerCase(std::uint32_t code);

}  // namespace zel
