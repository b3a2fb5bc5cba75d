// The first two bytes give the size and the value of the bits, each nine bytes behind them an
// operation with two numbers. The array must agree with a bit-by-bit model at every step.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "bitarraymodel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t stepSize = 9;
  if (size < 2) return 0;
  BitArrayModel model(data[0] % 50 + 1, (data[1] & 1) != 0);
  for (std::size_t at = 2; at + stepSize <= size && at < 100 * stepSize; at += stepSize) {
    std::uint32_t numbers[2];
    std::memcpy(numbers, data + at + 1, sizeof numbers);
    if (!model.step(data[at], numbers[0], numbers[1])) std::abort();
  }
  return 0;
}
