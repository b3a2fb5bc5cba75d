#include <povzel/utlexit.h>

#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/utloutput.h>
#include "tests.h"

template <char name>
static void say() {
  std::putchar(name);
}

TEST(UtlExit, RunsHandlersInReverseOrderOnce) {
  const std::tuple<void (*)(), int, std::string> cases[] = {
      // Neither a late registration nor a nested run disturbs what goes on; an exit does.
      {[] {
         std::printf("%d", UtlAtExit(say<'x'>));
         UtlRunExitHandlers();
       },
       7, "1 1ba"},
      {[] { UtlExitMt(4); }, 4, "1 "},
      // Signals to whichever thread leave it alone.
      {[] {
         HostInstallFaultHandler(nullptr, nullptr);
         raise(SIGTERM);
         std::thread([] {
           raise(SIGTERM);
           raise(SIGQUIT);
         }).join();
       },
       7, "1 ba"},
      // A hundred fit and no more.
      {[] {
         UtlInit();
         for (int count = 0; count < 100; ++count) UtlAtExit(say<'.'>);
         std::printf("%d ", UtlAtExit(say<'x'>));
         UtlRunExitHandlers();
       },
       7, "1 1 " + std::string(100, '.')},
  };
  for (const auto& [last, status, output] : cases) {
    const ChildResult child = runInChild([last = last] {
      std::printf("%d ", UtlAtExit(say<'x'>));  // before there is a list
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

TEST(UtlExit, RemovesTheChildLogAfterSuccessOnly) {
  for (const auto& [log, status, removed] :
       {std::tuple("x.log", 0, true), {"x.klog", 0, false}, {"x.log", 1, false}}) {
    writeFile(log, "log\n");
    const ChildResult child = runInChild([log = log, status = status] {
      setenv("TARVOLIN_CHILD_LOG", log, 1);
      HostInit();
      UtlRemoveLogOnExit(1);
      UtlExit(status);
    });
    EXPECT_TRUE(child.exitedWith(status)) << log;
    EXPECT_EQ(std::remove(log) != 0, removed) << log;
  }
}

TEST(UtlAppendLfToFile, EndsEveryLine) {
  for (const auto& [before, after] : {std::pair("abc", "abc\n"), {"\n", "\n"}, {"", ""}}) {
    writeFile("lines", before);
    EXPECT_TRUE(UtlAppendLfToFile("lines"));
    EXPECT_EQ(readFile("lines"), after);
  }
  EXPECT_TRUE(UtlAppendLfToFile("none") && !fs::exists("none"));
  for (const off64_t size : {2ULL << 30, 4ULL << 30}) {
    EXPECT_EQ(truncate64("lines", size), 0);
    EXPECT_EQ(std::system("touch -d 2040-01-01 lines"), 0);  // which 32 bits do not hold either
    EXPECT_TRUE(UtlAppendLfToFile("lines") && UtlAppendLfToFile("lines"));
    EXPECT_EQ(fs::file_size("lines"), size + 1);
  }
}
