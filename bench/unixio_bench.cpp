// Interrupt-safe I/O, beside the C library's own functions.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include <povzel/unixio.h>
#include "paired.h"

namespace {

constexpr int lines = 1000;

// A file of short lines, which each reader rewinds.
class Lines {
 public:
  Lines() : file_(std::tmpfile()) {
    for (int line = 0; line < lines; ++line) std::fprintf(file_, "line %d of the file\n", line);
  }
  ~Lines() { std::fclose(file_); }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  std::FILE* fromStart() const {
    std::rewind(file_);
    return file_;
  }

 private:
  std::FILE* file_;
};

// Argument: whether the command shares the terminal; otherwise it runs in a session of its own.
void BM_System(benchmark::State& state) {
  const BoolType interactively = static_cast<BoolType>(state.range(0));
  comparePaired(
      state, [&] { UnixIoSystem("exit 0", interactively); },
      [] { benchmark::DoNotOptimize(std::system("exit 0")); }, {.bound = 1.1});
}
BENCHMARK(BM_System)->Arg(0)->Arg(1)->UseManualTime()->Iterations(100);

void BM_Fgets(benchmark::State& state) {
  const Lines file;
  char line[128];
  const auto ours = [&] {
    std::FILE* stream = file.fromStart();
    while (UnixIoFgets(line, sizeof line, stream)) benchmark::ClobberMemory();
  };
  const auto theirs = [&] {
    std::FILE* stream = file.fromStart();
    while (std::fgets(line, sizeof line, stream) != nullptr) benchmark::ClobberMemory();
  };
  comparePaired(state, ours, theirs, {.units = lines, .bound = 1.05});
}
BENCHMARK(BM_Fgets)->UseManualTime()->Iterations(400);

void BM_Fgetc(benchmark::State& state) {
  const Lines file;
  const auto ours = [&] {
    std::FILE* stream = file.fromStart();
    while (UnixIoFgetc(stream) != EOF) {
    }
  };
  const auto theirs = [&] {
    std::FILE* stream = file.fromStart();
    while (std::fgetc(stream) != EOF) {
    }
  };
  comparePaired(state, ours, theirs, {.units = lines * 20});
}
BENCHMARK(BM_Fgetc)->UseManualTime()->Iterations(400);

}  // namespace

BENCHMARK_MAIN();
