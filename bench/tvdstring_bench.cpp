// Building texts by appending, beside std::string.
#include <povzel/tvdstring.h>

#include <benchmark/benchmark.h>

#include <string>

#include "paired.h"

namespace {

// Builds a text of `state.range(0)` pieces of `state.range(1)` characters.
void BM_Append(benchmark::State& state) {
  const auto pieces = state.range(0);
  const std::string piece(static_cast<std::size_t>(state.range(1)), 'x');
  comparePaired(
      state,
      [&] {
        TvDString text;
        TvDStringInit(&text);
        for (std::int64_t i = 0; i < pieces; ++i) {
          TvDStringAppend(&text, piece.data(), static_cast<long>(piece.size()));
        }
        benchmark::DoNotOptimize(text.string);
        TvDStringFree(&text);
      },
      [&] {
        std::string text;
        for (std::int64_t i = 0; i < pieces; ++i) text.append(piece.data(), piece.size());
        benchmark::DoNotOptimize(text.data());
      },
      {.units = static_cast<double>(pieces), .bound = 1});
}
BENCHMARK(BM_Append)
    ->ArgsProduct({{10, 1000}, {1, 8, 17, 100}})
    ->ArgNames({"pieces", "bytes"})
    ->Iterations(pairedTurns)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
