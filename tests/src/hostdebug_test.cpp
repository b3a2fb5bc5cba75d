#include <povzel/hostdebug.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <povzel/hostcore.h>
#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/hoststack.h>
#include "basics/fortests.h"
#include "process.h"
#include "reads.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

// Runs `body` in a child of which no core is kept.
ChildResult runWithoutCores(const std::function<void()>& body) {
  return runInChild([&] {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    body();
  });
}

TEST(HostDebug, EndsWithAReport) {
  const ChildResult child = runWithoutCores([] {
    HostOnDebug([] { std::puts("hook"); });
    HostInstallFatalReportHandler([] { std::puts("server"); });
    errno = ENOENT;
    HostCallDebuggerMsg("first\nsecond");
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status;
  EXPECT_THAT(child.out,
              Reads("first\nsecond\nhook\n\nHostcalldebugger invoked in process ~, notifying torv "
                    "of fatal error\nserver\n~\nHostCallDebugger invoked in process ~\n\n ____~"
                    "[host.debugger1 HostCallDebugger]~[host.debugger2 ~"
                    "[host.debugger1 HostCoredump]~\n    Sleeping for 0 seconds before dumping "
                    "core.\n    You can now attach a debugger.     Process Id is ~"
                    "[fault.errno 2 [unixerr.part1 2][unixerr.ENOENT]]~|____"));
  EXPECT_THAT(child.err, HasSubstr("[host.core4]"));
}

TEST(HostDebug, AbortsWhenCalledFromItself) {
  for (const bool handled : {false, true}) {
    const ChildResult child = runWithoutCores([&] {
      if (handled) HostInstallFaultHandler(nullptr, nullptr);
      std::atexit([] { HostCallDebuggerMsg("again"); });
      HostCallDebuggerMsg("once");
    });
    EXPECT_TRUE(child.killedBy(SIGABRT)) << child.status;
    EXPECT_THAT(child.out, Reads("once\n~again\nRecursive error caught!"));
  }
}

TEST(HostDebug, EndsAlthoughItsCallbacksFail) {
  const ChildResult child = runWithoutCores([] {
    HostOnDebug([] { HostCallDebuggerMsg("hook fails"); });
    HostInstallFaultHandler([] { HostCallDebuggerMsg("flusher fails"); }, nullptr);
    HostCallDebuggerMsg("first");
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status;
  const std::string begin = "first\nhook fails\nflusher fails\n";
  EXPECT_THAT(child.out, Reads(begin + "~[host.debugger1 HostCallDebugger]~|____"));
  EXPECT_EQ(child.out.find(" fails", begin.size()), std::string::npos);
}

TEST(HostDebug, NoHaltReturnsWithoutTouchingAnything) {
  const ChildResult child = runWithoutCores([] {
    HostOnDebug([] { std::puts("hook"); });
    noHalt = 1;
    EXPECT_EQ(HostCallDebugger(), 0);
    EXPECT_EQ(HostCallDebuggerMsg("text"), 0);
    EXPECT_EQ(HostCallDebuggerMsg(nullptr), 0);
    EXPECT_EQ(HostCallDebuggerMsg_o("text", 0xFFFFFFFFUL), 0xFFFFFFFFUL);
    EXPECT_EQ(HostCoredump(1), 1);
  });
  EXPECT_EQ(child.out, "text\n\n\ntext arg:4294967295\n");
  EXPECT_EQ(child.err, "");
}

// A core of the kernel's, under the name that the pattern "core.%p" would give it.
TEST(HostCoredump, MovesTheCoreUpAndRemovesTheDirectory) {
  struct rlimit limit;
  getrlimit(RLIMIT_CORE, &limit);
  const std::string pattern = readFile("/proc/sys/kernel/core_pattern");
  if (limit.rlim_max == 0 || pattern.find_first_of("|/") != std::string::npos) {
    GTEST_SKIP() << "the system does not dump cores here, its pattern is " << pattern;
  }
  const ScratchDirectory dumps;
  const ChildResult child = runInChild([&] {
    fs::current_path(dumps.path());
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_CORE, &limit);
    osCallsForTests.rename = [](const char* from, const char* to) noexcept {
      fs::rename(fs::directory_iterator(".")->path(), from);
      return rename(from, to);
    };
    HostSetSmalltalkPrintStackFunc([] { std::fputs("interpreter's stack\n", stderr); });
    std::printf("%d core%d", HostCoredump(1), getpid());
  });
  EXPECT_TRUE(child.exitedWith(0));
  EXPECT_THAT(child.err, Reads("~interpreter's stack\n~[host.core7 "));
  EXPECT_EQ(std::distance(fs::directory_iterator(dumps.path()), fs::directory_iterator()), 1);
  const std::string core = fs::directory_iterator(dumps.path())->path().filename();
  EXPECT_THAT(child.out, testing::EndsWith("1 " + core));
  EXPECT_EQ(readFile(dumps / core).substr(1, 3), "ELF");
}

// What is said of a core that is not found, by how the dumping child ended and by the pattern.
TEST(HostCoredump, SaysWhatBecameOfTheCore) {
  static int ending;
  const std::tuple<int, const char*, const char*> cases[] = {
      {SIGQUIT | WCOREFLAG, "x",
       "[host.core5 ~/core~[host.core6 2 ~own pattern (kernel.core_pattern is \"x\")."},
      {SIGQUIT | WCOREFLAG, "|y", "[host.core5 ~to a program (kernel.core_pattern is \"|y\")."},
      {SIGQUIT, "/z", "[host.core4]~elsewhere (kernel.core_pattern is \"/z\")."},
      {SIGQUIT, "core", "[host.core4]"},
      {0, "core", "[host.core4]"},
  };
  for (const auto& [end, pattern, report] : cases) {
    ending = end;
    writeFile("pattern", pattern);
    const ChildResult child = inChild([] {
      osCallsForTests.open = [](const char*, int flags, mode_t mode) {
        return open("../pattern", flags, mode);
      };
      osCallsForTests.getrlimit = [](int, struct rlimit*) noexcept { return -1; };
      osCallsForTests._Fork = getpid;
      osCallsForTests.waitpid = [](pid_t pid, int* status, int) {
        *status = ending;
        return pid;
      };
      return HostCoredump(1);
    });
    EXPECT_EQ(exitCode(child), WCOREDUMP(end) != 0);
    const std::string said = child.err.substr(child.err.find("[host.core"));
    EXPECT_THAT(said, Reads(report));
    EXPECT_EQ(said.find("kernel") == std::string::npos, pattern == std::string("core"));
  }
}

TEST(HostCoredump, SaysWhyThereIsNone) {
  const ChildResult child = runWithoutCores([] {
    if (HostCoredump(1)) _exit(1);
    std::printf("%s %o", fs::current_path().c_str(),
                static_cast<unsigned>(fs::status(".").permissions()));
  });
  EXPECT_TRUE(child.exitedWith(0));
  EXPECT_THAT(child.err, HasSubstr("core file size limit is 0"));
  EXPECT_THAT(child.out, Reads("~/coredir~ 700"));
}

TEST(HostCoredump, PanicsTheSecondTimeAndGivesUpTheThird) {
  const ChildResult child = runWithoutCores([] {
    HostInstallFaultHandler([] { std::fputs("flush\n", stderr); },
                            [] { std::fputs("shut down\n", stderr); });
    for (int attempt = 1; attempt <= 3; ++attempt) {
      std::fprintf(stderr, "attempt %d\n", attempt);
      HostCoredump(1);
    }
  });
  EXPECT_TRUE(child.exitedWith(1)) << child.status;
  EXPECT_THAT(child.err, Reads("attempt 1\nflush\n~flush\n~shut down\nattempt 2\n"
                               "~coredump panic: Avoiding user-defined rundown function\n"
                               "coredump panic: disabling errmsg expansion\n~"
                               "attempt 3\ncoredump panic:  giving up!\n"));
  EXPECT_THAT(child.err.substr(child.err.find("attempt 2")), Not(HasSubstr("shut down")));
}

TEST(HostPrintCStack, RunsTheInstallationsPrinter) {
  fs::create_directories("installation/bin");
  writeFile("installation/bin/gstack", "#!/bin/sh\necho \"stacks of $1\"\n");
  fs::permissions("installation/bin/gstack", fs::perms::owner_all);
  const ChildResult child = runInChild([] {
    setenv("TARVOLIN", fs::absolute("installation").c_str(), 1);
    HostPrintCStack(-1);
    HostPrintCStack(4711);
    setenv("TARVOLIN", "/nonexistent", 1);
    HostPrintCStack(4712);
  });
  EXPECT_THAT(child.out, HasSubstr("stacks of 4711\n"));
  EXPECT_EQ(child.err,
            "\nBegin attempt to print C-level stack for PID 4711 at: \n"
            "\nEnd of C-level stack for PID 4711\n\n"
            "\nBegin attempt to print C-level stack for PID 4712 at: \n"
            "  Warning: Unable to print C call stack.  'gstack' file not found\n"
            "\nC-level stack not available\n"
            "\nEnd of C-level stack for PID 4712\n\n");
}

}  // namespace
