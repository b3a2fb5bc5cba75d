// Integers of any size as rows of the store hold them, and as decimal digits.
#pragma once

#include <string>
#include <string_view>

namespace zel {

// The digits, with a minus sign if negative, of an integer in two's complement, the lowest byte
// first; of at least one byte.
std::string decimalOf(std::string_view bytes);
// The way back, to the shortest form in whole words of four bytes, but at least two. The text is
// one that decimalOf can answer.
std::string bytesOfDecimal(std::string_view digits);

}  // namespace zel
