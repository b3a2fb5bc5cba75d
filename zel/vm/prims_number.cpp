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

void requireNumber(OopType oop) {
  if (!isNumber(oop)) {
    throw Failure(ErrBadArgumentKind, "a number is expected, not " + describe(oop), {oop});
  }
}

[[noreturn]] void overflow(OopType receiver, OopType argument) {
  throw Failure(ErrOverflow, "the result has more than 64 bits", {receiver, argument});
}

[[noreturn]] void zeroDivide(OopType receiver) {
  throw Failure(ErrZeroDivide, "division by zero", {receiver}).ofClass(ZeroDivideClass);
}

bool areIntegers(OopType a, OopType b) {
  requireNumber(b);
  return isInteger(a) && isInteger(b);
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
OopType arithmetic(Machine&, OopType receiver, const OopType* args) {
  if (!areIntegers(receiver, args[0])) {
    return floatOop(Operation::of(numberValue(receiver), numberValue(args[0])));
  }
  std::int64_t result = 0;
  if (Operation::overflows(integerValue(receiver), integerValue(args[0]), &result)) {
    overflow(receiver, args[0]);
  }
  return integerOop(result);
}

template <typename Comparison>
OopType compare(Machine&, OopType receiver, const OopType* args) {
  if (areIntegers(receiver, args[0])) {
    return booleanOop(Comparison()(integerValue(receiver), integerValue(args[0])));
  }
  return booleanOop(Comparison()(numberValue(receiver), numberValue(args[0])));
}

// An exact quotient stays an integer, any other becomes a float.
OopType divide(Machine&, OopType receiver, const OopType* args) {
  const bool integers = areIntegers(receiver, args[0]);
  if (numberValue(args[0]) == 0) zeroDivide(receiver);
  if (integers) {
    const std::int64_t a = integerValue(receiver);
    const std::int64_t b = integerValue(args[0]);
    if (a == smallest && b == -1) overflow(receiver, args[0]);
    if (a % b == 0) return integerOop(a / b);
  }
  return floatOop(numberValue(receiver) / numberValue(args[0]));
}

OopType integerFrom(double value, OopType receiver) {
  // 2^63 itself is out of range and the nearest double below it is not.
  if (!(value >= -9223372036854775808.0 && value < 9223372036854775808.0)) {
    throw Failure(ErrOverflow, "the result is no integer of 64 bits", {receiver});
  }
  return integerOop(static_cast<std::int64_t>(value));
}

struct Division {
  std::int64_t quotient;
  std::int64_t remainder;
};

// Rounded toward minus infinity, so that the remainder has the divisor's sign.
Division floorDivision(OopType receiver, OopType argument) {
  const std::int64_t a = integerValue(receiver);
  const std::int64_t b = integerValue(argument);
  if (b == 0) zeroDivide(receiver);
  if (b == -1) {
    if (a == smallest) overflow(receiver, argument);
    return {-a, 0};
  }
  const std::int64_t remainder = a % b;
  const bool adjust = remainder != 0 && (remainder < 0) != (b < 0);
  return {a / b - (adjust ? 1 : 0), remainder + (adjust ? b : 0)};
}

OopType floorQuotient(Machine&, OopType receiver, const OopType* args) {
  if (areIntegers(receiver, args[0])) {
    return integerOop(floorDivision(receiver, args[0]).quotient);
  }
  if (numberValue(args[0]) == 0) zeroDivide(receiver);
  return integerFrom(std::floor(numberValue(receiver) / numberValue(args[0])), receiver);
}

OopType floorRemainder(Machine&, OopType receiver, const OopType* args) {
  if (areIntegers(receiver, args[0])) {
    return integerOop(floorDivision(receiver, args[0]).remainder);
  }
  const double b = numberValue(args[0]);
  if (b == 0) zeroDivide(receiver);
  const double a = numberValue(receiver);
  return floatOop(a - std::floor(a / b) * b);
}

OopType truncatedQuotient(Machine&, OopType receiver, const OopType* args) {
  const std::int64_t b = integerArgument(args[0], smallest, largest);
  const std::int64_t a = integerValue(receiver);
  if (b == 0) zeroDivide(receiver);
  if (a == smallest && b == -1) overflow(receiver, args[0]);
  return integerOop(a / b);
}

OopType truncatedRemainder(Machine&, OopType receiver, const OopType* args) {
  const std::int64_t b = integerArgument(args[0], smallest, largest);
  if (b == 0) zeroDivide(receiver);
  return integerOop(b == -1 ? 0 : integerValue(receiver) % b);
}

template <double (*function)(double)>
OopType floatFunction(Machine&, OopType receiver, const OopType*) {
  return floatOop(function(numberValue(receiver)));
}

template <double (*function)(double)>
OopType rounding(Machine&, OopType receiver, const OopType*) {
  return isInteger(receiver) ? receiver : integerFrom(function(floatValue(receiver)), receiver);
}

OopType raisedTo(Machine&, OopType receiver, const OopType* args) {
  requireNumber(args[0]);
  if (!areIntegers(receiver, args[0]) || integerValue(args[0]) < 0) {
    return floatOop(std::pow(numberValue(receiver), numberValue(args[0])));
  }
  std::int64_t result = 1;
  std::int64_t base = integerValue(receiver);
  std::int64_t exponent = integerValue(args[0]);
  for (; exponent > 0; exponent >>= 1) {
    if ((exponent & 1) != 0 && __builtin_mul_overflow(result, base, &result)) {
      overflow(receiver, args[0]);
    }
    if (exponent > 1 && __builtin_mul_overflow(base, base, &base)) overflow(receiver, args[0]);
  }
  return integerOop(result);
}

template <char operation>
OopType bits(Machine&, OopType receiver, const OopType* args) {
  const std::int64_t a = integerValue(receiver);
  const std::int64_t b = integerArgument(args[0], smallest, largest);
  return integerOop(operation == '&' ? a & b : operation == '|' ? a | b : a ^ b);
}

// A positive distance shifts left, a negative one right.
OopType bitShift(Machine&, OopType receiver, const OopType* args) {
  const std::int64_t distance = integerArgument(args[0], -1000, 1000);
  const std::int64_t value = integerValue(receiver);
  if (distance <= 0) return integerOop(value >> (distance < -63 ? 63 : -distance));
  std::int64_t result = value;
  for (std::int64_t i = 0; i < distance && result != 0; ++i) {
    if (__builtin_mul_overflow(result, std::int64_t{2}, &result)) overflow(receiver, args[0]);
  }
  return integerOop(result);
}

OopType asFloat(Machine&, OopType receiver, const OopType*) {
  return isFloat(receiver) ? receiver : floatOop(numberValue(receiver));
}

OopType asCharacter(Machine&, OopType receiver, const OopType*) {
  return characterOop(static_cast<std::uint32_t>(integerArgument(receiver, 0, 0xFFFF)));
}

OopType printStringRadix(Machine&, OopType receiver, const OopType* args) {
  const auto radix = static_cast<std::uint64_t>(integerArgument(args[0], 2, 36));
  const std::int64_t value = integerValue(receiver);
  std::uint64_t rest =
      value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  std::string digits;
  do {
    digits.insert(digits.begin(), "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[rest % radix]);
    rest /= radix;
  } while (rest != 0);
  return stringOop(value < 0 ? "-" + digits : digits);
}

OopType isNaN(Machine&, OopType receiver, const OopType*) {
  return booleanOop(std::isnan(floatValue(receiver)));
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
