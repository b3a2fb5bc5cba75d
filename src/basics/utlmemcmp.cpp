#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include <povzel/utltext.h>

// The C library's memcmp is fast, but handing a call on to it costs as much again for short blocks.
// So blocks are compared here, 16 bytes at a time, and short ones by two loads that may overlap.

namespace {

int orderOf(unsigned int a, unsigned int b) {
  return (a > b) - (a < b);
}

// Where the 16 bytes are equal, one bit for each byte.
unsigned int equalBytes(__m128i a, __m128i b) {
  return static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, b)));
}
constexpr unsigned int allEqual = 0xFFFF;

__m128i load16(const unsigned char* bytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// The first 8 and the last 8 of `length` bytes, 8 to 16.
__m128i loadEnds(const unsigned char* bytes, std::size_t length) {
  return _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)),
                            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes + length - 8)));
}

std::uint32_t load4(const unsigned char* bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

// Compares words as their bytes stand in memory.
int orderOfBytes(std::uint32_t a, std::uint32_t b) {
  return orderOf(__builtin_bswap32(a), __builtin_bswap32(b));
}

// Compares 4 to 7 bytes.
int compareWords(const unsigned char* a, const unsigned char* b, std::size_t length) {
  if (load4(a) != load4(b)) return orderOfBytes(load4(a), load4(b));
  return orderOfBytes(load4(a + length - 4), load4(b + length - 4));
}

// Compares other numbers of bytes up to 15.
int compareShort(const unsigned char* a, const unsigned char* b, std::size_t length) {
  if (length >= 8) {
    const unsigned int equal = equalBytes(loadEnds(a, length), loadEnds(b, length));
    if (equal == allEqual) return 0;
    std::size_t at = std::countr_one(equal);
    if (at >= 8) at += length - 16;
    return orderOf(a[at], b[at]);
  }
  for (std::size_t i = 0; i < length; ++i) {
    if (a[i] != b[i]) return orderOf(a[i], b[i]);
  }
  return 0;
}

// Compares 16 bytes or more.
int compareLong(const unsigned char* a, const unsigned char* b, std::size_t length) {
  const auto equalAt = [&](std::size_t i) { return _mm_cmpeq_epi8(load16(a + i), load16(b + i)); };
  std::size_t at = 0;
  for (; length - at >= 64; at += 64) {
    const __m128i all = _mm_and_si128(_mm_and_si128(equalAt(at), equalAt(at + 16)),
                                      _mm_and_si128(equalAt(at + 32), equalAt(at + 48)));
    if (static_cast<unsigned int>(_mm_movemask_epi8(all)) != allEqual) break;
  }
  const std::size_t last = length - 16;
  for (at = std::min(at, last);; at = std::min(at + 16, last)) {
    const unsigned int equal = equalBytes(load16(a + at), load16(b + at));
    if (equal != allEqual) {
      at += std::countr_one(equal);
      return orderOf(a[at], b[at]);
    }
    if (at >= last) return 0;
  }
}

}  // namespace

int UtlMemcmp(const void* a, const void* b, std::size_t length) {
  const auto* left = static_cast<const unsigned char*>(a);
  const auto* right = static_cast<const unsigned char*>(b);
  if (length - 4 < 4) return compareWords(left, right, length);  // the call is most of their cost
  return length < 16 ? compareShort(left, right, length) : compareLong(left, right, length);
}
