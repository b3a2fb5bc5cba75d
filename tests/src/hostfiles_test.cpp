#include <povzel/hostfiles.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <set>

#include <povzel/hostids.h>
#include <povzel/hostlimits.h>
#include <povzel/hostspawn.h>
#include <povzel/hostterminal.h>
#include <povzel/syserror.h>
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
  fs::create_directory(at("z\\"));
  scratch_.write("z\\/y", "");  // an escaped "/" parts no names
  EXPECT_THAT(listed(at("z\\/y")), UnorderedElementsAre());
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
  EXPECT_EQ(error, 77);
  // A write that is interrupted in the middle goes on with the rest.
  const auto write = [&] { return Said{HostWriteFile(ends[1], bytes, 8, &error) != 0, error}; };
  failEachCall(write, {.interruptible = {"write"}});
  const auto read = [&] {
    const bool whole = HostReadFile(ends[0], got, 8, &error) != 0;
    return Said(whole && std::memcmp(bytes, got, 8) == 0, error);
  };
  failEachCall(read, {.interruptible = {"read"}, .prepare = [&] { write(); }});

  // End of file in the middle.
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  while (read().success) {
  }
  EXPECT_TRUE(HostWriteFile(ends[1], bytes, 3, nullptr));
  close(ends[1]);
  error = 77;
  EXPECT_FALSE(HostReadFile(ends[0], got, 4, &error));
  EXPECT_EQ(error, 77);
  close(ends[0]);
}

TEST_F(HostFiles, FailuresOfAnyCall) {
  const std::string file = at("f");
  const std::string folder = at("d");
  const auto say = [&](bool success) { return Said(success, why_.theErrno); };
  const auto descriptor = [&](int fd) {
    why_.theErrno = errno;
    return say(fd >= 0 && close(fd) == 0);
  };
  const auto stream = [&](std::FILE* opened) {
    return say(opened != nullptr && std::fclose(opened) == 0);
  };
  const CallNames forNames = {"readlink", "stat64"};
  const CallNames forTerminals = {"tcgetpgrp", "tcsetpgrp", "fcntl"};
  struct Case {
    std::function<Said()> operation;
    CallNames tolerated = {};
    CallNames interruptible = {};
  };
  const Case cases[] = {
      {[&] { return stream(HostOpenFile(file.c_str(), "r", &why_, 1)); }, forNames},
      {[&] { return descriptor(HostOpen(file.c_str(), O_RDONLY, 0)); }, {}, {"open"}},
      {[&] { return descriptor(HostOpen64(file.c_str(), O_RDONLY, 0)); }, {}, {"open64"}},
      {[&] { return say(HostFileExist(file.c_str(), &why_)); }, {}, {"stat64"}},
      {[&] { return say(HostFileType(file.c_str(), &why_) == HOST_FILE_KIND_FILE); }},
      {[&] { return say(HostRemoveSingleFile(file.c_str(), 1, &why_)); }},
      {[&] { return say(HostCreateDirectory(folder.c_str(), &why_)); }, forNames},
      {[&] { return say(HostRemoveDirectory(at("e").c_str(), &why_)); }, forNames},
      {[&] { return HostRemoveFile(at("none*").c_str(), 1); }, forTerminals, {"waitpid"}},
      {[&] { return HostSpawn(""); }, forTerminals, {"waitpid"}}};
  setenv("SHELL", "true", 1);
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    FaultPlan plan;
    plan.tolerated = c.tolerated;
    plan.interruptible = c.interruptible;
    plan.directory = scratch_.path();
    plan.prepare = [&] {
      why_ = {};
      scratch_.write("f", "x");
      fs::remove(folder);
      fs::create_directory(at("e"));
    };
    failEachCall(c.operation, plan);
  }
  // A folder that cannot be read is an empty one.
  const FailingCall failing("opendir", EACCES);
  EXPECT_THAT(listed(at("")), UnorderedElementsAre());
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

// With real and effective ids that differ.
class HostIds : public HostFiles {
 protected:
  void SetUp() override {
    if (geteuid() != root) GTEST_SKIP() << "only root gives itself other ids";
    name_ = scratch_.write("mine", "12345");
    chmod(scratch_.path().c_str(), 0700);
  }

  // What `body` returns in a child with those ids, which it leaves as they are.
  static int under(unsigned ruid, unsigned rgid, unsigned euid, unsigned egid,
                   const std::function<int()>& body) {
    return exitCode(inChild([&] {
      if (setresgid(rgid, egid, egid) != 0 || setresuid(ruid, euid, euid) != 0) return 99;
      const int code = body();
      return geteuid() == euid && getegid() == egid ? code : 98;
    }));
  }

  std::string name_;
};

TEST_F(HostIds, UserFilesAreTouchedUnderTheRealIds) {
  const std::function<bool()> operations[] = {
      [&] { return HostOpenFile(name_.c_str(), "r", &why_, 1) != nullptr; },
      [&] { return HostRemoveSingleFile(name_.c_str(), 1, &why_) != 0; },
      [&] { return HostRemoveFile((name_ + "*").c_str(), 1) && !fs::exists(name_); }};
  for (const auto& operation : operations) {
    const auto attempt = [&] { return operation() ? -1 : why_.theErrno; };
    EXPECT_THAT(under(nobody, nobody, root, root, attempt), testing::AnyOf(EACCES, 0));
    // Without the change of ids nothing is done.
    for (const char* call : {"setegid", "seteuid"}) {
      const FailingCall failing(call, EAGAIN);
      EXPECT_THAT(under(nobody, nobody, root, root, attempt), testing::AnyOf(EAGAIN, 0)) << call;
    }
  }
  // Where the effective ids may not look, the real ones try.
  const auto look = [&] {
    unsigned long size = 0;
    BoolType exists = 0;
    if (HostFileExistSize(name_.c_str(), &size, &exists, &why_)) return static_cast<int>(size);
    return exists != 0 ? why_.theErrno : -1;
  };
  EXPECT_EQ(under(root, root, nobody, nobody, look), 5);
  EXPECT_EQ(under(other, other, nobody, nobody, look), EACCES);
  fs::remove(name_);
  EXPECT_EQ(under(root, root, nobody, nobody, look), EACCES);
}

// The effective ids must come back also where a set-id program has dropped the right to set groups.
TEST_F(HostIds, EffectiveIdsComeBackInEveryCombination) {
  const unsigned ids[][4] = {{root, root, nobody, nobody}, {nobody, nobody, root, root},
                             {nobody, other, root, root},  {root, root, nobody, other},
                             {nobody, root, root, other},  {other, other, other, other}};
  for (const auto& [ruid, rgid, euid, egid] : ids) {
    const auto change = [ruid = ruid, rgid = rgid, euid = euid, egid = egid] {
      HostUserIdSType before = {};
      HostUseRealId(&before);
      if (before.uid != euid || before.gid != egid) return 2;
      if (geteuid() != ruid || getegid() != rgid) return 3;
      HostSetUserId(nullptr);
      HostSetUserId(&before);
      return 0;
    };
    EXPECT_EQ(under(ruid, rgid, euid, egid, change), 0) << ruid << rgid << euid << egid;
  }
}

TEST(HostLimits, MaxFilesByRequest) {
  const std::string refused = "setrlimit(RLIMIT_NOFILE): ";
  const std::string variable =
      "Could not raise fd limit to the TARVOLIN_MAX_FD value of 91 because:\n " + refused;
  const std::tuple<long, const char*, int, std::string> cases[] = {
      {50, nullptr, 50, ""}, {-1, nullptr, 90, ""},   {-1, "", 90, ""},
      {-1, "70", 70, ""},    {-1, "0", 60, ""},       {-1, "x", 60, ""},
      {-1, "-5", 90, ""},    {91, "70", 60, refused}, {-1, "91", 60, variable}};
  for (const auto& [request, value, soft, message] : cases) {
    const ChildResult child =
        inChild([&, request = request, value = value, soft = soft, &message = message] {
          const rlimit limits = {60, 90};
          setrlimit(RLIMIT_NOFILE, &limits);
          if (value != nullptr) setenv("TARVOLIN_MAX_FD", value, 1);
          if (HostGetMaxFiles() != 60) return 1;
          SysErrorSType err = {};
          if (HostSetMaxFiles(request, &err) != message.empty()) return 2;
          if (!std::string(err.errMsg).starts_with(message)) return 3;
          return HostGetMaxFiles() == soft ? 0 : 4;
        });
    EXPECT_EQ(exitCode(child), 0) << request << " " << (value != nullptr ? value : "unset");
  }
  const auto set = [] {
    SysErrorSType err{};
    const bool done = HostSetMaxFiles(HostGetMaxFiles(), &err) != 0;
    return Said(done, err.hostError);
  };
  EXPECT_EQ(failEachCall(set), (CallNames{"getrlimit", "setrlimit"}));
  const long requests = sysconf(_SC_AIO_MAX);
  EXPECT_EQ(HostGetMaxAioRequests(), requests == -1 ? 128 : requests);
}

// What silent lines read and show at a terminal whose settings can be read and changed, or not.
std::string askSilently(bool isTerminal, bool obeys) {
  static bool readable;
  static bool changeable;
  readable = isTerminal;
  changeable = obeys;
  return runInChild([] {
           osCallsForTests.tcgetattr = [](int, termios* now) noexcept {
             now->c_lflag = ECHO;
             return readable ? 0 : -1;
           };
           osCallsForTests.tcsetattr = [](int, int, const termios* wanted) noexcept {
             std::fputs((wanted->c_lflag & ECHO) != 0 ? "<on>" : "<off>", stdout);
             return changeable ? 0 : -1;
           };
           writeFile("typed", "\nsecret and more\nab");
           dup2(open("typed", O_RDONLY), STDIN_FILENO);
           for (const std::size_t size : {8, 8, 0, 80, 80, 80}) {
             char line[80] = "#";
             HostSilentGetLine("? ", line, size);
             std::printf("%s|", line);
           }
         })
      .out;
}

TEST(HostTerminal, SilentLineHidesWhatIsTyped) {
  EXPECT_EQ(askSilently(false, false), "? \n|? \nsecret |? \n#|? \nand more|? \nab|? \n|");
  for (const bool obeys : {false, true}) {
    EXPECT_THAT(askSilently(true, obeys),
                testing::StartsWith("? <off><on>\n|? <off><on>\nsecret |"));
  }
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
