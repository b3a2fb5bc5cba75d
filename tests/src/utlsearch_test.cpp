#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <sstream>

#include <povzel/utlexe.h>
#include <povzel/utlfiles.h>
#include <povzel/utlinstall.h>
#include <povzel/utloutput.h>
#include "basics/fortests.h"
#include "faults.h"
#include "process.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

// Works in a tree of directories of its own.
class UtlSearch : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"a", "b", "bin", "inst/bin", "inst/sys", "inst/exe"}) {
      fs::create_directories(at(name));
    }
    fs::current_path(at(""));
  }
  void TearDown() override { fs::current_path(before_); }
  std::string at(const std::string& name) const { return tree_ / name; }

  const fs::path before_ = fs::current_path();
  const ScratchDirectory tree_;
  char found_[4096] = "";
  SysErrorSType error_ = {};
};

TEST_F(UtlSearch, FindsTheFirstThatExists) {
  for (const char* name : {"b/tool", "b/tool.x", "here"}) tree_.write(name, "");
  const std::string path = at("a") + ":" + at("b/") + ":";
  const std::tuple<std::string, const char*, const char*, std::string> cases[] = {
      {path, "tool", nullptr, at("b/tool")},
      {path, "tool", ".x", at("b/tool.x")},
      {path, "tool.x", ".y", at("b/tool.x")},
      {"/nonexistent::/tmp", "here", "", "here"}};
  for (const auto& [where, name, extension, expected] : cases) {
    EXPECT_TRUE(UtlSearchPath(where.c_str(), name, extension, found_, sizeof found_, nullptr));
    EXPECT_EQ(found_, expected);
  }
  const ArraySizeType exact = static_cast<ArraySizeType>(at("b/tool").size() + 1);
  EXPECT_TRUE(UtlSearchPath(path.c_str(), "tool", nullptr, found_, exact, nullptr));
  EXPECT_FALSE(UtlSearchPath(path.c_str(), "/etc", nullptr, found_, sizeof found_, &error_));
  EXPECT_FALSE(SysErrorIsSet(&error_));
  EXPECT_FALSE(UtlSearchPath(path.c_str(), "tool", nullptr, found_, exact - 1, &error_));
  EXPECT_EQ(error_.errMsg, "tool not found in " + path);
  EXPECT_EQ(error_.hostError, -1);
}

TEST_F(UtlSearch, KnowsItsExecutable) {
  tree_.write("bin/prog.x", "");
  const std::string longest(4093, 'n');
  const std::string cases[][4] = {{"/usr/local/bin/prog.x", "", "/usr/local/bin/", "prog"},
                                  {"bin/prog", "", at("bin/"), "prog"},
                                  {"prog.x", "/nonexistent:" + at("bin"), at("bin/"), "prog"},
                                  {"prog.x", "bin", at("bin/"), "prog"},
                                  {"absent", at("bin"), "", ""},
                                  {"/n" + longest, "", "", ""},
                                  {"/" + longest, "", "/", longest}};
  for (const auto& [argv0, path, directory, name] : cases) {
    const ChildResult child = inChild([&argv0 = argv0, &path = path] {
      setenv("PATH", path.c_str(), 1);
      UtlSetExeDir(argv0.c_str());
      return std::printf("%s|%s", UtlGetExeDir(), UtlGetExeName()) < 0;
    });
    EXPECT_EQ(child.out, directory + "|" + name) << argv0;
  }
  const ChildResult nowhere = inChild([] {
    const FailingCall failing("getcwd", ENOENT);
    UtlSetExeDir("bin/prog");
    return std::printf("%s|%s", UtlGetExeDir(), UtlGetExeName()) < 0;
  });
  EXPECT_EQ(nowhere.out, "|");
}

TEST_F(UtlSearch, FindsCompanionFiles) {
  UtlSetExeDir(at("inst/exe/prog").c_str());
  const char* wanted = "/other/place/english67";
  EXPECT_EQ(UtlFindExeFile(wanted, ".err", found_, sizeof found_), wanted);
  for (const char* place :
       {"inst/sys/english67.err", "inst/bin/english67.err", "inst/exe/english67.err"}) {
    tree_.write(place, "");
    ASSERT_EQ(UtlFindExeFile(wanted, ".err", found_, sizeof found_), found_);
    EXPECT_EQ(fs::canonical(found_), at(place));
  }
  EXPECT_EQ(UtlFindExeFile(wanted, nullptr, found_, sizeof found_), wanted);
}

std::set<std::string> present;

TEST(UtlInstall, ChoosesTheGlobalInstallation) {
  const std::string warning =
      "Warning: using '/opt/tarvolin' instead of '/usr/tarvolin' which also exists.\n"
      "  Tarvolin will work best if only one exists.\n"
      "  Releases before 5.0 will work only with '/usr/tarvolin'.\n"
      "  Release 5.0 and later will work with either one.\n"
      "  This warning can be disabled by setting env variable TV_DISABLE_WARNING.\n";
  const std::set<std::string> both = {"/opt/tarvolin", "/usr/tarvolin"};
  const std::tuple<std::set<std::string>, const char*, std::string, std::string> cases[] = {
      {{"/opt/tarvolin"}, nullptr, "/opt/tarvolin/", ""},
      {{"/usr/tarvolin"}, nullptr, "/usr/tarvolin/", ""},
      {both, nullptr, "/opt/tarvolin/", warning},
      {both, "1", "/opt/tarvolin/", ""},
      {both, "", "/opt/tarvolin/", warning},
      {{}, nullptr, "/opt/tarvolin/", ""}};
  for (const auto& [directories, disable, chosen, warns] : cases) {
    present = directories;
    const ChildResult child = runInChild([&disable = disable] {
      osCallsForTests.stat64 = [](const char* name, struct stat64*) noexcept {
        return present.contains(name) ? 0 : -1;
      };
      if (disable != nullptr) setenv("TV_DISABLE_WARNING", disable, 1);
      char pipe[4096];
      UtlBuildFifoName("srv1", pipe);
      std::printf("%s %s %s", UtlGetGlobalTarvolinDir(), UtlGetFifoDir(), pipe);
    });
    EXPECT_EQ(child.out, chosen + " " + chosen + "locks/ " + chosen + "locks/srv1..FIFO");
    EXPECT_EQ(child.err, warns);
  }
}

TEST_F(UtlSearch, OpensPipesForClients) {
  ASSERT_EQ(mkfifo(at("pipe").c_str(), 0600), 0);
  const int reader = open(at("pipe").c_str(), O_RDONLY | O_NONBLOCK);
  const int writer = UtlOpenTorvClientFifo(at("pipe").c_str(), 0);
  EXPECT_EQ(fcntl(writer, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(write(writer, "x", 1), 1);
  close(writer);
  close(reader);
  for (const BoolType quiet : {0, 1}) {
    const ChildResult child = inChild([&] {
      return UtlOpenTorvClientFifo("/nonexistent/pipe", quiet) == -1 && errno == ENOENT ? 0 : 1;
    });
    EXPECT_TRUE(child.exitedWith(0));
    const auto report = HasSubstr("trvcall.nofifo /nonexistent/pipe open(/nonexistent/pipe)");
    EXPECT_TRUE(quiet != 0 ? child.err.empty() : testing::Value(child.err, report)) << child.err;
  }
}

TEST_F(UtlSearch, HelpsWithFiles) {
  for (const char* name : {"a/1.c", "a/2.c", "a/3.h"}) tree_.write(name, "");
  ASSERT_TRUE(UtlDirectory(at("a/*.c").c_str(), at("list").c_str()));
  std::istringstream list(readFile(at("list")));
  EXPECT_EQ(std::set<std::string>(std::istream_iterator<std::string>(list), {}),
            (std::set{at("a/1.c"), at("a/2.c")}));
  const struct timespec times[2] = {{1000, 0}, {86400, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, at("list").c_str(), times, 0), 0);
  std::time_t modified = 0;
  EXPECT_TRUE(UtlGetFileModTime(at("list").c_str(), &modified, &error_));
  EXPECT_EQ(modified, 86400);
  EXPECT_FALSE(UtlGetFileModTime("/nonexistent", &modified, &error_));
  EXPECT_THAT(error_.errMsg, StartsWith("stat(/nonexistent): "));
  EXPECT_EQ(UtlOpenFile(at("absent").c_str(), "r", found_, sizeof found_), nullptr);
  EXPECT_THAT(found_, HasSubstr("unixerr.ENOENT"));
  EXPECT_EQ(UtlOpenFile(at("absent").c_str(), "r", nullptr, 0), nullptr);
}

TEST_F(UtlSearch, FailuresOfAnyCall) {
  UtlSetExeDir(at("prog").c_str());
  const std::string name = at("f");
  HostErrSType why = {};
  std::time_t modified = 0;
  const auto access = [&] {
    return Said{UtlCheckAccess(name.c_str(), "r", &why, 1) != 0, why.theErrno};
  };
  const auto age = [&] {
    return Said{UtlGetFileModTime(name.c_str(), &modified, &error_) != 0, error_.hostError};
  };
  const auto search = [&] { return UtlSearchPath(at("").c_str(), "f", "", found_, 4096, &error_); };
  const auto find = [&] { return UtlFindExeFile("f", "", found_, 4096) == found_; };
  const auto openPipe = [&] {
    const int fd = UtlOpenTorvClientFifo(name.c_str(), 0);
    return fd >= 0 && close(fd) == 0;
  };
  const auto list = [&] { return UtlDirectory("*", at("list").c_str()); };
  const auto append = [&] { return UtlAppendLfToFile(name.c_str()) && readFile(name) == "abc\n"; };
  const CallNames folders = {"readlink", "stat64", "getcwd", "opendir", "readdir64", "closedir"};
  const std::tuple<std::function<Said()>, CallNames, CallNames> cases[] = {
      {access, {"readlink", "stat64"}, {}},
      {age, {}, {}},
      {search, {}, {}},
      {find, {}, {}},
      {openPipe, {}, {}},
      {list, folders, {}},
      {append, {"readlink"}, {"stat64"}}};
  for (const auto& [operation, tolerated, sometimes] : cases) {
    FaultPlan plan = {.tolerated = tolerated, .sometimesTolerated = sometimes, .directory = at("")};
    plan.prepare = [&] {
      fs::remove(at("list"));
      tree_.write("f", "abc");
    };
    failEachCall(operation, plan);
  }
}

// Each step that may fail, with its number.
TEST_F(UtlSearch, LineEndsAreToldByStep) {
  const std::tuple<const char*, int, std::string> steps[] = {
      {"stat64", 0, "stat() failed at line 2816"}, {"fopen", 0, "fopen() failed at line 2828"},
      {"fseek", 0, "fseek() failed at line 2834"}, {"fgetc", 0, "fgetc() failed at line 2841"},
      {"fseek", 1, "fseek() failed at line 2852"}, {"fputc", 0, "fputc() failed at line 2858"},
      {"fflush", 0, "fputc() failed at line 2858"}};
  const std::string name = tree_.write("f", "abc");
  for (const auto& [call, succeed, report] : steps) {
    const ChildResult child = inChild([&, &call = call, succeed = succeed] {
      const FailingCall failing(call, EIO, succeed);
      return UtlAppendLfToFile(name.c_str()) ? 1 : 0;
    });
    EXPECT_TRUE(child.exitedWith(0)) << call;
    EXPECT_THAT(child.err,
                HasSubstr("UtlAppendLfToFile: Operation " + report + ": [unixerr.part1 5]"));
    EXPECT_EQ(readFile(name), "abc");
  }
}

// Output goes to the new file, or where it went before.
TEST_F(UtlSearch, OutputIsRedirectedOrNot) {
  const std::tuple<const char*, int, bool> cases[] = {{"kill", 0, true},
                                                      {"open", 0, false},
                                                      {"fcntl", 0, false},
                                                      {"dup2", 0, false},
                                                      {"dup2", 1, false}};
  for (const auto& [call, succeed, redirected] : cases) {
    const ChildResult child = inChild([&call = call, succeed = succeed] {
      const FailingCall failing(call, EIO, succeed);
      char text[300] = "";
      const BoolType done = UtlResetOutput("new", text, sizeof text);
      std::fputs("out", stdout);
      std::fputs(text, stderr);
      return done;
    });
    const std::string reason = "[utl.freopen " + at("new") + " [unixerr.part1 5]";
    EXPECT_EQ(exitCode(child), redirected) << call;
    EXPECT_EQ(child.out, redirected ? "" : "out");
    EXPECT_THAT(child.err, StartsWith(redirected ? "" : reason));
    EXPECT_EQ(readFile(at("new")), redirected ? "out" : "");
    fs::remove(at("new"));
  }
}

}  // namespace
