// What a fuzz target demands of the code under test.
#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the process, as libFuzzer wants it, unless `holds`.
inline void require(bool holds, int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "what line %d requires does not hold\n", line);
  std::abort();
}
