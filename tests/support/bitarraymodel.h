// A bit array beside a bit-by-bit model of it. Each step does one operation on both; a difference
// makes the step return false. Words around the array show any write beyond it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include <povzel/utlbits.h>

class BitArrayModel {
 public:
  explicit BitArrayModel(long words, bool value)
      : words_(words), bits_(words * 32, value), storage_(words + 2 * margin, guard) {
    std::fill_n(array(), words, value ? ~0U : 0U);
  }

  // `operation`, `a` and `b` are any numbers; they are brought into range here.
  bool step(unsigned int operation, std::uint32_t a, std::uint32_t b) {
    const long size = words_ * 32;
    long first = static_cast<long>(a % size);
    long last = static_cast<long>(b % size);
    switch (operation % 8) {
      case 0:
        UtlBitSet(array(), first);
        bits_[first] = true;
        break;
      case 1:
        UtlBitClear(array(), first);
        bits_[first] = false;
        break;
      case 2:
        UtlBitAtPut(array(), first, static_cast<BoolType>(b & 6));
        bits_[first] = (b & 6) != 0;
        break;
      case 3:
        UtlSetBitRange(array(), first, last);
        for (; first <= last; ++first) bits_[first] = true;
        break;
      case 4:
        UtlClearBitRange(array(), first, last);
        for (; first <= last; ++first) bits_[first] = false;
        break;
      default:
        return queriesAgree(static_cast<long>(a % (size + 70)),
                            static_cast<long>(b % (words_ + 1)));
    }
    return same();
  }

 private:
  static constexpr long margin = 2;
  static constexpr unsigned int guard = 0x5AA5C33C;

  unsigned int* array() { return storage_.data() + margin; }

  bool same() {
    for (long i = 0; i < words_ * 32; ++i) {
      if ((UtlBitAt(array(), i) != 0) != bits_[i]) return false;
    }
    for (long i = 0; i < margin; ++i) {
      if (storage_[i] != guard || storage_[margin + words_ + i] != guard) return false;
    }
    return true;
  }

  bool queriesAgree(long start, long words) {
    const auto end = bits_.begin() + words * 32;
    const long count = std::count(bits_.begin(), end, true);
    long clear = start;
    while (clear < words * 32 && bits_[clear]) ++clear;
    return UtlFindFirstBitClear(array(), start, words) == clear &&
           UtlFindNumBitsSet(array(), words) == count &&
           UtlSetIsEmpty(array(), words) == (count == 0 ? 1 : 0);
  }

  long words_;
  std::vector<bool> bits_;
  std::vector<unsigned int> storage_;
};
