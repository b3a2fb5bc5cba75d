// Arithmetic. Integers have 64 bits and report an overflow; a float on either side makes the
// operation one of floats.
#include <cmath>
#include <functional>
#include <limits>

#include "objmem/classes.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();

void requireNumber(Memory& memory, OopType oop) {
  if (!isNumber(memory, oop)) {
    throw Failure(ErrBadArgumentKind, "a number is expected, not " + describe(memory, oop), {oop});
  }
}

[[noreturn]] void overflow(OopType receiver, OopType argument) {
  throw Failure(ErrOverflow, "the result has more than 64 bits", {receiver, argument});
}

[[noreturn]] void zeroDivide(OopType receiver) {
  throw Failure(ErrZeroDivide, "division by zero", {receiver}).ofClass(ZeroDivideClass);
}

bool areIntegers(Memory& memory, OopType a, OopType b) {
  requireNumber(memory, b);
  return isInteger(memory, a) && isInteger(memory, b);
}

struct Add {
  static bool overflows(std::int64_t a, std::int64_t b, std::int64_t* r) {
    return __builtin_add_overflow(a, b, r);
  }
  static double of(double a, double b) { return a + b; }
};
struct Subtract {
  static bool overflows(std::int64_t a, std::int64_t b, std::int64_t* r) {
    return __builtin_sub_overflow(a, b, r);
  }
  static double of(double a, double b) { return a - b; }
};
struct Multiply {
  static bool overflows(std::int64_t a, std::int64_t b, std::int64_t* r) {
    return __builtin_mul_overflow(a, b, r);
  }
  static double of(double a, double b) { return a * b; }
};

template <typename Operation>
OopType arithmetic(Memory& memory, OopType receiver, const OopType* args) {
  if (isFloat(memory, receiver) && isFloat(memory, args[0])) {
    return floatOop(memory,
                    Operation::of(floatValue(memory, receiver), floatValue(memory, args[0])));
  }
  if (!areIntegers(memory, receiver, args[0])) {
    return floatOop(memory,
                    Operation::of(numberValue(memory, receiver), numberValue(memory, args[0])));
  }
  std::int64_t result = 0;
  if (Operation::overflows(integerValue(memory, receiver), integerValue(memory, args[0]),
                           &result)) {
    overflow(receiver, args[0]);
  }
  return integerOop(memory, result);
}

template <typename Comparison>
OopType compare(Memory& memory, OopType receiver, const OopType* args) {
  requireNumber(memory, args[0]);
  const int order = compareNumbers(memory, receiver, args[0]);
  return booleanOop(order != unordered && Comparison()(order, 0));
}

// An exact quotient stays an integer, any other becomes a float.
OopType divide(Memory& memory, OopType receiver, const OopType* args) {
  const bool integers = areIntegers(memory, receiver, args[0]);
  if (numberValue(memory, args[0]) == 0) zeroDivide(receiver);
  if (integers) {
    const std::int64_t a = integerValue(memory, receiver);
    const std::int64_t b = integerValue(memory, args[0]);
    if (a == smallest && b == -1) overflow(receiver, args[0]);
    if (a % b == 0) return integerOop(memory, a / b);
  }
  return floatOop(memory, numberValue(memory, receiver) / numberValue(memory, args[0]));
}

OopType integerFrom(Memory& memory, double value, OopType receiver) {
  if (!fitsInteger(value)) {
    throw Failure(ErrOverflow, "the result is no integer of 64 bits", {receiver});
  }
  return integerOop(memory, static_cast<std::int64_t>(value));
}

struct Division {
  std::int64_t quotient;
  std::int64_t remainder;
};

template <typename Integer>
Division floored(Integer a, Integer b) {
  const Integer remainder = a % b;
  const bool adjust = remainder != 0 && (remainder < 0) != (b < 0);
  return {a / b - (adjust ? 1 : 0), remainder + (adjust ? b : 0)};
}

// Rounded toward minus infinity, so that the remainder has the divisor's sign.
Division floorDivision(Memory& memory, OopType receiver, OopType argument) {
  const std::int64_t a = integerValue(memory, receiver);
  const std::int64_t b = integerValue(memory, argument);
  if (b == 0) zeroDivide(receiver);
  if (b == -1) {
    if (a == smallest) overflow(receiver, argument);
    return {-a, 0};
  }
  return floored(a, b);
}

// The same of floats, by the exact remainder: the quotient itself may be rounded too far.
struct FloatDivision {
  double quotient;
  double remainder;
};

FloatDivision floatDivision(Memory& memory, OopType receiver, OopType argument) {
  const double a = numberValue(memory, receiver);
  const double b = numberValue(memory, argument);
  if (b == 0) zeroDivide(receiver);
  double remainder = std::fmod(a, b);
  double quotient = (a - remainder) / b;
  if (remainder != 0 && (remainder < 0) != (b < 0)) {
    remainder += b;
    quotient -= 1;
  }
  return {std::round(quotient), remainder};
}

OopType floorQuotient(Memory& memory, OopType receiver, const OopType* args) {
  if (areIntegers(memory, receiver, args[0])) {
    return integerOop(memory, floorDivision(memory, receiver, args[0]).quotient);
  }
  return integerFrom(memory, floatDivision(memory, receiver, args[0]).quotient, receiver);
}

OopType floorRemainder(Memory& memory, OopType receiver, const OopType* args) {
  if (isSmallInt(receiver) && isSmallInt(args[0]) && args[0] != smallIntOop(0)) {
    const std::int64_t remainder =
        floored(smallIntValue(receiver), smallIntValue(args[0])).remainder;
    return smallIntOop(static_cast<std::int32_t>(remainder));
  }
  if (areIntegers(memory, receiver, args[0])) {
    return integerOop(memory, floorDivision(memory, receiver, args[0]).remainder);
  }
  return floatOop(memory, floatDivision(memory, receiver, args[0]).remainder);
}

OopType truncatedQuotient(Memory& memory, OopType receiver, const OopType* args) {
  const std::int64_t b = integerArgument(memory, args[0], smallest, largest);
  const std::int64_t a = integerValue(memory, receiver);
  if (b == 0) zeroDivide(receiver);
  if (a == smallest && b == -1) overflow(receiver, args[0]);
  return integerOop(memory, a / b);
}

OopType truncatedRemainder(Memory& memory, OopType receiver, const OopType* args) {
  const std::int64_t b = integerArgument(memory, args[0], smallest, largest);
  if (b == 0) zeroDivide(receiver);
  return integerOop(memory, b == -1 ? 0 : integerValue(memory, receiver) % b);
}

template <double (*function)(double)>
OopType floatFunction(Memory& memory, OopType receiver, const OopType*) {
  return floatOop(memory, function(numberValue(memory, receiver)));
}

template <double (*function)(double)>
OopType rounding(Memory& memory, OopType receiver, const OopType*) {
  return isInteger(memory, receiver)
             ? receiver
             : integerFrom(memory, function(floatValue(memory, receiver)), receiver);
}

OopType raisedTo(Memory& memory, OopType receiver, const OopType* args) {
  requireNumber(memory, args[0]);
  if (!areIntegers(memory, receiver, args[0]) || integerValue(memory, args[0]) < 0) {
    return floatOop(memory, std::pow(numberValue(memory, receiver), numberValue(memory, args[0])));
  }
  std::int64_t result = 1;
  std::int64_t base = integerValue(memory, receiver);
  std::int64_t exponent = integerValue(memory, args[0]);
  for (; exponent > 0; exponent >>= 1) {
    if ((exponent & 1) != 0 && __builtin_mul_overflow(result, base, &result)) {
      overflow(receiver, args[0]);
    }
    if (exponent > 1 && __builtin_mul_overflow(base, base, &base)) overflow(receiver, args[0]);
  }
  return integerOop(memory, result);
}

template <char operation>
OopType bits(Memory& memory, OopType receiver, const OopType* args) {
  const std::int64_t a = integerValue(memory, receiver);
  const std::int64_t b = integerArgument(memory, args[0], smallest, largest);
  return integerOop(memory, operation == '&' ? a & b : operation == '|' ? a | b : a ^ b);
}

// A positive distance shifts left, a negative one right.
OopType bitShift(Memory& memory, OopType receiver, const OopType* args) {
  const std::int64_t distance = integerArgument(memory, args[0], -1000, 1000);
  const std::int64_t value = integerValue(memory, receiver);
  if (distance <= 0) return integerOop(memory, value >> (distance < -63 ? 63 : -distance));
  std::int64_t result = value;
  for (std::int64_t i = 0; i < distance && result != 0; ++i) {
    if (__builtin_mul_overflow(result, std::int64_t{2}, &result)) overflow(receiver, args[0]);
  }
  return integerOop(memory, result);
}

OopType asFloat(Memory& memory, OopType receiver, const OopType*) {
  return isFloat(memory, receiver) ? receiver : floatOop(memory, numberValue(memory, receiver));
}

OopType asCharacter(Memory& memory, OopType receiver, const OopType*) {
  return characterOop(static_cast<std::uint32_t>(integerArgument(memory, receiver, 0, 0xFFFF)));
}

OopType printStringRadix(Memory& memory, OopType receiver, const OopType* args) {
  const auto radix = static_cast<std::uint64_t>(integerArgument(memory, args[0], 2, 36));
  const std::int64_t value = integerValue(memory, receiver);
  std::uint64_t rest =
      value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  std::string digits;
  do {
    digits.insert(digits.begin(), "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[rest % radix]);
    rest /= radix;
  } while (rest != 0);
  return stringOop(memory, value < 0 ? "-" + digits : digits);
}

OopType isNaN(Memory& memory, OopType receiver, const OopType*) {
  return booleanOop(std::isnan(floatValue(memory, receiver)));
}

constexpr Primitive numberMessages[] = {
    {"+", arithmetic<Add>},
    {"-", arithmetic<Subtract>},
    {"*", arithmetic<Multiply>},
    {"/", divide},
    {"//", floorQuotient},
    {"\\\\", floorRemainder},
    {"<", compare<std::less<>>},
    {">", compare<std::greater<>>},
    {"<=", compare<std::less_equal<>>},
    {">=", compare<std::greater_equal<>>},
    {"sqrt", floatFunction<std::sqrt>},
    {"sin", floatFunction<std::sin>},
    {"cos", floatFunction<std::cos>},
    {"tan", floatFunction<std::tan>},
    {"exp", floatFunction<std::exp>},
    {"ln", floatFunction<std::log>},
    {"floor", rounding<std::floor>},
    {"ceiling", rounding<std::ceil>},
    {"rounded", rounding<std::round>},
    {"truncated", rounding<std::trunc>},
    {"asInteger", rounding<std::trunc>},
    {"raisedTo:", raisedTo},
    {"asFloat", asFloat},
};
constexpr Primitive integerMessages[] = {
    {"quo:", truncatedQuotient},  {"rem:", truncatedRemainder},
    {"bitAnd:", bits<'&'>},       {"bitOr:", bits<'|'>},
    {"bitXor:", bits<'^'>},       {"bitShift:", bitShift},
    {"asCharacter", asCharacter}, {"printString:", printStringRadix},
};
constexpr Primitive floatMessages[] = {
    {"isNaN", isNaN},
};
constexpr ClassPrimitives families[] = {
    {NumberClass, numberMessages},
    {IntegerClass, integerMessages},
    {FloatClassOop, floatMessages},
};

}  // namespace

constinit const PrimitiveTable numberPrimitives = families;

}  // namespace zel
