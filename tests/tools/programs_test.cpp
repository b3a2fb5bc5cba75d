// The small programs of the installation.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "process.h"

namespace {

const std::string installation = POVZEL_INSTALLATION;

// Runs a program of the installation through the shell, with its errors in its output.
ChildResult run(const std::string& command, const std::string& settings = "") {
  return runInChild([&] {
    const std::string line = settings + " exec '" + installation + "/bin/'" + command + " 2>&1";
    setenv("TARVOLIN", installation.c_str(), 1);
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
  });
}

void expectParts(const std::string& text, const std::vector<std::string>& parts) {
  for (const std::string& part : parts) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
  }
}

TEST(TvInfo, ShowsWhatIsInForce) {
  const ChildResult all = run("tvinfo");
  EXPECT_TRUE(all.exitedWith(0));
  const std::string lib = installation + "/lib/";
  expectParts(all.out, {"Tarvolin Object Database", "VERSION: 6.7, Sun Dec",
                        "CPU architecture   i686", "TARVOLIN           " + installation,
                        installation + "/sys/english67.err\n                     in use",
                        "found              " + lib + "libzelrpc67",
                        "found              " + lib + "libzellnk67"});
  expectParts(run("tvinfo", "ZELRTL_VERSION=99").out,
              {"not found          dlopen(" + lib + "libzelrpc99.so)",
               "not usable         dlopen(libzelrpc99.so) failed because"});
}

TEST(TvInfo, ShowsMessages) {
  EXPECT_EQ(run("tvinfo --errno 13").out, "errno=13, EACCES, Permission denied\n");
  EXPECT_EQ(run("tvinfo --symbol host.fork9b").out, "Log of a child process\n");
  EXPECT_TRUE(run("tvinfo --symbol nonsense").exitedWith(1));
  EXPECT_TRUE(run("tvinfo --errno x").exitedWith(2));
  EXPECT_TRUE(run("tvinfo --help").exitedWith(2));
}

TEST(GStack, PrintsStacksWithAndWithoutTheDebugger) {
  const std::string pid = std::to_string(getpid());
  const ChildResult plain = run("gstack " + pid);
  EXPECT_TRUE(plain.exitedWith(0));
  expectParts(plain.out, {"Thread "});

  // The tools that the script itself needs, but no debugger.
  std::filesystem::create_directory("bin");
  for (const char* tool : {"sh", "cat", "awk", "sed"}) {
    std::filesystem::create_symlink("/usr/bin/" + std::string(tool), "bin/" + std::string(tool));
  }
  const ChildResult bare = run("gstack " + pid, "PATH=$PWD/bin");
  EXPECT_TRUE(bare.exitedWith(0));
  expectParts(bare.out, {"Thread " + pid + " (programs_test): state "});
  EXPECT_TRUE(run("gstack x").exitedWith(2));
  EXPECT_TRUE(run("gstack 999999999").exitedWith(1));
}

}  // namespace
