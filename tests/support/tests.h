// What the test programs include: GoogleTest, the standard library, and what they share. It is
// compiled once, ahead of them all.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "process.h"
#include "reads.h"

namespace fs = std::filesystem;
using testing::AllOf, testing::AnyOf, testing::ContainsRegex, testing::ElementsAre;
using testing::EndsWith, testing::HasSubstr, testing::Not, testing::StartsWith;

// What `action` prints, its errors first.
inline std::string printed(const std::function<void()>& action) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  action();
  const std::string errors = testing::internal::GetCapturedStderr();
  return errors + testing::internal::GetCapturedStdout();
}

// What `fill` puts into a buffer of `size` bytes; it must not write behind it.
inline std::string filled(std::size_t size, const std::function<void(char*, std::size_t)>& fill) {
  std::string buffer(size + 1, '#');
  fill(buffer.data(), size);
  EXPECT_EQ(buffer[size], '#') << "overrun of " << size << " bytes";
  return size == 0 ? "" : buffer.c_str();
}

// Runs `work` in so many threads at once, each with its number.
inline void inThreads(int count, const std::function<void(int)>& work) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
}

// Storms: how long they last, and what repeats one.
//
//   POVZEL_STORM_SECONDS=600 POVZEL_STORM_SEED=4711 build/tests/storm_test

inline long setting(const char* name, long otherwise) {
  return std::getenv(name) != nullptr ? std::atol(std::getenv(name)) : otherwise;
}

// When one that lasts `seconds` if nothing else is asked for is over.
inline std::time_t stormEnd(long seconds) {
  return std::time(nullptr) + setting("POVZEL_STORM_SECONDS", seconds);
}

inline unsigned stormSeed() {
  const long seed = setting("POVZEL_STORM_SEED", std::time(nullptr));
  std::printf("POVZEL_STORM_SEED=%ld\n", seed);
  return static_cast<unsigned>(seed);
}
