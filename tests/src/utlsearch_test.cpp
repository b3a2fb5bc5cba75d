#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <povzel/hostfname.h>
#include <povzel/hostinit.h>
#include <povzel/utlexe.h>
#include <povzel/utlfiles.h>
#include <povzel/utlinstall.h>
#include "process.h"

namespace {

namespace fs = std::filesystem;

// A tree of directories below the test's own, removed at the end.
class UtlSearch : public testing::Test {
 protected:
  void SetUp() override {
    base_ = fs::current_path() / "tree";
    for (const char* name : {"a", "b", "inst/bin", "inst/sys", "inst/exe"}) {
      fs::create_directories(base_ / name);
    }
  }
  void TearDown() override { fs::remove_all(base_); }
  std::string at(const std::string& name) const { return base_ / name; }

 private:
  fs::path base_;
};

TEST_F(UtlSearch, FindsTheFirstThatExists) {
  writeFile(at("b/tool"), "");
  writeFile(at("b/tool.x"), "");
  const std::string path = at("a") + ":" + at("b/") + ":";
  char found[4096];
  EXPECT_TRUE(UtlSearchPath(path.c_str(), "tool", nullptr, found, sizeof found, nullptr));
  EXPECT_EQ(found, at("b/tool"));
  EXPECT_TRUE(UtlSearchPath(path.c_str(), "tool", ".x", found, sizeof found, nullptr));
  EXPECT_EQ(found, at("b/tool.x"));
  EXPECT_TRUE(UtlSearchPath(path.c_str(), "tool.x", ".y", found, sizeof found, nullptr));
  EXPECT_EQ(found, at("b/tool.x"));

  writeFile("here", "");
  EXPECT_TRUE(UtlSearchPath("/nonexistent::/tmp", "here", "", found, sizeof found, nullptr));
  EXPECT_STREQ(found, "here");
  fs::remove("here");

  const ArraySizeType exact = static_cast<ArraySizeType>(at("b/tool").size() + 1);
  EXPECT_TRUE(UtlSearchPath(path.c_str(), "tool", nullptr, found, exact, nullptr));
  SysErrorSType error{};
  EXPECT_FALSE(UtlSearchPath(path.c_str(), "tool", nullptr, found, exact - 1, &error));
  EXPECT_EQ(error.errMsg, "tool not found in " + path);
  EXPECT_EQ(error.hostError, -1);
  SysErrorClear(&error);
  EXPECT_FALSE(UtlSearchPath(path.c_str(), "/etc", nullptr, found, sizeof found, &error));
  EXPECT_FALSE(SysErrorIsSet(&error));
}

TEST_F(UtlSearch, KnowsItsExecutable) {
  struct Case {
    std::string argv0;
    std::string path;
    std::string directory;
    std::string name;
  };
  fs::create_directories(at("bin"));
  writeFile(at("bin/prog.x"), "");
  fs::current_path(at(""));
  const Case cases[] = {
      {"/usr/local/bin/prog.x", "", "/usr/local/bin/", "prog"},
      {"bin/prog", "", at("bin/"), "prog"},
      {"prog.x", "/nonexistent:" + at("bin"), at("bin/"), "prog"},
      {"prog.x", "bin", at("bin/"), "prog"},
      {"absent", at("bin"), "", ""},
      {"/" + std::string(4094, 'n'), "", "", ""},
      {"/" + std::string(4093, 'n'), "", "/", std::string(4093, 'n')},
  };
  for (const Case& one : cases) {
    const ChildResult child = runInChild([&] {
      setenv("PATH", one.path.c_str(), 1);
      UtlSetExeDir(one.argv0.c_str());
      std::printf("%s|%s", UtlGetExeDir(), UtlGetExeName());
    });
    EXPECT_EQ(child.out, one.directory + "|" + one.name) << one.argv0;
  }
  fs::current_path("..");
}

TEST_F(UtlSearch, FindsCompanionFiles) {
  UtlSetExeDir(at("inst/exe/prog").c_str());
  char found[4096];
  const char* wanted = "/other/place/english67";
  EXPECT_EQ(UtlFindExeFile(wanted, ".err", found, sizeof found), wanted);
  for (const char* place :
       {"inst/sys/english67.err", "inst/bin/english67.err", "inst/exe/english67.err"}) {
    writeFile(at(place), "");
    ASSERT_EQ(UtlFindExeFile(wanted, ".err", found, sizeof found), found);
    EXPECT_EQ(fs::canonical(found), at(place));
  }
  EXPECT_EQ(UtlFindExeFile(wanted, nullptr, found, sizeof found), wanted);
}

// Gives this child a root of its own, in which only `directories` exist. Other users than root may
// do that in a user namespace.
void enterEmptyRoot(const std::string& root, std::initializer_list<const char*> directories) {
  for (const char* directory : directories) fs::create_directories(root + directory);
  if (geteuid() != 0) unshare(CLONE_NEWUSER);
  if (chroot(root.c_str()) != 0 || chdir("/") != 0) _exit(99);
}

TEST_F(UtlSearch, ChoosesTheGlobalInstallation) {
  struct Case {
    std::initializer_list<const char*> directories;
    const char* disable;
    const char* chosen;
    bool warns;
  };
  const Case cases[] = {
      {{"/opt/tarvolin"}, nullptr, "/opt/tarvolin/", false},
      {{"/usr/tarvolin"}, nullptr, "/usr/tarvolin/", false},
      {{"/opt/tarvolin", "/usr/tarvolin"}, nullptr, "/opt/tarvolin/", true},
      {{"/opt/tarvolin", "/usr/tarvolin"}, "1", "/opt/tarvolin/", false},
      {{"/opt/tarvolin", "/usr/tarvolin"}, "", "/opt/tarvolin/", true},
      {{"/tmp"}, nullptr, "/opt/tarvolin/", false},
  };
  int number = 0;
  for (const Case& one : cases) {
    const std::string root = at("root" + std::to_string(number++));
    const ChildResult child = runInChild([&] {
      enterEmptyRoot(root, one.directories);
      if (one.disable != nullptr) setenv("TV_DISABLE_WARNING", one.disable, 1);
      char pipe[4096];
      UtlBuildFifoName("srv1", pipe);
      std::printf("%s %s %s", UtlGetGlobalTarvolinDir(), UtlGetFifoDir(), pipe);
    });
    const std::string chosen = one.chosen;
    EXPECT_EQ(child.out, chosen + " " + chosen + "locks/ " + chosen + "locks/srv1..FIFO");
    EXPECT_EQ(child.err,
              one.warns ? "Warning: using '/opt/tarvolin' instead of '/usr/tarvolin' which also "
                          "exists.\n"
                          "  Tarvolin will work best if only one exists.\n"
                          "  Releases before 5.0 will work only with '/usr/tarvolin'.\n"
                          "  Release 5.0 and later will work with either one.\n"
                          "  This warning can be disabled by setting env variable "
                          "TV_DISABLE_WARNING.\n"
                        : "");
  }
}

TEST_F(UtlSearch, OpensPipesForClients) {
  ASSERT_EQ(mkfifo(at("pipe").c_str(), 0600), 0);
  const int reader = open(at("pipe").c_str(), O_RDONLY | O_NONBLOCK);
  const int writer = UtlOpenTorvClientFifo(at("pipe").c_str(), 0);
  EXPECT_GE(writer, 0);
  EXPECT_EQ(fcntl(writer, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(write(writer, "x", 1), 1);
  close(writer);
  close(reader);

  for (const BoolType quiet : {0, 1}) {
    const ChildResult child = runInChild([&] {
      if (UtlOpenTorvClientFifo("/nonexistent/pipe", quiet) != -1 || errno != ENOENT) _exit(1);
    });
    EXPECT_TRUE(child.exitedWith(0));
    EXPECT_EQ(child.err.find("trvcall.nofifo /nonexistent/pipe open(/nonexistent/pipe)") !=
                  std::string::npos,
              quiet == 0)
        << child.err;
  }
}

TEST_F(UtlSearch, HelpsWithFiles) {
  writeFile(at("a/1.c"), "");
  writeFile(at("a/2.c"), "");
  writeFile(at("a/3.h"), "");
  ASSERT_TRUE(UtlDirectory(at("a/*.c").c_str(), at("list").c_str()));
  const std::string list = readFile(at("list"));
  EXPECT_NE(list.find(at("a/1.c") + "\n"), std::string::npos);
  EXPECT_NE(list.find(at("a/2.c") + "\n"), std::string::npos);
  EXPECT_EQ(list.find("3.h"), std::string::npos);
  EXPECT_FALSE(UtlDirectory(at("a/*.c").c_str(), "/nonexistent/list"));

  HostErrSType why{};
  EXPECT_TRUE(UtlCheckAccess(at("list").c_str(), "r", &why, 1));
  EXPECT_FALSE(UtlCheckAccess(at("absent").c_str(), "r", &why, 0));
  EXPECT_EQ(why.theErrno, ENOENT);

  char text[300] = "";
  FILE* file = UtlOpenFile(at("list").c_str(), "r", text, sizeof text);
  ASSERT_NE(file, nullptr);
  std::fclose(file);
  EXPECT_EQ(UtlOpenFile(at("absent").c_str(), "r", text, sizeof text), nullptr);
  EXPECT_NE(std::strstr(text, "unixerr.ENOENT"), nullptr) << text;
  EXPECT_EQ(UtlOpenFile(at("absent").c_str(), "r", nullptr, 0), nullptr);

  const struct timespec times[2] = {{1000, 0}, {86400, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, at("list").c_str(), times, 0), 0);
  std::time_t modified = 0;
  SysErrorSType error{};
  EXPECT_TRUE(UtlGetFileModTime(at("list").c_str(), &modified, &error));
  EXPECT_EQ(modified, 86400);
  EXPECT_FALSE(UtlGetFileModTime("/nonexistent", &modified, &error));
  EXPECT_EQ(std::string(error.errMsg).rfind("stat(/nonexistent): ", 0), 0u) << error.errMsg;
  EXPECT_EQ(error.hostError, ENOENT);
}

}  // namespace
