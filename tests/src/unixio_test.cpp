#include <povzel/unixio.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <fstream>

#include <povzel/hostdebug.h>
#include <povzel/hostsigterm.h>
#include <povzel/unixerr.h>
#include "process.h"

namespace {

using testing::ContainsRegex;
using testing::StartsWith;

int typeInto = -1;

void handler(int, siginfo_t*, void*) {}

void handler1(int) {}

bool isFull(const sigset_t& set) {
  for (int sig = 1; sig <= SIGRTMAX; ++sig) {
    const bool reserved = sig == SIGKILL || sig == SIGSTOP || (sig >= __SIGRTMIN && sig < SIGRTMIN);
    if (!reserved && sigismember(&set, sig) != 1) return false;
  }
  return true;
}

TEST(UnixIoSignal, ActionsByInstaller) {
  struct Case {
    const char* name;
    void (*install)(struct sigaction* old);
    int flags;
    bool oneArgument;
  };
  const Case cases[] = {
      {"DO_SIGNAL", [](struct sigaction* old) { UNIXIO_DO_SIGNAL(SIGUSR2, handler, old); },
       SA_RESTART | SA_SIGINFO, false},
      {"DO_SIGNAL_",
       [](struct sigaction* old) {
         UNIXIO_DO_SIGNAL_(SIGUSR2, handler, old, SA_NODEFER | SA_ONSTACK);
       },
       SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_ONSTACK, false},
      {"noRestart",
       [](struct sigaction* old) { UNIXIO_DO_SIGNAL_noRestart(SIGUSR2, handler, old); }, SA_SIGINFO,
       false},
      {"1ARG", [](struct sigaction* old) { UNIXIO_DO_SIGNAL_1ARG(SIGUSR2, handler1, old); },
       SA_RESTART, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::signal(SIGUSR2, SIG_IGN);
    struct sigaction old;
    c.install(&old);
    EXPECT_EQ(old.sa_handler, SIG_IGN);
    c.install(nullptr);
    struct sigaction now;
    sigaction(SIGUSR2, nullptr, &now);
    constexpr int restorer = 0x04000000;
    EXPECT_EQ(now.sa_flags & ~restorer, c.flags);
    EXPECT_TRUE(c.oneArgument ? now.sa_handler == handler1 : now.sa_sigaction == handler);
    EXPECT_TRUE(isFull(now.sa_mask));
  }
  std::signal(SIGUSR2, SIG_DFL);
}

TEST(UnixIoSignal, RefusedActionIsABrokenGuarantee) {
  const ChildResult child = inChild([] {
    UNIXIO_DO_SIGNAL(SIGKILL, handler, nullptr);
    return 0;
  });
  EXPECT_EQ(exitCode(child), 3);
  EXPECT_THAT(child.out,
              ContainsRegex("^sigaction failed for sig 9 with errno 22\n"
                            "UTL_GUARANTEE failure in file src/unixio at line [0-9]+\n"));
}

TEST(UnixIo, OpenedStreamsAreClosedByExec) {
  const ScratchDirectory scratch;
  errno = 5;
  std::FILE* file = UnixIoFopen((scratch / "f").c_str(), "w+");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(fcntl(fileno(file), F_GETFD), FD_CLOEXEC);
  std::fclose(file);
  EXPECT_EQ(UnixIoFopen((scratch / "none").c_str(), "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(UnixIo, StatByNameAndDescriptor) {
  const ScratchDirectory scratch;
  const std::string name = scratch.write("f", "12345");
  const int fd = open64(name.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(ftruncate64(fd, (5LL << 30) + 7), 0);
  struct stat64 large;
  char why[200] = "kept";
  EXPECT_TRUE(UnixIoStat64(name.c_str(), &large, why, sizeof why));
  EXPECT_EQ(large.st_size, (5LL << 30) + 7);
  EXPECT_TRUE(UnixIoFstat64(fd, &large, why, sizeof why));
  EXPECT_EQ(large.st_size, (5LL << 30) + 7);
  EXPECT_STREQ(why, "kept");

  struct stat plain;
  char expected[200];
  UnixErr(EOVERFLOW, expected, sizeof expected);
  EXPECT_FALSE(UnixIoStat(name.c_str(), &plain, why, sizeof why));
  EXPECT_STREQ(why, expected);
  ASSERT_EQ(ftruncate(fd, 9), 0);
  EXPECT_TRUE(UnixIoStat(name.c_str(), &plain, why, sizeof why));
  EXPECT_EQ(plain.st_size, 9);
  EXPECT_TRUE(UnixIoFstat(fd, &plain, why, sizeof why));
  EXPECT_EQ(plain.st_size, 9);
  close(fd);

  UnixErr(EBADF, expected, sizeof expected);
  EXPECT_FALSE(UnixIoFstat(fd, &plain, why, sizeof why));
  EXPECT_STREQ(why, expected);
  EXPECT_FALSE(UnixIoFstat64(fd, &large, why, 12));
  EXPECT_EQ(why, std::string(expected).substr(0, 10));
  EXPECT_FALSE(UnixIoStat64((scratch / "none").c_str(), &large, nullptr, 0));
  EXPECT_EQ(errno, ENOENT);
}

TEST(UnixIo, FgetsAndFgetcOfAFile) {
  const ScratchDirectory scratch;
  std::FILE* file = UnixIoFopen(scratch.write("f", "ab\ncdef").c_str(), "r");
  char line[8];
  errno = 5;
  EXPECT_TRUE(UnixIoFgets(line, sizeof line, file));
  EXPECT_EQ(errno, 0);
  EXPECT_STREQ(line, "ab\n");
  EXPECT_TRUE(UnixIoFgets(line, 3, file));
  EXPECT_STREQ(line, "cd");
  EXPECT_FALSE(UnixIoFgets(line, 0, file));
  errno = 5;
  EXPECT_EQ(UnixIoFgetc(file), 'e');
  EXPECT_EQ(UnixIoFgetc(file), 'f');
  EXPECT_EQ(errno, 5);
  EXPECT_EQ(UnixIoFgetc(file), -1);
  EXPECT_EQ(errno, 5);
  EXPECT_FALSE(UnixIoFgets(line, sizeof line, file));
  std::fclose(file);
}

TEST(UnixIo, FgetcOnATerminalSurvivesSignals) {
  struct Case {
    const char* name;
    void (*action)();
    int result;
    int error;
  };
  const Case cases[] = {
      {"typed", [] { EXPECT_EQ(write(typeInto, "x\n", 2), 2); }, 'x', 0},
      {"cancelled", [] { UnixIoInterrupt(1); }, -1, EINTR},
      {"asked to end", [] { HostIncrementSigTerm(); }, -1, EINTR},
      {"end of file", [] { EXPECT_EQ(write(typeInto, "\4", 1), 1); }, -1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Terminal terminal;
    typeInto = terminal.user;
    std::FILE* stream = fdopen(dup(terminal.program), "r");
    startTicking(c.action);
    errno = 5;
    EXPECT_EQ(UnixIoFgetc(stream), c.result);
    const int error = errno;
    stopTicking();
    EXPECT_EQ(error, c.error);
    EXPECT_GE(ticks, 3);
    EXPECT_EQ(cancelBlockingCall, 0);
    EXPECT_EQ(HostClearSigTerm(), std::string(c.name) == "asked to end" ? 1 : 0);
    std::fclose(stream);
  }
}

TEST(UnixIo, FgetcOfAPipeGivesUpAtTheFirstSignal) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::FILE* stream = fdopen(ends[0], "r");
  startTicking([] {});
  EXPECT_EQ(UnixIoFgetc(stream), -1);
  EXPECT_EQ(errno, EINTR);
  stopTicking();
  std::fclose(stream);
  close(ends[1]);
}

TEST(UnixIo, ExecReplacesTheProgramOrFails) {
  const char* arguments[] = {"sh", "-c", "echo $A$0; exit 7", nullptr};
  const char* environment[] = {"A=b", nullptr};
  const ChildResult child =
      inChild([&] { return UnixIoExecve("/bin/sh", arguments, environment); });
  EXPECT_EQ(exitCode(child), 7);
  EXPECT_EQ(child.out, "bsh\n");
  EXPECT_EQ(UnixIoExecv("/none", arguments), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(UnixIoSystem, ResultsByCommand) {
  struct Case {
    const char* command;
    BoolType interactively;
    int result;
  };
  const Case cases[] = {
      {"exit 0", 0, 0},
      {"exit 3", 0, -1},
      {"exit 0", 1, 0},
      {"exit 255", 1, -1},
      {"kill -9 $$", 0, 0},
      {"/none/such 2>/dev/null", 0, -1},
      // In a session of its own, or in the caller's.
      {"read a b c d e session rest </proc/$$/stat; [ $session = $$ ]", 0, 0},
      {"read a b c d e session rest </proc/$$/stat; [ $session != $$ ]", 1, 0},
      // With the caller's signal mask.
      {"grep -q 'SigBlk:.*0000$' /proc/self/status", 0, 0},
  };
  UNIXIO_DO_SIGNAL(SIGINT, handler, nullptr);
  for (const Case& c : cases) {
    EXPECT_EQ(UnixIoSystem(c.command, c.interactively), c.result) << c.command;
  }
  std::signal(SIGINT, SIG_DFL);
}

TEST(UnixIoSystem, StoppedCommandFails) {
  const ScratchDirectory scratch;
  const std::string command = "echo $$ >" + (scratch / "pid") + "; kill -STOP $$";
  EXPECT_EQ(UnixIoSystem(command.c_str(), 0), -1);
  pid_t stopped = 0;
  std::ifstream(scratch / "pid") >> stopped;
  ASSERT_GT(stopped, 0);
  kill(stopped, SIGKILL);
  EXPECT_EQ(waitpid(stopped, nullptr, 0), stopped);
}

// What UnixIoSystem must leave as it finds it.
std::string signalState() {
  std::string state;
  const auto add = [&state](const void* bytes, std::size_t size) {
    state.append(static_cast<const char*>(bytes), size);
  };
  constexpr std::size_t maskSize = 8;
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  add(&mask, maskSize);
  for (const int sig : {SIGCHLD, SIGVTALRM}) {
    struct sigaction action;
    sigaction(sig, nullptr, &action);
    add(&action.sa_handler, sizeof action.sa_handler);
    add(&action.sa_flags, sizeof action.sa_flags);
    add(&action.sa_mask, maskSize);
  }
  return state;
}

void useSpecialSignals() {
  struct sigaction action = {};
  action.sa_handler = handler1;
  action.sa_flags = SA_NODEFER;
  sigaction(SIGCHLD, &action, nullptr);
  std::signal(SIGVTALRM, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGHUP);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
}

TEST(UnixIoSystem, HandlersAndMaskAreBack) {
  const ChildResult child = inChild([] {
    useSpecialSignals();
    const std::string before = signalState();
    if (UnixIoSystem("exit 0", 0) != 0) return 1;
    if (signalState().substr(0, 8) != before.substr(0, 8)) return 2;
    struct sigaction action;
    sigaction(SIGCHLD, nullptr, &action);
    if (action.sa_handler != handler1 || !isFull(action.sa_mask)) return 3;
    if ((action.sa_flags & (SA_RESTART | SA_SIGINFO)) != (SA_RESTART | SA_SIGINFO)) return 4;
    sigaction(SIGVTALRM, nullptr, &action);
    return action.sa_handler == SIG_IGN ? 0 : 5;
  });
  EXPECT_EQ(exitCode(child), 0);
}

TEST(UnixIoSystem, WithoutAChildNothingChanges) {
  const ChildResult child = inChild([] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    if (setresuid(65534, 65534, 65534) != 0) return 1;
    useSpecialSignals();
    const std::string before = signalState();
    if (UnixIoSystem("exit 0", 1) != -1) return 2;
    if (errno != EAGAIN) return 3;
    return signalState() == before ? 0 : 4;
  });
  EXPECT_EQ(exitCode(child), 0);
}

TEST(UnixIoSystem, WithoutAShellSaysSo) {
  const ScratchDirectory scratch;
  const ChildResult child = inChild([&] {
    if (chroot(scratch.path().c_str()) != 0) return 1;
    return UnixIoSystem("exit 0", 0) == -1 ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_EQ(child.err, "execv error, errno = 2\n");
}

TEST(UnixIoSystem, RunsUnderTheRealIds) {
  const ChildResult child = inChild([] {
    if (setresgid(65533, 0, 0) != 0 || setresuid(65534, 0, 0) != 0) return 1;
    const int result = UnixIoSystem("grep -E '^(Uid|Gid)' /proc/$$/status", 0);
    if (geteuid() != 0 || getegid() != 0) return 2;
    return result == 0 ? 0 : 3;
  });
  EXPECT_EQ(exitCode(child), 0);
  EXPECT_THAT(child.out, StartsWith("Uid:\t65534\t65534\t65534\t65534\n"
                                    "Gid:\t65533\t65533\t65533\t65533\n"));
}

TEST(UnixIoSystem, SignalsMeanwhileWaitUntilItIsOver) {
  startTicking([] {});
  EXPECT_EQ(UnixIoSystem("sleep 0.02", 0), 0);
  EXPECT_GE(ticks, 1);
  stopTicking();
}

TEST(UnixIoSystem, GivesTheForegroundBack) {
  const ChildResult child = inChild([] {
    const Terminal terminal;
    terminal.control();
    std::signal(SIGHUP, SIG_IGN);  // comes when the terminal goes
    const pid_t before = tcgetpgrp(STDIN_FILENO);
    // The command leaves a process group of its own in the foreground.
    const char* command =
        "perl -MPOSIX -e 'setpgid(0, 0); $SIG{TTOU} = \"IGNORE\"; tcsetpgrp(0, getpgrp()) or die'";
    if (UnixIoSystem(command, 1) != 0) return 1;
    return before == getpgrp() && tcgetpgrp(STDIN_FILENO) == before ? 0 : 2;
  });
  EXPECT_EQ(exitCode(child), 0);
}

}  // namespace
