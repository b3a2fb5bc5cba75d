#include <povzel/utlexe.h>
#include <povzel/utlfiles.h>
#include <povzel/utlinstall.h>
#include <povzel/utloutput.h>
#include "basics/fortests.h"
#include "faults.h"
#include "tests.h"

// Works in a tree of directories of its own.
struct UtlSearch : testing::Test {
  UtlSearch() {
    fs::create_directories(at("b"));
    fs::current_path(at(""));
  }
  ~UtlSearch() override { fs::current_path("/"); }
  std::string at(const std::string& name) const { return tree_ / name; }

  const ScratchDirectory tree_;
  char found_[4096] = "";
  SysErrorSType error_ = {};
};

TEST_F(UtlSearch, FindsTheFirstThatExists) {
  for (const char* name : {"b/tool", "b/tool.x", "here"}) tree_.write(name, "");
  const std::string path = at("a") + ":" + at("b/") + ":";
  const ArraySizeType exact = static_cast<ArraySizeType>(at("b/tool").size() + 1);
  const std::tuple<std::string, const char*, const char*, ArraySizeType, std::string> cases[] = {
      {path, "tool", nullptr, exact, at("b/tool")},
      {path, "tool", ".x", 4096, at("b/tool.x")},
      {"/nonexistent::/tmp", "here", "", 4096, "here"},
      {path, "tool", nullptr, exact - 1, "tool not found in " + path}};
  for (const auto& [where, name, extension, room, outcome] : cases) {
    const bool found = UtlSearchPath(where.c_str(), name, extension, found_, room, &error_) != 0;
    EXPECT_EQ(found ? found_ : error_.errMsg, outcome);
  }
}

// Although the directory of programs is a link, and ".." has two meanings.
TEST_F(UtlSearch, CompanionsCanBeOpened) {
  for (const char* name : {"inst/sys", "real/bin"}) fs::create_directories(at(name));
  fs::create_symlink("../real/bin", at("inst/bin"));
  tree_.write("inst/sys/x.err", "");
  const auto open = [&](ArraySizeType room) {
    UtlSetExeDir("inst/bin/prog");
    const char* name = UtlFindExeFile("x", ".err", found_, room);
    return name == found_ && at("inst/sys/x.err") == name && UtlCheckAccess(name, "r", nullptr, 0);
  };
  const ArraySizeType exact = static_cast<ArraySizeType>(at("inst/bin/../sys/x.err").size() + 1);
  EXPECT_EQ(exitCode(inChild([&] { return open(exact) && !open(exact - 1) ? 0 : 1; })), 0);
}

TEST_F(UtlSearch, KnowsItsExecutable) {
  tree_.write("b/prog.x", "");
  const std::string longest(4093, 'n');
  const std::string cases[][4] = {{"/usr/local/bin/prog.x", "", "/usr/local/bin/", "prog"},
                                  {"b/prog", "", at("b/"), "prog"},
                                  {"prog.x", "/nonexistent:" + at("b"), at("b/"), "prog"},
                                  {"absent", at("b"), "", ""},
                                  {"/" + longest, "", "/", longest}};
  for (const auto& [argv0, path, directory, name] : cases) {
    const ChildResult child = runInChild([&argv0 = argv0, &path = path] {
      setenv("PATH", path.c_str(), 1);
      UtlSetExeDir(argv0.c_str());
      std::printf("%s|%s", UtlGetExeDir(), UtlGetExeName());
    });
    EXPECT_EQ(child.out, directory + "|" + name) << argv0;
  }
}

TEST(UtlInstall, ChoosesTheGlobalInstallation) {
  static std::string present;
  const std::string warning =
      "Warning: using '/opt/tarvolin' instead of '/usr/tarvolin' which also exists.\n~"
      "  This warning can be disabled by setting env variable TV_DISABLE_WARNING.\n";
  const std::tuple<const char*, const char*, std::string, std::string> cases[] = {
      {"/usr/tarvolin", "", "/usr/tarvolin/", ""},
      {"/opt/tarvolin /usr/tarvolin", "", "/opt/tarvolin/", warning},
      {"/opt/tarvolin /usr/tarvolin", "1", "/opt/tarvolin/", ""}};
  for (const auto& [directories, disable, chosen, warns] : cases) {
    present = directories;
    const ChildResult child = runInChild([disable = disable] {
      osCallsForTests.statx = [](int, const char* name, int, unsigned, struct statx*) noexcept {
        return present.find(name) != std::string::npos ? 0 : -1;
      };
      setenv("TV_DISABLE_WARNING", disable, 1);
      char pipe[4096];
      UtlBuildFifoName("srv1", pipe);
      std::printf("%s %s %s", UtlGetGlobalTarvolinDir(), UtlGetFifoDir(), pipe);
    });
    EXPECT_EQ(child.out, chosen + " " + chosen + "locks/ " + chosen + "locks/srv1..FIFO");
    EXPECT_THAT(child.err, Reads(warns));
  }
}

TEST_F(UtlSearch, HelpsWithFilesAndPipes) {
  for (const char* name : {"b/1.c", "b/2.h"}) tree_.write(name, "");
  ASSERT_TRUE(UtlDirectory(at("b/*.c").c_str(), at("list").c_str()));
  EXPECT_EQ(readFile(at("list")), at("b/1.c") + "\n");
  EXPECT_FALSE(UtlDirectory(at("b/*.c").c_str(), "/dev/full"));
  ASSERT_EQ(std::system("touch -d 2040-01-01 list b/1.c; touch -m -d @86400 list"), 0);
  std::time_t modified = 0;
  EXPECT_TRUE(UtlGetFileModTime("list", &modified, &error_));
  EXPECT_EQ(modified, 86400);
  EXPECT_FALSE(UtlGetFileModTime("b/1.c", &modified, &error_));
  EXPECT_EQ(error_.hostError, EOVERFLOW);
  EXPECT_FALSE(UtlGetFileModTime("/nonexistent", &modified, &error_));
  EXPECT_THAT(error_.errMsg, StartsWith("stat(/nonexistent): "));

  const ChildResult child = inChild([] {
    if (UtlOpenTorvClientFifo("/nonexistent/pipe", 1) != -1) return 1;
    std::fputs("quiet; ", stderr);
    return UtlOpenTorvClientFifo("/nonexistent/pipe", 0) == -1 && errno == ENOENT ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.err, Reads("quiet; ~trvcall.nofifo /nonexistent/pipe open(/nonexistent/pipe)"));
}

TEST_F(UtlSearch, FailuresOfAnyCall) {
  UtlSetExeDir(at("prog").c_str());
  std::time_t time = 0;
  const auto sweep = [&](const std::function<Said()>& operation, FaultPlan plan = {}) {
    plan.directory = at("");
    plan.prepare = [&] {
      fs::remove("list");
      tree_.write("f", "abc");
    };
    failEachCall(operation, plan);
  };
  const std::string file = at("f");
  sweep([&] { return UtlCheckAccess(file.c_str(), "r", nullptr, 1); },
        {.tolerated = {"readlink", "statx"}});
  sweep([&] { return Said{UtlGetFileModTime("f", &time, &error_) != 0, error_.hostError}; });
  sweep([&] { return UtlFindExeFile("f", "", found_, 4096) == found_; });
  sweep([&] { return UtlDirectory("*", at("list").c_str()); },
        {.tolerated = {"readlink", "statx", "getcwd", "opendir", "readdir64", "closedir"}});
  const auto append = [&] {
    sweep([&] { return UtlAppendLfToFile(file.c_str()) && readFile("f") == "abc\n"; },
          {.tolerated = {"readlink"}, .sometimesTolerated = {"statx"}});
  };
  EXPECT_THAT(printed(append),
              Reads("UtlAppendLfToFile: Operation stat() failed at line 2816: [unixerr.~"
                    "Operation fputc() failed at line 2858: [unixerr.part1 5]"));
  sweep([&] {
    const int pipe = UtlOpenTorvClientFifo("f", 0);
    return fcntl(pipe, F_GETFD) == FD_CLOEXEC && write(pipe, "x", 1) == 1 && close(pipe) == 0;
  });
}

// Output goes to the new file, or where it went before.
TEST_F(UtlSearch, OutputIsRedirectedOrNot) {
  // A call that fails after some, and a stream that is closed before. Then the file is as large as
  // a 32-bit size does not say.
  const std::tuple<const char*, int, int, bool> cases[] = {{"kill", 0, -1, true},
                                                           {"open64", 0, -1, false},
                                                           {"dup2", 1, -1, false},
                                                           {"kill", 0, STDOUT_FILENO, true},
                                                           {"kill", 0, STDERR_FILENO, true}};
  for (const auto& [call, succeed, closed, redirected] : cases) {
    const long long before = closed < 0 ? 0 : INT_MAX;
    if (before > 0) fs::resize_file(tree_.write("new", ""), before);
    const ChildResult child = inChild([call = call, succeed = succeed, closed = closed] {
      close(closed);
      const FailingCall failing(call, EIO, succeed);
      char text[300] = "";
      const BoolType done = UtlResetOutput("new", text, sizeof text);
      std::fputs("out", stdout);
      std::fputs(text, stderr);
      return done;
    });
    const std::string reason = "[utl.freopen " + at("new") + " [unixerr.part1 5]";
    EXPECT_EQ(exitCode(child), redirected) << call;
    EXPECT_EQ(child.out, redirected ? "" : "out") << call;
    EXPECT_THAT(child.err, StartsWith(redirected ? "" : reason));
    EXPECT_EQ(fs::exists("new") ? fs::file_size("new") : 0, before + (redirected ? 3 : 0));
    fs::remove("new");
  }
  // A name that does not fit is not cut to another file's.
  const std::string cut = at(std::string(4091 - at("").size(), '/') + "data") + "x";
  const ChildResult refused = inChild([&] {
    char text[5000] = "";
    return UtlResetOutput(cut.c_str(), text, sizeof text) + std::puts(text);
  });
  EXPECT_THAT(refused.out, StartsWith("[utl.freopen " + cut + " [unixerr.part1 36]"));
  EXPECT_FALSE(fs::exists("data"));
}
