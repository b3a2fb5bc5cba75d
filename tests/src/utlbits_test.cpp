#include <povzel/utlbits.h>
#include "tests.h"

constexpr unsigned int ones = 0xFFFFFFFF;

TEST(UtlBits, CountsAndSearchesEndWithTheArray) {
  constexpr long words = 3000;
  std::vector<unsigned int> array(words, ones);
  for (const long bit : {0L, 511L, 40000L, 95999L}) {
    UtlBitClear(array.data(), bit);
    EXPECT_EQ(UtlFindFirstBitClear(array.data(), LONG_MIN, words), bit);
    EXPECT_EQ(UtlFindFirstBitClear(array.data(), bit + 1, words), 32 * words);
    EXPECT_EQ(UtlFindNumBitsSet(array.data(), words), 32 * words - 1);
    UtlBitSet(array.data(), bit);
  }
  EXPECT_EQ(UtlFindFirstBitClear(array.data(), LONG_MAX, words), LONG_MAX);
  EXPECT_EQ(UtlFindFirstBitClear(array.data(), 7, -1), 7);
  EXPECT_EQ(UtlFindNumBitsSet(array.data(), -1), 0);
  EXPECT_EQ(UtlSetIsEmpty(array.data(), -1), 1);
}

TEST(UtlBits, TablesAndPowersOfTwo) {
  for (unsigned int i = 0; i < 32; ++i) EXPECT_EQ(maskOfOnes[i], (1ULL << i) - 1);
  EXPECT_EQ(ffstable[0], -23);
  for (int x = 1; x < 2048; ++x) EXPECT_EQ(ffstable[x], __builtin_ffs(x) - 1);
  for (const unsigned int yes : {1U, 2U, 1024U, 0x80000000U}) EXPECT_EQ(UtlIsPowerOf2(yes), 1);
  for (const unsigned int no : {0U, 3U, 6U, ones}) EXPECT_EQ(UtlIsPowerOf2(no), 0);
}
