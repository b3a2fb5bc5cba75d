#include <povzel/utlchecksum.h>

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "internal.h"

namespace {

// Three ways to the same value. Few bytes go through tables, sixteen at a time. Many go through
// carry-less multiplication where the processor has it. Where it has not, they are eliminated by
// the sparse multiple of the polynomial, which takes four exclusive-ors for each 16 bytes and no
// table.
constexpr std::size_t foldAtLeast = 64;
constexpr std::size_t fold256AtLeast = 160;
constexpr std::size_t fold512AtLeast = 256;
constexpr std::size_t eliminateAtLeast = 4096;

constexpr std::size_t sliceSize = 16;
using SliceTables = std::array<std::array<std::uint32_t, 256>, sliceSize>;

// Table k is for a byte that k more bytes follow.
constexpr SliceTables makeSliceTables() {
  SliceTables tables{};
  for (std::uint32_t x = 0; x < 256; ++x) {
    std::uint32_t crc = x;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320U : crc >> 1;
    tables[0][x] = crc;
  }
  for (std::size_t k = 1; k < sliceSize; ++k) {
    for (std::size_t x = 0; x < 256; ++x) {
      const std::uint32_t before = tables[k - 1][x];
      tables[k][x] = (before >> 8) ^ tables[0][before & 0xFF];
    }
  }
  return tables;
}

constexpr SliceTables slices = makeSliceTables();

constexpr auto makeCrcTable() {
  std::array<unsigned long, 256> table{};
  std::copy(slices[0].begin(), slices[0].end(), table.begin());
  return table;
}

std::uint32_t wordAt(const unsigned char* bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// What `word` contributes when `following` bytes follow its last one.
std::uint32_t contribution(std::uint32_t word, std::size_t following) {
  return slices[following + 3][word & 0xFF] ^ slices[following + 2][(word >> 8) & 0xFF] ^
         slices[following + 1][(word >> 16) & 0xFF] ^ slices[following][word >> 24];
}

std::uint32_t lookUp(std::uint32_t crc, const unsigned char* bytes, std::size_t length) {
  for (; length >= sliceSize; length -= sliceSize, bytes += sliceSize) {
    crc = contribution(wordAt(bytes) ^ crc, 12) ^ contribution(wordAt(bytes + 4), 8) ^
          contribution(wordAt(bytes + 8), 4) ^ contribution(wordAt(bytes + 12), 0);
  }
  for (; length >= 4; length -= 4, bytes += 4) crc = contribution(wordAt(bytes) ^ crc, 0);
  for (; length > 0; --length) crc = (crc >> 8) ^ slices[0][(crc ^ *bytes++) & 0xFF];
  return crc;
}

constexpr std::size_t span = utlCrcSpan;
static_assert(span % 16 == 0 && utlCrcStretch % 16 == 0);
static_assert(eliminateAtLeast >= 2 * span);

__m128i load(const unsigned char* bytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// What the bytes removed before `place` add to the 16 bytes there.
__m128i carriedTo(const unsigned char* place) {
  __m128i sum = _mm_setzero_si128();
#pragma GCC unroll 4
  for (const std::ptrdiff_t distance : utlCrcDistances) {
    sum = _mm_xor_si128(sum, load(place - distance));
  }
  return sum;
}

// Removes all but the last bytes and looks those up.
std::uint32_t eliminate(std::uint32_t crc, const unsigned char* bytes, std::size_t length) {
  // The last `span` bytes removed, then those of this step.
  alignas(16) unsigned char removed[span + utlCrcStretch];
  std::memset(removed, 0, span);
  __m128i initial = _mm_cvtsi32_si128(static_cast<int>(crc));
  for (std::size_t toRemove = (length - span) & ~std::size_t{15}; toRemove > 0;) {
    const std::size_t step = std::min(toRemove, utlCrcStretch);
    for (std::size_t i = 0; i < step; i += 16) {
      unsigned char* place = removed + span + i;
      const __m128i here = _mm_xor_si128(load(bytes + i), initial);
      initial = _mm_setzero_si128();
      _mm_store_si128(reinterpret_cast<__m128i*>(place), _mm_xor_si128(here, carriedTo(place)));
    }
    std::memmove(removed, removed + step, span);
    bytes += step;
    length -= step;
    toRemove -= step;
  }
  // Nothing behind is removed any more.
  std::memset(removed + span, 0, span);
  alignas(16) unsigned char left[span];
  for (std::size_t i = 0; i < span; i += 16) {
    _mm_store_si128(reinterpret_cast<__m128i*>(left + i),
                    _mm_xor_si128(load(bytes + i), carriedTo(removed + span + i)));
  }
  return lookUp(lookUp(0, left, span), bytes + span, length - span);
}

using FoldFunction = decltype(utlCrcFold128);

std::uint32_t foldWith(FoldFunction* fold, std::uint32_t crc, const unsigned char* bytes,
                       std::size_t length) {
  unsigned char rest[utlCrcRestSize];
  const std::size_t taken = fold(crc, bytes, length, rest);
  return lookUp(lookUp(0, rest, sizeof rest), bytes + taken, length - taken);
}

std::uint32_t checksumFrom(std::uint32_t crc, const unsigned char* bytes, std::size_t length) {
  const auto may = [length](unsigned int feature, std::size_t atLeast) {
    return length >= atLeast && (utlCpuFeatures & feature) != 0;
  };
  if (may(utlCpuVpclmul512, fold512AtLeast)) return foldWith(utlCrcFold512, crc, bytes, length);
  if (may(utlCpuVpclmul256, fold256AtLeast)) return foldWith(utlCrcFold256, crc, bytes, length);
  if (may(utlCpuPclmul, foldAtLeast)) return foldWith(utlCrcFold128, crc, bytes, length);
  if (length >= eliminateAtLeast) return eliminate(crc, bytes, length);
  return lookUp(crc, bytes, length);
}

}  // namespace

constexpr std::array<unsigned long, 256> crctable = makeCrcTable();

unsigned long UtlChecksum(const unsigned char* bytes, unsigned int length) {
  return ~checksumFrom(0xFFFFFFFFU, bytes, length);
}
