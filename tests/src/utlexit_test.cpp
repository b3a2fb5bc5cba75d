#include <povzel/utlexit.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include <povzel/hostinit.h>
#include <povzel/utloutput.h>
#include "process.h"

namespace {

using testing::StartsWith;

template <char name>
void say() {
  std::putchar(name);
}

TEST(UtlExit, RunsHandlersInReverseOrderOnce) {
  const std::tuple<void (*)(), int, const char*> cases[] = {
      // Neither a late registration nor a nested run disturbs what goes on; an exit does.
      {[] {
         std::printf("%d", UtlAtExit(say<'x'>));
         UtlRunExitHandlers();
       },
       7, "1ba"},
      {[] { UtlExit(5); }, 5, ""},
      {[] {
         std::fputs("buffered", stdout);
         UtlExitMt(4);
       },
       4, "buffered"},
  };
  for (const auto& [last, status, output] : cases) {
    const ChildResult child = runInChild([last = last] {
      UtlInit();
      UtlAtExit(say<'a'>);
      UtlAtExit(say<'b'>);
      UtlAtExit(last);
      UtlExit(7);
    });
    EXPECT_TRUE(child.exitedWith(status)) << child.status;
    EXPECT_EQ(child.out, output);
  }
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
  const std::tuple<const char*, BoolType, int, bool> cases[] = {{"x.log", 1, 0, true},
                                                                {"x.klog", 1, 0, false},
                                                                {"x.log", 1, 1, false},
                                                                {"x.log", 0, 0, false}};
  for (const auto& [log, removeIt, status, removed] : cases) {
    writeFile(log, "log\n");
    const ChildResult child = runInChild([log = log, removeIt = removeIt, status = status] {
      setenv("TARVOLIN_CHILD_LOG", log, 1);
      HostInit();
      UtlRemoveLogOnExit(removeIt);
      UtlExit(status);
    });
    EXPECT_TRUE(child.exitedWith(status)) << log;
    EXPECT_EQ(std::remove(log) != 0, removed) << log;
  }
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
  EXPECT_FALSE(std::filesystem::exists("lines"));
}

TEST(UtlAppendLfToFile, ReportsTheStepThatFailed) {
  constexpr rlim_t size = 4096;  // more than the report on standard error has
  writeFile("limited", std::string(size, 'a'));
  const ChildResult child = runInChild([] {
    EXPECT_FALSE(UtlAppendLfToFile("/"));
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {size, size};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_FALSE(UtlAppendLfToFile("limited"));
  });
  EXPECT_EQ(child.out, "");
  EXPECT_THAT(child.err, testing::MatchesRegex(
                             "UtlAppendLfToFile: Operation fopen\\(\\) failed at line 2828: .*\n"
                             "UtlAppendLfToFile: Operation fputc\\(\\) failed at line 2858: .*\n"));
}

TEST(UtlResetOutput, RedirectsBothStreamsOrSaysWhyNot) {
  char why[300] = "";
  const ChildResult child = runInChild([&] {
    EXPECT_TRUE(UtlResetOutput("redirected", why, sizeof why));
    std::puts("out");
    std::fputs("err\n", stderr);
    EXPECT_FALSE(UtlResetOutput("/nonexistent/x", why, sizeof why));
    writeFile("why", why);
  });
  EXPECT_THAT(readFile("redirected"),
              testing::AllOf(testing::HasSubstr("out\n"), testing::HasSubstr("err\n")));
  EXPECT_THAT(readFile("why"), StartsWith("[utl.freopen /nonexistent/x "));
}

}  // namespace
