// Paired measurements: two pieces of code take turns in one run, so that their ratio holds while
// the machine's speed drifts.
//
//   void BM_Append(benchmark::State& state) {
//     comparePaired(state, [] { ours(); }, [] { theirs(); }, {.bound = 1.0});
//   }
//   BENCHMARK(BM_Append)->Iterations(pairedTurns)->UseManualTime();
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <random>
#include <vector>

// How many turns each takes. Left to the library, it would go on until the reported times, which
// are those of single calls, add up to its own idea of a long enough run.
constexpr benchmark::IterationCount pairedTurns = 201;

struct PairedOptions {
  double units = 1;       // what one call works on; times are given per unit
  double otherUnits = 0;  // the same for the other; 0: as many
  double bound = 0;       // the ratio that is promised at the most; 0: none

  // Done before each turn of both; not timed. Puts what they ask for in a new order, which no
  // processor has learnt.
  std::function<void()> beforeRound = {};
};

// Puts the elements in a random order, another one each time.
template <typename Elements>
void reorder(Elements& elements) {
  static std::mt19937 random(1);
  std::shuffle(elements.begin(), elements.end(), random);
}

namespace paired {

// As many calls as take about a fifth of a millisecond. `secondsOf` runs that many and times them.
template <typename SecondsOf>
int callsPerTurn(SecondsOf& secondsOf) {
  constexpr double turn = 2e-4;
  int calls = 1;
  while (calls < 1 << 20 && secondsOf(calls) < turn) calls *= 2;
  return calls;
}

inline double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace paired

// Measures two pieces in turns, each given as a function that runs it a number of times and returns
// the seconds that took. The benchmark's time is that of `ours`; the counters are the other's time
// in nanoseconds, the median of the ratios ours/other, and the bound.
template <typename OursSeconds, typename OtherSeconds>
void compareTimed(benchmark::State& state, OursSeconds ours, OtherSeconds other,
                  const PairedOptions& options = {}) {
  const int ourCalls = paired::callsPerTurn(ours);
  const int otherCalls = paired::callsPerTurn(other);
  const double otherUnits = options.otherUnits > 0 ? options.otherUnits : options.units;
  std::vector<double> ratios;
  std::vector<double> others;
  bool oursFirst = true;
  for (auto _ : state) {
    if (options.beforeRound) options.beforeRound();
    double mine = 0;
    if (oursFirst) mine = ours(ourCalls);
    const double theirs = other(otherCalls) / otherCalls / otherUnits;
    if (!oursFirst) mine = ours(ourCalls);
    oursFirst = !oursFirst;
    mine = mine / ourCalls / options.units;
    state.SetIterationTime(mine);
    others.push_back(theirs);
    ratios.push_back(mine / theirs);
  }
  state.counters["other_ns"] = paired::median(others) * 1e9;
  state.counters["ratio"] = paired::median(ratios);
  // Always there: the CSV form wants the same counters of every benchmark.
  state.counters["bound"] = options.bound;
}

// The same for two pieces that are timed by the clock on the wall.
template <typename Ours, typename Other>
void comparePaired(benchmark::State& state, Ours ours, Other other,
                   const PairedOptions& options = {}) {
  const auto timed = [](auto& run) {
    return [&run](int calls) {
      const auto begin = std::chrono::steady_clock::now();
      for (int call = 0; call < calls; ++call) run();
      return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
  };
  compareTimed(state, timed(ours), timed(other), options);
}
