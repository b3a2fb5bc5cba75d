#include <povzel/hostfiles.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <set>

#include <povzel/hostids.h>
#include <povzel/hostlimits.h>
#include <povzel/hostsigterm.h>
#include <povzel/hostspawn.h>
#include <povzel/hostterminal.h>
#include <povzel/unixerr.h>
#include "basics/fortests.h"
#include "faults.h"
#include "process.h"

namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;

constexpr unsigned root = 0;
constexpr unsigned nobody = 65534;
constexpr unsigned other = 65533;

class HostFiles : public testing::Test {
 protected:
  std::string at(const std::string& name) const { return scratch_ / name; }

  const ScratchDirectory scratch_;
  HostErrSType why_ = {};
};

TEST_F(HostFiles, OpenExpandsAndReports) {
  scratch_.write("f", "text");
  setenv("FILES_TOP", scratch_.path().c_str(), 1);
  std::FILE* file = HostOpenFile("$FILES_TOP/x/../f", "r", &why_, 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(fcntl(fileno(file), F_GETFD), FD_CLOEXEC);
  std::fclose(file);
  EXPECT_EQ(HostOpenFile("$FILES_TOP/none", "r", nullptr, 0), nullptr);

  EXPECT_EQ(HostOpen("$FILES_TOP/f", O_RDONLY, 0), -1);
  const int created = HostOpen(at("new").c_str(), O_CREAT | O_WRONLY, 0640);
  struct stat64 status;
  ASSERT_EQ(fstat64(created, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
  EXPECT_EQ(fcntl(created, F_GETFD), FD_CLOEXEC);
  close(created);
  fs::resize_file(at("new"), (5LL << 30) + 7);
  EXPECT_EQ(HostOpen(at("new").c_str(), O_RDONLY, 0), -1);
  EXPECT_EQ(errno, EOVERFLOW);
  const int large = HostOpen64(at("new").c_str(), O_RDONLY, 0);
  EXPECT_EQ(fcntl(large, F_GETFD), FD_CLOEXEC);
  close(large);
}

TEST_F(HostFiles, ExistenceAndSize) {
  scratch_.write("five", "12345");
  scratch_.write("large", "");
  fs::resize_file(at("large"), (5LL << 30) + 7);
  fs::create_symlink("five", at("link"));
  fs::create_symlink("loop", at("loop"));
  const std::tuple<const char*, int, unsigned long> cases[] = {
      {"five", 0, 5},       {"link", 0, 5},          {"large", 0, 0x40000007},
      {"none", ENOENT, 77}, {"five/x", ENOTDIR, 77}, {"loop", ELOOP, 77}};
  for (const auto& [name, error, expected] : cases) {
    unsigned long size = 77;
    BoolType exists = 77;
    why_ = {};
    EXPECT_EQ(HostFileExistSize(at(name).c_str(), &size, &exists, &why_), error == 0) << name;
    EXPECT_EQ(exists, error != ENOENT) << name;
    EXPECT_EQ(size, expected) << name;
    EXPECT_EQ(why_.theErrno, error) << name;
  }
  EXPECT_FALSE(HostFileExistSize(at("none").c_str(), nullptr, nullptr, nullptr));
}

TEST_F(HostFiles, KindByMode) {
  const std::pair<mode_t, HostFileKindEType> cases[] = {
      {S_IFREG, HOST_FILE_KIND_FILE},      {S_IFDIR, HOST_FILE_KIND_DIR},
      {S_IFCHR, HOST_FILE_KIND_CHRDEVICE}, {S_IFBLK, HOST_FILE_KIND_BLKDEVICE},
      {S_IFIFO, HOST_FILE_KIND_OTHER},     {S_IFSOCK, HOST_FILE_KIND_OTHER}};
  const OsCalls kept = osCallsForTests;
  static mode_t shown;
  osCallsForTests.stat64 = [](const char*, struct stat64* status) noexcept {
    status->st_mode = shown | 0644;
    return 0;
  };
  for (const auto& [mode, kind] : cases) {
    shown = mode;
    EXPECT_EQ(HostFileType("any", nullptr), kind) << mode;
  }
  osCallsForTests = kept;
}

TEST_F(HostFiles, RemoveByName) {
  for (const char* name : {"a.x", "b.x", "c.y", "target"}) scratch_.write(name, "x");
  fs::create_symlink("target", at("link"));
  EXPECT_FALSE(HostRemoveSingleFile(at("?.x").c_str(), 0, &why_));
  EXPECT_EQ(why_.theErrno, ENOENT);
  EXPECT_TRUE(fs::exists(at("a.x")));
  EXPECT_TRUE(HostRemoveSingleFile(at("none/../link").c_str(), 0, &why_));
  EXPECT_TRUE(fs::exists(at("target")) && !fs::is_symlink(at("link")));
  EXPECT_FALSE(HostRemoveSingleFile(at("link").c_str(), 0, nullptr));

  EXPECT_TRUE(HostRemoveFile(at("?.x").c_str(), 0));
  EXPECT_FALSE(fs::exists(at("a.x")) || fs::exists(at("b.x")));
  EXPECT_TRUE(HostRemoveFile(at("c.y").c_str(), 0));
  EXPECT_FALSE(HostRemoveFile(at("c.y").c_str(), 0));
  EXPECT_FALSE(HostRemoveFile((std::string(5000, 'n') + "*").c_str(), 0));
}

TEST_F(HostFiles, Directories) {
  const mode_t mask = umask(027);
  EXPECT_TRUE(HostCreateDirectory(at("x/../d").c_str(), &why_));
  umask(mask);
  EXPECT_EQ(fs::status(at("d")).permissions(), fs::perms{0750});
  EXPECT_FALSE(HostCreateDirectory(at("d").c_str(), nullptr));
  EXPECT_FALSE(HostRemoveDirectory(scratch_.path().c_str(), &why_));
  EXPECT_EQ(why_.theErrno, ENOTEMPTY);
  EXPECT_TRUE(HostRemoveDirectory(at("d").c_str(), nullptr));
}

std::multiset<std::string> listed(const std::string& wildcard) {
  std::multiset<std::string> found;
  const auto add = [](const char* directory, const char* entry, const char* separator,
                      void* data) -> int {
    static_cast<std::multiset<std::string>*>(data)->insert(std::string(directory) + separator +
                                                           entry);
    return -1;
  };
  EXPECT_TRUE(HostDirectory(wildcard.c_str(), add, &found)) << wildcard;
  return found;
}

TEST_F(HostFiles, DirectoryListsMatchingEntries) {
  for (const char* name : {"a.c", "b.c", "n.h", "x\\y"}) scratch_.write(name, "");
  EXPECT_THAT(listed(at("*.c")), UnorderedElementsAre(at("a.c"), at("b.c")));
  EXPECT_THAT(listed(at("none/../[!-m].h")), UnorderedElementsAre());
  EXPECT_THAT(listed(at("x\\\\y")), UnorderedElementsAre(at("x\\y")));
  const auto all =
      UnorderedElementsAre(at("a.c"), at("b.c"), at("n.h"), at("x\\y"), at("."), at(".."));
  EXPECT_THAT(listed(at("")), all);
  EXPECT_THAT(listed(scratch_.path()), all);
  EXPECT_THAT(listed("/tm?"), UnorderedElementsAre("//tmp"));
  EXPECT_THAT(listed(""), UnorderedElementsAre());
}

TEST_F(HostFiles, ReadAndWriteWholeBuffers) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ByteType bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ByteType got[8] = {};
  int error = 77;
  EXPECT_FALSE(HostWriteFile(ends[1], nullptr, 1, &error));
  EXPECT_FALSE(HostWriteFile(-1, bytes, 1, &error));
  EXPECT_FALSE(HostWriteFile(ends[1], bytes, 0, &error));
  EXPECT_FALSE(HostReadFile(ends[0], got, -1, &error));
  EXPECT_FALSE(HostReadFile(ends[0], nullptr, 1, &error));

  const auto transfer = [&] {
    error = 0;
    if (!HostWriteFile(ends[1], bytes, 8, &error)) return Said{false, error};
    while (!HostReadFile(ends[0], got, 8, &error)) {
      if (error != EIO) return Said{false, error};
    }
    return Said{std::memcmp(bytes, got, 8) == 0, error};
  };
  EXPECT_EQ(failEachCall(transfer, {.sometimesTolerated = {"read"}}), (CallNames{"read", "write"}));
  EXPECT_EQ(failEachCall(transfer, {.error = EINTR, .tolerated = {"read", "write"}}),
            (CallNames{"read", "write"}));

  // End of file in the middle.
  EXPECT_TRUE(HostWriteFile(ends[1], bytes, 3, nullptr));
  close(ends[1]);
  error = 77;
  EXPECT_FALSE(HostReadFile(ends[0], got, 4, &error));
  EXPECT_EQ(error, 77);
  close(ends[0]);
}

TEST_F(HostFiles, FailuresOfAnyCall) {
  const CallNames expanding = {"readlink", "stat64", "getcwd"};
  const auto say = [&](bool success) { return Said{success, why_.theErrno}; };
  const auto opened = [&](int fd) {
    return say(fd >= 0 ? close(fd) == 0 : (why_.theErrno = errno, false));
  };
  struct Case {
    std::function<Said()> operation;
    CallNames tolerated;
    CallNames interruptible;
    bool mayBeDone = false;
  };
  const Case cases[] = {
      {[&] {
         std::FILE* file = HostOpenFile(at("f").c_str(), "r", &why_, 1);
         return say(file != nullptr && std::fclose(file) == 0);
       },
       expanding,
       {}},
      {[&] { return opened(HostOpen(at("f").c_str(), O_RDONLY, 0)); }, {}, {"open"}},
      {[&] { return opened(HostOpen64(at("f").c_str(), O_RDONLY, 0)); }, {}, {"open64"}},
      {[&] { return say(HostFileExist(at("f").c_str(), &why_)); }, {}, {"stat64"}},
      {[&] { return say(HostFileType(at("f").c_str(), &why_) != HOST_FILE_KIND_ERROR); }, {}, {}},
      {[&] { return say(HostRemoveSingleFile(at("f").c_str(), 1, &why_)); }, {}, {}},
      {[&] { return say(HostCreateDirectory(at("d").c_str(), &why_)); }, expanding, {}},
      {[&] { return say(HostRemoveDirectory(at("e").c_str(), &why_)); }, expanding, {}},
      {[&] { return Said{HostRemoveFile(at("f*").c_str(), 1) != 0}; },
       {"tcgetpgrp", "tcsetpgrp"},
       {"waitpid"},
       true},
      {[&] { return Said{HostSpawn("") != 0}; }, {"fcntl", "tcgetpgrp", "tcsetpgrp"}, {"waitpid"}},
      // A folder that cannot be read is an empty one.
      {[&] { return Said{!listed(at("")).empty() || true}; },
       {"readlink", "stat64", "opendir", "readdir64", "closedir"},
       {}},
  };
  setenv("SHELL", "true", 1);
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    FaultPlan plan;
    plan.tolerated = c.tolerated;
    if (!c.mayBeDone) plan.directory = scratch_.path();
    plan.prepare = [&] {
      why_ = {};
      scratch_.write("f", "x");
      fs::remove(at("d"));
      fs::create_directory(at("e"));
    };
    failEachCall(c.operation, plan);
    plan.error = EINTR;
    plan.tolerated.insert(c.interruptible.begin(), c.interruptible.end());
    failEachCall(c.operation, plan);
    // Nothing goes on when the process has been asked to end.
    for (const std::string& call : c.interruptible) {
      const FailingCall failing(call, EINTR);
      HostIncrementSigTerm();
      EXPECT_FALSE(c.operation().success) << call;
      EXPECT_EQ(HostClearSigTerm(), 1);
    }
  }
}

TEST(HostFileIo, PositionsAndBytes) {
  std::FILE* file = std::tmpfile();
  std::fputs("0123456789", file);
  long position = 0;
  Hostftell(file, &position);
  EXPECT_EQ(position, 10);
  position = 4;
  Hostfseek(file, &position);
  EXPECT_EQ(std::fgetc(file), '4');
  std::fclose(file);

  const ByteType bytes[] = {5, 0, 255, 5};
  EXPECT_EQ(HostSearchBytes(bytes, 5, 4), 0);
  EXPECT_EQ(HostSearchBytes(bytes, 255, 4), 2);
  EXPECT_EQ(HostSearchBytes(bytes, 255, 2), -1);
  EXPECT_EQ(HostSearchBytes(nullptr, 5, 0), -1);
  HostResetIo();
}

// With real and effective ids that differ; group and user of a child have the same number.
class HostIds : public HostFiles {
 protected:
  void SetUp() override {
    if (geteuid() != root) GTEST_SKIP() << "only root gives itself other ids";
    scratch_.write("mine", "12345");
    chmod(scratch_.path().c_str(), 0700);
  }
  static bool effectiveAre(unsigned id) { return geteuid() == id && getegid() == id; }

  // Runs `body` in a child; the code that it returns.
  static int under(unsigned real, unsigned effective, const std::function<int()>& body) {
    return exitCode(inChild([&] {
      if (setresgid(real, effective, effective) != 0 || setresuid(real, effective, effective) != 0)
        return 99;
      const int code = body();
      return effectiveAre(effective) ? code : 98;
    }));
  }
};

TEST_F(HostIds, UserFilesAreTouchedUnderTheRealIds) {
  const std::string name = at("mine");
  EXPECT_EQ(0, under(nobody, root, [&] {
              if (HostOpenFile(name.c_str(), "r", &why_, 1) != nullptr || why_.theErrno != EACCES)
                return 1;
              if (HostRemoveSingleFile(name.c_str(), 1, &why_) || why_.theErrno != EACCES) return 2;
              HostRemoveFile(at("m*").c_str(), 1);
              std::FILE* file = HostOpenFile(name.c_str(), "r", &why_, 0);
              return file != nullptr ? std::fclose(file) : 3;
            }));
  // Where the effective ids may not look, the real ones try.
  const auto look = [&] {
    unsigned long size = 0;
    BoolType exists = 0;
    const BoolType found = HostFileExistSize(name.c_str(), &size, &exists, &why_);
    if (exists == 0) return 1;
    return found ? static_cast<int>(size) : 100 + why_.theErrno;
  };
  EXPECT_EQ(under(root, nobody, look), 5);
  EXPECT_EQ(under(other, nobody, look), 100 + EACCES);
}

TEST_F(HostIds, NothingIsDoneWithoutTheRealIds) {
  for (const char* call : {"setegid", "seteuid"}) {
    const std::function<bool()> operations[] = {
        [&] { return HostOpenFile(at("mine").c_str(), "r", &why_, 1) != nullptr; },
        [&] { return HostRemoveSingleFile(at("mine").c_str(), 1, &why_) != 0; },
        [&] {
          return HostRemoveFile(at("mine*").c_str(), 1) != 0 || (why_.theErrno = errno, false);
        }};
    for (const auto& operation : operations) {
      EXPECT_EQ(0, under(nobody, root,
                         [&] {
                           const FailingCall failing(call, EAGAIN);
                           return operation() ? 1 : why_.theErrno == EAGAIN ? 0 : 2;
                         }))
          << call;
    }
  }
}

// The effective ids must come back also where a set-id program has dropped the right to set groups.
TEST_F(HostIds, EffectiveIdsComeBackInEveryCombination) {
  const unsigned ids[][4] = {{root, root, nobody, nobody}, {nobody, nobody, root, root},
                             {nobody, other, root, root},  {root, root, nobody, other},
                             {nobody, root, root, other},  {other, other, other, other}};
  for (const auto& [ruid, rgid, euid, egid] : ids) {
    const ChildResult child = inChild([&, ruid = ruid, rgid = rgid, euid = euid, egid = egid] {
      if (setresgid(rgid, egid, 0) != 0 || setresuid(ruid, euid, 0) != 0) return 1;
      HostUserIdSType before = {};
      HostUseRealId(&before);
      if (before.uid != euid || before.gid != egid) return 2;
      if (geteuid() != ruid || getegid() != rgid) return 3;
      HostSetUserId(nullptr);
      HostSetUserId(&before);
      return geteuid() == euid && getegid() == egid ? 0 : 4;
    });
    EXPECT_EQ(exitCode(child), 0) << ruid << " " << rgid << " " << euid << " " << egid;
  }
}

TEST(HostLimits, MaxFilesByRequest) {
  struct Case {
    long request;
    const char* variable;
    rlim_t soft;
    std::string message;
  };
  const std::string refused = "setrlimit(RLIMIT_NOFILE): ";
  const Case cases[] = {
      {50, nullptr, 50, ""},
      {-1, nullptr, 90, ""},
      {-1, "", 90, ""},
      {-1, "70", 70, ""},
      {-1, "0", 60, ""},
      {-1, "nonsense", 60, ""},
      {-1, "-5", 90, ""},
      {91, "70", 60, refused},
      {-1, "91", 60,
       "Could not raise fd limit to the TARVOLIN_MAX_FD value of 91 because:\n " + refused},
  };
  for (const Case& c : cases) {
    const ChildResult child = inChild([&] {
      const rlimit limits = {60, 90};
      if (setrlimit(RLIMIT_NOFILE, &limits) != 0) return 2;
      unsetenv("TARVOLIN_MAX_FD");
      if (c.variable != nullptr) setenv("TARVOLIN_MAX_FD", c.variable, 1);
      if (HostGetMaxFiles() != 60) return 3;
      SysErrorSType err;
      SysErrorClear(&err);
      if (HostSetMaxFiles(c.request, &err) != c.message.empty()) return 4;
      if (HostGetMaxFiles() != static_cast<long>(c.soft)) return 5;
      return std::string(err.errMsg).starts_with(c.message) ? 0 : 6;
    });
    EXPECT_EQ(exitCode(child), 0) << c.request << " " << (c.variable ? c.variable : "unset");
  }
  const auto set = [] {
    SysErrorSType err{};
    const bool done = HostSetMaxFiles(HostGetMaxFiles(), &err) != 0;
    return Said{done, static_cast<int>(err.hostError)};
  };
  EXPECT_EQ(failEachCall(set), (CallNames{"getrlimit", "setrlimit"}));
  const long requests = sysconf(_SC_AIO_MAX);
  EXPECT_EQ(HostGetMaxAioRequests(), requests == -1 ? 128 : requests);
}

TEST(HostTerminal, SilentLineHidesWhatIsTyped) {
  const auto ask = [](bool terminal, bool refuses) {
    return inChild([&] {
             static bool answers;
             static bool silences;
             answers = terminal;
             silences = !refuses;
             osCallsForTests.tcgetattr = [](int, termios* now) noexcept {
               now->c_lflag = ECHO;
               return answers ? 0 : -1;
             };
             osCallsForTests.tcsetattr = [](int, int, const termios* wanted) noexcept {
               std::fputs((wanted->c_lflag & ECHO) != 0 ? "<on>" : "<off>", stdout);
               return silences ? 0 : -1;
             };
             std::FILE* typed = std::tmpfile();
             std::fputs("\nsecret and more\nab", typed);
             std::rewind(typed);
             dup2(fileno(typed), STDIN_FILENO);
             for (const std::size_t size : {8, 8, 0, 80, 80, 80}) {
               char line[80] = "#";
               HostSilentGetLine("? ", line, size);
               std::printf("%s|", line);
             }
             return 0;
           })
        .out;
  };
  EXPECT_EQ(ask(false, false), "? \n|? \nsecret |? \n#|? \nand more|? \nab|? \n|");
  EXPECT_THAT(ask(true, false), testing::StartsWith("? <off><on>\n|? <off><on>\nsecret |"));
  EXPECT_THAT(ask(true, true), testing::StartsWith("? <off><on>\n|? <off><on>\nsecret |"));
}

TEST(HostSpawn, ResultsActionsAndShells) {
  EXPECT_TRUE(HostSpawn("exit 0"));
  EXPECT_FALSE(HostSpawn("exit 1"));
  EXPECT_TRUE(HostSpawn("grep -q 'SigIgn:.*30[02]006$' /proc/self/status"));
  EXPECT_FALSE(HostInteractiveSpawn("grep -q 'SigIgn:.*30[02]006$' /proc/self/status"));
  {
    const FailingCall reapedElsewhere("waitpid", ECHILD);
    EXPECT_TRUE(HostSpawn("exit 1"));
  }
  const ScratchDirectory scratch;
  const std::string shell = scratch.write("shell", "#!/bin/sh\necho \"shell $*\"\n");
  chmod(shell.c_str(), 0755);
  const ChildResult child = inChild([&] {
    struct sigaction action = {};
    action.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &action, nullptr);
    setenv("SHELL", shell.c_str(), 1);
    fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
    if (!HostInteractiveSpawn("")) return 1;
    sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler == SIG_DFL && (action.sa_flags & SA_NOCLDSTOP) != 0 ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.out, "shell -i\n");
}

}  // namespace
