#include <povzel/hostfiles.h>

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstring>
#include <set>

#include <povzel/hostids.h>
#include <povzel/hostlimits.h>
#include <povzel/hostsigterm.h>
#include <povzel/hostspawn.h>
#include <povzel/hostterminal.h>
#include <povzel/unixerr.h>
#include "surroundings.h"
#include "terminal.h"
#include "ticking.h"

namespace {

using testing::UnorderedElementsAre;

constexpr unsigned root = 0;
constexpr unsigned nobody = 65534;
constexpr unsigned other = 65533;

bool useIds(unsigned real, unsigned effective) {
  return setgroups(0, nullptr) == 0 && setresgid(real, effective, effective) == 0 &&
         setresuid(real, effective, effective) == 0;
}

bool effectiveAre(unsigned id) {
  return geteuid() == id && getegid() == id;
}

TEST(HostFiles, OpenExpandsAndReports) {
  const ScratchDirectory scratch;
  scratch.write("f", "text");
  setenv("FILES_TOP", scratch.path().c_str(), 1);
  HostErrSType why = {};
  std::FILE* file = HostOpenFile("$FILES_TOP/x/../f", "r", &why, 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(fcntl(fileno(file), F_GETFD), FD_CLOEXEC);
  std::fclose(file);
  EXPECT_EQ(HostOpenFile("$FILES_TOP/none", "r", &why, 1), nullptr);
  EXPECT_EQ(why.theErrno, ENOENT);
  EXPECT_EQ(HostOpenFile("$FILES_TOP/none", "r", nullptr, 0), nullptr);

  EXPECT_EQ(HostOpen("$FILES_TOP/f", O_RDONLY, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  const int created = HostOpen((scratch / "new").c_str(), O_CREAT | O_WRONLY, 0640);
  struct stat64 status;
  ASSERT_EQ(fstat64(created, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
  EXPECT_EQ(fcntl(created, F_GETFD), FD_CLOEXEC);
  close(created);
  std::filesystem::resize_file(scratch / "new", (5LL << 30) + 7);
  EXPECT_EQ(HostOpen((scratch / "new").c_str(), O_RDONLY, 0), -1);
  EXPECT_EQ(errno, EOVERFLOW);
  const int large = HostOpen64((scratch / "new").c_str(), O_RDONLY, 0);
  EXPECT_EQ(fcntl(large, F_GETFD), FD_CLOEXEC);
  close(large);
}

std::string fifo;

TEST(HostFiles, OpenGoesOnAfterSignals) {
  const ScratchDirectory scratch;
  fifo = scratch / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const auto opener : {HostOpen, HostOpen64}) {
    static int writer;
    startTicking([] { writer = open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); });
    const int reader = opener(fifo.c_str(), O_RDONLY, 0);
    stopTicking();
    EXPECT_GE(reader, 0);
    EXPECT_GE(ticks, 3);
    close(reader);
    close(writer);

    startTicking(HostIncrementSigTerm);
    EXPECT_EQ(opener(fifo.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, EINTR);
    stopTicking();
    EXPECT_EQ(HostClearSigTerm(), 1);
  }
}

TEST(HostFiles, ExistSizeAndKindByFile) {
  const ScratchDirectory scratch;
  scratch.write("five", "12345");
  scratch.write("large", "");
  std::filesystem::resize_file(scratch / "large", (5LL << 30) + 7);
  std::filesystem::create_symlink("five", scratch / "link");
  std::filesystem::create_symlink("none", scratch / "dangling");
  std::filesystem::create_symlink("loop", scratch / "loop");
  ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(mknod((scratch / "block").c_str(), S_IFBLK | 0600, 0), 0);
  struct Case {
    std::string name;
    int error;
    unsigned long size;
    HostFileKindEType kind;
  };
  const Case cases[] = {
      {scratch / "five", 0, 5, HOST_FILE_KIND_FILE},
      {scratch / "link", 0, 5, HOST_FILE_KIND_FILE},
      {scratch / "large", 0, 0x40000007, HOST_FILE_KIND_FILE},
      {scratch / "dangling", ENOENT, 0, HOST_FILE_KIND_ERROR},
      {scratch / "none", ENOENT, 0, HOST_FILE_KIND_ERROR},
      {scratch / "loop", ELOOP, 0, HOST_FILE_KIND_ERROR},
      {scratch / "five/x", ENOTDIR, 0, HOST_FILE_KIND_ERROR},
      {scratch / "fifo", 0, 0, HOST_FILE_KIND_OTHER},
      {scratch / "block", 0, 0, HOST_FILE_KIND_BLKDEVICE},
      {"/dev/null", 0, 0, HOST_FILE_KIND_CHRDEVICE},
      {"/", 0, ~0UL, HOST_FILE_KIND_DIR},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    unsigned long size = 77;
    BoolType exists = 77;
    HostErrSType why = {};
    EXPECT_EQ(HostFileExistSize(c.name.c_str(), &size, &exists, &why), c.error == 0);
    EXPECT_EQ(exists, c.error != ENOENT);
    EXPECT_EQ(why.theErrno, c.error);
    if (c.size != ~0UL) {
      EXPECT_EQ(size, c.error == 0 ? c.size : 77);
    }
    why = {};
    EXPECT_EQ(HostFileExist(c.name.c_str(), &why), c.error == 0);
    EXPECT_EQ(why.theErrno, c.error);
    why = {};
    EXPECT_EQ(HostFileType(c.name.c_str(), &why), c.kind);
    EXPECT_EQ(why.theErrno, c.error);
  }
  EXPECT_FALSE(HostFileExistSize((scratch / "none").c_str(), nullptr, nullptr, nullptr));
}

// Where the effective ids may not look, the real ones try; either way the effective ids are back.
TEST(HostFiles, ExistSizeAsksUnderTheRealIdsToo) {
  const ScratchDirectory scratch;
  std::filesystem::create_directory(scratch / "closed");
  scratch.write("closed/f", "12345");
  chmod((scratch / "closed").c_str(), 0700);
  const ChildResult asRoot = inChild([&] {
    if (!useIds(root, nobody)) return 1;
    unsigned long size = 0;
    BoolType exists = 0;
    HostErrSType why = {};
    if (!HostFileExistSize((scratch / "closed/f").c_str(), &size, &exists, &why)) return 2;
    return size == 5 && exists == 1 && effectiveAre(nobody) ? 0 : 3;
  });
  EXPECT_EQ(exitCode(asRoot), 0);
  const ChildResult asOther = inChild([&] {
    if (!useIds(other, nobody)) return 1;
    BoolType exists = 0;
    HostErrSType why = {};
    if (HostFileExistSize((scratch / "closed/f").c_str(), nullptr, &exists, &why)) return 2;
    return exists == 1 && why.theErrno == EACCES && effectiveAre(nobody) ? 0 : 3;
  });
  EXPECT_EQ(exitCode(asOther), 0);
}

TEST(HostFiles, UserFilesAreTouchedUnderTheRealIds) {
  const ScratchDirectory scratch;
  const std::string name = scratch.write("mine", "x");
  chmod(scratch.path().c_str(), 0755);
  chmod(name.c_str(), 0600);
  const ChildResult child = inChild([&] {
    if (!useIds(nobody, root)) return 1;
    HostErrSType why = {};
    if (HostOpenFile(name.c_str(), "r", &why, 1) != nullptr || why.theErrno != EACCES) return 2;
    if (!effectiveAre(root)) return 3;
    if (HostRemoveSingleFile(name.c_str(), 1, &why) || why.theErrno != EACCES) return 4;
    if (HostRemoveFile(name.c_str(), 1) || !effectiveAre(root)) return 5;
    if (HostRemoveFile((scratch / "m*").c_str(), 1) || !effectiveAre(root)) return 6;
    std::FILE* file = HostOpenFile(name.c_str(), "r", &why, 0);
    if (file == nullptr) return 7;
    std::fclose(file);
    if (HostRemoveSingleFile((scratch / "none*").c_str(), 1, &why)) return 8;
    return why.theErrno == ENOENT && effectiveAre(root) ? 0 : 9;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_TRUE(std::filesystem::exists(name));
}

// The real ids must come back also where a set-id program has dropped the right to set groups.
TEST(HostFiles, EffectiveIdsComeBackInEveryCombination) {
  const unsigned ids[][4] = {{root, root, nobody, nobody}, {nobody, nobody, root, root},
                             {nobody, other, root, root},  {root, root, nobody, other},
                             {nobody, root, root, other},  {other, other, other, other}};
  for (const auto& row : ids) {
    const unsigned ruid = row[0];
    const unsigned rgid = row[1];
    const unsigned euid = row[2];
    const unsigned egid = row[3];
    const ChildResult child = inChild([&] {
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

TEST(HostFiles, RemoveByName) {
  const ScratchDirectory scratch;
  for (const char* name : {"a.x", "b.x", "c.y", "target"}) scratch.write(name, "x");
  std::filesystem::create_symlink("target", scratch / "link");
  HostErrSType why = {};
  EXPECT_FALSE(HostRemoveSingleFile((scratch / "?.x").c_str(), 0, &why));
  EXPECT_EQ(why.theErrno, ENOENT);
  EXPECT_TRUE(std::filesystem::exists(scratch / "a.x"));
  EXPECT_TRUE(HostRemoveSingleFile((scratch / "none/../link").c_str(), 0, &why));
  EXPECT_TRUE(std::filesystem::exists(scratch / "target"));
  EXPECT_FALSE(std::filesystem::is_symlink(scratch / "link"));
  EXPECT_FALSE(HostRemoveSingleFile((scratch / "link").c_str(), 0, nullptr));

  EXPECT_TRUE(HostRemoveFile((scratch / "?.x").c_str(), 0));
  EXPECT_FALSE(std::filesystem::exists(scratch / "a.x"));
  EXPECT_FALSE(std::filesystem::exists(scratch / "b.x"));
  EXPECT_TRUE(HostRemoveFile((scratch / "c.y").c_str(), 0));
  EXPECT_FALSE(HostRemoveFile((scratch / "c.y").c_str(), 0));
  EXPECT_FALSE(HostRemoveFile((std::string(5000, 'n') + "*").c_str(), 0));
}

TEST(HostFiles, Directories) {
  const ScratchDirectory scratch;
  HostErrSType why = {};
  const mode_t mask = umask(027);
  EXPECT_TRUE(HostCreateDirectory((scratch / "x/../d").c_str(), &why));
  umask(mask);
  struct stat64 status;
  ASSERT_EQ(stat64((scratch / "d").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750U);
  EXPECT_FALSE(HostCreateDirectory((scratch / "d").c_str(), &why));
  EXPECT_EQ(why.theErrno, EEXIST);
  EXPECT_FALSE(HostRemoveDirectory(scratch.path().c_str(), &why));
  EXPECT_EQ(why.theErrno, ENOTEMPTY);
  EXPECT_TRUE(HostRemoveDirectory((scratch / "d").c_str(), nullptr));
  EXPECT_FALSE(HostRemoveDirectory((scratch / "d").c_str(), nullptr));
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

TEST(HostFiles, DirectoryListsMatchingEntries) {
  const ScratchDirectory scratch;
  for (const char* name : {"a.c", "b.c", "n.h", "x\\y"}) scratch.write(name, "");
  EXPECT_THAT(listed(scratch / "*.c"), UnorderedElementsAre(scratch / "a.c", scratch / "b.c"));
  EXPECT_THAT(listed(scratch / "none/../[!-m].h"), UnorderedElementsAre());
  EXPECT_THAT(listed(scratch / "x\\\\y"), UnorderedElementsAre(scratch / "x\\y"));
  const auto all = UnorderedElementsAre(scratch / "a.c", scratch / "b.c", scratch / "n.h",
                                        scratch / "x\\y", scratch / ".", scratch / "..");
  EXPECT_THAT(listed(scratch / ""), all);
  EXPECT_THAT(listed(scratch.path()), all);
  EXPECT_THAT(listed("/tm?"), UnorderedElementsAre("//tmp"));
  EXPECT_THAT(listed(""), UnorderedElementsAre());
  EXPECT_THAT(listed(scratch / "none/*"), UnorderedElementsAre());
}

TEST(HostFiles, ReadAndWriteWholeBuffers) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ByteType bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  int error = 77;
  EXPECT_FALSE(HostWriteFile(ends[1], nullptr, 1, &error));
  EXPECT_FALSE(HostWriteFile(-1, bytes, 1, &error));
  EXPECT_FALSE(HostWriteFile(ends[1], bytes, 0, &error));
  EXPECT_FALSE(HostReadFile(ends[0], bytes, -1, &error));
  EXPECT_FALSE(HostReadFile(ends[0], nullptr, 1, &error));
  EXPECT_EQ(error, 77);
  EXPECT_TRUE(HostWriteFile(ends[1], bytes, 8, &error));
  ByteType got[8] = {};
  EXPECT_TRUE(HostReadFile(ends[0], got, 8, &error));
  EXPECT_EQ(std::memcmp(bytes, got, 8), 0);
  EXPECT_EQ(error, 77);
  EXPECT_FALSE(HostReadFile(ends[1], got, 1, &error));
  EXPECT_EQ(error, EBADF);
  EXPECT_FALSE(HostWriteFile(ends[0], bytes, 1, nullptr));

  // Interrupted before the second half comes.
  static int writeEnd;
  writeEnd = ends[1];
  EXPECT_TRUE(HostWriteFile(ends[1], bytes, 4, nullptr));
  startTicking([] {
    if (write(writeEnd, "abcd", 4) != 4) std::abort();
  });
  EXPECT_TRUE(HostReadFile(ends[0], got, 8, &error));
  stopTicking();
  EXPECT_EQ(error, EINTR);
  EXPECT_EQ(std::memcmp(got, "\1\2\3\4abcd", 8), 0);

  startTicking(HostIncrementSigTerm);
  EXPECT_FALSE(HostReadFile(ends[0], got, 1, nullptr));
  stopTicking();
  HostClearSigTerm();

  // End of file in the middle.
  EXPECT_TRUE(HostWriteFile(ends[1], bytes, 3, nullptr));
  close(ends[1]);
  error = 77;
  EXPECT_FALSE(HostReadFile(ends[0], got, 4, &error));
  EXPECT_FALSE(HostReadFile(ends[0], got, 4, &error));
  EXPECT_EQ(error, 77);
  close(ends[0]);
}

TEST(HostFiles, PositionsAndBytes) {
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

TEST(HostLimits, MaxFilesByRequest) {
  struct Case {
    long request;
    const char* variable;
    BoolType result;
    rlim_t soft;
    const char* message;
  };
  const Case cases[] = {
      {50, nullptr, 1, 50, ""},
      {-1, nullptr, 1, 90, ""},
      {-1, "", 1, 90, ""},
      {-1, "70", 1, 70, ""},
      {-1, "0", 1, 60, ""},
      {-1, "nonsense", 1, 60, ""},
      {-1, "-5", 1, 90, ""},
      {91, "70", 0, 60, "setrlimit(RLIMIT_NOFILE): "},
      {-1, "91", 0, 60,
       "Could not raise fd limit to the TARVOLIN_MAX_FD value of 91 because:\n"
       " setrlimit(RLIMIT_NOFILE): "},
  };
  for (const Case& c : cases) {
    const ChildResult child = inChild([&] {
      if (setresuid(nobody, nobody, nobody) != 0) return 1;
      const rlimit limits = {60, 90};
      if (setrlimit(RLIMIT_NOFILE, &limits) != 0) return 2;
      unsetenv("TARVOLIN_MAX_FD");
      if (c.variable != nullptr) setenv("TARVOLIN_MAX_FD", c.variable, 1);
      if (HostGetMaxFiles() != 60) return 3;
      SysErrorSType err;
      SysErrorClear(&err);
      if (HostSetMaxFiles(c.request, &err) != c.result) return 4;
      if (HostGetMaxFiles() != static_cast<long>(c.soft)) return 5;
      std::string message = c.message;
      if (!message.empty()) {
        char why[200];
        UnixErr(err.hostError, why, sizeof why);
        message += why;
      }
      return err.errMsg == message ? 0 : 6;
    });
    EXPECT_EQ(exitCode(child), 0) << c.request << " " << (c.variable ? c.variable : "unset");
  }
  const long requests = sysconf(_SC_AIO_MAX);
  EXPECT_EQ(HostGetMaxAioRequests(), requests == -1 ? 128 : requests);
}

TEST(HostTerminal, SilentLineHidesWhatIsTyped) {
  const ChildResult child = inChild([] {
    const Terminal terminal;
    std::signal(SIGHUP, SIG_IGN);  // comes when the terminal goes
    terminal.control();
    if (write(terminal.user, "\n", 1) != 1) return 1;
    char line[8] = "#######";
    static termios during;
    HostSilentGetLine("first: ", line, sizeof line);
    if (line[0] != '\0') return 2;
    static int user;
    user = terminal.user;
    startTicking(
        [] {
          tcgetattr(STDIN_FILENO, &during);
          if (write(user, "secret and more\n", 16) != 16) std::abort();
        },
        true);
    HostSilentGetLine("second: ", line, sizeof line);
    stopTicking();
    if (std::strcmp(line, "secret ") != 0) return 3;
    termios after;
    tcgetattr(STDIN_FILENO, &after);
    return (during.c_lflag & ECHO) == 0 && (after.c_lflag & ECHO) != 0 ? 0 : 4;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.out, "first: \nsecond: \n");

  const ChildResult withoutTerminal = inChild([] {
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "ab", 2) != 2) return 1;
    close(ends[1]);
    dup2(ends[0], STDIN_FILENO);
    char line[8] = "#######";
    HostSilentGetLine("", line, 0);
    if (line[0] != '#') return 2;
    HostSilentGetLine("", line, sizeof line);
    if (std::strcmp(line, "ab") != 0) return 3;
    HostSilentGetLine("", line, sizeof line);
    return line[0] == '\0' ? 0 : 4;
  });
  EXPECT_EQ(exitCode(withoutTerminal), 0);
}

TEST(HostSpawn, ResultsActionsAndShells) {
  EXPECT_TRUE(HostSpawn("exit 0"));
  EXPECT_FALSE(HostSpawn("exit 1"));
  EXPECT_TRUE(HostSpawn("grep -q 'SigIgn:.*30[02]006$' /proc/self/status"));
  EXPECT_FALSE(HostInteractiveSpawn("grep -q 'SigIgn:.*30[02]006$' /proc/self/status"));
  const ScratchDirectory scratch;
  const std::string shell = scratch.write("shell", "#!/bin/sh\necho \"shell $*\"\n");
  chmod(shell.c_str(), 0755);
  const ChildResult child = inChild([&] {
    struct sigaction before = {};
    before.sa_handler = SIG_DFL;
    before.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &before, nullptr);
    setenv("SHELL", shell.c_str(), 1);
    fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
    if (!HostInteractiveSpawn("")) return 1;
    struct sigaction after;
    sigaction(SIGCHLD, nullptr, &after);
    return after.sa_handler == SIG_DFL && (after.sa_flags & SA_NOCLDSTOP) != 0 ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.out, "shell -i\n");
}

}  // namespace
