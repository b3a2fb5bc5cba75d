// What the sources of the lowest layer share, and what every layer above may use of it.
//
//   guarantee.cpp                          broken guarantees, reported to the fatal path
//   utlcpu.cpp                             instructions beyond the build's baseline
//   oscalls.h, oscalls.cpp                 the system's calls, through a table
//   fortests.h                             all that tests may replace or set
//   utlchecksum.cpp, utlchecksumfold.cpp   the checksum, by tables and by carry-less products
//   xchar.cpp, xchartables.cpp             characters, and their built-in tables
//   utlbits, utlfilename, utlglob, utlmemcmp, utlsystem, utltext, atomics.S: public alone
#pragma once

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include <povzel/xchar.h>

// errno across clean-up and reporting

// Puts errno back to what it was when this was made.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : kept_(errno) {}
  ~ErrnoKeeper() { errno = kept_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  // The errno that will be put back.
  int kept() const { return kept_; }

 private:
  int kept_;
};

// Broken guarantees (guarantee.cpp)

// Reports the broken guarantee at `line` of `module` ("src/utlheap") to the fatal path. Returns
// only when that path is told not to halt.
void utlGuaranteeFailed(const char* module, int line);

// Processor (utlcpu.cpp)

constexpr unsigned int utlCpuPclmul = 1;   // PCLMULQDQ
constexpr unsigned int utlCpuVpclmul = 2;  // VPCLMULQDQ on 512-bit vectors

// What was found when the library was loaded, 0 before.
extern unsigned int utlCpuFeatures;

// Checksum steps (utlchecksumfold.cpp)

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

// Character tables (xchartables.cpp)

constexpr std::size_t xcharBuiltInSize = 256;

extern const std::array<unsigned short, xcharBuiltInSize> defaultDispatchTable;
extern const std::array<unsigned short, xcharBuiltInSize> defaultIndexTable;
extern const std::array<ByteType, xcharBuiltInSize> defaultCategoryTable;
extern const std::array<XCharEntrySType, xcharBuiltInSize> defaultEntryTable;
extern const std::array<XCharTitleCaseEntrySType, 1> defaultTitleCaseTable;  // its size is 0
