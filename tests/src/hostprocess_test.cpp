#include <povzel/hostprocess.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/unixio.h>
#include "faults.h"
#include "process.h"

namespace {

namespace fs = std::filesystem;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

int statusOf(PidType child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// A directory in which any user may write, with a script that a child runs.
class HostForking : public testing::Test {
 protected:
  static void SetUpTestSuite() { HostInit(); }
  void SetUp() override {
    directory_ = fs::current_path() / "fork";
    fs::create_directory(directory_);
    fs::permissions(directory_, fs::perms::all);
    fs::permissions(fs::current_path(), fs::perms::all);
  }
  void TearDown() override { fs::remove_all(directory_); }

  std::string at(const std::string& name) const { return directory_ / name; }
  std::string script(const std::string& text) const {
    writeFile(at("script"), text);
    return "\t/bin/sh  " + at("script") + "\n argument ";
  }

  fs::path directory_;
  char why_[2049] = "";
  PidType child_ = -1;
};

TEST_F(HostForking, ServerSaysWhenItIsReady) {
  const std::string cmd = script(
      "eval \"echo x >&$TARVOLIN_SERVER_PIPE\"\n"
      "ls -l /proc/$$/fd > fds\n"
      "cut -d' ' -f6 /proc/$$/stat > session; echo $$ >> session\n"
      "pwd > cwd; readlink /proc/$$/fd/0 >> cwd; cat /proc/self/status > status\n");
  const int inherited = open("/dev/null", O_RDONLY);
  ASSERT_EQ(dup2(inherited, 9), 9);
  fs::current_path(directory_);
  ASSERT_TRUE(HostForkServer(cmd.c_str(), why_, sizeof why_, &child_)) << why_;
  fs::current_path("..");
  close(9);
  close(inherited);
  EXPECT_EQ(statusOf(child_), 0);
  const std::string pid = std::to_string(child_);
  EXPECT_EQ(readFile(at("session")), pid + "\n" + pid + "\n");
  EXPECT_EQ(readFile(at("cwd")), directory_.string() + "\n/dev/null\n");
  EXPECT_FALSE(contains(readFile(at("fds")), " 9 -> "));
  EXPECT_TRUE(contains(readFile(at("fds")), "pipe:"));
  EXPECT_TRUE(contains(readFile(at("status")), "SigBlk:\t0000000000000000"));
  EXPECT_TRUE(contains(readFile(at("status")), "SigIgn:\t0000000010000002"))
      << readFile(at("status"));
}

TEST_F(HostForking, ServerThatEndsWithoutAWordHasFailed) {
  EXPECT_FALSE(HostForkServer(script("exit 5").c_str(), why_, sizeof why_, &child_));
  EXPECT_STREQ(why_, "[host.serverfailed]");
  ASSERT_GT(child_, 0);
  EXPECT_EQ(WEXITSTATUS(statusOf(child_)), 5);

  testing::internal::CaptureStderr();
  EXPECT_FALSE(HostForkServer("/nonexistent/server", why_, sizeof why_, &child_));
  EXPECT_EQ(WEXITSTATUS(statusOf(child_)), 3);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(contains(report, "[host.fork12]")) << report;
  EXPECT_TRUE(contains(report, "[host.fork4 [unixerr.part1 2][unixerr.ENOENT]]")) << report;
}

TEST_F(HostForking, WhatAServerPrintsIsNotItsByte) {
  const ChildResult child = runInChild([&] {
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    _exit(HostForkServer("/bin/ls /nonexistent", why_, sizeof why_, &child_));
  });
  EXPECT_TRUE(child.exitedWith(0)) << child.status;
}

TEST_F(HostForking, ClientLogsWhatItWrites) {
  const std::string cmd = script("echo out; echo err >&2; echo \"log=$TARVOLIN_CHILD_LOG\"; pwd");
  ASSERT_TRUE(HostFork(cmd.c_str(), nullptr, 0, why_, sizeof why_, "client.host",
                       at("%N-%P.log").c_str(), directory_.c_str(), &child_))
      << why_;
  EXPECT_EQ(statusOf(child_), 0);
  const std::string name = at("sh-" + std::to_string(child_) + ".log");
  const std::string log = readFile(name);
  std::size_t from = 0;
  for (const std::string& part :
       {std::string(" ____"), std::string("[host.fork9b]"),
        std::string("[host.forkClient client.host]"), std::string("[version.version 6.7"),
        std::string("[host.fork10 \t/bin/sh"), std::string("|____"),
        std::string("out\nerr\nlog=" + name + "\n" + directory_.string())}) {
    from = log.find(part, from);
    ASSERT_NE(from, std::string::npos) << part << " in\n" << log;
  }

  ASSERT_TRUE(HostFork("/nonexistent/client", nullptr, 0, why_, sizeof why_, nullptr,
                       at("failed.log").c_str(), directory_.c_str(), &child_));
  EXPECT_EQ(WEXITSTATUS(statusOf(child_)), 3);
  EXPECT_TRUE(contains(readFile(at("failed.log")), "[host.fork12]"));
}

TEST_F(HostForking, ClientWithoutALogEnds) {
  testing::internal::CaptureStderr();
  ASSERT_TRUE(HostFork("/bin/true", nullptr, 0, why_, sizeof why_, nullptr, "/nonexistent/x.log",
                       directory_.c_str(), &child_));
  EXPECT_EQ(WEXITSTATUS(statusOf(child_)), 3);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(contains(report, "[host.fork7 " + std::to_string(child_) + " /nonexistent/x.log]"))
      << report;
  EXPECT_TRUE(contains(report, "[host.fork13 [unixerr.part1 2][unixerr.ENOENT]]"));

  testing::internal::CaptureStderr();
  ASSERT_TRUE(HostFork("/bin/true", nullptr, 0, why_, sizeof why_, nullptr, nullptr,
                       "/nonexistent/dir", &child_));
  EXPECT_EQ(WEXITSTATUS(statusOf(child_)), 3);
  EXPECT_TRUE(contains(testing::internal::GetCapturedStderr(), "[host.fork11 /nonexistent/dir]"));
}

// A log that is a pipe without a reader: the child would wait for ever.
TEST_F(HostForking, ChildThatCannotGetReadyGivesUp) {
  ASSERT_EQ(mkfifo(at("log").c_str(), 0600), 0);
  testing::internal::CaptureStderr();
  ASSERT_TRUE(HostFork("/bin/true", nullptr, 0, why_, sizeof why_, nullptr, at("log").c_str(),
                       directory_.c_str(), &child_));
  while (getsid(child_) != child_) std::this_thread::yield();
  kill(child_, SIGALRM);  // its time is up
  EXPECT_EQ(WEXITSTATUS(statusOf(child_)), 3);
  EXPECT_TRUE(contains(testing::internal::GetCapturedStderr(),
                       "HostFork: the child took too long to prepare itself.\n"));
}

TEST_F(HostForking, DaemonStartsProcessesOfUsers) {
  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  const std::string tag = "#dir:" + directory_.string();
  const std::string named = "#dir:/y " + directory_.string();
  const std::pair<std::string, std::string> cases[] = {
      {"x!", "x" + tag + "!"}, {"x", "x" + tag}, {"", tag}, {named, named}};
  for (const auto& [before, after] : cases) {
    setenv("TARVOLIN_NRS_ALL", before.c_str(), 1);
    const std::string cmd =
        script("echo \"$HOME|$USER|$LOGNAME|$PATH|$TARVOLIN_NRS_ALL|$(id -u)|$(id -G)\" > who");
    ASSERT_TRUE(HostFork(cmd.c_str(), "nobody", 0, why_, sizeof why_, nullptr, at("%U.log").c_str(),
                         directory_.c_str(), &child_))
        << why_;
    EXPECT_EQ(statusOf(child_), 0);
    EXPECT_EQ(readFile(at("who")),
              std::string(nobody->pw_dir) + "|nobody|nobody|/bin:/usr/bin:/usr/ucb|" + after + "|" +
                  std::to_string(nobody->pw_uid) + "|" + std::to_string(nobody->pw_gid) + "\n");
    EXPECT_TRUE(contains(readFile(at("nobody.log")), "[host.fork9a]"));
    fs::remove(at("who"));
  }
  unsetenv("TARVOLIN_NRS_ALL");
}

// A child starts with its whole environment or not at all.
TEST_F(HostForking, FailsBeforeTheForkWithoutAnyCall) {
  setenv("HOME", "/daemons", 1);
  const std::string cmd = script("[ \"$HOME:$USER:$LOGNAME\" != /daemons:nobody:nobody ]\n");
  const auto start = [&] {
    if (!HostFork(cmd.c_str(), "nobody", 0, why_, sizeof why_, nullptr, at("log").c_str(),
                  directory_.c_str(), &child_)) {
      return Said{false};
    }
    return Said{statusOf(child_) == 0};
  };
  const CallNames failed = failEachCall(start, {});
  for (const std::string& name : failed) std::puts(name.c_str());
}

TEST_F(HostForking, RefusesUsersBeforeForking) {
  EXPECT_FALSE(HostFork("/bin/true", "no such user", 0, why_, sizeof why_, nullptr, nullptr,
                        nullptr, &child_));
  EXPECT_TRUE(contains(why_, "[host.fork1 ")) << why_;
  const ChildResult other = runInChild([&] {
    if (setuid(getpwnam("nobody")->pw_uid) != 0) _exit(1);
    if (HostFork("/bin/true", "daemon", 0, why_, sizeof why_, nullptr, nullptr, nullptr, &child_)) {
      _exit(2);
    }
    std::printf("%s", why_);
  });
  EXPECT_EQ(other.out, "[host.fork1a daemon]");
}

// A thousand forks and commands while the process is pelted with the signals that it handles and
// survives. The SIGCHLD handler may reap a child first, so each child tells its own end as well.
TEST_F(HostForking, LosesNothingUnderAStormOfSignals) {
  const std::string ends = at("ends");
  writeFile(at("client"), "echo >> " + ends + "\n");
  writeFile(at("server"), "eval \"echo x >&$TARVOLIN_SERVER_PIPE\"; echo >> " + ends + "\n");
  writeFile(at("failing"), "echo >> " + ends + "\n");
  const ChildResult child = runInChild([&] {
    HostInstallFaultHandler(nullptr, nullptr);
    fs::current_path(directory_);
    const auto descriptors = [] {
      return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = descriptors();
    std::atomic<bool> stop{false};
    const pthread_t worker = pthread_self();
    std::thread storm([&] {
      std::mt19937 random(4711);
      const int signals[] = {SIGCHLD, SIGHUP, SIGPIPE, SIGIO, SIGCHLD};
      const struct timespec pause = {0, 200000};
      while (!stop) {
        pthread_kill(worker, signals[random() % 5]);
        nanosleep(&pause, nullptr);
      }
    });
    for (int count = 0; count < 250; ++count) {
      if (!HostFork("/bin/sh client", nullptr, 0, why_, sizeof why_, nullptr, "log", ".",
                    &child_)) {
        _exit(1);
      }
      if (!HostForkServer("/bin/sh server", why_, sizeof why_, &child_)) _exit(2);
      if (HostForkServer("/bin/sh failing", why_, sizeof why_, &child_)) _exit(3);
      if (HostForkServer("/nonexistent", why_, sizeof why_, &child_) || child_ <= 0) _exit(4);
      for (int command = 0; command < 4; ++command) {
        const bool fails = command % 2 != 0;
        if (UnixIoSystem(fails ? "exit 3" : "exit 0", 0) != (fails ? -1 : 0)) _exit(5);
      }
    }
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    if (errno != ECHILD) _exit(6);
    stop = true;
    storm.join();
    if (descriptors() != before) _exit(7);
  });
  EXPECT_TRUE(child.exitedWith(0)) << child.status << child.err.substr(0, 1000);
  EXPECT_EQ(readFile(ends), std::string(750, '\n'));
}

TEST(HostPerform, RunsACommandFile) {
  std::signal(SIGCHLD, SIG_DFL);
  fs::create_directories("/tmp/pvz");
  writeFile("/tmp/pvz/c", "cat; echo out; echo err >&2; exit 3\n");
  EXPECT_TRUE(HostPerform("/tmp/pvz/c", "/tmp/pvz/o"));
  EXPECT_EQ(readFile("/tmp/pvz/o"), "out\nerr\n");
  struct sigaction action;
  sigaction(SIGCHLD, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
  fs::remove("/tmp/pvz/o");
  const std::string longName = "/tmp/pvz/" + std::string(81 - 9 - 10, 'o');
  EXPECT_FALSE(HostPerform("/tmp/pvz/c", longName.c_str()));
  EXPECT_TRUE(fs::exists("/tmp/pvz/c") && !fs::exists(longName));
  fs::remove_all("/tmp/pvz");
}

TEST(HostProcess, JoinsItsArguments) {
  char program[] = "prog";
  char first[] = "ab";
  char second[] = "cde";
  char* argv[] = {program, first, second, nullptr};
  struct Case {
    ArraySizeType length;
    int argc;
    const char* expected;
  };
  const Case cases[] = {{8, 3, "ab cde "}, {7, 3, "ab "}, {4, 3, "ab "}, {3, 3, ""},
                        {8, 1, ""},        {8, 0, ""},    {1, 3, ""}};
  for (const Case& one : cases) {
    char line[9] = "########";
    HostGetCommandLine(line, one.length, one.argc, argv);
    EXPECT_STREQ(line, one.expected) << one.length;
    EXPECT_EQ(line[one.length], one.length == 8 ? '\0' : '#');
  }
}

TEST(HostProcess, KillsProcesses) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    const pid_t child = fork();
    if (child == 0) {
      for (;;) pause();
    }
    EXPECT_TRUE(signal == SIGKILL ? HostKillOtherProcess(child) : HostTerminateOtherProcess(child));
    EXPECT_EQ(WTERMSIG(statusOf(child)), signal);
    EXPECT_FALSE(HostKillOtherProcess(child));
    EXPECT_EQ(errno, ESRCH);
  }
  const ChildResult self = runInChild([] {
    HostInstallFaultHandler([] { std::fputs("flushed", stderr); }, nullptr);
    HostKillProcess();
  });
  EXPECT_TRUE(self.killedBy(SIGKILL));
  EXPECT_EQ(self.err, "flushed");
  PidType id = 0;
  EXPECT_TRUE(HostGetProcessId(&id));
  EXPECT_EQ(id, getpid());
}

TEST(HostProcess, TellsItsKindByStandardInput) {
  struct Case {
    const char* input;
    HostProcessEType kind;
  };
  writeFile("input", "x");
  for (const Case& one :
       {Case{"input", HOST_PROCESS_BATCH}, Case{"/dev/null", HOST_PROCESS_NETWORK},
        Case{"/dev/ptmx", HOST_PROCESS_INTERACTIVE}, Case{nullptr, HOST_PROCESS_OTHER}}) {
    const ChildResult child = runInChild([&] {
      close(STDIN_FILENO);
      if (one.input != nullptr && open(one.input, O_RDWR | O_NOCTTY) != STDIN_FILENO) _exit(99);
      _exit(HostGetProcessKind());
    });
    EXPECT_TRUE(child.exitedWith(one.kind)) << one.kind;
  }
}

}  // namespace
