#include <povzel/hostcore.h>

#include "basics/fortests.h"
#include "tests.h"

static int ending = 0;
static bool leavesFile = false;

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
