#include "internal.h"

#include <immintrin.h>

#define FOLD_TARGET __attribute__((target("pclmul")))
#define WIDE_TARGET __attribute__((target("pclmul,avx512f,vpclmulqdq")))

namespace {

// Multiplying the two halves of a vector by two constants moves it `bits` further back. The
// products of reflected factors come out one bit short, which the constants make good.
struct Distance {
  long long low;
  long long high;
};

constexpr Distance distance(unsigned int bits) {
  return {static_cast<long long>(std::uint64_t{utlCrcPower(bits + 32)} << 1),
          static_cast<long long>(std::uint64_t{utlCrcPower(bits - 32)} << 1)};
}

constexpr Distance by1 = distance(128);
constexpr Distance by4 = distance(4 * 128);
constexpr Distance by16 = distance(16 * 128);

FOLD_TARGET inline __m128i load(const unsigned char* bytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

FOLD_TARGET inline __m128i factors(const Distance& by) {
  return _mm_set_epi64x(by.high, by.low);
}

FOLD_TARGET inline __m128i fold(__m128i front, __m128i by, __m128i behind) {
  const __m128i moved =
      _mm_xor_si128(_mm_clmulepi64_si128(front, by, 0x00), _mm_clmulepi64_si128(front, by, 0x11));
  return _mm_xor_si128(moved, behind);
}

// Folds the blocks of [bytes, end) into `front`, one after the other, and stores the result.
FOLD_TARGET inline const unsigned char* foldRest(__m128i front, const unsigned char* bytes,
                                                 const unsigned char* end,
                                                 unsigned char (&rest)[utlCrcRestSize]) {
  const __m128i by = factors(by1);
  for (; end - bytes >= 16; bytes += 16) front = fold(front, by, load(bytes));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(rest), front);
  return bytes;
}

WIDE_TARGET inline __m512i loadWide(const unsigned char* bytes) {
  return _mm512_loadu_si512(bytes);
}

WIDE_TARGET inline __m512i factorsWide(const Distance& by) {
  return _mm512_set_epi64(by.high, by.low, by.high, by.low, by.high, by.low, by.high, by.low);
}

WIDE_TARGET inline __m512i foldWide(__m512i front, __m512i by, __m512i behind) {
  constexpr int xorOfThree = 0x96;
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(front, by, 0x00),
                                   _mm512_clmulepi64_epi128(front, by, 0x11), behind, xorOfThree);
}

}  // namespace

// Four vectors side by side keep the multiplier busy while each waits for its product.
FOLD_TARGET std::size_t utlCrcFold(std::uint32_t crc, const unsigned char* bytes,
                                   std::size_t length, unsigned char (&rest)[utlCrcRestSize]) {
  const unsigned char* at = bytes;
  const unsigned char* end = bytes + length;
  __m128i a = _mm_xor_si128(load(at), _mm_cvtsi32_si128(static_cast<int>(crc)));
  __m128i b = load(at + 16);
  __m128i c = load(at + 32);
  __m128i d = load(at + 48);
  const __m128i by = factors(by4);
  for (at += 64; end - at >= 64; at += 64) {
    a = fold(a, by, load(at));
    b = fold(b, by, load(at + 16));
    c = fold(c, by, load(at + 32));
    d = fold(d, by, load(at + 48));
  }
  const __m128i next = factors(by1);
  return foldRest(fold(fold(fold(a, next, b), next, c), next, d), at, end, rest) - bytes;
}

WIDE_TARGET std::size_t utlCrcFoldWide(std::uint32_t crc, const unsigned char* bytes,
                                       std::size_t length, unsigned char (&rest)[utlCrcRestSize]) {
  const unsigned char* at = bytes;
  const unsigned char* end = bytes + length;
  __m512i a = _mm512_xor_si512(loadWide(at),
                               _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(crc))));
  __m512i b = loadWide(at + 64);
  __m512i c = loadWide(at + 128);
  __m512i d = loadWide(at + 192);
  const __m512i by = factorsWide(by16);
  for (at += 256; end - at >= 256; at += 256) {
    a = foldWide(a, by, loadWide(at));
    b = foldWide(b, by, loadWide(at + 64));
    c = foldWide(c, by, loadWide(at + 128));
    d = foldWide(d, by, loadWide(at + 192));
  }
  const __m512i nextWide = factorsWide(by4);
  a = foldWide(foldWide(foldWide(a, nextWide, b), nextWide, c), nextWide, d);

  unsigned char parts[64];
  _mm512_storeu_si512(parts, a);
  const __m128i next = factors(by1);
  __m128i front = load(parts);
  for (std::size_t i = 16; i < sizeof parts; i += 16) front = fold(front, next, load(parts + i));
  return foldRest(front, at, end, rest) - bytes;
}
