#include "internal.h"

#include <immintrin.h>

#include <cstring>

#define TARGET_128 __attribute__((target("pclmul")))
#define TARGET_256 __attribute__((target("pclmul,avx2,vpclmulqdq")))
#define TARGET_512 __attribute__((target("pclmul,avx512f,vpclmulqdq")))

namespace {

// Modulo the checksum's polynomial; bit 31 is the coefficient of x^0.
constexpr std::uint32_t product(std::uint32_t a, std::uint32_t b) {
  std::uint32_t sum = 0;
  for (; a != 0; a <<= 1) {
    if ((a & 0x80000000U) != 0) sum ^= b;
    b = (b & 1) != 0 ? (b >> 1) ^ 0xEDB88320U : b >> 1;
  }
  return sum;
}

constexpr std::uint32_t powerOfX(unsigned int exponent) {
  std::uint32_t power = 0x80000000U;
  for (std::uint32_t square = 0x40000000U; exponent != 0; exponent >>= 1) {
    if ((exponent & 1) != 0) power = product(power, square);
    square = product(square, square);
  }
  return power;
}

// Multiplying the two halves of a vector by two constants moves it `bits` further back. The
// products of reflected factors come out one bit short, which the constants make good.
struct Distance {
  long long low;
  long long high;
};

constexpr Distance distance(unsigned int bits) {
  return {static_cast<long long>(std::uint64_t{powerOfX(bits + 32)} << 1),
          static_cast<long long>(std::uint64_t{powerOfX(bits - 32)} << 1)};
}

constexpr Distance by1 = distance(128);
constexpr Distance by2 = distance(2 * 128);
constexpr Distance by4 = distance(4 * 128);
constexpr Distance by6 = distance(6 * 128);
constexpr Distance by16 = distance(16 * 128);

TARGET_128 inline __m128i load(const unsigned char* bytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

TARGET_128 inline __m128i factors(const Distance& by) {
  return _mm_set_epi64x(by.high, by.low);
}

TARGET_128 inline __m128i fold(__m128i front, __m128i by, __m128i behind) {
  const __m128i moved =
      _mm_xor_si128(_mm_clmulepi64_si128(front, by, 0x00), _mm_clmulepi64_si128(front, by, 0x11));
  return _mm_xor_si128(moved, behind);
}

// Folds the blocks of [bytes, end) into `front`, one after the other, and stores the result.
TARGET_128 inline const unsigned char* foldRest(__m128i front, const unsigned char* bytes,
                                                const unsigned char* end,
                                                unsigned char (&rest)[utlCrcRestSize]) {
  const __m128i by = factors(by1);
  for (; end - bytes >= 16; bytes += 16) front = fold(front, by, load(bytes));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(rest), front);
  return bytes;
}

TARGET_256 inline __m256i load256(const unsigned char* bytes) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
}

TARGET_256 inline __m256i factors256(const Distance& by) {
  return _mm256_set_epi64x(by.high, by.low, by.high, by.low);
}

TARGET_256 inline __m256i fold256(__m256i front, __m256i by, __m256i behind) {
  const __m256i moved = _mm256_xor_si256(_mm256_clmulepi64_epi128(front, by, 0x00),
                                         _mm256_clmulepi64_epi128(front, by, 0x11));
  return _mm256_xor_si256(moved, behind);
}

// Three vectors side by side: more would not leave registers for the products.
constexpr std::size_t foldedAtOnce = 3 * sizeof(__m256i);

struct Fronts {
  __m256i a;
  __m256i b;
  __m256i c;
};

// The first vectors of `bytes`; `initial` is added to the first 16 bytes.
TARGET_256 inline Fronts firstFronts(__m128i initial, const unsigned char* bytes) {
  return {_mm256_xor_si256(load256(bytes), _mm256_zextsi128_si256(initial)), load256(bytes + 32),
          load256(bytes + 64)};
}

// All in the place of the last 16 bytes.
TARGET_256 inline __m128i joined(const Fronts& fronts) {
  const __m256i next = factors256(by2);
  const __m256i last = fold256(fold256(fronts.a, next, fronts.b), next, fronts.c);
  return fold(_mm256_castsi256_si128(last), factors(by1), _mm256_extracti128_si256(last, 1));
}

TARGET_256 inline __m128i moved(__m128i front, const Distance& by) {
  return fold(front, factors(by), _mm_setzero_si128());
}

// Folds the blocks of [bytes, end), of which there is one at least, and moves `bytes` behind them.
// `initial` is added to the first one. Returns what stands in the place of the last one.
TARGET_256 __m128i foldBlocks(__m128i initial, const unsigned char*& bytes,
                              const unsigned char* end) {
  // One block stays for the 16 bytes at a time.
  constexpr std::ptrdiff_t least = foldedAtOnce + 16;
  if (end - bytes >= least) {
    const __m256i by = factors256(by6);
    Fronts fronts = firstFronts(initial, bytes);
    for (bytes += foldedAtOnce; end - bytes >= least; bytes += foldedAtOnce) {
      fronts.a = fold256(fronts.a, by, load256(bytes));
      fronts.b = fold256(fronts.b, by, load256(bytes + 32));
      fronts.c = fold256(fronts.c, by, load256(bytes + 64));
    }
    initial = moved(joined(fronts), by1);
  }
  const __m128i next = factors(by1);
  __m128i front = _mm_xor_si128(load(bytes), initial);
  for (bytes += 16; end - bytes >= 16; bytes += 16) front = fold(front, next, load(bytes));
  return front;
}

// The vector at `bytes`, and what the bytes removed before `place` add to it.
TARGET_256 inline __m256i withRemoved(const unsigned char* bytes, const unsigned char* place) {
  __m256i sum = load256(bytes);
#pragma GCC unroll 4
  for (const std::ptrdiff_t distance : utlCrcDistances) {
    sum = _mm256_xor_si256(sum, load256(place - distance));
  }
  return sum;
}

TARGET_256 inline void store256(unsigned char* bytes, __m256i vector) {
  _mm256_store_si256(reinterpret_cast<__m256i*>(bytes), vector);
}

// Products keep the multiplier busy and elimination the loads, so that together they take little
// longer than alone: bytes are folded while others, two thirds as many, behind them are eliminated.
constexpr std::size_t eliminatedAtOnce = 2 * sizeof(__m256i);
constexpr int stretches = 6;
constexpr std::size_t rounds = stretches * utlCrcStretch / eliminatedAtOnce;
constexpr std::size_t foldedSize = (rounds + 1) * foldedAtOnce;
constexpr std::size_t eliminatedSize = rounds * eliminatedAtOnce + utlCrcSpan;
constexpr std::size_t togetherSize = foldedSize + eliminatedSize;
static_assert(utlCrcStretch % eliminatedAtOnce == 0);
constexpr Distance byEliminated = distance(8 * eliminatedSize);

// The two take turns best as they are written: the compiler would gather the loads.
TARGET_256 inline void keepOrder() {
  __asm__ volatile("" ::: "memory");
}

// Does so with togetherSize bytes, behind which 16 more may be read. Returns what stands in the
// place of the last 16.
TARGET_256 __m128i foldAndEliminate(__m128i initial, const unsigned char* bytes) {
  constexpr std::size_t aligned = (utlCrcSpan + 31) & ~std::size_t{31};
  // The bytes removed before a stretch, then those of the stretch.
  alignas(32) unsigned char removed[aligned + utlCrcStretch];
  unsigned char* const stretch = removed + aligned;
  std::memset(removed, 0, aligned);

  const __m256i by = factors256(by6);
  const unsigned char* behind = bytes + foldedSize;
  Fronts fronts = firstFronts(initial, bytes);
  bytes += foldedAtOnce;
  for (int i = 0; i < stretches; ++i) {
    for (std::size_t at = 0; at < utlCrcStretch; at += eliminatedAtOnce) {
      unsigned char* const place = stretch + at;
      fronts.a = fold256(fronts.a, by, load256(bytes));
      keepOrder();
      store256(place, withRemoved(behind, place));
      keepOrder();
      fronts.b = fold256(fronts.b, by, load256(bytes + 32));
      keepOrder();
      store256(place + 32, withRemoved(behind + 32, place + 32));
      keepOrder();
      fronts.c = fold256(fronts.c, by, load256(bytes + 64));
      bytes += foldedAtOnce;
      behind += eliminatedAtOnce;
    }
    std::memcpy(removed, stretch + utlCrcStretch - aligned, aligned);
  }

  // The last ones are not removed: what is left of all is in their place.
  std::memset(stretch, 0, aligned);
  alignas(32) unsigned char left[aligned];
  for (std::size_t at = 0; at < aligned; at += 32) {
    store256(left + at, withRemoved(behind + at, stretch + at));
  }
  unsigned char* const last = left + utlCrcSpan - 16;
  const __m128i folded = moved(joined(fronts), byEliminated);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(last), _mm_xor_si128(load(last), folded));
  const unsigned char* from = left;
  return foldBlocks(_mm_setzero_si128(), from, left + utlCrcSpan);
}

TARGET_512 inline __m512i load512(const unsigned char* bytes) {
  return _mm512_loadu_si512(bytes);
}

TARGET_512 inline __m512i factors512(const Distance& by) {
  return _mm512_set_epi64(by.high, by.low, by.high, by.low, by.high, by.low, by.high, by.low);
}

TARGET_512 inline __m512i fold512(__m512i front, __m512i by, __m512i behind) {
  constexpr int xorOfThree = 0x96;
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(front, by, 0x00),
                                   _mm512_clmulepi64_epi128(front, by, 0x11), behind, xorOfThree);
}

}  // namespace

// Four vectors side by side keep the multiplier busy while each waits for its product.
TARGET_128 std::size_t utlCrcFold128(std::uint32_t crc, const unsigned char* bytes,
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

TARGET_256 std::size_t utlCrcFold256(std::uint32_t crc, const unsigned char* bytes,
                                     std::size_t length, unsigned char (&rest)[utlCrcRestSize]) {
  const unsigned char* at = bytes;
  const unsigned char* const end = bytes + length;
  __m128i initial = _mm_cvtsi32_si128(static_cast<int>(crc));
  for (; static_cast<std::size_t>(end - at) >= togetherSize + 16; at += togetherSize) {
    initial = moved(foldAndEliminate(initial, at), by1);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(rest), foldBlocks(initial, at, end));
  return at - bytes;
}

TARGET_512 std::size_t utlCrcFold512(std::uint32_t crc, const unsigned char* bytes,
                                     std::size_t length, unsigned char (&rest)[utlCrcRestSize]) {
  const unsigned char* at = bytes;
  const unsigned char* end = bytes + length;
  __m512i a = _mm512_xor_si512(load512(at),
                               _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(crc))));
  __m512i b = load512(at + 64);
  __m512i c = load512(at + 128);
  __m512i d = load512(at + 192);
  const __m512i by = factors512(by16);
  for (at += 256; end - at >= 256; at += 256) {
    a = fold512(a, by, load512(at));
    b = fold512(b, by, load512(at + 64));
    c = fold512(c, by, load512(at + 128));
    d = fold512(d, by, load512(at + 192));
  }
  const __m512i next512 = factors512(by4);
  a = fold512(fold512(fold512(a, next512, b), next512, c), next512, d);

  unsigned char parts[64];
  _mm512_storeu_si512(parts, a);
  const __m128i next = factors(by1);
  __m128i front = load(parts);
  for (std::size_t i = 16; i < sizeof parts; i += 16) front = fold(front, next, load(parts + i));
  return foldRest(front, at, end, rest) - bytes;
}
