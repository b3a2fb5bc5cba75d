// The first two bytes give the size and the value of the bits, each nine bytes behind them an
// operation with two numbers. The array must agree with a list of its bits at every step.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <povzel/utlbits.h>
#include "require.h"

namespace {

using Bits = std::vector<bool>::iterator;

// Sets or clears the bits from `first` to `last`.
void put(unsigned int* array, Bits bits, unsigned int operation, std::size_t first,
         std::size_t last) {
  const bool value = operation % 2 != 0;
  const unsigned int kind = operation / 2 % 4;
  if (kind < 2) last = first;
  if (kind == 0) (value ? UtlBitSet : UtlBitClear)(array, first);
  if (kind == 1) UtlBitAtPut(array, first, value ? static_cast<BoolType>(2 * operation) : 0);
  if (kind == 2) (value ? UtlSetBitRange : UtlClearBitRange)(array, first, last);
  for (; first <= last; ++first) bits[first] = value;
}

// Of the first `words` words: the first clear bit from `clear` on, and how many are set.
void ask(unsigned int* array, Bits bits, std::size_t clear, std::size_t words) {
  const long start = static_cast<long>(clear);
  const long count = std::count(bits, bits + words * 32, true);
  while (clear < words * 32 && bits[clear]) ++clear;
  require(UtlFindFirstBitClear(array, start, words) == static_cast<long>(clear));
  require(UtlFindNumBitsSet(array, words) == count);
  require(UtlSetIsEmpty(array, words) == (count == 0 ? 1 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t stepSize = 9;
  constexpr std::size_t margin = 2;  // words around the array show any write beyond it
  if (size < 2) return 0;
  const std::size_t words = data[0] % 50 + 1;
  const bool ones = (data[1] & 1) != 0;
  std::vector<unsigned int> storage(words + 2 * margin, ones ? ~0U : 0U);
  std::vector<bool> bits(storage.size() * 32, ones);
  unsigned int* const array = storage.data() + margin;
  const Bits model = bits.begin() + margin * 32;
  for (std::size_t at = 2; at + stepSize <= size && at < 100 * stepSize; at += stepSize) {
    std::uint32_t numbers[2];
    std::memcpy(numbers, data + at + 1, sizeof numbers);
    const auto [a, b] = numbers;
    if (data[at] / 2 % 4 == 3) {
      ask(array, model, a % (words * 32 + 70), b % (words + 1));
    } else {
      put(array, model, data[at], a % (words * 32), b % (words * 32));
    }
    for (std::size_t i = 0; i < bits.size(); ++i) {
      require((UtlBitAt(storage.data(), i) != 0) == bits[i]);
    }
  }
  return 0;
}
