#include <povzel/utlbits.h>

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

namespace {

constexpr long bitsPerWord = 32;
constexpr unsigned int allOnes = 0xFFFFFFFF;

// A word is searched in chunks of 11, 11 and 10 bits.
constexpr int chunkBits = 11;
constexpr unsigned int chunkMask = (1U << chunkBits) - 1;
constexpr int noBitInTable = -23;

constexpr auto makeMasks() {
  std::array<unsigned int, 32> masks{};
  for (std::size_t i = 0; i < masks.size(); ++i) masks[i] = (1U << i) - 1;
  return masks;
}

constexpr auto makeLowestBits() {
  std::array<signed char, 2048> lowest{};
  lowest[0] = noBitInTable;
  for (std::size_t x = 1; x < lowest.size(); ++x) {
    lowest[x] = static_cast<signed char>(std::countr_zero(x));
  }
  return lowest;
}

// The bits of the word at `index` from bit number `bit` of the array down, and from it up.
constexpr unsigned int bitsUpFrom(unsigned long bit) {
  return allOnes << (bit % bitsPerWord);
}
constexpr unsigned int bitsDownFrom(unsigned long bit) {
  return allOnes >> (bitsPerWord - 1 - bit % bitsPerWord);
}
constexpr unsigned int maskOf(unsigned long bit) {
  return 1U << (bit % bitsPerWord);
}

void put(unsigned int* word, unsigned int mask, bool value) {
  *word = value ? *word | mask : *word & ~mask;
}

void putRange(unsigned int* array, long first, long last, bool value) {
  if (first < 0 || last < first) return;
  unsigned int* word = array + first / bitsPerWord;
  unsigned int* lastWord = array + last / bitsPerWord;
  const unsigned int head = bitsUpFrom(first);
  const unsigned int tail = bitsDownFrom(last);
  if (word == lastWord) {
    put(word, head & tail, value);
    return;
  }
  put(word++, head, value);
  std::memset(word, value ? 0xFF : 0, (lastWord - word) * sizeof *word);
  put(lastWord, tail, value);
}

// The lowest set bit of `word`, or -1.
int lowestBit(unsigned int word) {
  unsigned int chunk = word & chunkMask;
  if (chunk != 0) return ffstable[chunk];
  chunk = (word >> chunkBits) & chunkMask;
  if (chunk != 0) return chunkBits + ffstable[chunk];
  return 2 * chunkBits + ffstable[word >> (2 * chunkBits)];
}

long bitNumber(std::int64_t number) {
  return static_cast<long>(std::min<std::int64_t>(number, LONG_MAX));
}

__m128i load(const unsigned int* words) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(words));
}

// Returns the first word of [word, end) that is not all ones, or a word before it: whole blocks of
// 16 words are passed over, the rest is left to the caller.
const unsigned int* skipFullBlocks(const unsigned int* word, const unsigned int* end) {
  const __m128i full = _mm_set1_epi32(-1);
  for (; end - word >= 16; word += 16) {
    const __m128i both = _mm_and_si128(_mm_and_si128(load(word), load(word + 4)),
                                       _mm_and_si128(load(word + 8), load(word + 12)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(both, full)) != 0xFFFF) break;
  }
  return word;
}

// Counting adds the bits of many vectors in place: a carry-save adder turns three vectors of one
// weight into one of that weight and one of the next. Seven of them reduce eight vectors to one
// whose bits count eight each, so the costly count within a vector runs once for eight.
struct Sum {
  __m128i carry;
  __m128i sum;
};

Sum add(__m128i a, __m128i b, __m128i c) {
  const __m128i either = _mm_xor_si128(a, b);
  return {_mm_or_si128(_mm_and_si128(a, b), _mm_and_si128(either, c)), _mm_xor_si128(either, c)};
}

// The set bits of each half of `v`, as two 64-bit numbers.
__m128i countHalves(__m128i v) {
  const __m128i pairs = _mm_set1_epi8(0x55);
  const __m128i nibbles = _mm_set1_epi8(0x33);
  const __m128i bytes = _mm_set1_epi8(0x0F);
  v = _mm_sub_epi8(v, _mm_and_si128(_mm_srli_epi64(v, 1), pairs));
  v = _mm_add_epi8(_mm_and_si128(v, nibbles), _mm_and_si128(_mm_srli_epi64(v, 2), nibbles));
  v = _mm_and_si128(_mm_add_epi8(v, _mm_srli_epi64(v, 4)), bytes);
  return _mm_sad_epu8(v, _mm_setzero_si128());
}

constexpr unsigned long blockWords = 32;

// Counts `blocks` blocks of eight vectors from `word`.
__m128i countBlocks(const unsigned int* word, unsigned long blocks) {
  __m128i ones = _mm_setzero_si128();
  __m128i twos = ones;
  __m128i fours = ones;
  __m128i eights = ones;
  for (; blocks > 0; --blocks, word += blockWords) {
    const Sum a = add(ones, load(word), load(word + 4));
    const Sum b = add(a.sum, load(word + 8), load(word + 12));
    const Sum ab = add(twos, a.carry, b.carry);
    const Sum c = add(b.sum, load(word + 16), load(word + 20));
    const Sum d = add(c.sum, load(word + 24), load(word + 28));
    const Sum cd = add(ab.sum, c.carry, d.carry);
    const Sum all = add(fours, ab.carry, cd.carry);
    ones = d.sum;
    twos = cd.sum;
    fours = all.sum;
    eights = _mm_add_epi64(eights, countHalves(all.carry));
  }
  const __m128i weighted =
      _mm_add_epi64(_mm_slli_epi64(eights, 3), _mm_slli_epi64(countHalves(fours), 2));
  return _mm_add_epi64(weighted,
                       _mm_add_epi64(_mm_slli_epi64(countHalves(twos), 1), countHalves(ones)));
}

}  // namespace

constexpr std::array<unsigned int, 32> maskOfOnes = makeMasks();
constexpr std::array<signed char, 2048> ffstable = makeLowestBits();

BoolType UtlBitAt(const unsigned int* array, unsigned long bit) {
  return (array[bit / bitsPerWord] & maskOf(bit)) != 0;
}

void UtlBitSet(unsigned int* array, unsigned long bit) {
  array[bit / bitsPerWord] |= maskOf(bit);
}

void UtlBitClear(unsigned int* array, unsigned long bit) {
  array[bit / bitsPerWord] &= ~maskOf(bit);
}

void UtlBitAtPut(unsigned int* array, unsigned long bit, BoolType value) {
  put(array + bit / bitsPerWord, maskOf(bit), value != 0);
}

void UtlSetBitRange(unsigned int* array, long first, long last) {
  putRange(array, first, last, true);
}

void UtlClearBitRange(unsigned int* array, long first, long last) {
  putRange(array, first, last, false);
}

BoolType UtlSetIsEmpty(const unsigned int* array, long words) {
  for (long i = 0; i < words; ++i) {
    if (array[i] != 0) return 0;
  }
  return 1;
}

long UtlFindFirstBitClear(const unsigned int* array, long start, long words) {
  start = std::max(start, 0L);
  const long firstWord = start / bitsPerWord;
  if (firstWord >= words) return start;

  const unsigned int* word = array + firstWord;
  const unsigned int* end = array + words;
  unsigned int bits = *word | maskOfOnes[start % bitsPerWord];
  if (bits == allOnes) {
    word = skipFullBlocks(word + 1, end);
    while (word != end && *word == allOnes) ++word;
    if (word == end) return bitNumber(std::int64_t{words} * bitsPerWord);
    bits = *word;
  }
  return bitNumber(std::int64_t{word - array} * bitsPerWord + lowestBit(~bits));
}

// The vector count needs nothing beyond the build's baseline, and on long arrays it is faster than
// the POPCNT instruction, which takes one word at a time in 32-bit code.
long UtlFindNumBitsSet(const unsigned int* array, unsigned long words) {
  if (static_cast<long>(words) <= 0) return 0;
  const unsigned int* word = array;
  const unsigned int* end = array + words;
  __m128i halves = _mm_setzero_si128();
  if (words >= blockWords) {
    const unsigned long blocks = words / blockWords;
    halves = countBlocks(word, blocks);
    word += blocks * blockWords;
  }
  for (; end - word >= 4; word += 4) halves = _mm_add_epi64(halves, countHalves(load(word)));
  for (; word != end; ++word) {
    halves = _mm_add_epi64(halves, countHalves(_mm_cvtsi32_si128(static_cast<int>(*word))));
  }
  std::int64_t counts[2];
  std::memcpy(counts, &halves, sizeof counts);
  return bitNumber(counts[0] + counts[1]);
}

BoolType UtlIsPowerOf2(unsigned int number) {
  return std::has_single_bit(number);
}
