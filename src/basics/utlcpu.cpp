#include "internal.h"

namespace {

unsigned int detect() {
  unsigned int features = 0;
  __builtin_cpu_init();
  if (__builtin_cpu_supports("pclmul")) features |= utlCpuPclmul;
  if (__builtin_cpu_supports("vpclmulqdq")) {
    if (__builtin_cpu_supports("avx2")) features |= utlCpuVpclmul256;
    if (__builtin_cpu_supports("avx512f")) features |= utlCpuVpclmul512;
  }
  return features;
}

}  // namespace

unsigned int utlCpuFeatures = detect();
