#include <povzel/hostcore.h>

#include <povzel/hostdebug.h>
#include <povzel/hostfault.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hoststack.h>
#include <povzel/utlexit.h>
#include "basics/fortests.h"
#include "tests.h"

using namespace std::string_literals;

static int ending = 0;
static const char* left = "";  // the file that the dumping child leaves
static std::string directory;
static std::atomic<int> dumping{0};

// The time of day stands still.
extern "C" time_t time(time_t* /*now*/) noexcept {
  return 0;
}
extern "C" unsigned sleep(unsigned /*seconds*/) {
  return static_cast<unsigned>(usleep(1000));
}
// No handler of the program runs in a child that unblocks its signals.
extern "C" int execv(const char* program, char* const* arguments) noexcept {
  if (signal(SIGQUIT, SIG_DFL) != SIG_DFL) _exit(1);
  return execve(program, arguments, environ);
}

// No process ends; what becomes of the dumping child, which alone goes elsewhere, is set.
static void pretendToDump() {
  osCallsForTests.getrlimit = [](int, struct rlimit*) noexcept { return -1; };
  osCallsForTests._Fork = getpid;
  osCallsForTests.chdir = [](const char*) noexcept { return -1; };
  osCallsForTests.mkdir = [](const char* name, mode_t mode) noexcept {
    return mkdir((directory = name).c_str(), mode);
  };
  osCallsForTests.waitpid = [](pid_t pid, int* status, int) {
    if (++dumping > 1) HostSignalSafePrint("two at once");
    HostSignalSafePrint(("dumped in " + directory + "\n").c_str());
    const std::string place = fs::exists(directory) ? directory + "/" : "";
    if (*left != '\0') writeFile(place + left + (*left != 'x' ? std::to_string(pid) : ""), "");
    std::this_thread::yield();
    *status = ending;
    --dumping;
    return pid;
  };
}

// What is said of a core and becomes of its directory, by how the dumping child ended, the core
// that is there, and the system's pattern.
TEST(HostCoredump, SaysWhatBecameOfTheCore) {
  constexpr int dumped = SIGQUIT | WCOREFLAG;
  const std::tuple<int, const char*, const char*, const char*> cases[] = {
      {dumped, "core.", "core", "[host.core7 ~/core"},
      {dumped, "../core.", "core", "[host.core7 ~/core"},
      {dumped, "x", "x",
       "[host.core5 ~/core~[host.core6 2 ~own pattern (kernel.core_pattern is \"x\")."},
      {dumped, "", "|y", "[host.core5 ~to a program (kernel.core_pattern is \"|y\")."},
      {SIGQUIT, "", "/z", "[host.core4]~elsewhere (kernel.core_pattern is \"/z\")."},
      {0, "", "core", "[host.core4]"},
  };
  for (const auto& [end, file, pattern, report] : cases) {
    ending = end;
    left = file;
    writeFile("pattern", pattern);
    const ChildResult child = inChild([] {
      pretendToDump();
      osCallsForTests.open = [](const char*, int flags, mode_t) { return open("pattern", flags); };
      return HostCoredump(1) + 2 * fs::exists("core" + std::to_string(getpid())) +
             4 * fs::exists(directory);
    });
    // Nothing is left of the directory but what has the core in it.
    EXPECT_EQ(exitCode(child), (end == dumped) + (*file == 'x' ? 4 : *file != '\0' ? 2 : 0));
    const std::string said = child.err.substr(child.err.find("[host.core"));
    EXPECT_THAT(said, Reads(report));
    EXPECT_EQ(said.find("kernel") == std::string::npos, pattern == "core"s);
  }
}

// Threads that meet the end together make one report, one core and one shutdown of the application.
// Those that ask for a core take turns.
TEST(HostCoredump, IsOneThreadsAtATime) {
  ending = SIGQUIT | WCOREFLAG;
  left = "core.";
  const std::tuple<void (*)(int), int, std::string> cases[] = {
      {[](int) { HostCallDebuggerMsg("lost"); }, 3, "dumped in ~[host.core7 ~shut down\n"},
      {[](int) { HostCoredump(1); }, 0,
       "dumped in ~[host.core7 ~coredump panic: disabling ~dumped in ~[host.core7 "}};
  for (const auto& [end, status, report] : cases) {
    const ChildResult child = runInChild([end = end] {
      pretendToDump();
      HostInstallFaultHandler(nullptr, [] { HostSignalSafePrint("shut down\n"); });
      setenv("TV_CORE_TIME_OUT", "1", 1);
      inThreads(2, end);
    });
    EXPECT_EQ(exitCode(child), status);
    EXPECT_THAT(child.err, AllOf(Reads("~" + report + "~"), Not(HasSubstr("two at once"))));
    EXPECT_EQ(child.err.find("shut down"), child.err.rfind("shut down"));
  }
}

// Whoever holds the streams, dumps or does not answer, the core is made.
TEST(HostCoredump, WaitsForNobody) {
  static std::atomic<bool> isLocked, isDumping;
  for (void (*end)() : {+[] { HostCallDebuggerMsg("lost"); }, +[] { raise(SIGQUIT), void(); }}) {
    const ChildResult child = inChild([end] {
      pretendToDump();
      osCallsForTests.gethostname = [](char*, std::size_t) noexcept -> int { _exit(43); };
      HostInstallFaultHandler(nullptr, nullptr);
      HostSetSmalltalkPrintStackFunc([] { isDumping = true, pause(); });
      UtlInit();
      UtlAtExit([] { _exit(42); });
      std::thread(HostCoredump, 1).detach();
      std::thread([] {
        flockfile(stdout), flockfile(stderr);
        isLocked = true;
        pause();
      }).detach();
      while (!isLocked || !isDumping) std::this_thread::yield();
      alarm(20);
      end();
      return 1;
    });
    EXPECT_EQ(exitCode(child), 42) << child.err;
    EXPECT_THAT(child.err, HasSubstr("[host.core7 "));
  }
}

// What is said in threads at once stays whole.
TEST(HostCallDebuggerMsg, WritesAtOnce) {
  const ChildResult child = runInChild([] {
    noHalt = 1;
    inThreads(2, [](int) {
      for (int i = 0; i < 1000; ++i) HostCallDebuggerMsg("text"), HostCallDebuggerMsg_o("text", 1);
    });
  });
  EXPECT_EQ(std::regex_replace(child.out, std::regex("text\n|\ntext arg:1\n"), ""), "");
}

// A set-id program runs its invoker's stack printer with his ids, and keeps no way back to its own.
TEST(HostCoredump, GivesUpSetIds) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives itself other ids";
  fs::create_directories("installation/bin");
  writeFile("installation/bin/gstack",
            "#!/bin/sh\ngrep -E '^[UG]id|SigI' /proc/self/status >&2\n"
            "[ ! -e /proc/$$/fd/77 ] && echo closed >&2\n");
  for (const std::string name : {".", "installation/bin/gstack"})
    fs::permissions(name, fs::perms::all);
  for (void (*end)() : {+[] { HostCoredump(1), void(); }, +[] { raise(SIGQUIT), void(); }}) {
    const ChildResult child = runInChild([end] {
      setenv("TARVOLIN", fs::absolute("installation").c_str(), 1);
      dup2(STDOUT_FILENO, 77);
      pretendToDump();
      HostInstallFaultHandler(nullptr, [] {
        for (const auto& task : fs::directory_iterator("/proc/self/task"))
          HostSignalSafePrint(readFile(task.path() / "status").c_str());
      });
      std::thread([] {
        for (;;) pause();
      }).detach();
      if (setresgid(65534, 1001, 0) + setresuid(65534, 1001, 0) != 0) _exit(99);
      end();
    });
    const std::string own = "Uid:\t65534\t65534\t65534\t65534\nGid:\t65534\t65534\t65534\t65534\n";
    EXPECT_THAT(child.err,
                Reads("~" + own + "SigIgn:\t0000000000000000\nclosed\n~" + own + "~" + own));
  }
}
