// Instructions beyond the build's baseline that the processor offers and the modules may use. The
// results are the same with and without them.
#pragma once

constexpr unsigned int utlCpuPclmul = 1;   // PCLMULQDQ
constexpr unsigned int utlCpuVpclmul = 2;  // VPCLMULQDQ on 512-bit vectors

// What was found when the library was loaded, 0 before. Tests clear bits to reach the paths that
// older processors take.
extern unsigned int utlCpuFeatures;
