#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "process.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Death tests re-execute the program, so that they work whatever threads a test has started.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A dying process would wait a minute for a debugger.
  setenv("TV_CORE_TIME_OUT", "0", 1);
  // Each program works in a directory of its own, where its death tests may leave core directories.
  // They are started anew with the same environment and share it.
  constexpr char variable[] = "POVZEL_TEST_SCRATCH";
  std::optional<ScratchDirectory> own;
  if (std::getenv(variable) == nullptr) setenv(variable, own.emplace().path().c_str(), 1);
  std::filesystem::current_path(std::getenv(variable));
  return RUN_ALL_TESTS();
}
