// The pattern stands before the first newline, the string behind it. The matcher must agree with
// a slow one that works in another way.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <povzel/utlglob.h>
#include "slowglob.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 400));
  std::erase(input, '\0');
  const std::size_t newline = std::min(input.find('\n'), input.size());
  const std::string pattern = input.substr(0, newline);
  const std::string text = input.substr(std::min(newline + 1, input.size()));
  if ((UtlGlob(pattern.c_str(), text.c_str()) != 0) != slowGlob(pattern, text)) std::abort();
  return 0;
}
