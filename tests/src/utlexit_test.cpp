#include <povzel/utlexit.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <povzel/hostinit.h>
#include <povzel/utloutput.h>
#include "child.h"

namespace {

template <char name>
void say() {
  std::putchar(name);
}

TEST(UtlExit, RunsHandlersInReverseOrderOnce) {
  const ChildResult child = runInChild([] {
    UtlInit();
    UtlAtExit(say<'a'>);
    UtlAtExit(say<'b'>);
    UtlAtExit([] {
      // Neither a late registration nor a nested run or exit disturbs what goes on.
      std::printf("%d", UtlAtExit(say<'x'>));
      UtlRunExitHandlers();
    });
    UtlExit(7);
  });
  EXPECT_TRUE(child.exitedWith(7));
  EXPECT_EQ(child.out, "1ba");

  const ChildResult nested = runInChild([] {
    UtlInit();
    UtlAtExit(say<'a'>);
    UtlAtExit([] { UtlExit(5); });
    UtlExit(7);
  });
  EXPECT_TRUE(nested.exitedWith(5));
  EXPECT_EQ(nested.out, "");
}

TEST(UtlExit, RegistersAHundredHandlersBetweenInitAndRun) {
  const ChildResult child = runInChild([] {
    std::printf("%d ", UtlAtExit(say<'x'>));
    UtlInit();
    int refused = 0;
    for (int count = 0; count < 100; ++count) refused += UtlAtExit(say<'.'>);
    std::printf("%d %d ", refused, UtlAtExit(say<'x'>));
    UtlRunExitHandlers();
    std::printf(" %d", UtlAtExit(say<'x'>));
    UtlRunExitHandlers();
  });
  EXPECT_EQ(child.out, "1 0 1 " + std::string(100, '.') + " 1");
}

TEST(UtlExit, RemovesTheChildLogAfterSuccessOnly) {
  struct Case {
    const char* log;
    BoolType removeIt;
    int status;
    bool removed;
  };
  const Case cases[] = {{"x.log", 1, 0, true},
                        {"x.klog", 1, 0, false},
                        {"x.log", 1, 1, false},
                        {"x.log", 0, 0, false}};
  for (const Case& one : cases) {
    writeFile(one.log, "log\n");
    const ChildResult child = runInChild([&] {
      setenv("TARVOLIN_CHILD_LOG", one.log, 1);
      HostInit();
      UtlRemoveLogOnExit(one.removeIt);
      UtlExit(one.status);
    });
    EXPECT_TRUE(child.exitedWith(one.status)) << one.log;
    EXPECT_EQ(access(one.log, F_OK) != 0, one.removed) << one.log;
    std::remove(one.log);
  }
}

TEST(UtlExit, LeavesHandlersAloneWithThreads) {
  const ChildResult child = runInChild([] {
    UtlInit();
    UtlAtExit(say<'x'>);
    std::fputs("buffered", stdout);
    UtlExitMt(4);
  });
  EXPECT_TRUE(child.exitedWith(4));
  EXPECT_EQ(child.out, "buffered");
}

TEST(UtlAppendLfToFile, EndsEveryLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"abc", "abc\n"}, {"abc\n", "abc\n"}, {"\n", "\n"}, {"", ""}};
  for (const auto& [before, after] : cases) {
    writeFile("lines", before);
    EXPECT_TRUE(UtlAppendLfToFile("lines"));
    EXPECT_EQ(readFile("lines"), after);
  }
  std::remove("lines");
  EXPECT_TRUE(UtlAppendLfToFile("lines"));
  EXPECT_NE(access("lines", F_OK), 0);
}

TEST(UtlAppendLfToFile, ReportsTheStepThatFailed) {
  const ChildResult full = runInChild([] {
    constexpr rlim_t size = 4096;  // more than the report on standard error has
    writeFile("limited", std::string(size, 'a'));
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {size, size};
    setrlimit(RLIMIT_FSIZE, &limit);
    if (UtlAppendLfToFile("limited")) _exit(1);
  });
  EXPECT_TRUE(full.exitedWith(0));
  EXPECT_EQ(full.err.rfind("UtlAppendLfToFile: Operation fputc() failed at line 2858: ", 0), 0u)
      << full.err;
  std::remove("limited");

  const ChildResult directory = runInChild([] {
    if (UtlAppendLfToFile("/")) _exit(1);
  });
  EXPECT_TRUE(directory.exitedWith(0));
  EXPECT_EQ(directory.err.rfind("UtlAppendLfToFile: Operation fopen() failed at line 2828: ", 0),
            0u)
      << directory.err;
}

TEST(UtlResetOutput, RedirectsBothStreamsOrSaysWhyNot) {
  const ChildResult child = runInChild([] {
    char text[300] = "";
    if (!UtlResetOutput("redirected", text, sizeof text)) _exit(1);
    std::fputs("out\n", stdout);
    std::fputs("err\n", stderr);
  });
  EXPECT_TRUE(child.exitedWith(0));
  const std::string content = readFile("redirected");
  EXPECT_NE(content.find("out\n"), std::string::npos);
  EXPECT_NE(content.find("err\n"), std::string::npos);
  std::remove("redirected");

  char text[300] = "";
  const ChildResult failing = runInChild([&] {
    if (UtlResetOutput("/nonexistent/x", text, sizeof text)) _exit(1);
    _exit(std::string(text).rfind("[utl.freopen /nonexistent/x ", 0) == 0 ? 0 : 2);
  });
  EXPECT_TRUE(failing.exitedWith(0));
}

}  // namespace
