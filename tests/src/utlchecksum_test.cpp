#include <povzel/utlchecksum.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <povzel/utlbits.h>
#include "basics/internal.h"

namespace {

unsigned long checksumOf(const std::string& text) {
  return UtlChecksum(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

// Bit by bit, by the definition.
std::uint32_t slowChecksum(const unsigned char* bytes, std::size_t length) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < length; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
  }
  return ~crc;
}

// Runs with the faster instructions that the parameter leaves in.
class UtlChecksumWith : public testing::TestWithParam<unsigned int> {
 protected:
  void SetUp() override {
    if ((GetParam() & ~all_) != 0) GTEST_SKIP() << "the processor does not have them";
    utlCpuFeatures = GetParam();
  }
  void TearDown() override { utlCpuFeatures = all_; }

 private:
  unsigned int all_ = utlCpuFeatures;
};

TEST_P(UtlChecksumWith, KnownValues) {
  EXPECT_EQ(checksumOf(""), 0U);
  EXPECT_EQ(checksumOf("1234"), 0x9BE3E0A3U);
  EXPECT_EQ(checksumOf("123456789"), 0xCBF43926U);
  EXPECT_EQ(checksumOf(std::string(32, '\0')), 0x190A55ADU);
  EXPECT_EQ(UtlChecksum(reinterpret_cast<const unsigned char*>(ffstable.data()), 2048),
            0xEC24D357U);
}

TEST_P(UtlChecksumWith, AgreesWithTheDefinitionAtEveryLengthAndAlignment) {
  std::mt19937 random(7);
  std::vector<unsigned char> bytes(30000);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  std::vector<std::size_t> lengths;
  for (std::size_t length = 0; length < 600; ++length) lengths.push_back(length);
  for (const std::size_t edge : {1200U, 4096U, 5296U, 8192U, 9392U, 20000U}) {
    for (std::size_t length = edge - 17; length < edge + 33; ++length) lengths.push_back(length);
  }
  for (const std::size_t length : lengths) {
    // Exact storage, so that a read beyond either end shows under the sanitizers.
    const std::size_t offset = random() % 16;
    const std::vector<unsigned char> exact(bytes.begin() + offset, bytes.begin() + offset + length);
    const std::uint32_t expected = slowChecksum(exact.data(), length);
    ASSERT_EQ(UtlChecksum(exact.data(), length), expected) << length;
    ASSERT_EQ(UtlChecksum(bytes.data() + offset, length), expected) << length << "+" << offset;
  }
}

INSTANTIATE_TEST_SUITE_P(Instructions, UtlChecksumWith,
                         testing::Values(0U, utlCpuPclmul, utlCpuPclmul | utlCpuVpclmul));

TEST(UtlChecksum, TableHoldsTheBytesOwnRemainders) {
  EXPECT_EQ(crctable[0], 0U);
  for (unsigned int x = 0; x < 256; ++x) {
    const unsigned char byte = static_cast<unsigned char>(x);
    EXPECT_EQ(crctable[x ^ 0xFF] ^ 0x00FFFFFF, ~slowChecksum(&byte, 1));
  }
}

}  // namespace
