// Checksum steps that reduce long runs of bytes without looking them up in tables.
//
// The bytes are a polynomial over GF(2), the first byte its highest powers, and only its remainder
// by the checksum's polynomial counts. A step removes bytes from the front and adds to those behind
// what has the same remainder. What is left in the end is short and goes through the tables, from
// the value 0: the value given has been added to the first four bytes.
#pragma once

#include <cstddef>
#include <cstdint>

// x^power modulo the checksum's polynomial: bit 31 is the coefficient of x^0.
constexpr std::uint32_t utlCrcPower(unsigned int power) {
  std::uint32_t value = 0x80000000U;
  for (; power > 0; --power) value = (value & 1) != 0 ? (value >> 1) ^ 0xEDB88320U : value >> 1;
  return value;
}

constexpr std::size_t utlCrcRestSize = 16;

// Each takes 16-byte blocks from the front of `bytes`, as many as there are, and leaves their
// remainder in `rest`. Returns the number of bytes taken.

// With PCLMULQDQ; `length` is at least 64.
std::size_t utlCrcFold(std::uint32_t crc, const unsigned char* bytes, std::size_t length,
                       unsigned char (&rest)[utlCrcRestSize]);

// With VPCLMULQDQ and AVX-512; `length` is at least 256.
std::size_t utlCrcFoldWide(std::uint32_t crc, const unsigned char* bytes, std::size_t length,
                           unsigned char (&rest)[utlCrcRestSize]);
