#include <libintl.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <povzel/errmsg.h>
#include "paired.h"

namespace {

constexpr char symbol[] = "host.fork7";
constexpr char translation[] = "Process %d could not open its log file '%s'.";

// The comparison's catalogue: a gettext file with one message. Its size does not matter, because
// dcgettext remembers what it has found.
class GettextCatalogue {
 public:
  GettextCatalogue() {
    const std::filesystem::path folder = folder_ / "xx" / "LC_MESSAGES";
    std::filesystem::create_directories(folder);
    const std::uint32_t header[] = {0x950412de, 0, 1, 28, 36, 0, 44};  // tables at 28 and 36
    const std::uint32_t original[] = {sizeof symbol - 1, 44};
    const std::uint32_t translated[] = {sizeof translation - 1, 44 + sizeof symbol};
    std::ofstream file(folder / "povzel.mo", std::ios::binary);
    for (const auto& [bytes, size] : {std::pair<const void*, std::size_t>{header, sizeof header},
                                      {original, sizeof original},
                                      {translated, sizeof translated},
                                      {symbol, sizeof symbol},
                                      {translation, sizeof translation}}) {
      file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    }
    file.close();
    setlocale(LC_ALL, "C.UTF-8");
    setenv("LANGUAGE", "xx", 1);
    bindtextdomain("povzel", folder_.c_str());
    if (std::strcmp(dcgettext("povzel", symbol, LC_MESSAGES), translation) != 0) {
      std::fputs("errmsg_bench: gettext does not find its message\n", stderr);
      std::abort();
    }
  }
  ~GettextCatalogue() { std::filesystem::remove_all(folder_); }
  GettextCatalogue(const GettextCatalogue&) = delete;
  GettextCatalogue& operator=(const GettextCatalogue&) = delete;

 private:
  std::string name_ = std::filesystem::temp_directory_path() / "povzel-bench-XXXXXX";
  std::filesystem::path folder_ = mkdtemp(name_.data());
};

// Hides from the compiler that the symbol stands for a format.
const char* translate(const char* messageSymbol) {
  return dcgettext("povzel", messageSymbol, LC_MESSAGES);
}

void openCatalogues() {
  static const GettextCatalogue gettext;
  setenv("TARVOLIN_LANG", POVZEL_ENGLISH_COMPILED, 1);
  ErrMsgInit();
}

// A text of two arguments, against what `print` makes of the same; both must be equal.
template <typename Print>
void compareTexts(benchmark::State& state, Print print) {
  char ours[2049];
  char theirs[2049];
  comparePaired(
      state,
      [&] {
        ErrMsgSymToText(symbol, ours, sizeof ours, "ds", 4711L, "/tmp/x.log");
        benchmark::DoNotOptimize(ours);
      },
      [&] {
        print(theirs, sizeof theirs);
        benchmark::DoNotOptimize(theirs);
      },
      {.bound = 2.0});
  if (std::strcmp(ours, theirs) != 0) state.SkipWithError("the texts differ");
}

// Against the C library's catalogue of as many messages.
void BM_SymToText(benchmark::State& state) {
  openCatalogues();
  compareTexts(state, [](char* text, std::size_t size) {
    std::snprintf(text, size, translate(symbol), 4711, "/tmp/x.log");
  });
}
BENCHMARK(BM_SymToText)->UseManualTime()->Iterations(400);

// The fallback form, against printing the same.
void BM_Fallback(benchmark::State& state) {
  ErrMsgShutdown();
  compareTexts(state, [](char* text, std::size_t size) {
    std::snprintf(text, size, "[%s %ld %s]", symbol, 4711L, "/tmp/x.log");
  });
}
BENCHMARK(BM_Fallback)->UseManualTime()->Iterations(400);

}  // namespace

BENCHMARK_MAIN();
