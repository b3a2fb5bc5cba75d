// The first two bytes give the size and the value of the bits, each nine bytes behind them an
// operation with two numbers. The array must agree with a list of its bits at every step.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <povzel/utlbits.h>
#include "require.h"

namespace {

constexpr long margin = 2;  // words around the array show any write beyond it
constexpr unsigned int guard = 0x5AA5C33C;

class Bits {
 public:
  Bits(std::size_t words, bool value)
      : bits_(words * 32, value), storage_(words + 2 * margin, guard) {
    std::fill_n(array(), words, value ? ~0U : 0U);
  }

  // Does one operation on both; any numbers will do.
  void step(unsigned int operation, std::size_t a, std::size_t b) {
    const std::size_t first = a % bits_.size();
    const bool value = operation % 2 != 0;
    const unsigned int kind = operation / 2 % 4;
    if (kind == 3) return ask(a % (bits_.size() + 70), b % (bits_.size() / 32 + 1));
    const std::size_t last = kind == 2 ? b % bits_.size() : first;
    if (kind == 0) (value ? UtlBitSet : UtlBitClear)(array(), first);
    if (kind == 1) UtlBitAtPut(array(), first, value ? static_cast<BoolType>(2 * operation) : 0);
    if (kind == 2) (value ? UtlSetBitRange : UtlClearBitRange)(array(), first, last);
    put(first, last, value);
  }

 private:
  unsigned int* array() { return storage_.data() + margin; }

  void put(std::size_t first, std::size_t last, bool value) {
    for (; first <= last; ++first) bits_[first] = value;
    for (std::size_t i = 0; i < bits_.size(); ++i) {
      require((UtlBitAt(array(), i) != 0) == bits_[i]);
    }
    require(std::count(storage_.begin(), storage_.begin() + margin, guard) == margin);
    require(std::count(storage_.end() - margin, storage_.end(), guard) == margin);
  }

  // Of the first `words` words: the first clear bit from `clear` on, and how many are set.
  void ask(std::size_t clear, std::size_t words) {
    const long start = static_cast<long>(clear);
    const long count = std::count(bits_.begin(), bits_.begin() + words * 32, true);
    while (clear < words * 32 && bits_[clear]) ++clear;
    require(UtlFindFirstBitClear(array(), start, words) == static_cast<long>(clear));
    require(UtlFindNumBitsSet(array(), words) == count);
    require(UtlSetIsEmpty(array(), words) == (count == 0 ? 1 : 0));
  }

  std::vector<bool> bits_;
  std::vector<unsigned int> storage_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t stepSize = 9;
  if (size < 2) return 0;
  Bits bits(data[0] % 50 + 1, (data[1] & 1) != 0);
  for (std::size_t at = 2; at + stepSize <= size && at < 100 * stepSize; at += stepSize) {
    std::uint32_t numbers[2];
    std::memcpy(numbers, data + at + 1, sizeof numbers);
    bits.step(data[at], numbers[0], numbers[1]);
  }
  return 0;
}
