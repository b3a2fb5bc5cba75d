// Arithmetic. Integers of 64 bits are calculated here, larger ones by objmem/integers.h; a float on
// either side makes the operation one of floats.
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>

#include "objmem/classes.h"
#include "objmem/integers.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
constexpr double exactDoubles = 9007199254740992.0;  // 2^53: all the integers below it are some
constexpr double exactQuotients =
    2251799813685248.0;  // 2^51: what is rounded errs by less than half

void requireNumber(Memory& memory, OopType oop) {
  if (!isNumber(memory, oop)) {
    wrongKind(memory, "a number", oop);
  }
}

void requireInteger(Memory& memory, OopType oop) {
  if (!isInteger(memory, oop)) wrongKind(memory, "an integer", oop);
}

[[noreturn]] void zeroDivide(OopType receiver) {
  throw Failure(ErrZeroDivide, "division by zero", {receiver}).ofClass(ZeroDivideClass);
}

bool areIntegers(Memory& memory, OopType a, OopType b) {
  requireNumber(memory, b);
  return isInteger(memory, a) && isInteger(memory, b);
}

// Two integers of at most 64 bits.
struct Pair {
  std::int64_t a = 0;
  std::int64_t b = 0;
  bool of(Memory& memory, OopType receiver, OopType argument) {
    return toInt64(memory, receiver, a) && toInt64(memory, argument, b);
  }
};

struct Add {
  static constexpr auto ofIntegers = IntegerOperation::add;
  static bool overflows(Pair pair, std::int64_t* r) {
    return __builtin_add_overflow(pair.a, pair.b, r);
  }
  static double of(double a, double b) { return a + b; }
};
struct Subtract {
  static constexpr auto ofIntegers = IntegerOperation::subtract;
  static bool overflows(Pair pair, std::int64_t* r) {
    return __builtin_sub_overflow(pair.a, pair.b, r);
  }
  static double of(double a, double b) { return a - b; }
};
struct Multiply {
  static constexpr auto ofIntegers = IntegerOperation::multiply;
  static bool overflows(Pair pair, std::int64_t* r) {
    return __builtin_mul_overflow(pair.a, pair.b, r);
  }
  static double of(double a, double b) { return a * b; }
};

template <typename Operation>
OopType arithmetic(Memory& memory, OopType receiver, const OopType* args) {
  Pair pair;
  std::int64_t result = 0;
  if (pair.of(memory, receiver, args[0]) && !Operation::overflows(pair, &result)) {
    return integerOop(memory, result);
  }
  if (areIntegers(memory, receiver, args[0])) {
    return calculate(memory, Operation::ofIntegers, receiver, args[0]);
  }
  return floatOop(memory,
                  Operation::of(numberValue(memory, receiver), numberValue(memory, args[0])));
}

template <bool expected>
OopType equality(Memory& memory, OopType receiver, const OopType* args) {
  const bool equal = isNumber(memory, args[0]) && compareNumbers(memory, receiver, args[0]) == 0;
  return booleanOop(equal == expected);
}

template <typename Comparison>
OopType compare(Memory& memory, OopType receiver, const OopType* args) {
  requireNumber(memory, args[0]);
  const int order = compareNumbers(memory, receiver, args[0]);
  return booleanOop(order != unordered && Comparison()(order, 0));
}

OopType integerFrom(Memory& memory, double value, OopType receiver) {
  if (!std::isfinite(value)) {
    throw Failure(ErrOverflow, printFloat(value) + " is no integer", {receiver});
  }
  return integerFromDouble(memory, value);
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

Division truncated(std::int64_t a, std::int64_t b) {
  return {a / b, a % b};
}

// A message that divides integers: by 64 bits with `function`, which is not asked for the one
// quotient that has more.
template <Division (*function)(std::int64_t, std::int64_t), std::int64_t Division::*part>
OopType divideIntegers(Memory& memory, OopType receiver, OopType argument,
                       IntegerOperation operation) {
  if (argument == smallIntOop(0)) zeroDivide(receiver);
  Pair pair;
  if (!pair.of(memory, receiver, argument) || (pair.a == smallest && pair.b == -1)) {
    return calculate(memory, operation, receiver, argument);
  }
  return integerOop(memory, function(pair.a, pair.b).*part);
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
  if (isSmallInt(receiver) && isSmallInt(args[0]) && args[0] != smallIntOop(0)) {
    return integerOop(memory, floored(smallIntValue(receiver), smallIntValue(args[0])).quotient);
  }
  if (areIntegers(memory, receiver, args[0])) {
    return divideIntegers<floored, &Division::quotient>(memory, receiver, args[0],
                                                        IntegerOperation::floorQuotient);
  }
  const double a = numberValue(memory, receiver);
  const double b = numberValue(memory, args[0]);
  if (std::isinf(a) && b != 0) return integerFrom(memory, a, receiver);
  const double quotient = floatDivision(memory, receiver, args[0]).quotient;
  if (std::abs(quotient) < exactQuotients || !std::isfinite(a) || !std::isfinite(b)) {
    return integerFrom(memory, quotient, receiver);
  }
  return zel::floorQuotient(memory, a, b);
}

OopType floorRemainder(Memory& memory, OopType receiver, const OopType* args) {
  if (isSmallInt(receiver) && isSmallInt(args[0]) && args[0] != smallIntOop(0)) {
    const std::int64_t remainder =
        floored(smallIntValue(receiver), smallIntValue(args[0])).remainder;
    return smallIntOop(static_cast<std::int32_t>(remainder));
  }
  if (areIntegers(memory, receiver, args[0])) {
    return divideIntegers<floored, &Division::remainder>(memory, receiver, args[0],
                                                         IntegerOperation::floorRemainder);
  }
  return floatOop(memory, floatDivision(memory, receiver, args[0]).remainder);
}

OopType truncatedQuotient(Memory& memory, OopType receiver, const OopType* args) {
  if (!areIntegers(memory, receiver, args[0])) return undecided;
  return divideIntegers<truncated, &Division::quotient>(memory, receiver, args[0],
                                                        IntegerOperation::quotient);
}

OopType truncatedRemainder(Memory& memory, OopType receiver, const OopType* args) {
  if (!areIntegers(memory, receiver, args[0])) return undecided;
  return divideIntegers<truncated, &Division::remainder>(memory, receiver, args[0],
                                                         IntegerOperation::remainder);
}

// An exact quotient stays an integer, any other becomes the nearest float.
OopType divide(Memory& memory, OopType receiver, const OopType* args) {
  const bool integers = areIntegers(memory, receiver, args[0]);
  if (integers && truncatedRemainder(memory, receiver, args) == smallIntOop(0)) {
    return truncatedQuotient(memory, receiver, args);
  }
  const double a = numberValue(memory, receiver);
  const double b = numberValue(memory, args[0]);
  if (b == 0) zeroDivide(receiver);
  const bool exact = !integers || (std::abs(a) < exactDoubles && std::abs(b) < exactDoubles);
  return floatOop(memory, exact ? a / b : nearestQuotient(memory, receiver, args[0]));
}

template <double (*function)(double)>
OopType floatFunction(Memory& memory, OopType receiver, const OopType*) {
  return floatOop(memory, function(numberValue(memory, receiver)));
}

// Integers of more than 64 bits, which may be beyond the largest double.
bool isVeryLarge(Memory& memory, OopType oop) {
  std::int64_t value = 0;
  return isInteger(memory, oop) && !toInt64(memory, oop, value);
}

OopType squareRoot(Memory& memory, OopType receiver, const OopType* args) {
  if (!isVeryLarge(memory, receiver)) return floatFunction<std::sqrt>(memory, receiver, args);
  int exponent = 0;
  long double bits = leadingBits(memory, receiver, exponent);
  if (exponent % 2 != 0) {
    bits *= 2;
    --exponent;
  }
  return floatOop(memory, static_cast<double>(std::scalbn(std::sqrt(bits), exponent / 2)));
}

OopType naturalLogarithm(Memory& memory, OopType receiver, const OopType* args) {
  if (!isVeryLarge(memory, receiver)) return floatFunction<std::log>(memory, receiver, args);
  int exponent = 0;
  const long double bits = leadingBits(memory, receiver, exponent);
  const long double logarithm = std::log(bits) + exponent * std::numbers::ln2_v<long double>;
  return floatOop(memory, static_cast<double>(logarithm));
}

template <double (*function)(double)>
OopType rounding(Memory& memory, OopType receiver, const OopType*) {
  return isInteger(memory, receiver)
             ? receiver
             : integerFrom(memory, function(floatValue(memory, receiver)), receiver);
}

OopType raisedTo(Memory& memory, OopType receiver, const OopType* args) {
  if (!areIntegers(memory, receiver, args[0]) ||
      compareIntegers(memory, args[0], smallIntOop(0)) < 0) {
    const double base = numberValue(memory, receiver);
    const double exponent = numberValue(memory, args[0]);
    if (base == 0 && exponent < 0) zeroDivide(receiver);
    return floatOop(memory, std::pow(base, exponent));
  }
  return integerPower(memory, receiver, args[0]);
}

template <IntegerOperation operation>
OopType bits(Memory& memory, OopType receiver, const OopType* args) {
  requireInteger(memory, args[0]);
  Pair pair;
  if (!pair.of(memory, receiver, args[0])) return calculate(memory, operation, receiver, args[0]);
  return integerOop(memory, operation == IntegerOperation::bitAnd  ? pair.a & pair.b
                            : operation == IntegerOperation::bitOr ? pair.a | pair.b
                                                                   : pair.a ^ pair.b);
}

// A positive distance shifts left, a negative one right.
OopType bitShift(Memory& memory, OopType receiver, const OopType* args) {
  requireInteger(memory, args[0]);
  Pair pair;
  if (pair.of(memory, receiver, args[0])) {
    if (pair.b <= 0) return integerOop(memory, pair.a >> (pair.b < -63 ? 63 : -pair.b));
    const std::int64_t factor = std::int64_t{1} << (pair.b & 31);
    std::int64_t result = 0;
    if (pair.b < 32 && !__builtin_mul_overflow(pair.a, factor, &result)) {
      return integerOop(memory, result);
    }
  }
  return shiftInteger(memory, receiver, args[0]);
}

// Bits are counted from 1, the lowest.
OopType bitAt(Memory& memory, OopType receiver, const OopType* args) {
  const std::int64_t index = integerArgument(memory, args[0], 1, smallIntMax);
  const OopType distance = smallIntOop(static_cast<std::int32_t>(1 - index));
  const OopType one = smallIntOop(1);
  return bits<IntegerOperation::bitAnd>(memory, bitShift(memory, receiver, &distance), &one);
}

OopType asFloat(Memory& memory, OopType receiver, const OopType*) {
  return isFloat(memory, receiver) ? receiver : floatOop(memory, numberValue(memory, receiver));
}

OopType asCharacter(Memory& memory, OopType receiver, const OopType*) {
  return characterOop(
      static_cast<std::uint32_t>(integerArgument(memory, receiver, 0, largestCharacter)));
}

OopType printStringRadix(Memory& memory, OopType receiver, const OopType* args) {
  const auto radix = static_cast<int>(integerArgument(memory, args[0], 2, 36));
  return stringOop(memory, printInteger(memory, receiver, radix));
}

OopType isNaN(Memory& memory, OopType receiver, const OopType*) {
  return booleanOop(std::isnan(floatValue(memory, receiver)));
}

constexpr char truncatedQuo[] = "truncatedQuo:";
constexpr char truncatedRem[] = "truncatedRem:";

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
    {"=", equality<true>},
    {"~=", equality<false>},
    {"sqrt", squareRoot},
    {"sin", floatFunction<std::sin>},
    {"cos", floatFunction<std::cos>},
    {"tan", floatFunction<std::tan>},
    {"exp", floatFunction<std::exp>},
    {"ln", naturalLogarithm},
    {"floor", rounding<std::floor>},
    {"ceiling", rounding<std::ceil>},
    {"rounded", rounding<std::round>},
    {"truncated", rounding<std::trunc>},
    {"asInteger", rounding<std::trunc>},
    {"raisedTo:", raisedTo},
    {"asFloat", asFloat},
    {"quo:", directly<truncatedQuotient, truncatedQuo>},
    {"rem:", directly<truncatedRemainder, truncatedRem>},
};
constexpr Primitive integerMessages[] = {
    {"bitAnd:", bits<IntegerOperation::bitAnd>},
    {"bitOr:", bits<IntegerOperation::bitOr>},
    {"bitXor:", bits<IntegerOperation::bitXor>},
    {"bitShift:", bitShift},
    {"bitAt:", bitAt},
    {"asCharacter", asCharacter},
    {"printString:", printStringRadix},
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
