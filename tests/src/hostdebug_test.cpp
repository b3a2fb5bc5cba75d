#include "hostunix/hostdebug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>

namespace {

using testing::ExitedWithCode;
using testing::KilledBySignal;

TEST(HostDebugDeathTest, EndsWithStatusThreeAfterTheHook) {
  EXPECT_EXIT(
      {
        HostOnDebug([] { std::fputs("hook", stderr); });
        HostCallDebugger();
      },
      ExitedWithCode(3), "^hook$");
}

TEST(HostDebugDeathTest, PrintsTheMessage) {
  for (const char* msg : {"first\nsecond", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EXIT(
        {
          dup2(STDERR_FILENO, STDOUT_FILENO);
          HostCallDebuggerMsg(msg);
        },
        ExitedWithCode(3), std::string("^") + (msg != nullptr ? msg : "") + "\n$");
  }
}

TEST(HostDebugDeathTest, AbortsWhenCalledFromItself) {
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        std::atexit([] { HostCallDebuggerMsg("again"); });
        HostCallDebuggerMsg("once");
      },
      KilledBySignal(SIGABRT), "^once\nagain\nRecursive error caught!$");
}

TEST(HostDebug, NoHaltReturnsWithoutTouchingAnything) {
  static int hookCalls = 0;
  HostOnDebug([] { ++hookCalls; });
  noHalt = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(HostCallDebugger(), 0);
  EXPECT_EQ(HostCallDebuggerMsg("text"), 0);
  EXPECT_EQ(HostCallDebuggerMsg_o("text", 0xFFFFFFFFUL), 0xFFFFFFFFUL);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "text\n\ntext arg:4294967295\n");
  noHalt = 0;
  HostOnDebug(nullptr);
  EXPECT_EQ(hookCalls, 0);
}

}  // namespace
