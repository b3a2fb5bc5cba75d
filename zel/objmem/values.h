// Values as objects: numbers, strings, symbols, date-times, and back to C++ values.
#pragma once

#include <string>
#include <string_view>

#include "memory.h"

namespace zel {

// Integers have 64 bits: small ones are immediate, others objects of 8 bytes.
OopType integerOop(std::int64_t value);
bool isInteger(OopType oop);
std::int64_t integerValue(OopType oop);  // the argument must be an integer
// The value of an argument that must be an integer within the bounds: throws ErrBadArgumentKind or
// ErrBadSubscript.
std::int64_t integerArgument(OopType oop, std::int64_t least, std::int64_t most);

// Floats are doubles, objects of 8 bytes. Numbers are integers or floats.
OopType floatOop(double value);
bool isFloat(OopType oop);
double floatValue(OopType oop);  // the argument must be a float
bool isNumber(OopType oop);
double numberValue(OopType oop);  // the argument must be a number

// Strings of bytes, the one symbol of a text, and strings of UTF-16 code units.
OopType stringOop(std::string_view text);
OopType symbolOop(std::string_view text);
OopType doubleByteStringOop(std::u16string_view text);
bool isString(OopType oop);  // single-byte, symbols included
bool isSymbol(OopType oop);
bool isDoubleByteString(OopType oop);
// The bytes of a byte object; valid until it is changed.
std::string_view bytesOf(OopType oop);
// A copy of the code units.
std::u16string unitsOf(OopType doubleByteString);
// The bytes of an argument that must be a single-byte string or a symbol: throws
// ErrBadArgumentKind.
std::string_view stringArgument(OopType oop);

// UTF-8 to UTF-16; bytes that are not UTF-8 become one code unit each.
std::u16string decodeUtf8(std::string_view text);
// UTF-16 to UTF-8; a surrogate without its partner is written as it is.
std::string encodeUtf8(std::u16string_view units);

// A new Array of the elements.
OopType arrayOop(const std::vector<OopType>& elements);

// A date-time of the class. Throws ErrDateTimeRange unless the day exists in the year and the
// milliseconds lie within a day; years go from -999,999 to 999,999.
OopType dateTimeOop(OopType classOop, const ZelDateTimeSType& time);
// The parts of an instance of DateTime or of a class below it.
ZelDateTimeSType dateTimeValue(OopType oop);

// Drops the symbols that a collection found unused; registered by bootstrap.
void sweepSymbols();
// Forgets all symbols.
void clearSymbols();

}  // namespace zel
