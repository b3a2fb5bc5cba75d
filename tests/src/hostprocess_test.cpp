#include <povzel/hostprocess.h>

#include <poll.h>
#include <pwd.h>
#include <sys/syscall.h>

#include <chrono>

#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/utltime.h>
#include "faults.h"
#include "hostunix/internal.h"
#include "messagefile.h"
#include "messages/internal.h"
#include "tests.h"

using testing::Contains, testing::IsSupersetOf;

// The code that a child exited with, or the signal that ended it with a minus.
static int endOf(PidType child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// A directory in which any user may write, with a script that a child runs.
struct HostForking : testing::Test {
  static void SetUpTestSuite() { HostInit(); }
  void SetUp() override { fs::permissions(directory_.path(), fs::perms::all); }

  std::string at(const std::string& name) const { return directory_ / name; }
  std::string script(const std::string& text) const {
    return "\t/bin/sh  " + directory_.write("script", text) + "\n argument ";
  }
  bool startClient(const std::string& cmd, const char* user = nullptr, const char* log = "log") {
    return HostFork(cmd.c_str(), user, 0, why_, sizeof why_, "client.host", at(log).c_str(),
                    directory_.path().c_str(), &child_) != 0;
  }
  bool startServer(const std::string& cmd) {
    return HostForkServer(cmd.c_str(), why_, sizeof why_, &child_) != 0;
  }
  // Whether a child was started and succeeded, too.
  Said outcome(bool started) {
    const bool succeeded = child_ > 0 && endOf(child_) == 0;
    child_ = -1;
    return started && succeeded;
  }

  const ScratchDirectory directory_;
  char why_[2049] = "";
  PidType child_ = -1;
};

constexpr char ready[] = "eval \"echo x >&$TARVOLIN_SERVER_PIPE\"\n";

TEST_F(HostForking, ServerSaysWhenItIsReady) {
  const std::string cmd =
      script(std::string(ready) +
             "{ cut -d' ' -f6 /proc/$$/stat; echo $$; pwd; readlink /proc/$$/fd/0\n"
             "ls -l /proc/$$/fd; cat /proc/self/status; } > seen\n");
  ASSERT_EQ(dup2(STDOUT_FILENO, 9), 9);
  {
    const SignalMask mask(SIG_BLOCK, unixIoSignals(SIGTERM, SIGQUIT));
    ASSERT_TRUE(startServer(cmd)) << why_;
  }
  close(9);
  EXPECT_EQ(endOf(child_), 0);
  const std::string pid = std::to_string(child_) + "\n";
  EXPECT_THAT(
      readFile("seen"),
      AllOf(Reads(pid + pid + fs::current_path().string() +
                  "\n/dev/null\n~pipe:~SigBlk:\t0000000000000000~SigIgn:\t0000000000000002"),
            Not(HasSubstr(" 9 -> "))));
}

// Without standard output and error, what the server prints is still not its byte.
TEST_F(HostForking, ServerThatEndsWithoutAWordHasFailed) {
  const ChildResult result = inChild([&] {
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    const bool started = startServer("/bin/ls /nonexistent");
    return started || why_ != std::string("[host.serverfailed]") ? 1 : endOf(child_);
  });
  EXPECT_TRUE(result.exitedWith(2)) << result.status;
}

TEST_F(HostForking, StartsProcessesOfUsers) {
  if (geteuid() != 0) GTEST_SKIP() << "only root starts other users' processes";
  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  const std::string cmd =
      script("echo \"$HOME|$USER|$LOGNAME|$PATH|$TARVOLIN_NRS_ALL|$(id -u)|$(id -G)\"");
  setenv("TARVOLIN_NRS_ALL", "x!", 1);
  EXPECT_TRUE(outcome(startClient(cmd, "nobody", "%U-%N.log")).success) << why_;
  EXPECT_THAT(
      readFile(at("nobody-sh.log")),
      Reads("~[host.fork9a]~[host.forkClient client.host]~[version.version 6.7~[host.fork10 "
            "\t/bin/sh~\n" +
            std::string(nobody->pw_dir) +
            "|nobody|nobody|/bin:/usr/bin:/usr/ucb|x#dir:" + directory_.path() + "!|" +
            std::to_string(nobody->pw_uid) + "|" + std::to_string(nobody->pw_gid) + "\n"));
  unsetenv("TARVOLIN_NRS_ALL");
  EXPECT_FALSE(startClient("/bin/true", "no such user"));
  EXPECT_THAT(why_, StartsWith("[host.fork1 "));
  const ChildResult other = runInChild([&] {
    if (setuid(nobody->pw_uid) == 0 && !startClient("/bin/true", "daemon"))
      std::fputs(why_, stdout);
  });
  EXPECT_EQ(other.out, "[host.fork1a daemon]");
}

// A program gets its whole environment or is not started.
TEST_F(HostForking, FailsBeforeTheForkOrNotAtAll) {
  if (geteuid() != 0) GTEST_SKIP() << "only root starts other users' processes";
  const std::string cmd = script("[ $USER:$LOGNAME:$PATH = nobody:nobody:/bin:/usr/bin:/usr/ucb ]");
  const auto start = [&] { return outcome(startClient(cmd, "nobody")); };
  // The log's header names what it can.
  EXPECT_THAT(
      failEachCall(start, {.tolerated = {"getgrouplist", "readlink", "statx", "fopen64",
                                         "getpwuid_r", "getlogin_r", "open", "read", "close"},
                           .sometimesTolerated = {"getpwnam_r"}}),
      IsSupersetOf({"getpwnam_r", "malloc", "getgrouplist", "getpwuid_r", "fork"}));
}

TEST_F(HostForking, ChildTellsWhichStepFailed) {
  if (geteuid() != 0) GTEST_SKIP() << "only root starts other users' processes";
  const std::pair<const char*, std::string> steps[] = {
      {"setsid", "~setsid() failure, errno = 5,  at time = ~"},
      {"setThreadGroups", "~[host.fork13 ~]~"},
      {"setThreadGid", "~[host.fork5 ~]~"},
      {"setThreadUid", "~[host.fork6 ~]~"},
      {"chdir", "~[host.fork11 " + directory_.path() + "/]~"},
      {"open64", "~[host.fork7 ~ " + at("log") + "]~"},
      {"dup2", "~,1) failed, errno = 5, at time = ~"}};
  for (const auto& [call, report] : steps) {
    fs::remove(at("log"));
    const ChildResult result = inChild([&, call = call] {
      const FailingCall failing(call, EIO);
      return startClient("/bin/true", "nobody") ? endOf(child_) : 1;
    });
    EXPECT_TRUE(result.exitedWith(3)) << call;
    EXPECT_THAT(result.err + readFile(at("log")), Reads(report + "[unixerr.part1 5][unixerr.EIO]"));
  }
  EXPECT_EQ(truncate64(at("log").c_str(), INT_MAX), 0);
  EXPECT_TRUE(outcome(startClient("/bin/sh -c id")).success);
  EXPECT_GT(fs::file_size(at("log")), INT_MAX + 1000ULL);
  fs::remove(at("log"));
  EXPECT_FALSE(outcome(startClient("/nonexistent")).success);
  EXPECT_THAT(readFile(at("log")), Reads("~[host.fork12]~[host.fork4 ~[unixerr.ENOENT]]"));
  // A name that does not fit is not another file's.
  setenv("FORK_LONG", std::string(4200, 'x').c_str(), 1);
  for (const bool isLog : {true, false}) {
    const ChildResult result = inChild([&] {
      HostFork("/bin/true", nullptr, 0, nullptr, 0, nullptr, isLog ? "$FORK_LONG" : "log",
               isLog ? directory_.path().c_str() : "$FORK_LONG", &child_);
      return endOf(child_);
    });
    EXPECT_THAT(result.err, Reads(std::string(isLog ? "~[host.fork7 ~" : "~[host.fork11") +
                                  " $FORK_LONG]~[unixerr.ENAMETOOLONG]"));
  }
}

// Whatever other threads are at when the process forks, the child waits for none of them. More
// forks by $POVZEL_FORKS.
TEST_F(HostForking, StartsBesideBusyThreads) {
  const char* wanted = std::getenv("POVZEL_FORKS");
  const char* otherUser = geteuid() == 0 ? "nobody" : nullptr;
  std::atomic<bool> stop = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      FILE* log = std::fopen("/dev/null", "w");
      for (std::time_t second = 0; !stop; ++second) {
        UtlTimeStampMs_s(log, std::string(second % 5000, 'x').c_str(), 1);
        for (int date = 0; date < 1000; ++date) UtlCtime(second);
        HostFork("/bin/true", "no such user", 0, nullptr, 0, nullptr, nullptr, nullptr, nullptr);
      }
      std::fclose(log);
    });
  }
  constexpr int never = 60'000;  // a child that has not ended by then waits for another thread
  int longest = 0;
  for (int left = wanted != nullptr ? std::atoi(wanted) : 100; left > 0 && longest < never;
       --left) {
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(startClient("/bin/true", left % 2 != 0 ? otherUser : nullptr, "%U")) << why_;
    pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, child_, 0)), POLLIN, 0};
    if (poll(&ended, 1, never) == 0) kill(child_, SIGKILL);
    close(ended.fd);
    EXPECT_EQ(endOf(child_), 0);
    const auto took = std::chrono::steady_clock::now() - begin;
    longest = std::max<int>(longest, took / std::chrono::milliseconds(1));
  }
  RecordProperty("longestStart", longest);
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

// A child that waits for a reader of its log holds nothing that its program would not get, and
// runs no handler of the parent's.
TEST_F(HostForking, WaitingChildKeepsNothingOfItsParent) {
  const ChildResult result = inChild([&] {
    int ends[2];
    if (mkfifo(at("log").c_str(), 0600) != 0 || pipe2(ends, O_CLOEXEC) != 0) return 1;
    std::signal(SIGTERM, [](int) { _exit(2); });
    if (!startClient("/bin/true")) return 3;
    close(ends[1]);
    pollfd end = {ends[0], POLLIN, 0};
    if (poll(&end, 1, 5000) != 1) return 4;
    kill(child_, SIGTERM);
    const int log = open(at("log").c_str(), O_RDONLY | O_NONBLOCK);
    const int status = endOf(child_);
    close(log);
    return status == -SIGTERM ? 0 : 5;
  });
  EXPECT_TRUE(result.exitedWith(0)) << result.status;
}

// What becomes of its header is not the program's affair, the texts are those of the message file
// by now, a fork handler may fault, and the parent says nothing.
TEST_F(HostForking, LogBeginsWithAHeader) {
  const ChildResult result = inChild([&] {
    static sigset_t blocked;
    writeFile("test.err", compiledFile({{"host.fork9b", "host.fork9b:old\n"}}));
    setenv("TARVOLIN_LANG", "test.err", 1);
    ErrMsgInit();
    FailingCall("fopen64", EMFILE), errMsgRefresh();  // no descriptor for a moment
    writeFile("test.err", compiledFile({{"host.fork9b", "host.fork9b:new\n"}}));
    const rlimit inTheHeader{600, 600};
    setrlimit(RLIMIT_FSIZE, &inTheHeader);
    const FailingCall failing("gethostname", EIO);
    pthread_atfork([] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); }, nullptr, nullptr);
    const bool started = startClient("/bin/true", nullptr, "%M%%H");
    if (!started || sigismember(&blocked, SIGSEGV) != 0 || endOf(child_) != 0) return 1;
    return (FailingCall("fopen64", EMFILE), ErrMsgReset() || !ErrMsgGetPanicked()) ? 2 : 0;
  });
  EXPECT_TRUE(result.exitedWith(0) && result.out.empty()) << result.status << result.out;
  EXPECT_THAT(readFile(at("localhost%H")), HasSubstr(" new "));
}

// What the parent asks for the texts of messages, and the child for names and open descriptors.
const CallNames askedForTexts = {"close", "readlink", "statx", "fopen64"};
const CallNames askedByTheChild = {"close", "readlink", "statx", "getcwd"};

TEST_F(HostForking, FailuresOfAnyCall) {
  const std::string server = script(ready);
  const auto serve = [&] { return outcome(startServer(server)); };
  EXPECT_THAT(failEachCall(serve, {.tolerated = askedForTexts, .interruptible = {"fork", "read"}}),
              IsSupersetOf({"pipe2", "malloc", "fork", "close", "read"}));
  failEachCall(
      serve,
      {.tolerated = askedByTheChild, .sometimesTolerated = {"open", "fcntl"}, .inChildren = true});
  const auto log = [&] {
    fs::remove(at("log"));
    return outcome(startClient("/bin/true"));
  };
  EXPECT_THAT(failEachCall(log, {.tolerated = askedByTheChild,
                                 .sometimesTolerated = {"open", "fcntl"},
                                 .inChildren = true}),
              Not(Contains(AnyOf("malloc", "getpwnam_r", "getpwuid_r", "fopen64"))));
}

TEST(HostPerform, RunsACommandFile) {
  const ScratchDirectory scratch;
  const std::string command = scratch.write("a 'b\";$c", "cat; echo out; echo err >&2; exit 3\n");
  const std::string output = scratch / "-o '$HOME";
  std::string file = command, out = output;
  const auto perform = [&] {
    const bool performed = HostPerform(file.c_str(), out.c_str()) != 0;
    return Said(performed, errno);
  };
  std::signal(SIGCHLD, SIG_DFL);
  EXPECT_TRUE(perform().success);
  EXPECT_EQ(readFile(output), "out\nerr\n");
  failEachCall(perform, {.tolerated = {"readlink", "statx", "waitpid", "close"},
                         .directory = scratch.path(),
                         .prepare = [&] { fs::remove(output); }});
  failEachCall(perform, {.error = ECHILD, .tolerated = {"readlink", "statx", "close"}});
  EXPECT_EQ(failEachCall(perform, {.tolerated = {"setsid"}, .inChildren = true}),
            (CallNames{"setsid", "execv"}));

  const std::tuple<std::string, std::string, int> refused[] = {
      {scratch / "none", output, ENOENT},
      {scratch.path(), output, EISDIR},
      {scratch.write("127", "nonesuch"), output, ENOENT},
      {scratch.write("126", "/"), output, EACCES},
      {command, "", ENOENT},
      {command, "/proc/none", ENOENT},  // although root may write there
      {command, scratch / "none/o", ENOENT},
      {command, scratch.path(), EISDIR},
      {command, std::string(80, 'o'), ENAMETOOLONG}};
  int error;
  for (const auto& row : refused) {
    std::tie(file, out, error) = row;
    EXPECT_EQ(perform().error, error) << file << out;
  }
  // The shell has the real user's rights.
  fs::permissions(scratch.path(), fs::perms::all);
  std::tie(file, out) = std::tie(command, output);
  fs::permissions(command, fs::perms::none);
  const auto asUser = [&] {
    return setresuid(65534, 0, 0) != 1 ? static_cast<int>(perform().error) : 0;
  };
  EXPECT_EQ(exitCode(inChild(asUser)), EACCES);
}

TEST(HostChildren, LibraryReapsItsOwnOnly) {
  const auto run = [] {
    HostInstallFaultHandler(nullptr, nullptr);
    const auto end = [](pid_t child) {
      siginfo_t ended;
      kill(child, SIGKILL);
      waitid(P_PID, child, &ended, WEXITED | WNOWAIT);
    };
    int wrong = 0;
    for (const bool ownOnly : {true, false}) {
      HostReapOwnChildrenOnly(ownOnly);
      pid_t children[400];
      for (int i = 0; i < 400; ++i) {
        children[i] = fork();
        while (children[i] == 0) pause();
        if (i % 4 == 3) end(children[i]);  // before it is known
        if (i % 2 == 1) hostRememberChild(children[i]);
        wrong += i % 4 == 3 && kill(children[i], 0) == 0;
      }
      for (int i = 0; i < 400; ++i) {
        if (i % 4 != 3) end(children[i]);
        wrong += (waitpid(children[i], nullptr, 0) != -1) != (ownOnly && i % 2 == 0);
      }
    }
    PidType own = 0;
    const auto start = [&] { return HostForkServer("/bin/true", nullptr, 0, &own), own; };
    std::signal(SIGCHLD, SIG_DFL);
    // One that the program has waited for is forgotten: its id may be another's.
    const pid_t former = start();
    waitpid(former, nullptr, 0);
    HostReapOwnChildrenOnly(1);
    writeFile("/proc/sys/kernel/ns_last_pid", std::to_string(former - 1));
    const pid_t other = fork();
    if (other == 0) _exit(0);
    // One that nobody hears of is reaped with the next one's start.
    const pid_t unheard = start();
    end(unheard), end(other);
    start();
    return wrong != 0 || waitpid(other, nullptr, 0) != other || waitpid(unheard, nullptr, 0) != -1;
  };
  EXPECT_EQ(exitCode(inChild(run)), 0);
}

TEST(HostProcess, JoinsItsArguments) {
  char words[][5] = {"prog", "ab", "cde"};
  char* argv[] = {words[0], words[1], words[2], nullptr};
  const auto join = [&](char* line, std::size_t size) { HostGetCommandLine(line, size, 3, argv); };
  for (const auto& [size, line] : {std::pair(8U, "ab cde "), {7U, "ab "}, {1U, ""}}) {
    EXPECT_EQ(filled(size, join), line);
  }
}

TEST(HostProcess, KillsProcesses) {
  for (const auto& [end, signal] :
       {std::pair(&HostKillOtherProcess, SIGKILL), {&HostTerminateOtherProcess, SIGTERM}}) {
    const pid_t child = fork();
    while (child == 0) pause();
    EXPECT_TRUE(end(child));
    EXPECT_EQ(endOf(child), -signal);
    EXPECT_FALSE(end(child));
    for (const PidType group : {0, -1}) {
      const FailingCall refused("kill", EPERM);
      EXPECT_TRUE(end(group) == 0 && errno == ESRCH);
    }
  }
}

TEST(HostProcess, TellsItsKindByStandardInput) {
  writeFile("input", "x");
  const std::pair<const char*, int> cases[] = {{"input", HOST_PROCESS_BATCH},
                                               {"/dev/null", HOST_PROCESS_NETWORK},
                                               {"/dev/ptmx", HOST_PROCESS_INTERACTIVE},
                                               {nullptr, HOST_PROCESS_OTHER}};
  for (const auto& [input, kind] : cases) {
    const auto ask = [&] {
      close(STDIN_FILENO);
      if (input != nullptr && open(input, O_RDWR | O_NOCTTY) != STDIN_FILENO) return 99;
      return static_cast<int>(HostGetProcessKind());
    };
    EXPECT_EQ(exitCode(inChild(ask)), kind);
  }
}
