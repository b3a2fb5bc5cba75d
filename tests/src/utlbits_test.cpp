#include <povzel/utlbits.h>

#include <gtest/gtest.h>

#include <climits>
#include <random>

#include "bitarraymodel.h"

namespace {

constexpr unsigned int ones = 0xFFFFFFFF;

TEST(UtlBits, RangesTouchNothingElse) {
  unsigned int three[] = {ones, ones, ones};
  UtlClearBitRange(three, 32, 95);
  EXPECT_EQ(std::vector(three, three + 3), (std::vector{ones, 0U, 0U}));
  UtlClearBitRange(three, 0, 31);
  EXPECT_EQ(std::vector(three, three + 3), (std::vector{0U, 0U, 0U}));
  UtlSetBitRange(three, 5, 5);
  UtlSetBitRange(three, 9, 8);
  UtlSetBitRange(three, -40, 3);
  EXPECT_EQ(std::vector(three, three + 3), (std::vector{32U, 0U, 0U}));
}

TEST(UtlBits, FirstClearBit) {
  const unsigned int half[] = {ones, 0x0000FFFF};
  const unsigned int full[] = {ones, ones};
  const struct {
    const unsigned int* array;
    long start, words, expected;
  } cases[] = {
      {half, 0, 2, 48},
      {half, 40, 2, 48},
      {half, 49, 2, 49},
      {full, 0, 2, 64},
      {full, 63, 2, 64},
      {full, 64, 2, 64},
      {full, 90, 2, 90},
      {full, 0, 0, 0},
      {full, 7, 0, 7},
      {full, 7, -1, 7},
      {half, -5, 2, 48},
      {half, LONG_MIN, 2, 48},
      {full, LONG_MAX, 2, LONG_MAX},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(UtlFindFirstBitClear(c.array, c.start, c.words), c.expected)
        << c.start << " in " << c.words;
  }
}

TEST(UtlBits, NoWordsHaveNoBits) {
  const unsigned int full[] = {ones};
  EXPECT_EQ(UtlFindNumBitsSet(full, 0), 0);
  EXPECT_EQ(UtlFindNumBitsSet(full, static_cast<unsigned long>(-1)), 0);
  EXPECT_EQ(UtlSetIsEmpty(full, 0), 1);
  EXPECT_EQ(UtlSetIsEmpty(full, -1), 1);
}

TEST(UtlBits, AgreesWithABitByBitModel) {
  std::mt19937 random(20);
  for (const long words : {1L, 2L, 5L, 23L, 90L}) {
    for (const bool value : {false, true}) {
      BitArrayModel model(words, value);
      for (int i = 0; i < 4000; ++i) {
        const unsigned int operation = random();
        const std::uint32_t a = random();
        ASSERT_TRUE(model.step(operation, a, random())) << words << " words, step " << i;
      }
    }
  }
}

TEST(UtlBits, LongRunsOfOnes) {
  std::vector<unsigned int> array(3000, ones);
  for (const long bit : {0L, 31L, 32L, 511L, 512L, 40000L, 95968L, 95999L}) {
    UtlBitClear(array.data(), bit);
    EXPECT_EQ(UtlFindFirstBitClear(array.data(), 0, 3000), bit);
    EXPECT_EQ(UtlFindFirstBitClear(array.data(), bit + 1, 3000), 96000);
    EXPECT_EQ(UtlFindNumBitsSet(array.data(), 3000), 95999);
    UtlBitSet(array.data(), bit);
  }
}

TEST(UtlBits, Tables) {
  for (unsigned int i = 0; i < 32; ++i) EXPECT_EQ(maskOfOnes[i], (1ULL << i) - 1);
  EXPECT_EQ(ffstable[0], -23);
  for (int x = 1; x < 2048; ++x) EXPECT_EQ(ffstable[x], __builtin_ffs(x) - 1);
}

TEST(UtlBits, PowersOfTwo) {
  for (const unsigned int yes : {1U, 2U, 1024U, 0x80000000U}) EXPECT_EQ(UtlIsPowerOf2(yes), 1);
  for (const unsigned int no : {0U, 3U, 6U, ones}) EXPECT_EQ(UtlIsPowerOf2(no), 0);
}

}  // namespace
