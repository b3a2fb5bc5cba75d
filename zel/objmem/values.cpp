#include "values.h"

#include <cstring>
#include <unordered_map>

#include "classes.h"
#include "errors/failure.h"

namespace zel {

namespace {

std::unordered_map<std::string, OopType> symbols;

OopType bytesOop(OopType classOop, const void* data, std::size_t size, bool indexable) {
  const OopType oop = allocate(classOop, Impl::bytes, 0, size, indexable);
  if (size != 0) std::memcpy(findObject(oop)->bytes.data(), data, size);
  return oop;
}

bool isBytesOf(OopType oop, OopType classOop) {
  const Object* object = findObject(oop);
  return object != nullptr && object->impl == Impl::bytes &&
         (object->classOop == classOop || inheritsFrom(object->classOop, classOop));
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

OopType integerOop(std::int64_t value) {
  if (fitsSmallInt(value)) return smallIntOop(static_cast<std::int32_t>(value));
  const OopType oop = bytesOop(LargeIntegerClass, &value, sizeof value, false);
  findObject(oop)->fixedSize = true;
  findObject(oop)->invariant = true;
  return oop;
}

bool isInteger(OopType oop) {
  if (isSmallInt(oop)) return true;
  const Object* object = findObject(oop);
  return object != nullptr && object->classOop == LargeIntegerClass;
}

std::int64_t integerValue(OopType oop) {
  if (isSmallInt(oop)) return smallIntValue(oop);
  std::int64_t value = 0;
  std::memcpy(&value, findObject(oop)->bytes.data(), sizeof value);
  return value;
}

std::int64_t integerArgument(OopType oop, std::int64_t least, std::int64_t most) {
  if (!isInteger(oop)) throw Failure(ErrBadArgumentKind, "an integer is expected", {oop});
  const std::int64_t value = integerValue(oop);
  if (value < least || value > most) {
    throw Failure(ErrBadSubscript,
                  std::to_string(value) + " is not between " + std::to_string(least) + " and " +
                      std::to_string(most),
                  {oop});
  }
  return value;
}

OopType floatOop(double value) {
  const OopType oop = bytesOop(FloatClassOop, &value, sizeof value, false);
  findObject(oop)->fixedSize = true;
  return oop;
}

bool isFloat(OopType oop) {
  const Object* object = findObject(oop);
  return object != nullptr && object->classOop == FloatClassOop;
}

double floatValue(OopType oop) {
  double value = 0;
  std::memcpy(&value, findObject(oop)->bytes.data(), sizeof value);
  return value;
}

bool isNumber(OopType oop) {
  return isInteger(oop) || isFloat(oop);
}

double numberValue(OopType oop) {
  return isFloat(oop) ? floatValue(oop) : static_cast<double>(integerValue(oop));
}

OopType stringOop(std::string_view text) {
  return bytesOop(StringClassOop, text.data(), text.size(), true);
}

OopType symbolOop(std::string_view text) {
  const auto known = symbols.find(std::string(text));
  if (known != symbols.end()) return known->second;
  const OopType oop = bytesOop(SymbolClass, text.data(), text.size(), true);
  findObject(oop)->invariant = true;
  symbols.emplace(text, oop);
  return oop;
}

OopType doubleByteStringOop(std::u16string_view text) {
  return bytesOop(DoubleByteStringClassOop, text.data(), text.size() * 2, true);
}

bool isString(OopType oop) {
  return isBytesOf(oop, StringClassOop);
}
bool isSymbol(OopType oop) {
  return isBytesOf(oop, SymbolClass);
}
bool isDoubleByteString(OopType oop) {
  return isBytesOf(oop, DoubleByteStringClassOop);
}

std::string_view bytesOf(OopType oop) {
  const std::vector<ByteType>& bytes = findObject(oop)->bytes;
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::u16string unitsOf(OopType doubleByteString) {
  const std::string_view bytes = bytesOf(doubleByteString);
  std::u16string units(bytes.size() / 2, u'\0');
  if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * 2);
  return units;
}

std::string_view stringArgument(OopType oop) {
  if (!isString(oop)) throw Failure(ErrBadArgumentKind, "a string is expected", {oop});
  return bytesOf(oop);
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

OopType arrayOop(const std::vector<OopType>& elements) {
  const OopType oop = allocate(ArrayClassOop, Impl::pointers, 0, elements.size(), true);
  findObject(oop)->slots = elements;
  return oop;
}

OopType dateTimeOop(OopType classOop, const ZelDateTimeSType& time) {
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
  requireValue(time.timeZone);
  const OopType oop = allocate(classOop, Impl::pointers, 4, 0, false);
  Object& object = *findObject(oop);
  object.slots = {smallIntOop(time.year), smallIntOop(time.dayOfYear),
                  smallIntOop(time.milliseconds), time.timeZone};
  object.invariant = true;
  return oop;
}

ZelDateTimeSType dateTimeValue(OopType oop) {
  const std::vector<OopType>& slots = findObject(oop)->slots;
  return {smallIntValue(slots[0]), smallIntValue(slots[1]), smallIntValue(slots[2]), slots[3]};
}

void sweepSymbols() {
  std::erase_if(symbols, [](const auto& entry) { return !isMarked(entry.second); });
}

void clearSymbols() {
  symbols.clear();
}

}  // namespace zel
