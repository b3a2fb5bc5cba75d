#include "internal.h"

namespace {

unsigned int detect() {
  unsigned int features = 0;
  __builtin_cpu_init();
  if (__builtin_cpu_supports("pclmul")) features |= utlCpuPclmul;
  if (__builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx512f")) {
    features |= utlCpuVpclmul;
  }
  return features;
}

}  // namespace

unsigned int utlCpuFeatures = detect();
