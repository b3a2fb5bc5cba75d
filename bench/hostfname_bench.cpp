// Expanding file names, beside the C library's realpath.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <povzel/hostfname.h>
#include "paired.h"

namespace {

// A directory of the given depth below the root, there while this lives.
class DeepDirectory {
 public:
  explicit DeepDirectory(int depth) {
    std::string top = std::filesystem::canonical("/tmp") / "povzel.XXXXXX";
    if (mkdtemp(top.data()) == nullptr) std::abort();
    top_ = top;
    path_ = top_;
    for (int level = 2; level < depth; ++level) path_ /= "level" + std::to_string(level);
    std::filesystem::create_directories(path_);
  }
  ~DeepDirectory() { std::filesystem::remove_all(top_); }
  DeepDirectory(const DeepDirectory&) = delete;
  DeepDirectory& operator=(const DeepDirectory&) = delete;

  const char* path() const { return path_.c_str(); }

 private:
  std::filesystem::path top_;
  std::filesystem::path path_;
};

void BM_ExpandFileName(benchmark::State& state) {
  const DeepDirectory directory(static_cast<int>(state.range(0)));
  HostFnameStrType expanded;
  char real[PATH_MAX];
  comparePaired(
      state, [&] { HostExpandFileName(directory.path(), expanded, sizeof expanded); },
      [&] { benchmark::DoNotOptimize(realpath(directory.path(), real)); },
      {.bound = state.range(0) == 12 ? 1.2 : 0.0});
}
BENCHMARK(BM_ExpandFileName)->Arg(3)->Arg(12)->Arg(40)->UseManualTime()->Iterations(400);

}  // namespace

BENCHMARK_MAIN();
