#include "values.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "classes.h"
#include "errors/failure.h"
#include "integers.h"

namespace zel {

namespace {

OopType bytesOop(Memory& memory, OopType classOop, const void* data, std::size_t size) {
  const OopType oop = memory.allocate(classOop, Impl::bytes, 0, size, true);
  if (size != 0) std::memcpy(memory.at(oop).bytes, data, size);
  return oop;
}

bool isBytesOf(const Memory& memory, OopType oop, OopType classOop) {
  const Object* object = memory.find(oop);
  return object != nullptr && object->holdsBytes() &&
         (object->classOop == classOop || inheritsFrom(memory, object->classOop, classOop));
}

int sign(bool below, bool above) {
  return below ? -1 : above ? 1 : 0;
}

// Length of the UTF-8 sequence at `text`, 0 if it is none, its code point in `code`.
std::size_t utf8Sequence(std::string_view text, std::uint32_t& code) {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byteAt(0);
  std::size_t length = 1;
  if (first < 0x80) {
    code = first;
  } else if (first >= 0xC0 && first < 0xE0) {
    length = 2;
    code = first & 0x1F;
  } else if (first >= 0xE0 && first < 0xF0) {
    length = 3;
    code = first & 0x0F;
  } else if (first >= 0xF0 && first < 0xF5) {
    length = 4;
    code = first & 0x07;
  } else {
    return 0;
  }
  if (length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byteAt(i) & 0x3F);
  }
  return code <= 0x10FFFF ? length : 0;
}

void appendUtf8(std::string& text, std::uint32_t code) {
  const auto put = [&](std::uint32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
}

bool isLeapYear(std::int32_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

}  // namespace

OopType integerOop(Memory& memory, std::int64_t value) {
  if (fitsSmallInt(value)) return smallIntOop(static_cast<std::int32_t>(value));
  return memory.allocateNumber(LargeIntegerClass, static_cast<std::uint64_t>(value));
}

std::int64_t integerArgument(const Memory& memory, OopType oop, std::int64_t least,
                             std::int64_t most) {
  if (!isInteger(memory, oop)) wrongKind(memory, "an integer", oop);
  std::int64_t value = 0;
  if (!toInt64(memory, oop, value) || value < least || value > most) {
    throw Failure(ErrBadSubscript,
                  describeInteger(memory, oop) + " is not between " + std::to_string(least) +
                      " and " + std::to_string(most),
                  {oop});
  }
  return value;
}

double numberValue(const Memory& memory, OopType oop) {
  std::int64_t integer = 0;
  if (toInt64(memory, oop, integer)) return static_cast<double>(integer);
  return isFloat(memory, oop) ? floatValue(memory, oop) : nearestDouble(memory, oop);
}

int compareNumbers(const Memory& memory, OopType a, OopType b) {
  std::int64_t integers[2];
  if (toInt64(memory, a, integers[0]) && toInt64(memory, b, integers[1])) {
    return sign(integers[0]<integers[1], integers[0]> integers[1]);
  }
  const bool floatA = isFloat(memory, a);
  const bool floatB = isFloat(memory, b);
  const double left = floatA ? floatValue(memory, a) : 0;
  const double right = floatB ? floatValue(memory, b) : 0;
  if (std::isunordered(left, right)) return unordered;
  if (floatA && floatB) return sign(left<right, left> right);
  if (floatA) return -compareWithDouble(memory, b, left);
  return floatB ? compareWithDouble(memory, a, right) : compareIntegers(memory, a, b);
}

OopType stringOop(Memory& memory, std::string_view text) {
  return bytesOop(memory, StringClassOop, text.data(), text.size());
}

OopType symbolOop(Memory& memory, std::string_view text) {
  const auto known = memory.symbols.find(text);
  if (known != memory.symbols.end()) return known->second;
  const OopType oop = bytesOop(memory, SymbolClass, text.data(), text.size());
  memory.at(oop).invariant = true;
  memory.symbols.emplace(text, oop);
  return oop;
}

OopType doubleByteStringOop(Memory& memory, std::u16string_view text) {
  return bytesOop(memory, DoubleByteStringClassOop, text.data(), text.size() * 2);
}

bool isString(const Memory& memory, OopType oop) {
  return isBytesOf(memory, oop, StringClassOop);
}
bool isSymbol(const Memory& memory, OopType oop) {
  return isBytesOf(memory, oop, SymbolClass);
}
bool isDoubleByteString(const Memory& memory, OopType oop) {
  return isBytesOf(memory, oop, DoubleByteStringClassOop);
}

std::string_view bytesOf(const Memory& memory, OopType oop) {
  return memory.at(oop).text();
}

std::u16string unitsOf(const Memory& memory, OopType doubleByteString) {
  const std::string_view bytes = bytesOf(memory, doubleByteString);
  std::u16string units(bytes.size() / 2, u'\0');
  if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * 2);
  return units;
}

std::string_view stringArgument(const Memory& memory, OopType oop) {
  if (!isString(memory, oop)) wrongKind(memory, "a string", oop);
  return bytesOf(memory, oop);
}

std::u16string decodeUtf8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  while (!text.empty()) {
    std::uint32_t code = 0;
    std::size_t length = utf8Sequence(text, code);
    if (length == 0) {
      length = 1;
      code = static_cast<unsigned char>(text[0]);
    }
    if (code >= 0x10000) {
      units.push_back(static_cast<char16_t>(0xD7C0 + (code >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 | (code & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(code));
    }
    text.remove_prefix(length);
  }
  return units;
}

std::string encodeUtf8(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    std::uint32_t code = units[i];
    const bool pair = code >= 0xD800 && code < 0xDC00 && i + 1 < units.size() &&
                      units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
    if (pair) code = ((code - 0xD7C0U) << 10) + (units[++i] & 0x3FFU);
    appendUtf8(text, code);
  }
  return text;
}

OopType arrayOop(Memory& memory, std::span<const OopType> elements) {
  const OopType oop = memory.allocate(ArrayClassOop, Impl::pointers, 0, elements.size(), true);
  std::copy(elements.begin(), elements.end(), memory.at(oop).slots);
  return oop;
}

OopType dateTimeOop(Memory& memory, OopType classOop, const ZelDateTimeSType& time) {
  constexpr std::int32_t dayMs = 86'400'000;
  constexpr std::int32_t farthestYear = 999'999;
  if (time.year < -farthestYear || time.year > farthestYear) {
    throw Failure(ErrDateTimeRange, "year " + std::to_string(time.year) + " is out of range");
  }
  if (time.dayOfYear < 1 || time.dayOfYear > (isLeapYear(time.year) ? 366 : 365)) {
    throw Failure(ErrDateTimeRange, "year " + std::to_string(time.year) + " has no day " +
                                        std::to_string(time.dayOfYear));
  }
  if (time.milliseconds < 0 || time.milliseconds >= dayMs) {
    throw Failure(ErrDateTimeRange,
                  std::to_string(time.milliseconds) + " milliseconds are not within a day");
  }
  memory.requireValue(time.timeZone);
  const OopType oop = memory.allocate(classOop, Impl::pointers, 4, 0, false);
  Object& object = memory.at(oop);
  object.slots[0] = smallIntOop(time.year);
  object.slots[1] = smallIntOop(time.dayOfYear);
  object.slots[2] = smallIntOop(time.milliseconds);
  object.slots[3] = time.timeZone;
  object.invariant = true;
  return oop;
}

ZelDateTimeSType dateTimeValue(const Memory& memory, OopType oop) {
  const OopType* slots = memory.at(oop).slots;
  return {smallIntValue(slots[0]), smallIntValue(slots[1]), smallIntValue(slots[2]), slots[3]};
}

}  // namespace zel
