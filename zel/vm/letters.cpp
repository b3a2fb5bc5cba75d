#include "letters.h"

#include <algorithm>
#include <iterator>

namespace zel {

namespace {

// Capital letters, each so far before its small one.
struct Capitals {
  std::uint32_t first;
  std::uint32_t last;
  std::int32_t distance;
  std::uint32_t step;  // 2: capital and small letters in turn
};

constexpr Capitals capitals[] = {
    {0x41, 0x5A, 32, 1},   {0xC0, 0xD6, 32, 1},   {0xD8, 0xDE, 32, 1},    {0x100, 0x12E, 1, 2},
    {0x132, 0x136, 1, 2},  {0x139, 0x147, 1, 2},  {0x14A, 0x176, 1, 2},   {0x178, 0x178, -121, 1},
    {0x179, 0x17D, 1, 2},  {0x386, 0x386, 38, 1}, {0x388, 0x38A, 37, 1},  {0x38C, 0x38C, 64, 1},
    {0x38E, 0x38F, 63, 1}, {0x391, 0x3A1, 32, 1}, {0x3A3, 0x3AB, 32, 1},  {0x400, 0x40F, 80, 1},
    {0x410, 0x42F, 32, 1}, {0x460, 0x480, 1, 2},  {0x48A, 0x4BE, 1, 2},   {0x4C0, 0x4C0, 15, 1},
    {0x4C1, 0x4CD, 1, 2},  {0x4D0, 0x52E, 1, 2},  {0x1E00, 0x1E94, 1, 2}, {0x1EA0, 0x1EFE, 1, 2},
};

constexpr struct {
  std::uint32_t first;
  std::uint32_t last;
} letters[] = {
    {0x41, 0x5A},   {0x61, 0x7A},   {0xAA, 0xAA},   {0xB5, 0xB5},   {0xBA, 0xBA},
    {0xC0, 0xD6},   {0xD8, 0xF6},   {0xF8, 0x2AF},  {0x370, 0x373}, {0x376, 0x377},
    {0x37B, 0x37D}, {0x37F, 0x37F}, {0x386, 0x386}, {0x388, 0x38A}, {0x38C, 0x38C},
    {0x38E, 0x3A1}, {0x3A3, 0x3F5}, {0x3F7, 0x481}, {0x48A, 0x52F}, {0x1E00, 0x1EFF},
};

}  // namespace

bool isLetterCode(std::uint32_t code) {
  return std::any_of(std::begin(letters), std::end(letters), [code](const auto& range) {
    return code >= range.first && code <= range.last;
  });
}

bool isDigitCode(std::uint32_t code) {
  return code >= '0' && code <= '9';
}

std::uint32_t wideUpperCase(std::uint32_t code) {
  constexpr std::uint32_t finalSigma = 0x3C2;  // a small sigma at the end of a word
  if (code == finalSigma) ++code;
  for (const Capitals& range : capitals) {
    const std::uint32_t capital = code - static_cast<std::uint32_t>(range.distance);
    if (capital < range.first || capital > range.last) continue;
    if ((capital - range.first) % range.step == 0) return capital;
  }
  return code;
}

std::uint32_t wideLowerCase(std::uint32_t code) {
  for (const Capitals& range : capitals) {
    if (code < range.first || code > range.last || (code - range.first) % range.step != 0) continue;
    return code + static_cast<std::uint32_t>(range.distance);
  }
  return code;
}

}  // namespace zel
