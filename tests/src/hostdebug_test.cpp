#include <povzel/hostdebug.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include <povzel/hostcore.h>
#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/hoststack.h>
#include "child.h"

namespace {

namespace fs = std::filesystem;

// No file of this process may be dumped, and none of its children's.
void withoutCores() {
  const struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

bool inOrder(const std::string& text, std::initializer_list<const char*> parts) {
  std::size_t from = 0;
  for (const char* part : parts) {
    from = text.find(part, from);
    if (from == std::string::npos) return false;
  }
  return true;
}

TEST(HostDebug, EndsWithAReport) {
  const ChildResult child = runInChild([] {
    withoutCores();
    HostOnDebug([] { std::puts("hook"); });
    HostInstallFatalReportHandler([] { std::puts("server"); });
    errno = ENOENT;
    HostCallDebuggerMsg("first\nsecond");
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status;
  const std::string pid = "process ";
  EXPECT_EQ(child.out.rfind("first\nsecond\nhook\n\nHostcalldebugger invoked in process ", 0), 0u);
  EXPECT_TRUE(inOrder(
      child.out,
      {", notifying torv of fatal error\nserver\n", "\nHostCallDebugger invoked in process ",
       "\n\n ____", "[host.debugger1 HostCallDebugger]", "[host.debugger2 ",
       "[host.debugger1 HostCoredump]", "\n    Sleeping for 0 seconds before dumping core.\n",
       "    You can now attach a debugger.     Process Id is ",
       "[fault.errno 2 [unixerr.part1 2][unixerr.ENOENT]]", "|____"}))
      << child.out;
  EXPECT_NE(child.err.find("[host.core4]"), std::string::npos) << child.err;
}

TEST(HostDebug, AbortsWhenCalledFromItself) {
  for (const bool handled : {false, true}) {
    const ChildResult child = runInChild([&] {
      withoutCores();
      if (handled) HostInstallFaultHandler(nullptr, nullptr);
      std::atexit([] { HostCallDebuggerMsg("again"); });
      HostCallDebuggerMsg("once");
    });
    EXPECT_TRUE(child.killedBy(SIGABRT)) << child.status;
    EXPECT_TRUE(inOrder(child.out, {"once\n", "again\nRecursive error caught!"})) << child.out;
  }
}

TEST(HostDebug, EndsAlthoughItsCallbacksFail) {
  const ChildResult child = runInChild([] {
    withoutCores();
    HostOnDebug([] { HostCallDebuggerMsg("hook fails"); });
    HostInstallFaultHandler([] { HostCallDebuggerMsg("flusher fails"); }, nullptr);
    HostCallDebuggerMsg("first");
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status;
  EXPECT_EQ(child.out.rfind("first\nhook fails\nflusher fails\n", 0), 0u) << child.out;
  EXPECT_TRUE(inOrder(child.out, {"[host.debugger1 HostCallDebugger]", "|____"})) << child.out;
  EXPECT_EQ(child.out.find(" fails", child.out.find("flusher") + 13), std::string::npos);
}

TEST(HostDebug, NoHaltReturnsWithoutTouchingAnything) {
  static int hookCalls = 0;
  HostOnDebug([] { ++hookCalls; });
  noHalt = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(HostCallDebugger(), 0);
  EXPECT_EQ(HostCallDebuggerMsg("text"), 0);
  EXPECT_EQ(HostCallDebuggerMsg(nullptr), 0);
  EXPECT_EQ(HostCallDebuggerMsg_o("text", 0xFFFFFFFFUL), 0xFFFFFFFFUL);
  EXPECT_EQ(HostCoredump(1), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "text\n\n\ntext arg:4294967295\n");
  noHalt = 0;
  HostOnDebug(nullptr);
  EXPECT_EQ(hookCalls, 0);
}

// Has the kernel name core files "core" and the process id while this lives.
class CoresWithIds {
 public:
  CoresWithIds() : before_(readFile(file)) { writeFile(file, "core.%p"); }
  ~CoresWithIds() { writeFile(file, before_); }
  CoresWithIds(const CoresWithIds&) = delete;
  CoresWithIds& operator=(const CoresWithIds&) = delete;
  static bool inForce() { return readFile(file) == "core.%p\n"; }

 private:
  static constexpr char file[] = "/proc/sys/kernel/core_pattern";
  std::string before_;
};

ChildResult dumpCoreIn(const char* directory) {
  return runInChild([directory] {
    fs::current_path(directory);
    struct rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_CORE, &limit);
    HostSetSmalltalkPrintStackFunc([] { std::fputs("interpreter's stack\n", stderr); });
    const BoolType dumped = HostCoredump(1);
    std::printf("%d core%d", dumped, getpid());
  });
}

bool saysWhereCoresGo(const std::string& report) {
  return inOrder(report, {"[host.core5 ", "[host.core6 ", "core_pattern"}) ||
         inOrder(report, {"[host.core4]", "core_pattern"});
}

TEST(HostCoredump, MovesTheCoreUpAndRemovesTheDirectory) {
  fs::create_directory("dumps");
  bool named = false;
  ChildResult child;
  {
    const CoresWithIds pattern;
    named = CoresWithIds::inForce();
    child = dumpCoreIn("dumps");
  }
  EXPECT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_NE(child.err.find("interpreter's stack"), std::string::npos);
  EXPECT_EQ(child.out.find("Sleeping"), std::string::npos);
  if (named) {
    EXPECT_NE(child.err.find("[host.core7 "), std::string::npos) << child.err;
    for (const fs::directory_entry& entry : fs::directory_iterator("dumps")) {
      EXPECT_NE(child.out.find("1 " + entry.path().filename().string()), std::string::npos)
          << entry;
    }
    EXPECT_FALSE(fs::is_empty("dumps"));
  } else {
    EXPECT_TRUE(saysWhereCoresGo(child.err)) << child.err;
  }
  fs::remove_all("dumps");
}

// With whatever pattern the system has, the core is kept or the report says what became of it.
TEST(HostCoredump, SaysWhereACoreWentThatIsNotFound) {
  fs::create_directory("dumps");
  const ChildResult child = dumpCoreIn("dumps");
  EXPECT_TRUE(child.exitedWith(0)) << child.err;
  EXPECT_TRUE(saysWhereCoresGo(child.err) || inOrder(child.err, {"[host.core7 "})) << child.err;
  fs::remove_all("dumps");
}

TEST(HostCoredump, SaysWhyThereIsNone) {
  const ChildResult child = runInChild([] {
    withoutCores();
    if (HostCoredump(1)) _exit(1);
    char directory[4096];
    struct stat status;
    if (getcwd(directory, sizeof directory) == nullptr || stat(directory, &status) != 0) _exit(2);
    std::printf("%s %o", directory, status.st_mode & 07777);
  });
  EXPECT_TRUE(child.exitedWith(0));
  EXPECT_NE(child.err.find("core file size limit is 0"), std::string::npos) << child.err;
  EXPECT_NE(child.out.find("/coredir"), std::string::npos) << child.out;
  EXPECT_NE(child.out.find(" 700"), std::string::npos) << child.out;
}

TEST(HostCoredump, PanicsTheSecondTimeAndGivesUpTheThird) {
  const ChildResult child = runInChild([] {
    withoutCores();
    HostInstallFaultHandler([] { std::fputs("flush\n", stderr); },
                            [] { std::fputs("shut down\n", stderr); });
    for (int attempt = 1; attempt <= 3; ++attempt) {
      std::fprintf(stderr, "attempt %d\n", attempt);
      HostCoredump(1);
    }
  });
  EXPECT_TRUE(child.exitedWith(1)) << child.status;
  EXPECT_TRUE(inOrder(child.err, {"attempt 1\nflush\n", "flush\n", "shut down\n", "attempt 2\n",
                                  "coredump panic: Avoiding user-defined rundown function\n",
                                  "coredump panic: disabling errmsg expansion\n",
                                  "attempt 3\ncoredump panic:  giving up!\n"}))
      << child.err;
  EXPECT_EQ(child.err.find("shut down", child.err.find("attempt 2")), std::string::npos);
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
  EXPECT_NE(child.out.find("stacks of 4711\n"), std::string::npos) << child.out;
  EXPECT_EQ(child.err,
            "\nBegin attempt to print C-level stack for PID 4711 at: \n"
            "\nEnd of C-level stack for PID 4711\n\n"
            "\nBegin attempt to print C-level stack for PID 4712 at: \n"
            "  Warning: Unable to print C call stack.  'gstack' file not found\n"
            "\nC-level stack not available\n"
            "\nEnd of C-level stack for PID 4712\n\n");
  fs::remove_all("installation");
}

}  // namespace
