// Programs in the embedded database beside the same in python3, both over 100,000 turns. Sorting
// goes against sorted() with a comparing function, string building against itself at a tenth of
// the length, and commits in memory against the time that they may take.
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "paired.h"
#include "zel.h"

namespace {

const ZelRtlJumpSType* zel = ZelGetRtlTable();

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "zel_bench: %s\n", what.c_str());
  std::exit(1);
}

void run(const std::string& text) {
  zel->ZelSetSessionId(zel->ZelGetSessionId());
  zel->ZelExecuteStr(text.c_str(), NilOop);
  ZelErrSType error;
  if (zel->ZelErr(&error) != 0) fail(text + ": " + error.message);
}

// The other side: a python3 that runs what it is told and says how long it took.
class Python {
 public:
  Python() {
    int down[2];
    int up[2];
    if (pipe(down) != 0 || pipe(up) != 0) fail("no pipe");
    if (fork() == 0) {
      dup2(down[0], STDIN_FILENO);
      dup2(up[1], STDOUT_FILENO);
      for (const int end : {down[0], down[1], up[0], up[1]}) close(end);
      execlp("python3", "python3", ZEL_BENCH_PYTHON, nullptr);
      _exit(127);
    }
    close(down[0]);
    close(up[1]);
    to_ = fdopen(down[1], "w");
    from_ = fdopen(up[0], "r");
  }
  double seconds(const char* name, int calls) {
    std::fprintf(to_, "%s %d\n", name, calls);
    std::fflush(to_);
    char line[64];
    if (std::fgets(line, sizeof line, from_) == nullptr) fail("python3 does not answer");
    return std::strtod(line, nullptr);
  }

 private:
  std::FILE* to_;
  std::FILE* from_;
};

double secondsOf(const std::string& text, int calls) {
  const auto begin = std::chrono::steady_clock::now();
  for (int call = 0; call < calls; ++call) run(text);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Work of ours and, under the name, of python3's.
struct Work {
  const char* name;
  const char* python;
  const char* text;
  double turns;
  double bound;
  int iterations = 51;
};
constexpr Work works[] = {
    {"BM_Sends", "sends", "| o | o := Thing new. 1 to: 100000 do: [:i | o itself]", 1e5, 1.0},
    {"BM_Additions", "additions", "| n | n := 0. 1 to: 100000 do: [:i | n := n + 1]. n", 1e5, 1.0},
    {"BM_LargeSums", "sums", "| n | n := 0. 1 to: 100000 do: [:i | n := n + 1000000000]. n", 1e5,
     0},
    {"BM_BlockCalls", "blocks", "| b | b := [:x | x]. 1 to: 100000 do: [:i | b value: i]", 1e5,
     1.0},
    {"BM_Fib20", "fib20", "Thing new fib: 20", 21891, 1.0},
    {"BM_Fib27", "fib27", "Thing new fib: 27", 832040, 1.0, 7},
    {"BM_Floats", "floats", "| x | x := 0.5. 1 to: 100000 do: [:i | x := x * 1.0001 + 0.25]. x",
     1e5, 1.5},
    {"BM_AtPut", "stores",
     "| a | a := Array new: 1000. 1 to: 100000 do: [:i | a at: i \\\\ 1000 + 1 put: i]", 1e5, 1.5},
    {"BM_SortByBlock", "sort",
     "| a s | s := 42. a := Array new: 300000. 1 to: 300000 do: [:i | "
     "s := s * 1309 + 13849 \\\\ 65536. a at: i put: s]. a sort: [:x :y | x <= y]",
     3e5, 2.0, 3},
};

void beside(benchmark::State& state, const Work& work) {
  static Python python;
  compareTimed(
      state, [&](int calls) { return secondsOf(work.text, calls); },
      [&](int calls) { return python.seconds(work.python, calls); },
      {.units = work.turns, .bound = work.bound});
}

// Ten times the text takes about ten times as long, not a hundred times.
void BM_StringBuilding(benchmark::State& state) {
  const auto building = [](const char* turns) {
    return std::string("| s | s := ''. 1 to: ") + turns + " do: [:i | s := s , 'abc']. s size";
  };
  compareTimed(
      state, [&](int calls) { return secondsOf(building("100000"), calls); },
      [&](int calls) { return secondsOf(building("10000"), calls); },
      {.units = 1e5, .otherUnits = 1e4, .bound = 3.0});
}
BENCHMARK(BM_StringBuilding)->Iterations(11)->UseManualTime();

// Commits of 10 changed objects; beside them stands what is promised.
void BM_Commit10(benchmark::State& state) {
  constexpr double promised = 50e-6;
  run("Globals at: #Ten put: ((1 to: 10) collect: [:i | Array new: 4]). System commit");
  compareTimed(
      state,
      [](int calls) {
        return secondsOf("1 to: 100 do: [:i | Ten do: [:each | each at: 1 put: i]. System commit]",
                         calls);
      },
      [](int calls) { return calls * promised; }, {.units = 100, .otherUnits = 1, .bound = 1.0});
}
BENCHMARK(BM_Commit10)->Iterations(51)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  for (const Work& work : works) {
    benchmark::RegisterBenchmark(work.name, beside, work)
        ->Iterations(work.iterations)
        ->UseManualTime();
  }
  benchmark::Initialize(&argc, argv);
  zel->ZelInit();
  zel->ZelLogin("SystemUser", "swordfish");
  run("Object subclass: 'Thing'. Thing compile: 'itself'. Thing compile: "
      "'fib: n ^n < 2 ifTrue: [n] ifFalse: [(self fib: n - 1) + (self fib: n - 2)]'");
  benchmark::RunSpecifiedBenchmarks();
  zel->ZelShutdown();
}
