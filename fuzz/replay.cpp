// Runs a fuzz target as an ordinary test, with any compiler:
//   NAME CORPUS COUNT   every file in the folder CORPUS, then COUNT inputs made from them
//   NAME INPUT          the file INPUT alone, in this process
// The inputs of a corpus run in a child, whose output is shown only if it fails; the input at fault
// is then kept in the current folder as NAME.failed. POVZEL_FUZZ_SEED makes other inputs.

#include "tests.h"

#include <sys/mman.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr unsigned secondsPerInput = 60;  // longer is a hang

// Noise, or an input of the corpus with some changes.
std::string makeInput(const std::vector<std::string>& corpus, std::mt19937 random) {
  const auto below = [&random](std::size_t count) { return random() % count; };
  if (below(4) == 0) {
    std::string noise(below(1U << below(11)), '\0');
    for (char& byte : noise) byte = static_cast<char>(random());
    return noise;
  }
  std::string input = corpus[below(corpus.size())];
  for (std::size_t changes = 1 + below(8); changes > 0; --changes) {
    // Some bytes are taken out, a flipped one, a new one or a piece of another input put in.
    const std::string& other = corpus[below(corpus.size())];
    const std::size_t at = below(input.size() + 1);
    const std::string pieces[] = {
        "", std::string(1, static_cast<char>(random())),
        std::string(at < input.size() ? 1 : 0, static_cast<char>(input[at] ^ (1U << below(8)))),
        other.substr(below(other.size() + 1), below(other.size() + 1))};
    const std::size_t kind = below(4);
    input.replace(at, kind == 0 ? below(8) : kind == 2 ? 1 : 0, pieces[kind]);
  }
  return input;
}

int run(const std::string& input) {
  std::vector<std::uint8_t> exact(input.begin(), input.end());  // sanitizers see its end
  exact.reserve(1);                                             // nothing has an address as well
  alarm(secondsPerInput);
  return LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2) return run(readFile(argv[1]));
  if (argc != 3) return 2;
  std::vector<std::string> corpus;
  for (const auto& file : fs::directory_iterator(argv[1])) {
    corpus.push_back(readFile(file.path()));
  }
  std::sort(corpus.begin(), corpus.end());
  const std::size_t count = corpus.size() + std::strtoul(argv[2], nullptr, 10);
  const char* seedText = std::getenv("POVZEL_FUZZ_SEED");
  const auto seed = seedText != nullptr ? std::strtoul(seedText, nullptr, 10) : 1;
  const auto input = [&](std::size_t number) {
    return number < corpus.size() ? corpus[number]
                                  : makeInput(corpus, std::mt19937(seed * 1000000 + number));
  };

  const ScratchDirectory scratch;
  // The number of the input at which the child is.
  auto* at = static_cast<std::size_t*>(mmap(nullptr, sizeof(std::size_t), PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  if (at == MAP_FAILED) std::abort();
  const ChildResult child = runInChild([&] {
    fs::current_path(scratch.path());
    for (*at = 0; *at < count; ++*at) run(input(*at));
    std::exit(0);  // as any program, so that leaks are looked for
  });
  if (child.exitedWith(0)) return 0;
  std::fprintf(stderr, "%s%sstatus %d at input %zu of %zu, seed %lu\n", child.out.c_str(),
               child.err.c_str(), child.status, *at, count, seed);
  const std::string name = fs::path(argv[0]).filename();
  if (*at < count) writeFile(name + ".failed", input(*at));
  return 1;
}
