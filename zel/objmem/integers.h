// Integers of any size, up to a limit.
//
// An integer is immediate, an object of 8 bytes, or, where 64 bits are not enough, an object of as
// many words of 4 bytes as it needs: in two's complement, the lowest word first. Each has its
// shortest form only, so equal integers have equal bytes.
//
// These functions take integers of all sizes; those that have a way of their own for 64 bits leave
// the rest to them. A result beyond the limit is ErrOverflow. What takes long counts steps before
// it begins, for it cannot be interrupted.
#pragma once

#include <string>
#include <string_view>

#include "memory.h"

namespace zel {

constexpr std::size_t mostIntegerBits = 65'536;  // of the magnitude
constexpr const char* integerTooLarge = "the integer has more than 65,536 bits";

// `//` and `\\` round toward minus infinity, quo: and rem: toward zero. The divisor must not be 0.
enum class IntegerOperation : std::uint8_t {
  add,
  subtract,
  multiply,
  floorQuotient,
  floorRemainder,
  quotient,
  remainder,
  bitAnd,
  bitOr,
  bitXor,
};
OopType calculate(Memory& memory, IntegerOperation operation, OopType a, OopType b);
// Left for a positive distance, right toward minus infinity for a negative one.
OopType shiftInteger(Memory& memory, OopType value, OopType distance);
// The exponent must not be negative.
OopType integerPower(Memory& memory, OopType base, OopType exponent);

// Below, at or above 0 as the first is less than, equal to or greater than the second, which must
// not be a NaN. Neither is rounded.
int compareIntegers(const Memory& memory, OopType a, OopType b);
int compareWithDouble(const Memory& memory, OopType a, double b);
// What hashes are made of: the same for an integer and the double that equals it.
std::uint64_t foldInteger(const Memory& memory, OopType oop);
std::uint64_t foldIntegral(double value);

// The nearest double, infinity where there is none.
double nearestDouble(const Memory& memory, OopType integer);
// The same of the quotient, whose divisor must not be 0.
double nearestQuotient(Memory& memory, OopType a, OopType b);
// The integer's first 62 bits, which were rounded to odd, and in `exponent` the power of 2 that
// they are to be multiplied by; for functions that go beyond what a double can be.
long double leadingBits(const Memory& memory, OopType integer, int& exponent);
// The integer that the double, which must be whole, stands for.
OopType integerFromDouble(Memory& memory, double value);
// The quotient of finite doubles toward minus infinity. The divisor must not be 0.
OopType floorQuotient(Memory& memory, double a, double b);

// Digits and capital letters, with a minus sign if negative, in a radix from 2 to 36.
std::string printInteger(const Memory& memory, OopType oop, int radix = 10);
// The way back, from a text of nothing else; 0 for an integer beyond the limit.
OopType parseInteger(Memory& memory, std::string_view text, int radix);
// For messages: the integer, or how large it is.
std::string describeInteger(const Memory& memory, OopType oop);

}  // namespace zel
