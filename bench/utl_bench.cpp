// The utilities against what a user would take instead: zlib's checksum, std::popcount, memchr,
// memcmp and fnmatch.
#include <fnmatch.h>
#include <zlib.h>

#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include <povzel/utlbits.h>
#include <povzel/utlchecksum.h>
#include <povzel/utlglob.h>
#include <povzel/utltext.h>
#include "basics/fortests.h"
#include "paired.h"

namespace {

std::vector<unsigned char> randomBytes(std::size_t size) {
  std::mt19937 random(1);
  std::vector<unsigned char> bytes(size);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

// The bounds are for processors that have carry-less products; `without` takes instructions away.
void checksum(benchmark::State& state, unsigned int without, double bound) {
  const auto bytes = randomBytes(static_cast<std::size_t>(state.range(0)));
  const unsigned int all = utlCpuFeaturesForTests;
  utlCpuFeaturesForTests &= ~without;
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(UtlChecksum(bytes.data(), bytes.size())); },
      [&] { benchmark::DoNotOptimize(crc32(0, bytes.data(), bytes.size())); }, {.bound = bound});
  utlCpuFeaturesForTests = all;
}

void BM_ChecksumBest(benchmark::State& state) {
  checksum(state, 0, state.range(0) == 65536 ? 0.12 : 1);
}
void BM_ChecksumNarrow(benchmark::State& state) {
  checksum(state, utlCpuVpclmul256 | utlCpuVpclmul512, 1);
}
void BM_ChecksumPlain(benchmark::State& state) {
  checksum(state, ~0U, state.range(0) == 65536 ? 1 / 1.5 : state.range(0) == 64 ? 1 : 0);
}
BENCHMARK(BM_ChecksumBest)
    ->Arg(64)
    ->Arg(1024)
    ->Arg(65536)
    ->Iterations(pairedTurns)
    ->UseManualTime();
BENCHMARK(BM_ChecksumNarrow)
    ->Arg(64)
    ->Arg(1024)
    ->Arg(65536)
    ->Iterations(pairedTurns)
    ->UseManualTime();
BENCHMARK(BM_ChecksumPlain)
    ->Arg(64)
    ->Arg(1024)
    ->Arg(65536)
    ->Iterations(pairedTurns)
    ->UseManualTime();

void BM_CountBits(benchmark::State& state) {
  const auto words = static_cast<std::size_t>(state.range(0));
  std::vector<unsigned int> array(words);
  std::memcpy(array.data(), randomBytes(words * 4).data(), words * 4);
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(UtlFindNumBitsSet(array.data(), words)); },
      [&] {
        long count = 0;
        for (const unsigned int word : array) count += std::popcount(word);
        benchmark::DoNotOptimize(count);
      },
      {.bound = 1.0 / 3});
}
BENCHMARK(BM_CountBits)->Arg(16)->Arg(1024)->Arg(65536)->Iterations(pairedTurns)->UseManualTime();

void BM_FirstClear(benchmark::State& state) {
  const std::vector<unsigned int> array(262144, 0xFFFFFFFF);
  const auto words = static_cast<long>(array.size());
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(UtlFindFirstBitClear(array.data(), 0, words)); },
      [&] { benchmark::DoNotOptimize(std::memchr(array.data(), 0, array.size() * 4)); },
      {.bound = 1.3});
}
BENCHMARK(BM_FirstClear)->Iterations(pairedTurns)->UseManualTime();

void BM_Memcmp(benchmark::State& state) {
  const auto a = randomBytes(static_cast<std::size_t>(state.range(0)));
  const auto b = a;
  const void* left = a.data();
  std::size_t size = a.size();
  comparePaired(
      state,
      [&] {
        benchmark::DoNotOptimize(size);
        benchmark::DoNotOptimize(UtlMemcmp(left, b.data(), size));
      },
      [&] {
        benchmark::DoNotOptimize(size);
        benchmark::DoNotOptimize(std::memcmp(left, b.data(), size));
      },
      {.bound = 1.05});
}
BENCHMARK(BM_Memcmp)
    ->Arg(4)
    ->Arg(12)
    ->Arg(64)
    ->Arg(1024)
    ->Arg(65536)
    ->Iterations(pairedTurns)
    ->UseManualTime();

void BM_Glob(benchmark::State& state) {
  struct Case {
    const char* pattern;
    const char* text;
  };
  static constexpr Case cases[] = {
      {"*.log", "torvserver4711db1.log"},
      {"extent?.dbf", "extent7.dbf"},
      {"[a-z]*_[0-9].*", "backup_7.tar.gz"},
      {"*server*4711*", "/var/log/torvserver/4711/db1.log"},
      {"lib*.so", "libzelrpc67.a"},
      {"a*b*c*d*e", "abababacacacadadabcdabcdabcdabcdabcdefgh"},
  };
  const Case& c = cases[state.range(0)];
  state.SetLabel(c.pattern);
  comparePaired(
      state, [&] { benchmark::DoNotOptimize(UtlGlob(c.pattern, c.text)); },
      [&] { benchmark::DoNotOptimize(fnmatch(c.pattern, c.text, 0)); }, {.bound = 1 / 1.5});
}
BENCHMARK(BM_Glob)->DenseRange(0, 5)->Iterations(pairedTurns)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
