#include <povzel/hostsafeprint.h>

#include <gtest/gtest.h>

#include <cstdio>

#include "hostunix/internal.h"

namespace {

TEST(HostSafePrint, FormatsAsPrintfDoes) {
  int object = 0;
  for (const long number : {0L, -1L, 2147483647L, -2147483647L - 1L, 42L}) {
    char ours[256];
    char theirs[256];
    const char* format = "%d|%ld|%u|%lu|%x|%p|%s|%%";
    const auto value = static_cast<unsigned long>(number);
    hostSafeFormat(ours, sizeof ours, format, static_cast<int>(number), number,
                   static_cast<unsigned>(value), value, static_cast<unsigned>(value),
                   static_cast<void*>(&object), "text");
    std::snprintf(theirs, sizeof theirs, format, static_cast<int>(number), number,
                  static_cast<unsigned>(value), value, static_cast<unsigned>(value),
                  static_cast<void*>(&object), "text");
    EXPECT_STREQ(ours, theirs);
  }
  char cut[5];
  hostSafeFormat(cut, sizeof cut, "%s%d", "abc", 1234);
  EXPECT_STREQ(cut, "abc1");
}

}  // namespace
