// What the do-nothing interface library and the benchmark of the bridge agree on.
#pragma once

#include <cstdint>

#include <povzel/zeltable.h>

namespace idle {

constexpr OopType integerSeven = 7 << 2 | 3;
constexpr OopType arrayOop = 4;
constexpr OopType stringOop = 8;
constexpr std::uint32_t stringSize = 200;
constexpr std::uint32_t arraySize = 50;

}  // namespace idle
