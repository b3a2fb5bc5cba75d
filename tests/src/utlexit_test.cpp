#include <povzel/utlexit.h>

#include <gtest/gtest.h>

#include <filesystem>

#include <filesystem>

#include <povzel/hostinit.h>
#include <povzel/utloutput.h>
#include "process.h"

namespace {

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

}  // namespace
