#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr char scratchVariable[] = "POVZEL_TEST_SCRATCH";

// Each program works in a directory of its own, where its death tests may leave core directories.
// They are started anew with the same environment and share it.
class Scratch {
 public:
  Scratch() {
    const char* shared = std::getenv(scratchVariable);
    if (shared == nullptr) {
      std::string name = std::filesystem::temp_directory_path() / "povzel-test-XXXXXX";
      if (mkdtemp(name.data()) == nullptr) std::abort();
      setenv(scratchVariable, name.c_str(), 1);
      owned_ = name;
      owner_ = getpid();
      shared = owned_.c_str();
    }
    std::filesystem::current_path(shared);
  }
  ~Scratch() {
    if (owned_.empty() || owner_ != getpid()) return;
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    std::filesystem::remove_all(owned_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

 private:
  std::string owned_;
  pid_t owner_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Death tests re-execute the program, so that they work whatever threads a test has started.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A dying process would wait a minute for a debugger.
  setenv("TV_CORE_TIME_OUT", "0", 1);
  const Scratch scratch;
  return RUN_ALL_TESTS();
}
