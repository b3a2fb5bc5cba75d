#include "values.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "classes.h"
#include "errors/failure.h"
#include "integers.h"
#include "text.h"

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

OopType stringOop(Memory& memory, std::string_view bytes) {
  return bytesOop(memory, StringClassOop, bytes.data(), bytes.size());
}

OopType symbolOop(Memory& memory, std::string_view bytes) {
  if (!isAscii(bytes)) {
    const std::string canonical = canonicalUtf8({bytes}, &memory.meter);
    if (canonical != bytes) return symbolOop(memory, canonical);
  }
  const auto known = memory.symbols.find(bytes);
  if (known != memory.symbols.end()) return known->second;
  const OopType oop = bytesOop(memory, SymbolClass, bytes.data(), bytes.size());
  memory.at(oop).invariant = true;
  memory.addSymbol(oop);
  return oop;
}

OopType doubleByteStringOop(Memory& memory, std::string_view bytes) {
  return bytesOop(memory, DoubleByteStringClassOop, bytes.data(), bytes.size());
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
