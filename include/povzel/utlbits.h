// Bit arrays: arrays of 32-bit words in which bit n is bit n mod 32 of word n / 32, bit 0 the
// least significant.
//
//   unsigned int used[4] = {};                        // 128 bits, all clear
//   UtlSetBitRange(used, 3, 70);
//   const long slot = UtlFindFirstBitClear(used, 3, 4);  // 71
//
// The caller owns the array and sees to it that the bits named lie inside. Sizes are in words. Bit
// numbers are never negative.
#pragma once

#ifdef __cplusplus
#include <array>
#endif

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Entry i has its i lowest bits set.
POVZEL_EXPORT_DATA extern const POVZEL_ARRAY(unsigned int, maskOfOnes, 32);

// Entry x is the number of the lowest set bit of x. Entry 0 is -23: added to the 22 of a word's top
// chunk of 10 bits it says that there is none.
POVZEL_EXPORT_DATA extern const POVZEL_ARRAY(signed char, ffstable, 2048);

// Returns 1 if bit `bit` of `array` is set, else 0.
POVZEL_EXPORT BoolType UtlBitAt(const unsigned int* array, unsigned long bit);

// Set and clear the bit `bit`.
POVZEL_EXPORT void UtlBitSet(unsigned int* array, unsigned long bit);
POVZEL_EXPORT void UtlBitClear(unsigned int* array, unsigned long bit);

// Sets the bit if `value` is non-zero, else clears it.
POVZEL_EXPORT void UtlBitAtPut(unsigned int* array, unsigned long bit, BoolType value);

// Set or clear every bit from `first` to `last`, both included. Nothing happens when `last` comes
// before `first` or `first` is negative.
POVZEL_EXPORT void UtlSetBitRange(unsigned int* array, long first, long last);
POVZEL_EXPORT void UtlClearBitRange(unsigned int* array, long first, long last);

// Returns 1 if the first `words` words are all 0, or `words` is not positive, else 0.
POVZEL_EXPORT BoolType UtlSetIsEmpty(const unsigned int* array, long words);

// Returns the number of the first clear bit at or after `start` (negative counts as 0) within the
// first `words` words, or 32 * `words` if there is none. A start at or beyond that end is returned
// unchanged. Numbers beyond LONG_MAX are out of reach: the result never exceeds it.
POVZEL_EXPORT long UtlFindFirstBitClear(const unsigned int* array, long start, long words);

// Returns the number of set bits in the first `words` words, at most LONG_MAX; 0 when `words`, read
// as a signed number, is not positive.
POVZEL_EXPORT long UtlFindNumBitsSet(const unsigned int* array, unsigned long words);

// Returns 1 if exactly one bit of `number` is set, else 0.
POVZEL_EXPORT BoolType UtlIsPowerOf2(unsigned int number);

POVZEL_END_C
