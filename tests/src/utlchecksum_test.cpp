#include <povzel/utlchecksum.h>

#include "basics/fortests.h"
#include "tests.h"

// One byte by the definition, bit by bit. A checksum is the complement of what this arrives at.
static std::uint32_t slowStep(std::uint32_t crc, unsigned char byte) {
  crc ^= byte;
  for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
  return crc;
}

// Runs with the faster instructions that the parameter leaves in.
struct UtlChecksumWith : testing::TestWithParam<unsigned int> {
  void SetUp() override {
    if ((GetParam() & ~all_) != 0) GTEST_SKIP() << "the processor does not have them";
    utlCpuFeaturesForTests = GetParam();
  }
  void TearDown() override { utlCpuFeaturesForTests = all_; }

  unsigned int all_ = utlCpuFeaturesForTests;
};

INSTANTIATE_TEST_SUITE_P(Instructions, UtlChecksumWith,
                         testing::Values(0U, utlCpuPclmul, utlCpuVpclmul256, utlCpuVpclmul512));

TEST_P(UtlChecksumWith, AgreesWithTheDefinitionAtEveryLengthAndAlignment) {
  // Short ones, and those about the 62,752 bytes that are folded and eliminated together.
  const auto isAsked = [](std::size_t length) {
    if (length < 20000) return length % 4096 < 600 || length % 13 == 0;
    return (length + 100) % 62752 < 200 || length % 997 == 0;
  };
  std::mt19937 random(7);
  std::vector<unsigned char> bytes;
  std::uint32_t expected = 0xFFFFFFFF;
  while (bytes.size() < 130000) {
    const std::size_t length = bytes.size();
    if (isAsked(length)) {
      // Storage that ends with the bytes, so that a read behind them shows under the sanitizers.
      const std::size_t offset = random() % 16;
      std::vector<unsigned char> exact(offset);
      exact.insert(exact.end(), bytes.begin(), bytes.end());
      exact.shrink_to_fit();
      ASSERT_EQ(UtlChecksum(exact.data() + offset, length), ~expected) << length << "+" << offset;
    }
    bytes.push_back(static_cast<unsigned char>(random()));
    expected = slowStep(expected, bytes.back());
  }
  EXPECT_EQ(UtlChecksum(reinterpret_cast<const unsigned char*>("123456789"), 9), 0xCBF43926U);
}
