#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "process.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Death tests re-execute the program, so that they work whatever threads a test has started.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Each program works in a directory of its own, where its death tests may leave core directories.
  // They are started anew with the same environment and share it.
  constexpr char variable[] = "POVZEL_TEST_SCRATCH";
  std::optional<ScratchDirectory> own;
  if (std::getenv(variable) == nullptr) {
    // What else the system reads is for tests to set.
    for (const char* read : {"TARVOLIN", "TARVOLIN_LANG", "TARVOLIN_MAX_FD", "TV_CFTIME",
                             "TV_AutoMountPrefix", "ZELRTL_BASELIBNAME", "ZELRTL_VERSION"}) {
      unsetenv(read);
    }
    setenv(variable, own.emplace().path().c_str(), 1);
  }
  // A dying process would wait a minute for a debugger.
  setenv("TV_CORE_TIME_OUT", "0", 1);
  std::filesystem::current_path(std::getenv(variable));
  return RUN_ALL_TESTS();
}
