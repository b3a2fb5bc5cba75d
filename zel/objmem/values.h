// Values as objects: numbers, strings, symbols, date-times, and back to C++ values.
#pragma once

#include <bit>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "memory.h"

namespace zel {

// Integers: small ones are immediate, others objects of 8 bytes, or of more as integers.h says.
OopType integerOop(Memory& memory, std::int64_t value);
inline bool isInteger(const Memory& memory, OopType oop) {
  if (isSmallInt(oop)) return true;
  const Object* object = memory.look(oop);
  return object != nullptr && object->classOop == LargeIntegerClass;
}
// The value of an integer of at most 64 bits; false for anything else.
inline bool toInt64(const Memory& memory, OopType oop, std::int64_t& value) {
  if (isSmallInt(oop)) {
    value = smallIntValue(oop);
    return true;
  }
  const Object* object = memory.look(oop);
  if (object == nullptr || object->classOop != LargeIntegerClass || object->size != sizeof value) {
    return false;
  }
  std::memcpy(&value, object->bytes, sizeof value);
  return true;
}
// The value of an argument that must be an integer within the bounds: throws ErrBadArgumentKind or
// ErrBadSubscript.
std::int64_t integerArgument(const Memory& memory, OopType oop, std::int64_t least,
                             std::int64_t most);

// Floats are doubles, objects of 8 bytes. Numbers are integers or floats.
inline OopType floatOop(Memory& memory, double value) {
  return memory.allocateNumber(FloatClassOop, std::bit_cast<std::uint64_t>(value));
}
inline bool isFloat(const Memory& memory, OopType oop) {
  const Object* object = memory.look(oop);
  return object != nullptr && object->classOop == FloatClassOop;
}
inline double floatValue(const Memory& memory, OopType oop) {  // the argument must be a float
  double value = 0;
  std::memcpy(&value, memory.at(oop).bytes, sizeof value);
  return value;
}
inline bool isNumber(const Memory& memory, OopType oop) {
  return isInteger(memory, oop) || isFloat(memory, oop);
}
double numberValue(const Memory& memory, OopType oop);  // the argument must be a number
// Whether the float, cut to an integer, has at most 64 bits.
constexpr bool fitsInteger(double value) {
  // 2^63 itself is out of range and the nearest double below it is not.
  return value >= -9223372036854775808.0 && value < 9223372036854775808.0;
}
// Below, at or above 0 as the first number is less than, equal to or greater than the second, of
// which neither is rounded; `unordered` with a NaN.
constexpr int unordered = 2;
int compareNumbers(const Memory& memory, OopType a, OopType b);

// Single-byte strings, the one symbol of each text, and double-byte strings. text.h tells how they
// hold characters.
OopType stringOop(Memory& memory, std::string_view bytes);
OopType symbolOop(Memory& memory, std::string_view bytes);
OopType doubleByteStringOop(Memory& memory, std::string_view bytes);
bool isString(const Memory& memory, OopType oop);  // single-byte, symbols included
bool isSymbol(const Memory& memory, OopType oop);
bool isDoubleByteString(const Memory& memory, OopType oop);
// The bytes of a byte object; valid until it is changed.
std::string_view bytesOf(const Memory& memory, OopType oop);

// A new Array of the elements.
OopType arrayOop(Memory& memory, std::span<const OopType> elements);
inline OopType arrayOop(Memory& memory, std::initializer_list<OopType> elements) {
  return arrayOop(memory, std::span(elements.begin(), elements.size()));
}

// A date-time of the class. Throws ErrDateTimeRange unless the day exists in the year and the
// milliseconds lie within a day; years go from -999,999 to 999,999.
OopType dateTimeOop(Memory& memory, OopType classOop, const ZelDateTimeSType& time);
// The parts of an instance of DateTime or of a class below it.
ZelDateTimeSType dateTimeValue(const Memory& memory, OopType oop);

}  // namespace zel
