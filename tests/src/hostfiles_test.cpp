#include <povzel/hostfiles.h>

#include <povzel/hostfault.h>
#include <povzel/hostlimits.h>
#include <povzel/hostspawn.h>
#include <povzel/hostterminal.h>
#include "basics/fortests.h"
#include "faults.h"
#include "tests.h"

namespace {

struct HostFiles : testing::Test {
  std::string at(const std::string& name) const { return scratch_ / name; }

  const ScratchDirectory scratch_;
  HostErrSType why_ = {};
};

int closedByExec(std::FILE* file) {
  const bool closed = file != nullptr && fcntl(fileno(file), F_GETFD) == FD_CLOEXEC;
  return file != nullptr && std::fclose(file) == 0 && closed;
}

int closedByExec(int fd, HostErrSType* why) {
  if (fd == -1 && why != nullptr) why->theErrno = errno;
  return fd == -1 ? 0 : closedByExec(fdopen(fd, "r"));
}

// Each function by the names that it is given.
TEST_F(HostFiles, ResultsAndFailuresByName) {
  using Call = std::function<int(const char* name, HostErrSType* why)>;
  const Call file = [](auto name, auto why) {
    return closedByExec(HostOpenFile(name, "r", why, 1));
  };
  const Call open32 = [](auto name, auto why) { return closedByExec(HostOpen(name, 0, 0), why); };
  const Call open64 = [](auto name, auto why) { return closedByExec(HostOpen64(name, 0, 0), why); };
  const Call size = [](auto name, auto why) {
    unsigned long bytes = 77;
    BoolType exists = 77;
    HostFileExistSize(name, &bytes, &exists, why);
    return static_cast<int>(exists != 0 ? bytes : -bytes);
  };
  const Call one = [this](auto name, auto why) {
    return HostRemoveSingleFile(name, 1, why) && !fs::is_symlink(at("link"));
  };
  const Call create = [this](auto name, auto why) {
    return HostCreateDirectory(name, why) && fs::status(at("d")).permissions() == fs::perms{0750};
  };
  const auto refuses = [&](const Call& call, const std::string& name, int result, int error) {
    why_ = {};
    EXPECT_EQ(call(name.c_str(), &why_), result) << name;
    EXPECT_EQ(why_.theErrno, error) << name;
    EXPECT_EQ(call(name.c_str(), nullptr), result) << name;
  };
  const auto does = [&](const Call& call, const std::string& name, int result,
                        FaultPlan plan = {}) {
    SCOPED_TRACE(name);
    plan.directory = scratch_.path();
    plan.prepare = [&] {
      why_.theErrno = Said::nothing;
      scratch_.write("five", "12345");
      if (!fs::is_symlink(at("link"))) fs::create_symlink("five", at("link"));
      fs::create_directory(at("e"));
      fs::remove(at("d"));
    };
    const auto operation = [&] {
      const bool done = call(name.c_str(), &why_) == result;
      return Said(done, why_.theErrno);
    };
    failEachCall(operation, plan);
  };
  const ScratchDirectory apart;
  const std::string large = apart.write("large", "");
  fs::resize_file(large, (5LL << 30) + 7);
  // Nor does it matter that 32 bits do not hold their dates.
  ASSERT_EQ(std::system(("touch -d 2040-01-01 " + large + " " + apart.path()).c_str()), 0);
  setenv("FILES_TOP", scratch_.path().c_str(), 1);
  const mode_t mask = umask(027);
  const CallNames names = {"readlink", "statx"};
  does(file, "$FILES_TOP/x/../five", 1, {.tolerated = names});
  does(file, large, 1, {.tolerated = names});
  refuses(file, "$FILES_TOP/none", 0, ENOENT);
  does(open32, at("five"), 1, {.interruptible = {"open"}});
  refuses(open32, large, 0, EOVERFLOW);
  does(open64, large, 1, {.interruptible = {"open64"}});
  does(size, at("link"), 5, {.interruptible = {"statx"}});
  does(size, large, 0x40000007);
  refuses(size, at("none"), -77, ENOENT);
  refuses(size, at("five/x"), 77, ENOTDIR);
  does(HostFileType, "/dev/null", HOST_FILE_KIND_CHRDEVICE);
  does(HostFileType, apart.path(), HOST_FILE_KIND_DIR);
  refuses(HostFileType, at("none"), HOST_FILE_KIND_ERROR, ENOENT);
  does(one, at("none/../link"), 1);
  refuses(one, at("f?ve"), 0, ENOENT);
  does(create, at("x/../d"), 1, {.tolerated = names});
  refuses(create, at("e"), 0, EEXIST);
  does(HostRemoveDirectory, at("e"), 1, {.tolerated = names});
  refuses(HostRemoveDirectory, at(""), 0, ENOTEMPTY);
  // A name that does not fit is not cut to another file's.
  const std::string tooLong = at(std::string(4091 - at("").size(), '/') + "five") + "x";
  setenv("FILES_LONG", tooLong.c_str(), 1);
  scratch_.write("$FILES_LONG", "");
  fs::current_path(scratch_.path());
  for (const std::string& name : {tooLong, std::string("$FILES_LONG")}) {
    for (const Call& call : {file, one, Call(HostCreateDirectory), Call(HostRemoveDirectory)}) {
      refuses(call, name, 0, ENAMETOOLONG);
    }
    refuses(size, name, 77, ENAMETOOLONG);
  }
  fs::current_path("/");
  EXPECT_TRUE(fs::exists(at("five")) && fs::exists(at("$FILES_LONG")));
  close(HostOpen(at("new").c_str(), O_CREAT | O_WRONLY, 0604));
  EXPECT_EQ(fs::status(at("new")).permissions(), fs::perms{0600});
  EXPECT_TRUE(HostRemoveFile(at("n?w").c_str(), 0) && !fs::exists(at("new")));
  umask(mask);
}

TEST_F(HostFiles, DirectoryListsMatchingEntries) {
  for (const char* name : {"a.c", "b.c", "x\\y"}) scratch_.write(name, "");
  using Names = std::multiset<std::string>;
  const auto list = [](const std::string& wildcard) {
    Names found;
    const auto add = [](auto directory, auto entry, auto separator, void* names) -> int {
      static_cast<Names*>(names)->insert(std::string(directory) + separator + entry);
      return -1;
    };
    EXPECT_TRUE(HostDirectory(wildcard.c_str(), add, &found)) << wildcard;
    return found;
  };
  EXPECT_EQ(list(at("*.c")), (Names{at("a.c"), at("b.c")}));
  EXPECT_EQ(list(at("x\\\\y")), Names{at("x\\y")});
  EXPECT_EQ(list(scratch_.path()), (Names{at("."), at(".."), at("a.c"), at("b.c"), at("x\\y")}));
  // A folder that cannot be read is an empty one.
  const FailingCall failing("opendir", EACCES);
  EXPECT_EQ(list(at("")), Names());
}

TEST(HostFileIo, WholeBuffersAndBytes) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ByteType bytes[8] = {5, 0, 255, 4, 5, 6, 7, 8};
  ByteType got[8] = {};
  int error = 77;
  EXPECT_FALSE(HostWriteFile(ends[1], nullptr, 1, &error) || HostWriteFile(-1, bytes, 1, &error) ||
               HostReadFile(ends[0], got, -1, &error));
  EXPECT_EQ(error, 77);
  // A write that is interrupted in the middle goes on with the rest.
  const auto write = [&] { return Said{HostWriteFile(ends[1], bytes, 8, &error) != 0, error}; };
  failEachCall(write, {.interruptible = {"write"}});
  const auto read = [&] {
    const bool whole = HostReadFile(ends[0], got, 8, &error) != 0;
    return Said(whole && std::equal(bytes, bytes + 8, got), error);
  };
  failEachCall(read, {.interruptible = {"read"}, .prepare = [&] { write(); }});
  // The file ends in the middle.
  const int two = open(ScratchDirectory().write("two", "12").c_str(), O_RDONLY);
  error = 77;
  EXPECT_FALSE(HostReadFile(two, got, 4, &error));
  EXPECT_EQ(error, 77);
  for (const int fd : {two, ends[0], ends[1]}) close(fd);
  EXPECT_EQ(HostSearchBytes(bytes, 255, 3), 2);
  EXPECT_EQ(HostSearchBytes(bytes, 255, 2), -1);
}

struct Ids {
  uid_t ruid, rgid, euid, egid;
  std::optional<uid_t> saved = {};  // the effective ones if not given
};

// What `body` returns in a child with those ids, which it leaves as they are.
int under(const Ids& ids, const std::function<int()>& body) {
  return exitCode(inChild([&] {
    if (setresgid(ids.rgid, ids.egid, ids.saved.value_or(ids.egid)) != 0) return 99;
    if (setresuid(ids.ruid, ids.euid, ids.saved.value_or(ids.euid)) != 0) return 99;
    const std::string before = threadState();
    const int code = body();
    return threadState() == before ? code : 98;
  }));
}

TEST_F(HostFiles, UserFilesAreTouchedUnderTheRealIds) {
  constexpr uid_t root = 0, nobody = 65534, other = 65533, third = 65532, highest = 0xFFFFFFFE;
  if (geteuid() != root) GTEST_SKIP() << "only root gives itself other ids";
  const char kernelFile[] = "/proc/sys/kernel/cad_pid";  // only root's, by its effective id
  const std::string name = scratch_.write("mine", "");
  chmod(scratch_.path().c_str(), 0700);
  chmod(name.c_str(), 0);
  const auto openKernelFile = [&] {
    return HostOpenFile(kernelFile, "r", &why_, 1) != nullptr ? -1 : why_.theErrno;
  };
  const std::function<int()> attempts[] = {
      openKernelFile,
      [&] { return HostOpenFile(name.c_str(), "r", &why_, 1) != nullptr ? -1 : why_.theErrno; },
      [&] { return HostRemoveSingleFile(name.c_str(), 1, &why_) != 0 ? -1 : why_.theErrno; },
      [&] { return HostRemoveFile((name + "*").c_str(), 1) && !fs::exists(name) ? -1 : 0; }};
  for (const auto& attempt : attempts) {
    EXPECT_THAT(under({nobody, nobody, root, root}, attempt), AnyOf(EACCES, 0));
    // Without the change of ids nothing is done.
    for (const char* call : {"setThreadGids", "setThreadUids"}) {
      const FailingCall failing(call, EAGAIN);
      EXPECT_THAT(under({nobody, nobody, root, root}, attempt), AnyOf(EPERM, 0)) << call;
    }
  }
  // Saved ids that are neither of the others, and the highest, come back, or nothing is done.
  EXPECT_EQ(under({highest, highest, root, root, third}, openKernelFile), EACCES);
  EXPECT_EQ(under({root, root, nobody, nobody, third}, openKernelFile), 255);
  EXPECT_EQ(under({other, other, nobody, nobody, third}, openKernelFile), EPERM);
  const auto look = [&] { return HostFileExist(name.c_str(), &why_) ? 0 : why_.theErrno; };
  // Where the effective ids may not look, the real ones try.
  EXPECT_EQ(under({root, root, nobody, nobody}, look), 0);
  EXPECT_EQ(under({other, other, nobody, nobody}, look), EACCES);
}

TEST(HostLimits, MaxFilesByRequest) {
  const std::string variable =
      "60 0 60 Could not raise fd limit to the TARVOLIN_MAX_FD value of 91 because:\n setrlimit";
  const std::tuple<long, const char*, std::string> cases[] = {
      {50, "", "60 1 50 "}, {-1, "", "60 1 90 "}, {-1, "70", "60 1 70 "}, {-1, "91", variable}};
  for (const auto& [request, value, outcome] : cases) {
    const ChildResult child = runInChild([request = request, value = value] {
      const rlimit limits = {60, 90};
      setrlimit(RLIMIT_NOFILE, &limits);
      setenv("TARVOLIN_MAX_FD", value, 1);
      SysErrorSType err = {};
      std::printf("%ld ", HostGetMaxFiles());
      std::printf("%d ", HostSetMaxFiles(request, &err));
      std::printf("%ld %s", HostGetMaxFiles(), err.errMsg);
    });
    EXPECT_THAT(child.out, StartsWith(outcome));
  }
  const auto set = [] {
    SysErrorSType err{};
    const bool done = HostSetMaxFiles(HostGetMaxFiles(), &err) != 0;
    return Said(done, err.hostError);
  };
  EXPECT_EQ(failEachCall(set, {.tolerated = {"sysconf"}}),
            (CallNames{"getrlimit", "setrlimit", "sysconf"}));
  // Another limit is set between the reading of the former one and its keeping.
  const auto setMeanwhile = [] {
    osCallsForTests.sysconf = [](int name) noexcept {
      const long former = sysconf(name);
      return HostSetMaxFiles(60, nullptr) != 0 ? former : -1;
    };
    return HostGetMaxFiles() != 60 && HostGetMaxFiles() == 60 ? 0 : 1;
  };
  EXPECT_EQ(exitCode(inChild(setMeanwhile)), 0);
}

// Whether what has been read is still in the buffer of standard input.
bool isKept(const char* text) {
  const std::string read(stdin->_IO_buf_base, stdin->_IO_read_ptr);
  return (read + std::string(stdin->_IO_read_end, stdin->_IO_buf_end)).find(text) != read.npos;
}

TEST(HostTerminal, SilentLineHidesWhatIsTyped) {
  for (const bool piped : {false, true}) {
    const ChildResult child = runInChild([piped] {
      osCallsForTests.tcgetattr = [](int, termios* now) noexcept {
        now->c_lflag = ECHO;
        return 0;
      };
      osCallsForTests.tcsetattr = [](int, int, const termios* wanted) noexcept {
        std::fputs((wanted->c_lflag & ECHO) != 0 ? "<on>" : "<off>", stdout);
        return 0;
      };
      writeFile("typed", "\nsecret and more\nab");
      stdin = piped ? popen("cat typed", "r") : std::fopen("typed", "r");
      for (const std::size_t size : {8, 8, 80, 80}) {
        char line[80] = "#";
        HostSilentGetLine("? ", line, size);
        std::printf("%s%s|", line, isKept("secret") || isKept("more") ? "<kept>" : "");
      }
      std::rewind(stdin);
      std::printf("%d", std::fgetc(stdin));
    });
    const std::string first = piped ? "-1" : "10";  // nothing is read again from a pipe
    EXPECT_THAT(child.out, Reads("? <off><on>\n|? <off><on>\nsecret |~\nab|~\n|" + first));
  }
}

std::optional<Terminal> terminal;

bool showsTyping() {
  termios now;
  tcgetattr(terminal->program, &now);
  return (now.c_lflag & ECHO) != 0;
}

std::atomic<bool> acted{false};

void act(int /*signal*/) {
  std::fputs(showsTyping() ? "<shown>" : "<hidden>", stdout);
  acted = true;
}

// Answers prompts at a new terminal until a line is "end", with `key` typed or `signal` sent at the
// first.
ChildResult prompt(const char* key, int signal, sighandler_t handler, int flags) {
  terminal.emplace();
  return runInChild([&] {
    terminal->control();
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
    std::thread typist([&, reader = pthread_self()] {
      while (showsTyping()) sched_yield();
      for (const auto fork : {::fork, ::_Fork}) {
        const pid_t forked = signal == SIGALRM ? fork() : -1;
        if (forked == 0) _exit(std::raise(signal) + (acted ? 7 : 0));
        int status = 0;
        if (forked > 0 && waitpid(forked, &status, 0) == forked) std::printf("%x ", status);
      }
      if (*key == 0) signal == SIGUSR2 ? pthread_kill(reader, signal) : kill(getpid(), signal);
      while (handler == act && !acted) sched_yield();
      const std::string typed = key + std::string("correcthorsebattery\nend\n");
      if (write(terminal->user, typed.data(), typed.size()) < 0) std::abort();
    });
    char line[9] = "";
    while (std::strcmp(line, "end") != 0) {
      HostSilentGetLine("", line, sizeof line);
      std::printf("%s|", line);
    }
    typist.join();
    if (isKept("horse")) std::puts("it is in the stream's buffer");
  });
}

// The terminal shows again what is typed before a signal acts, whichever thread gets it. A line
// that is too long answers one prompt.
TEST(HostTerminal, SilentLineLetsSignalsActWithTheEchoOn) {
  for (const auto& [key, signal] : {std::pair("\x03", SIGINT), {"", SIGTERM}, {"", SIGHUP}}) {
    EXPECT_TRUE(prompt(key, signal, SIG_DFL, 0).killedBy(signal));
    EXPECT_TRUE(showsTyping()) << signal;
  }
  EXPECT_EQ(prompt("", SIGTSTP, act, SA_RESTART).out, "<shown>\ncorrecth|\nend|");
  // Processes forked meanwhile have its handler too.
  EXPECT_EQ(prompt("", SIGALRM, act, 0).out, "700 700 <shown>\n|\ncorrecth|\nend|");
  EXPECT_EQ(prompt("", SIGUSR2, act, 0).out, "<shown>\n|\ncorrecth|\nend|");
  EXPECT_EQ(prompt("", SIGUSR2, act, SA_RESTART).out, "<hidden>\ncorrecth|\nend|");
  EXPECT_EQ(prompt("", SIGINT, SIG_IGN, 0).out, "\ncorrecth|\nend|");
}

TEST(HostSpawn, ResultsActionsAndShells) {
  // The keyboard's signals act on the command alone.
  static std::atomic<int> heard = 0;
  for (const auto action : {SIG_DFL, SIG_IGN, sighandler_t([](int) { ++heard; })}) {
    std::signal(SIGINT, action);
    EXPECT_EQ(HostSpawn("kill -INT $PPID $$; exit 3"), action != SIG_IGN);
  }
  EXPECT_TRUE(HostSpawn("kill -QUIT $PPID && kill -TTOU $PPID && kill -TTIN $PPID"));
  EXPECT_EQ(heard, 0);
  EXPECT_FALSE(HostInteractiveSpawn("kill -INT $PPID; exit 1"));
  EXPECT_EQ(heard, 1);
  std::signal(SIGINT, SIG_DFL);
  setenv("SHELL", "true", 1);
  failEachCall([&] { return HostSpawn(""); },
               {.tolerated = {"tcgetpgrp", "tcsetpgrp", "fcntl"}, .interruptible = {"waitpid"}});
  const ChildResult child = inChild([] {
    setenv("SHELL", "echo", 1);
    fcntl(STDOUT_FILENO, F_SETFD, FD_CLOEXEC);
    return HostInteractiveSpawn("") ? 0 : 1;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.out, "-i\n");
  const FailingCall reapedElsewhere("waitpid", ECHILD);
  EXPECT_TRUE(HostSpawn("exit 1"));
}

TEST(HostSpawn, LeavesActionsThatAreSetMeanwhile) {
  const ChildResult child = inChild([] {
    HostReapOwnChildrenOnly(1);
    HostInstallFaultHandler(nullptr, nullptr);
    for (const char* pipe : {"begun", "end"}) mkfifo(pipe, 0600);
    std::signal(SIGTTIN, SIG_IGN);
    std::thread command(HostSpawn, "echo >begun; cat end");
    readFile("begun");
    std::signal(SIGINT, [](int) {});
    std::signal(SIGTTIN, SIG_DFL);
    struct sigaction ofChildren;
    sigaction(SIGCHLD, nullptr, &ofChildren);
    writeFile("end", "");
    command.join();
    return (std::signal(SIGINT, SIG_DFL) != SIG_DFL) +
           2 * (std::signal(SIGTTOU, SIG_DFL) == SIG_DFL) +
           4 * (std::signal(SIGTTIN, SIG_DFL) == SIG_DFL) +
           8 * (ofChildren.sa_sigaction == HostFaultHandler);
  });
  EXPECT_EQ(exitCode(child), 15);
}

}  // namespace
