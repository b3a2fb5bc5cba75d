#include "integers.h"

#include <algorithm>
#include <bit>
#include <boost/multiprecision/cpp_int.hpp>
#include <charconv>
#include <cmath>
#include <cstring>
#include <span>
#include <vector>

#include "values.h"

namespace zel {

namespace {

using Integer = boost::multiprecision::number<boost::multiprecision::cpp_int_backend<>,
                                              boost::multiprecision::et_off>;
using Word = std::uint32_t;
constexpr unsigned wordBits = 32;
static_assert(sizeof(boost::multiprecision::limb_type) == sizeof(Word));

constexpr unsigned leadingSize = 62;  // bits that an std::int64_t holds with room to spare
constexpr std::size_t wordsOfDouble = 36;
constexpr std::size_t wordsPerStep = 32;  // multiplied or divided in the time of a message

// The words of an integer in their shortest form, but at least two of them.
class Words {
 public:
  Words(const Memory& memory, OopType oop) {
    if (isSmallInt(oop)) {
      set(smallIntValue(oop));
    } else {
      const Object& object = memory.at(oop);
      bytes_ = object.bytes;
      size = object.size / sizeof(Word);
    }
  }
  // The double must be whole.
  explicit Words(double value) {
    if (fitsInteger(value)) {
      set(static_cast<std::int64_t>(value));
      return;
    }
    int exponent = 0;
    const auto mantissa = static_cast<std::int64_t>(std::ldexp(std::frexp(value, &exponent), 53));
    exponent -= 53;
    const auto shift = static_cast<unsigned>(exponent) % wordBits;
    const std::size_t first = static_cast<std::size_t>(exponent) / wordBits;
    own_[first] = static_cast<Word>(static_cast<std::uint64_t>(mantissa) << shift);
    own_[first + 1] = static_cast<Word>(mantissa >> (wordBits - shift));
    own_[first + 2] = static_cast<Word>(mantissa >> wordBits >> (wordBits - shift));
    size = first + 3;
    while (own_[size - 1] == (own_[size - 2] >> (wordBits - 1) != 0 ? ~Word{0} : 0)) --size;
  }
  Words(const Words&) = delete;
  Words& operator=(const Words&) = delete;

  std::size_t size = 0;
  Word operator[](std::size_t i) const {
    Word word = 0;
    std::memcpy(&word, bytes() + i * sizeof word, sizeof word);
    return word;
  }
  bool negative() const { return (*this)[size - 1] >> (wordBits - 1) != 0; }
  const ByteType* bytes() const {
    return bytes_ != nullptr ? bytes_ : reinterpret_cast<const ByteType*>(own_);
  }

 private:
  void set(std::int64_t value) {
    std::memcpy(own_, &value, sizeof value);
    size = sizeof value / sizeof(Word);
  }

  const ByteType* bytes_ = nullptr;  // of the object, or in `own_`
  Word own_[wordsOfDouble] = {};
};

Integer load(const Words& words) {
  Integer value;
  auto& backend = value.backend();
  backend.resize(static_cast<unsigned>(words.size), static_cast<unsigned>(words.size));
  std::memcpy(backend.limbs(), words.bytes(), words.size * sizeof(Word));
  const bool negative = words.negative();
  if (negative)
    std::transform(backend.limbs(), backend.limbs() + words.size, backend.limbs(), std::bit_not());
  backend.normalize();
  return negative ? -value - 1 : value;
}
Integer load(const Memory& memory, OopType oop) {
  return load(Words(memory, oop));
}

std::size_t bitsOf(const Integer& magnitude) {
  return magnitude.is_zero() ? 0 : msb(magnitude) + 1;
}

OopType store(Memory& memory, const Integer& value) {
  const bool negative = value < 0;
  // As many ones in the place of leading zeros are what two's complement makes of it.
  const Integer body = negative ? -value - 1 : value;
  const auto& backend = body.backend();
  const std::size_t size = bitsOf(body) / wordBits + 1;
  if (size <= 2) {
    std::int64_t small = 0;
    std::memcpy(&small, backend.limbs(), backend.size() * sizeof(Word));
    return integerOop(memory, negative ? ~small : small);
  }
  if (bitsOf(abs(value)) > mostIntegerBits) throw Failure(ErrOverflow, integerTooLarge);
  const OopType oop =
      memory.allocate(LargeIntegerClass, Impl::bytes, 0, size * sizeof(Word), false);
  Object& object = memory.at(oop);
  std::memcpy(object.bytes, backend.limbs(), backend.size() * sizeof(Word));
  if (negative)
    std::transform(object.bytes, object.bytes + object.size, object.bytes, std::bit_not());
  object.fixedSize = object.invariant = true;
  return oop;
}

void charge(const Memory& memory, std::size_t words, std::size_t times) {
  memory.meter.charge(words * times / wordsPerStep);
}

// Rounds once, to a subnormal number as well: a long double holds all the bits and the exponent.
double rounded(std::int64_t bits, int exponent) {
  return static_cast<double>(std::scalbn(static_cast<long double>(bits), exponent));
}

struct Leading {
  std::int64_t bits;
  int exponent;
};

// What is lost sets the lowest bit, so that a later rounding is the only one.
Leading leadingBits(const Integer& value) {
  const Integer magnitude = abs(value);
  const std::size_t all = bitsOf(magnitude);
  if (all <= leadingSize) return {static_cast<std::int64_t>(value), 0};
  const auto shift = static_cast<unsigned>(all - leadingSize);
  auto bits = static_cast<std::int64_t>(magnitude >> shift);
  if (lsb(magnitude) < shift) bits |= 1;
  return {value < 0 ? -bits : bits, static_cast<int>(shift)};
}

std::uint64_t fold(const Words& words) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < words.size; ++i) value = value * 0x9E3779B97F4A7C15ULL + words[i];
  return value;
}

int compare(const Words& a, const Words& b) {
  const bool negative = a.negative();
  if (negative != b.negative()) return negative ? -1 : 1;
  if (a.size != b.size) return (a.size < b.size) == negative ? 1 : -1;
  for (std::size_t i = a.size; i-- > 0;) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

Integer combined(IntegerOperation operation, const Integer& a, const Integer& b) {
  switch (operation) {
    case IntegerOperation::add:
      return a + b;
    case IntegerOperation::subtract:
      return a - b;
    case IntegerOperation::multiply:
      return a * b;
    case IntegerOperation::bitAnd:
      return a & b;
    case IntegerOperation::bitOr:
      return a | b;
    case IntegerOperation::bitXor:
      return a ^ b;
    default:
      break;
  }
  Integer quotient;
  Integer remainder;
  divide_qr(a, b, quotient, remainder);
  const bool adjust = !remainder.is_zero() && (remainder < 0) != (b < 0);
  switch (operation) {
    case IntegerOperation::floorQuotient:
      return adjust ? quotient - 1 : quotient;
    case IntegerOperation::floorRemainder:
      return adjust ? remainder + b : remainder;
    case IntegerOperation::quotient:
      return quotient;
    default:
      return remainder;
  }
}

// How a radix's digits come in groups that a word holds.
struct Groups {
  explicit Groups(Word base) : radix(base) {
    while (std::uint64_t{power} * radix <= UINT32_MAX) {
      power *= radix;
      ++digits;
    }
  }
  Word radix;
  Word power = 1;  // of the radix, what a group is less than
  std::size_t digits = 0;
};

void appendGroup(std::string& text, Word value, const Groups& groups) {
  char digits[wordBits];
  const auto end =
      std::to_chars(digits, digits + sizeof digits, value, static_cast<int>(groups.radix)).ptr;
  const auto count = static_cast<std::size_t>(end - digits);
  if (!text.empty()) text.append(groups.digits - count, '0');
  text.append(digits, count);
}

// Splits the value, which is less than the last power's square, down to the groups.
void appendDigits(std::string& text, const Integer& value, std::span<const Integer> powers,
                  const Groups& groups) {
  if (text.empty() && value.is_zero()) return;
  if (powers.empty()) return appendGroup(text, static_cast<Word>(value), groups);
  Integer high;
  Integer low;
  divide_qr(value, powers.back(), high, low);
  powers = powers.first(powers.size() - 1);
  appendDigits(text, high, powers, groups);
  appendDigits(text, low, powers, groups);
}

std::string largeDigits(const Integer& value, int radix) {
  const Groups groups(static_cast<Word>(radix));
  const Integer magnitude = abs(value);
  std::vector<Integer> powers{groups.power};
  while (bitsOf(powers.back()) * 2 <= bitsOf(magnitude) + 1) {
    powers.push_back(powers.back() * powers.back());
  }
  std::string text;
  appendDigits(text, magnitude, powers, groups);
  return value < 0 ? "-" + text : text;
}

// A double without its exponent.
Integer wholeOf(double value, int& exponent) {
  const double fraction = std::frexp(value, &exponent);
  exponent -= 53;
  return static_cast<std::int64_t>(std::ldexp(fraction, 53));
}

}  // namespace

OopType calculate(Memory& memory, IntegerOperation operation, OopType a, OopType b) {
  const Words left(memory, a);
  const Words right(memory, b);
  const bool linear =
      operation < IntegerOperation::multiply || operation >= IntegerOperation::bitAnd;
  charge(memory, left.size, linear ? 1 : right.size);
  const Integer one = load(left);
  const Integer other = load(right);
  if (operation == IntegerOperation::multiply &&
      bitsOf(abs(one)) + bitsOf(abs(other)) > mostIntegerBits + 1) {
    throw Failure(ErrOverflow, integerTooLarge, {a, b});
  }
  return store(memory, combined(operation, one, other));
}

OopType shiftInteger(Memory& memory, OopType value, OopType distance) {
  const Integer bits = load(memory, value);
  std::int64_t places = 0;
  const bool near = toInt64(memory, distance, places);
  if (bits.is_zero()) return value;
  if (Words(memory, distance).negative()) {
    if (!near || places <= -static_cast<std::int64_t>(mostIntegerBits)) {
      return smallIntOop(bits < 0 ? -1 : 0);
    }
    // Shifting what is negative, Boost loses some signs.
    const auto right = static_cast<unsigned>(-places);
    return store(memory, bits < 0 ? -((-bits - 1) >> right) - 1 : bits >> right);
  }
  if (!near || places > static_cast<std::int64_t>(mostIntegerBits - bitsOf(abs(bits)))) {
    throw Failure(ErrOverflow, integerTooLarge, {value, distance});
  }
  return store(memory, bits << static_cast<unsigned>(places));
}

OopType integerPower(Memory& memory, OopType base, OopType exponent) {
  const Integer value = load(memory, base);
  const Integer magnitude = abs(value);
  const bool odd = (Words(memory, exponent)[0] & 1) != 0;
  if (exponent == smallIntOop(0)) return smallIntOop(1);
  if (magnitude <= 1) return value < 0 && !odd ? smallIntOop(1) : base;
  std::int64_t times = 0;
  const std::size_t least = bitsOf(magnitude) - 1;
  if (!toInt64(memory, exponent, times) ||
      times > static_cast<std::int64_t>(mostIntegerBits / least)) {
    throw Failure(ErrOverflow, integerTooLarge, {base, exponent});
  }
  const std::size_t words = least * static_cast<std::size_t>(times) / wordBits + 1;
  charge(memory, words, words);
  return store(memory, pow(value, static_cast<unsigned>(times)));
}

int compareIntegers(const Memory& memory, OopType a, OopType b) {
  return compare(Words(memory, a), Words(memory, b));
}

int compareWithDouble(const Memory& memory, OopType a, double b) {
  if (std::isinf(b)) return b < 0 ? 1 : -1;
  const double whole = std::trunc(b);
  const int order = compare(Words(memory, a), Words(whole));
  if (order != 0 || whole == b) return order;
  return whole < b ? -1 : 1;
}

std::uint64_t foldInteger(const Memory& memory, OopType oop) {
  std::int64_t value = 0;
  return toInt64(memory, oop, value) ? static_cast<std::uint64_t>(value) : fold(Words(memory, oop));
}

std::uint64_t foldIntegral(double value) {
  return fitsInteger(value) ? static_cast<std::uint64_t>(static_cast<std::int64_t>(value))
                            : fold(Words(value));
}

double nearestDouble(const Memory& memory, OopType integer) {
  const Leading first = leadingBits(load(memory, integer));
  return rounded(first.bits, first.exponent);
}

double nearestQuotient(Memory& memory, OopType a, OopType b) {
  const Integer dividend = load(memory, a);
  const Integer divisor = load(memory, b);
  Integer one = abs(dividend);
  Integer other = abs(divisor);
  const int shift = static_cast<int>(leadingSize + bitsOf(other)) - static_cast<int>(bitsOf(one));
  (shift > 0 ? one : other) <<= static_cast<unsigned>(std::abs(shift));
  charge(memory, bitsOf(other) / wordBits, 2);
  Integer quotient;
  Integer remainder;
  divide_qr(one, other, quotient, remainder);
  auto bits = static_cast<std::int64_t>(quotient);
  if (!remainder.is_zero()) bits |= 1;
  return rounded((dividend < 0) != (divisor < 0) ? -bits : bits, -shift);
}

long double leadingBits(const Memory& memory, OopType integer, int& exponent) {
  const Leading first = leadingBits(load(memory, integer));
  exponent = first.exponent;
  return static_cast<long double>(first.bits);
}

OopType integerFromDouble(Memory& memory, double value) {
  if (fitsInteger(value)) return integerOop(memory, static_cast<std::int64_t>(value));
  return store(memory, load(Words(value)));
}

OopType floorQuotient(Memory& memory, double a, double b) {
  int exponents[2];
  Integer one = wholeOf(a, exponents[0]);
  Integer other = wholeOf(b, exponents[1]);
  const int shift = exponents[0] - exponents[1];
  (shift > 0 ? one : other) <<= static_cast<unsigned>(std::abs(shift));
  return store(memory, combined(IntegerOperation::floorQuotient, one, other));
}

std::string printInteger(const Memory& memory, OopType oop, int radix) {
  if (isSmallInt(oop) && radix == 10) return std::to_string(smallIntValue(oop));
  std::string text;
  std::int64_t value = 0;
  if (toInt64(memory, oop, value)) {
    char digits[66];
    text.assign(digits, std::to_chars(digits, digits + sizeof digits, value, radix).ptr);
  } else {
    const Words words(memory, oop);
    charge(memory, words.size, words.size);
    text = largeDigits(load(words), radix);
  }
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return static_cast<char>(c >= 'a' ? c - 'a' + 'A' : c); });
  return text;
}

OopType parseInteger(Memory& memory, std::string_view text, int radix) {
  const bool negative = text.starts_with('-');
  text.remove_prefix(std::min(text.find_first_not_of("-0"), text.size()));
  const auto base = static_cast<Word>(radix);
  if (!text.empty() && (text.size() - 1) * (std::bit_width(base) - 1U) >= mostIntegerBits) return 0;
  const Groups groups(base);
  charge(memory, text.size() / groups.digits, text.size() / groups.digits);
  Integer value;
  while (!text.empty()) {
    const std::size_t count = (text.size() - 1) % groups.digits + 1;
    Word group = 0;
    std::from_chars(text.data(), text.data() + count, group, radix);
    value = value * groups.power + group;
    text.remove_prefix(count);
  }
  if (bitsOf(value) > mostIntegerBits) return 0;
  return store(memory, negative ? -value : value);
}

std::string describeInteger(const Memory& memory, OopType oop) {
  constexpr std::size_t shown = 8;  // words
  if (isSmallInt(oop) || memory.at(oop).size <= shown * sizeof(Word)) {
    return printInteger(memory, oop);
  }
  return "an integer of " + std::to_string(bitsOf(abs(load(memory, oop)))) + " bits";
}

}  // namespace zel
