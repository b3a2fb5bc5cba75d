#include <povzel/unixio.h>

#include <csetjmp>

#include <povzel/hostsigterm.h>
#include "basics/fortests.h"
#include "faults.h"
#include "system/internal.h"
#include "tests.h"

static int typeInto = -1;

static void handler(int, siginfo_t*, void*) {}

static void handler1(int) {}

TEST(UnixIoSignal, ActionsByInstaller) {
  using Old = struct sigaction*;
  const std::tuple<void (*)(Old old), int, bool> cases[] = {
      {[](Old old) { UNIXIO_DO_SIGNAL_(SIGUSR2, handler, old, SA_NODEFER); },
       SA_RESTART | SA_SIGINFO | SA_NODEFER, false},
      {[](Old old) { UNIXIO_DO_SIGNAL_noRestart(SIGUSR2, handler, old); }, SA_SIGINFO, false},
      {[](Old old) { UNIXIO_DO_SIGNAL_1ARG(SIGUSR2, handler1, old); }, SA_RESTART, true}};
  for (const auto& [install, flags, oneArgument] : cases) {
    std::signal(SIGUSR2, SIG_IGN);
    struct sigaction old;
    install(&old);
    EXPECT_EQ(old.sa_handler, SIG_IGN);
    install(nullptr);
    struct sigaction now;
    sigaction(SIGUSR2, nullptr, &now);
    constexpr int restorer = 0x04000000;
    EXPECT_EQ(now.sa_flags & ~restorer, flags);
    EXPECT_TRUE(oneArgument ? now.sa_handler == handler1 : now.sa_sigaction == handler);
    EXPECT_EQ(sigismember(&now.sa_mask, SIGTERM), 1);
  }
  std::signal(SIGUSR2, SIG_DFL);
}

#ifndef POVZEL_SANITIZE
// What reads a line before anything is initialized has errno cleared too.
static int errnoOfEarlyRead = -1;
static void readEarly(int, char**, char**) {
  char line[8];
  std::FILE* const file = std::fopen("/dev/null", "r");
  errno = EBADF;
  UnixIoFgets(line, sizeof line, file);
  errnoOfEarlyRead = errno;
  std::fclose(file);
}
[[gnu::section(".preinit_array"), gnu::used]] static void (*early)(int, char**, char**) = readEarly;

TEST(UnixIo, ReadsBeforeInitializers) {
  EXPECT_EQ(errnoOfEarlyRead, 0);
}
#endif

TEST(UnixIo, StatByNameAndDescriptor) {
  const ScratchDirectory scratch;
  const std::string name = scratch.write("f", "12345");
  const int fd = open64(name.c_str(), O_RDWR | O_CLOEXEC);
  struct stat64 large;
  struct stat plain;
  char why[200] = "kept";
  using Call = std::function<BoolType(char*, std::size_t)>;
  const std::pair<std::string, Call> calls[] = {
      {"stat", [&](auto text, auto size) { return UnixIoStat(name.c_str(), &plain, text, size); }},
      {"stat64",
       [&](auto text, auto size) { return UnixIoStat64(name.c_str(), &large, text, size); }},
      {"fstat", [&](auto text, auto size) { return UnixIoFstat(fd, &plain, text, size); }},
      {"fstat64", [&](auto text, auto size) { return UnixIoFstat64(fd, &large, text, size); }}};
  for (const auto& [called, call] : calls) {
    const auto stat = [&, &call = call] {
      plain.st_size = large.st_size = 0;
      const bool done = call(why, 12) != 0;
      return Said(done && plain.st_size + large.st_size == 5, errno);
    };
    EXPECT_EQ(failEachCall(stat, {.interruptible = {called}}), CallNames{called});
    ASSERT_EQ(ftruncate64(fd, (5LL << 30) + 7), 0);
    std::strcpy(why, "kept");
    const bool is64 = called.ends_with("64");
    EXPECT_EQ(call(why, 12), is64) << called;
    EXPECT_EQ(why, std::string(is64 ? "kept" : "[unixerr.p")) << called;
    EXPECT_EQ(call(nullptr, 0), is64);
    ASSERT_EQ(ftruncate(fd, 5), 0);
  }
  close(fd);
}

TEST(UnixIo, FgetcOnATerminalSurvivesSignals) {
  const std::tuple<void (*)(), int, int, int> cases[] = {
      {[] { EXPECT_EQ(write(typeInto, "x\n", 2), 2); }, 'x', 0, 0},
      {[] { UnixIoInterrupt(1); }, -1, EINTR, 0},
      {[] { HostIncrementSigTerm(); }, -1, EINTR, 1},
      {[] { EXPECT_EQ(write(typeInto, "\4", 1), 1); }, -1, 0, 0}};  // the end of the input
  const auto readTicked = [](int fd, void (*action)()) {
    std::FILE* stream = fdopen(fd, "r");
    startTicking(action);
    errno = 5;
    const int result = UnixIoFgetc(stream);
    const int error = errno;
    stopTicking();
    std::fclose(stream);
    return std::pair(result, error);
  };
  for (const auto& [action, result, error, requests] : cases) {
    const Terminal terminal;
    typeInto = terminal.user;
    EXPECT_EQ(readTicked(dup(terminal.program), action), std::pair(result, error));
    EXPECT_GE(ticks, 3);
    EXPECT_EQ(cancelBlockingCall, 0);
    EXPECT_EQ(HostClearSigTerm(), requests);
  }
  // A pipe gives up at the first one.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(readTicked(ends[0], [] {}), std::pair(-1, EINTR));
  close(ends[1]);
}

TEST(UnixIo, StreamsOtherThanTerminals) {
  std::FILE* file = std::tmpfile();
  std::fputs("ab", file);
  std::rewind(file);
  // A stream that is buffered by lines is no terminal.
  setvbuf(file, nullptr, _IOLBF, 0);
  errno = 5;
  EXPECT_EQ(UnixIoFgetc(file), 'a');
  EXPECT_EQ(errno, 5);
  char line[2] = "#";
  EXPECT_FALSE(UnixIoFgets(line, 1, file));  // there is no room to read
  EXPECT_STREQ(line, "");
  EXPECT_TRUE(UnixIoFgets(line, 2, file));
  EXPECT_STREQ(line, "b");
  std::fclose(file);
}

TEST(UnixIo, ExecReplacesTheProgram) {
  const char* arguments[] = {"sh", "-c", "echo $A$0", nullptr};
  const char* environment[] = {"A=b", nullptr};
  const auto run = [&] { return UnixIoExecve("/bin/sh", arguments, environment); };
  EXPECT_EQ(inChild(run).out, "bsh\n");
}

TEST(UnixIoSystem, HandlersAndMaskAreBack) {
  for (const int sig : {SIGCHLD, SIGVTALRM}) UNIXIO_DO_SIGNAL(sig, handler, nullptr);
  const auto run = [] { return UnixIoSystem("exit 0", 0) == 0; };
  EXPECT_EQ(failEachCall(run, {.error = EAGAIN, .interruptible = {"waitpid"}}),
            (CallNames{"refuseVfork", "waitpid"}));
  EXPECT_EQ(failEachCall(run, {.tolerated = {"setsid"}, .inChildren = true}),
            (CallNames{"setsid", "execv"}));
  // The command has the caller's mask.
  EXPECT_EQ(UnixIoSystem("grep -q 'SigBlk:.*0000$' /proc/self/status", 0), 0);
  // It finds ignored what the program ignores, here SIGHUP, and not what the library does.
  std::signal(SIGHUP, SIG_IGN);
  for (const int sig : {SIGHUP, SIGPIPE, SIGCHLD}) unixIoIgnoreUnlessHandled(sig);
  EXPECT_EQ(UnixIoSystem("grep -q 'SigIgn:.*[02468ace]..[13579bdf]$' /proc/self/status", 0), 0);
  for (const int sig : {SIGHUP, SIGPIPE}) EXPECT_EQ(std::signal(sig, SIG_DFL), SIG_IGN);
  // A handler may jump out of the call.
  static sigjmp_buf away;
  std::signal(SIGUSR2, [](int) { siglongjmp(away, 1); });
  if (sigsetjmp(away, 1) == 0) UnixIoSystem("kill -USR2 $PPID", 0);
  int cancellation;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancellation);
  EXPECT_EQ(cancellation, PTHREAD_CANCEL_ENABLE);
  std::signal(SIGUSR2, SIG_DFL);
  EXPECT_TRUE(run());
  EXPECT_NE(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
  std::signal(SIGVTALRM, SIG_DFL);
}

TEST(UnixIoSystem, TellsOfChildrenAndWaitsWithCancellation) {
  static std::atomic<int> heard = 0;
  std::signal(SIGCHLD, [](int) { ++heard; });
  EXPECT_EQ(UnixIoSystem("exit 0", 0), 0);
  EXPECT_EQ(heard, 0);
  const pid_t child = fork();
  if (child == 0) pause();
  const std::string id = std::to_string(child);
  const std::string end =
      "kill -KILL " + id + "; until grep -q 'State:.Z' /proc/" + id + "/status; do :; done";
  std::thread([&] {
    const sigset_t blocked = unixIoSignals(SIGCHLD);  // for the thread's life
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    EXPECT_EQ(UnixIoSystem(end.c_str(), 0), 0);
  }).join();
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  // Cancelled before it begins, the thread ends when all is put back.
  pthread_t thread;
  const auto run = [](void*) -> void* { return UnixIoSystem("exit 0", 0) == 0 ? &heard : nullptr; };
  pthread_create(&thread, nullptr, run, nullptr);
  pthread_cancel(thread);
  void* done = nullptr;
  pthread_join(thread, &done);
  EXPECT_EQ(done, &heard);
  EXPECT_NE(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
}

// Three threads' commands, and forks in the middle of them
TEST(UnixIoSystem, RunsBesideOthers) {
  for (const auto action : {static_cast<sighandler_t>(handler1), SIG_IGN}) {
    for (const int sig : {SIGCHLD, SIGVTALRM}) std::signal(sig, action);
    std::atomic<int> wrong = 0;
    inThreads(4, [&](int thread) {
      for (int run = 0; run < 25 && thread < 3; ++run) {
        wrong += UnixIoSystem(thread == 1 ? "exit 3" : "exit 0", 0) != (thread == 1 ? -1 : 0);
      }
      for (int child = 0; child < 10 && thread == 3; ++child) {
        if (action == SIG_IGN && fork() == 0) _exit(0);
        if (action == SIG_IGN) continue;
        const auto run = [&] {
          return UnixIoSystem("exit 0", 0) == 0 && std::signal(SIGCHLD, SIG_DFL) == handler1;
        };
        EXPECT_EQ(exitCode(inChild(run)), 1);
      }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(waitpid(-1, nullptr, 0), -1) << "who is ignored is no zombie";
    for (const int sig : {SIGCHLD, SIGVTALRM}) EXPECT_EQ(std::signal(sig, SIG_DFL), action);
  }
}

// In a session of its own, or in the caller's.
TEST(UnixIoSystem, CommandsByInteraction) {
  static pid_t given;
  const OsCalls kept = osCallsForTests;
  osCallsForTests.tcgetpgrp = [](int fd) noexcept { return fd == STDIN_FILENO ? 4711 : -1; };
  osCallsForTests.tcsetpgrp = [](int fd, pid_t group) noexcept {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    const bool wouldStop = sigismember(&blocked, SIGTTOU) != 1;
    given = wouldStop || fd != STDIN_FILENO ? -1 : group;
    return 0;
  };
  const std::string session = "read a b c d e session rest </proc/$$/stat; [ $session ";
  for (const BoolType interactively : {0, 1}) {
    const std::string command = session + (interactively != 0 ? "!= $$ ]" : "= $$ ]");
    EXPECT_EQ(UnixIoSystem(command.c_str(), interactively), 0);
    EXPECT_EQ(UnixIoSystem("exit 3", interactively), -1);
    EXPECT_EQ(UnixIoSystem("kill -9 $$", interactively), 0);
    EXPECT_EQ(given, interactively * 4711);
  }
  osCallsForTests = kept;
}
