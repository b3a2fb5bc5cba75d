// The small programs of the installation.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr char installation[] = POVZEL_INSTALLATION;

struct Finished {
  int status;
  std::string output;
};

// Runs a program of the installation through the shell, with its errors in its output.
Finished run(const std::string& command) {
  setenv("TARVOLIN", installation, 1);
  FILE* pipe = popen((std::string(installation) + "/bin/" + command + " 2>&1").c_str(), "r");
  Finished result{};
  char buffer[4096];
  for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    result.output.append(buffer, got);
  }
  result.status = WEXITSTATUS(pclose(pipe));
  return result;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(TvInfo, ShowsWhatIsInForce) {
  const Finished all = run("tvinfo");
  EXPECT_EQ(all.status, 0);
  const std::string lib = std::string(installation) + "/lib/";
  for (const std::string& part :
       {std::string("Tarvolin Object Database"), std::string("VERSION: 6.7, Sun Dec"),
        std::string("CPU architecture   i686"), std::string("TARVOLIN           ") + installation,
        std::string(installation) + "/sys/english67.err\n                     in use",
        "found              " + lib + "libzelrpc67", "found              " + lib + "libzellnk67"}) {
    EXPECT_TRUE(contains(all.output, part)) << part << " in\n" << all.output;
  }
  setenv("ZELRTL_VERSION", "99", 1);
  const Finished missing = run("tvinfo");
  unsetenv("ZELRTL_VERSION");
  EXPECT_TRUE(contains(missing.output, "not found          dlopen(" + lib + "libzelrpc99.so)"))
      << missing.output;
  EXPECT_TRUE(contains(missing.output, "not usable         dlopen(libzelrpc99.so) failed because"));
}

TEST(TvInfo, ShowsMessages) {
  EXPECT_EQ(run("tvinfo --errno 13").output, "errno=13, EACCES, Permission denied\n");
  EXPECT_EQ(run("tvinfo --symbol host.fork9b").output, "Log of a child process\n");
  EXPECT_EQ(run("tvinfo --symbol nonsense").status, 1);
  EXPECT_EQ(run("tvinfo --errno x").status, 2);
  EXPECT_EQ(run("tvinfo --help").status, 2);
}

TEST(GStack, PrintsStacksWithAndWithoutTheDebugger) {
  const std::string pid = std::to_string(getpid());
  const Finished plain = run("gstack " + pid);
  EXPECT_EQ(plain.status, 0);
  EXPECT_TRUE(contains(plain.output, "Thread ")) << plain.output;

  // The tools that the script itself needs, but no debugger.
  char path[] = "pathXXXXXX";
  ASSERT_NE(mkdtemp(path), nullptr);
  const std::string bin = std::filesystem::current_path().string() + "/" + path;
  ASSERT_EQ(std::system(
                ("for tool in sh cat awk sed; do ln -s $(command -v $tool) " + bin + "/$tool; done")
                    .c_str()),
            0);
  const std::string before = std::getenv("PATH");
  setenv("PATH", bin.c_str(), 1);
  const Finished bare = run("gstack " + pid);
  setenv("PATH", before.c_str(), 1);
  EXPECT_EQ(bare.status, 0);
  EXPECT_TRUE(contains(bare.output, "Thread " + pid + " (programs_test): state ")) << bare.output;
  EXPECT_EQ(run("gstack x").status, 2);
  EXPECT_EQ(run("gstack 999999999").status, 1);
}

}  // namespace
