#include <povzel/hostdebug.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <povzel/hostcore.h>
#include <povzel/hostfault.h>
#include <povzel/hoststack.h>
#include "basics/fortests.h"
#include "process.h"
#include "reads.h"

namespace {

namespace fs = std::filesystem;

int calls = 0;

// A callback that fails, and is not called again.
template <int before>
void failOnce() {
  if (calls++ != before) _exit(9);
  HostCallDebuggerMsg("callback fails");
}

template <bool handled>
void callFromItself() {
  if (handled) HostInstallFaultHandler(nullptr, nullptr);
  std::atexit([] { HostCallDebuggerMsg("again"); });
  HostCallDebuggerMsg("once");
}

// How a process ends, and what its output and errors say.
TEST(HostDebug, EndsWithReports) {
  const struct {
    void (*body)();
    int end;  // the exit status, or the signal with a minus
    const char *out, *err;
  } cases[] = {
      {[] {
         HostOnDebug([] { std::puts("hook"); });
         HostInstallFatalReportHandler([] { std::puts("server"); });
         errno = ENOENT;
         HostCallDebuggerMsg("first\nsecond");
       },
       3,
       "first\nsecond\nhook\n\nHostcalldebugger invoked in process ~, notifying torv of fatal "
       "error\nserver\n~\nHostCallDebugger invoked in process ~\n\n ____~[host.debugger1 "
       "HostCallDebugger]~[host.debugger2 ~[host.debugger1 HostCoredump]~\n    Sleeping for 0 "
       "seconds before dumping core.\n    You can now attach a debugger.     Process Id is ~"
       "[fault.errno 2 [unixerr.part1 2][unixerr.ENOENT]]~|____",
       "~[host.core4]"},
      {callFromItself<false>, -SIGABRT, "once\n~again\nRecursive error caught!", "~"},
      {callFromItself<true>, -SIGABRT, "once\n~again\nRecursive error caught!", "~"},
      {[] {
         HostOnDebug(failOnce<0>);
         HostInstallFaultHandler(failOnce<1>, nullptr);
         HostCallDebuggerMsg("first");
       },
       3, "first\ncallback fails\ncallback fails\n~[host.debugger1 HostCallDebugger]~|____", "~"},
      // Where nothing halts, they return what they were given.
      {[] {
         HostOnDebug([] { std::puts("hook"); });
         noHalt = 1;
         const bool none = HostCallDebugger() == 0 && HostCallDebuggerMsg("text") == 0 &&
                           HostCallDebuggerMsg(nullptr) == 0;
         const unsigned long most = 0xFFFFFFFFUL;
         const bool same = HostCallDebuggerMsg_o("text", most) == most && HostCoredump(1) == 1;
         std::puts(none && same ? "end" : "");
       },
       0, "text\n\n\ntext arg:4294967295\nend\n", ""},
      {[] {
         if (HostCoredump(1)) _exit(1);
         std::printf("%s %o", fs::current_path().c_str(),
                     static_cast<unsigned>(fs::status(".").permissions()));
       },
       0, "~/coredir~ 700",
       "~End of C-level stack for PID ~\n\n| [host.core4] ~|\n| The core file size limit is 0"},
      // It panics the second time, when nothing is shut down, and gives up the third.
      {[] {
         HostInstallFaultHandler([] { std::fputs("flush\n", stderr); },
                                 [] { std::fputs(calls++ == 0 ? "shut down\n" : "", stderr); });
         for (int attempt = 1; attempt <= 3; ++attempt) {
           std::fprintf(stderr, "%d: attempt %d\n", calls, attempt);
           HostCoredump(1);
         }
       },
       1, "~",
       "0: attempt 1\nflush\n~flush\n~shut down\n1: attempt 2\n"
       "~coredump panic: Avoiding user-defined rundown function\n"
       "coredump panic: disabling errmsg expansion\n~1: attempt 3\ncoredump panic:  giving up!\n"},
      {[] {
         fs::create_directories("installation/bin");
         writeFile("installation/bin/gstack", "#!/bin/sh\necho \"stacks of $1\"\n");
         fs::permissions("installation/bin/gstack", fs::perms::owner_all);
         setenv("TARVOLIN", fs::absolute("installation").c_str(), 1);
         HostPrintCStack(-1);
         HostPrintCStack(4711);
         setenv("TARVOLIN", "/nonexistent", 1);
         HostPrintCStack(4712);
       },
       0, "~stacks of 4711\n",
       "\nBegin attempt to print C-level stack for PID 4711 at: \n"
       "\nEnd of C-level stack for PID 4711\n\n"
       "\nBegin attempt to print C-level stack for PID 4712 at: \n"
       "  Warning: Unable to print C call stack.  'gstack' file not found\n"
       "\nC-level stack not available\n\nEnd of C-level stack for PID 4712\n\n"},
  };
  for (const auto& [body, end, out, err] : cases) {
    const ChildResult child = runInChild([body = body] {
      const struct rlimit none = {0, 0};
      setrlimit(RLIMIT_CORE, &none);
      body();
    });
    EXPECT_TRUE(end < 0 ? child.killedBy(-end) : child.exitedWith(end)) << child.status;
    EXPECT_THAT(child.out, Reads(out));
    EXPECT_THAT(child.err, Reads(err));
  }
}

int ending = 0;
bool leavesFile = false;

// What is said of a core and becomes of its directory, by how the dumping child ended, whether its
// core is there, and the system's pattern.
TEST(HostCoredump, SaysWhatBecameOfTheCore) {
  constexpr int dumped = SIGQUIT | WCOREFLAG;
  const std::tuple<int, bool, const char*, const char*> cases[] = {
      {dumped, true, "core", "[host.core7 ~/core"},
      {dumped, false, "x",
       "[host.core5 ~/core~[host.core6 2 ~own pattern (kernel.core_pattern is \"x\")."},
      {dumped, false, "|y", "[host.core5 ~to a program (kernel.core_pattern is \"|y\")."},
      {SIGQUIT, false, "/z", "[host.core4]~elsewhere (kernel.core_pattern is \"/z\")."},
      {SIGQUIT, false, "core", "[host.core4]"},
      {0, false, "core", "[host.core4]"},
  };
  for (const auto& [end, isThere, pattern, report] : cases) {
    ending = end;
    leavesFile = isThere;
    writeFile("pattern", pattern);
    const ChildResult child = inChild([] {
      osCallsForTests.open = [](const char*, int flags, mode_t mode) {
        return open("../pattern", flags, mode);
      };
      osCallsForTests.getrlimit = [](int, struct rlimit*) noexcept { return -1; };
      osCallsForTests._Fork = getpid;
      osCallsForTests.waitpid = [](pid_t pid, int* status, int) {
        std::printf("%s", fs::current_path().c_str());
        if (leavesFile) writeFile("core." + std::to_string(pid), "");
        *status = ending;
        return pid;
      };
      return HostCoredump(1) + 2 * fs::exists("core" + std::to_string(getpid()));
    });
    EXPECT_EQ(exitCode(child), (end == dumped) + 2 * isThere);
    EXPECT_EQ(fs::exists(child.out.substr(child.out.find('/'))), !isThere);
    const std::string said = child.err.substr(child.err.find("[host.core"));
    EXPECT_THAT(said, Reads(report));
    EXPECT_EQ(said.find("kernel") == std::string::npos, pattern == std::string("core"));
  }
}

}  // namespace
