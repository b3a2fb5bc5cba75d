#include "tool/decimal.h"

#include <algorithm>
#include <boost/multiprecision/cpp_int.hpp>
#include <functional>
#include <vector>

namespace zel {

namespace {

using Integer = boost::multiprecision::cpp_int;
using Bytes = std::vector<unsigned char>;
constexpr std::size_t wordSize = 4;

void invert(Bytes& bytes) {
  std::transform(bytes.begin(), bytes.end(), bytes.begin(),
                 [](unsigned char byte) { return static_cast<unsigned char>(~byte); });
}

}  // namespace

std::string decimalOf(std::string_view bytes) {
  Bytes own(bytes.begin(), bytes.end());
  const bool negative = !own.empty() && own.back() >= 0x80;
  if (negative) invert(own);
  Integer body;
  // Of no bytes it would make no number.
  if (!own.empty()) import_bits(body, own.begin(), own.end(), 8, false);
  return negative ? Integer(-body - 1).str() : body.str();
}

std::string bytesOfDecimal(std::string_view digits) {
  const Integer value{std::string(digits)};
  const bool negative = value < 0;
  const Integer body = negative ? Integer(-value - 1) : value;
  Bytes bytes;
  export_bits(body, std::back_inserter(bytes), 8, false);
  // The highest bit is the sign.
  const std::size_t bits = body.is_zero() ? 0 : msb(body) + 1;
  bytes.resize(std::max<std::size_t>(bits / (8 * wordSize) + 1, 2) * wordSize);
  if (negative) invert(bytes);
  return {bytes.begin(), bytes.end()};
}

}  // namespace zel
