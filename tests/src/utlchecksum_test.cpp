#include <povzel/utlchecksum.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <povzel/utlbits.h>
#include "basics/fortests.h"

namespace {

unsigned long checksumOf(const std::string& text) {
  return UtlChecksum(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

// One byte by the definition, bit by bit. A checksum is the complement of what this arrives at.
std::uint32_t slowStep(std::uint32_t crc, unsigned char byte) {
  crc ^= byte;
  for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
  return crc;
}

// Runs with the faster instructions that the parameter leaves in.
class UtlChecksumWith : public testing::TestWithParam<unsigned int> {
 protected:
  void SetUp() override {
    if ((GetParam() & ~all_) != 0) GTEST_SKIP() << "the processor does not have them";
    utlCpuFeaturesForTests = GetParam();
  }
  void TearDown() override { utlCpuFeaturesForTests = all_; }

 private:
  unsigned int all_ = utlCpuFeaturesForTests;
};

INSTANTIATE_TEST_SUITE_P(Instructions, UtlChecksumWith,
                         testing::Values(0U, utlCpuPclmul, utlCpuPclmul | utlCpuVpclmul));

TEST_P(UtlChecksumWith, KnownValues) {
  EXPECT_EQ(checksumOf(""), 0U);
  EXPECT_EQ(checksumOf("1234"), 0x9BE3E0A3U);
  EXPECT_EQ(checksumOf("123456789"), 0xCBF43926U);
  EXPECT_EQ(checksumOf(std::string(32, '\0')), 0x190A55ADU);
  const auto* bytes = reinterpret_cast<const unsigned char*>(ffstable.data());
  EXPECT_EQ(UtlChecksum(bytes, ffstable.size()), 0xEC24D357U);
}

TEST_P(UtlChecksumWith, AgreesWithTheDefinitionAtEveryLengthAndAlignment) {
  std::mt19937 random(7);
  std::vector<unsigned char> bytes;
  std::uint32_t expected = 0xFFFFFFFF;
  while (bytes.size() < 20000) {
    const std::size_t length = bytes.size();
    if (length % 4096 < 600 || length % 13 == 0) {
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
}

TEST(UtlChecksum, TableHoldsTheBytesOwnRemainders) {
  for (unsigned int x = 0; x < 256; ++x) EXPECT_EQ(crctable[x], slowStep(x, 0)) << x;
}

}  // namespace
