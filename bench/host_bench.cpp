// The host layer beside what a program would write in its place.

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <povzel/errmsg.h>
#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/hostpages.h>
#include <povzel/hostprocess.h>
#include <povzel/hosttime.h>
#include <povzel/utltime.h>
#include <povzel/vermsg.h>
#include "paired.h"

namespace {

constexpr std::size_t pageSize = 4096;
constexpr char logText[] = "request 4711 of client db1 took 12 ms\n";

FILE* sink() {
  static FILE* stream = std::fopen("/dev/null", "w");
  return stream;
}

void stampByHand(FILE* stream) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm broken;
  localtime_r(&now.tv_sec, &broken);
  char date[100];
  std::strftime(date, sizeof date, HostDateTimeFormat(), &broken);
  std::fprintf(stream, "%s%c%.3d %s", date, '.', static_cast<int>(now.tv_usec / 1000), logText);
}

void BM_StampedLine(benchmark::State& state) {
  comparePaired(
      state,
      [] {
        UtlTimeStampMs_f(sink());
        std::fputs(logText, sink());
      },
      [] { stampByHand(sink()); }, {.bound = 0.5});
}
BENCHMARK(BM_StampedLine)->Iterations(pairedTurns)->UseManualTime();

void BM_VerMessage(benchmark::State& state) {
  static const char text[] = "A line of about sixty characters, as the version block has";
  comparePaired(
      state, [] { VerMessage(sink(), text); }, [] { std::fprintf(sink(), "| %-75s |\n", text); },
      {.bound = 1.0});
}
BENCHMARK(BM_VerMessage)->Iterations(pairedTurns)->UseManualTime();

char* guardedPage() {
  static char* page = static_cast<char*>(
      mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  return page;
}

void unprotectTouched(int, siginfo_t* info, void*) {
  mprotect(
      reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(info->si_addr) & ~(pageSize - 1)),
      pageSize, PROT_READ | PROT_WRITE);
  static const char report[] =
      "\n[Debug]: Tarvolin ignored signal SIGSEGV caused by attempted guard page access at address "
      "0xf7c8a000.  time=1764130000\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, report, sizeof report - 1);
}

// The bare handler: the same change of the page and the same report, made beforehand.
void installBare(struct sigaction* before) {
  struct sigaction action = {};
  action.sa_sigaction = unprotectTouched;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, before);
}

void touch() {
  *static_cast<volatile char*>(guardedPage()) = 1;
}

void BM_GuardPage(benchmark::State& state) {
  // Each resumed access is reported on standard error; the report goes nowhere here.
  const int realError = dup(STDERR_FILENO);
  dup2(fileno(sink()), STDERR_FILENO);
  HostInstallFaultHandler(nullptr, nullptr);
  struct sigaction host;
  installBare(&host);
  struct sigaction bare;
  sigaction(SIGSEGV, &host, &bare);
  constexpr int faults = 50;
  comparePaired(
      state,
      [&] {
        sigaction(SIGSEGV, &host, nullptr);
        SysErrorSType error;
        for (int fault = 0; fault < faults; ++fault) {
          HostProtectPage(
              guardedPage(), [](char*, char*) -> BoolType { return 1; }, &error);
          touch();
        }
      },
      [&] {
        sigaction(SIGSEGV, &bare, nullptr);
        for (int fault = 0; fault < faults; ++fault) {
          mprotect(guardedPage(), pageSize, PROT_NONE);
          touch();
        }
      },
      {.units = faults, .bound = 1.3});
  HostShutDown();
  dup2(realError, STDERR_FILENO);
  close(realError);
}
BENCHMARK(BM_GuardPage)->Iterations(pairedTurns)->UseManualTime();

constexpr char logName[] = "/tmp/povzel-bench.log";
constexpr char programName[] = "/bin/true";

// The log's header, with what it asks users, time zone and system for.
std::string header() {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  VerLeadingEdge(stream);
  VerCenteredMessage(stream, "Log of a child process");
  VerMessage(stream, "");
  VerInfo(stream, nullptr);
  VerMessage(stream, "Command: /bin/true");
  VerEndEdge(stream);
  std::fclose(stream);
  std::string result(text, size);
  std::free(text);
  return result;
}

int openLog() {
  return open(logName, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

char* const programArguments[] = {const_cast<char*>(programName), nullptr};

// With a log that the parent opens and begins.
void spawnWithLog() {
  ErrMsgReset();
  const std::string text = header();
  const int log = openLog();
  [[maybe_unused]] const ssize_t written = write(log, text.data(), text.size());
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, log, 1);
  posix_spawn_file_actions_adddup2(&actions, log, 2);
  pid_t child = 0;
  posix_spawn(&child, programName, &actions, nullptr, programArguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(log);
  waitpid(child, nullptr, 0);
}

void closeOnExecNow() {
  for (int descriptor = 8; descriptor <= 15; ++descriptor) close(descriptor);
  DIR* open = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(open)) {
    const int descriptor = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
    if (descriptor <= 2 || descriptor == dirfd(open)) continue;
    if ((fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0) close(descriptor);
  }
  closedir(open);
}

void resetSignals() {
  for (int signal = 1; signal < _NSIG; ++signal) {
    struct sigaction action;
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_DFL) continue;
    std::signal(signal, SIG_DFL);
  }
  std::signal(SIGINT, SIG_IGN);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void runChild(const std::string& text) {
  closeOnExecNow();
  setsid();
  char directory[4096];
  if (realpath(".", directory) == nullptr || chdir(directory) != 0) _exit(3);
  const int log = openLog();
  dup2(log, 1);
  dup2(log, 2);
  close(0);
  open("/dev/null", O_RDONLY);
  for (std::size_t begin = 0, end; begin < text.size(); begin = end) {
    end = text.find('\n', begin) + 1;
    if (write(1, text.data() + begin, end - begin) < 0) _exit(3);
  }
  resetSignals();
  execv(programName, programArguments);
  _exit(3);
}

// The same steps in bare system calls: the child writes the header itself, because its user owns
// the log, and its id is in it.
void forkByHand() {
  const std::string text = header();
  sigset_t all;
  sigset_t mask;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &mask);
  const pid_t child = fork();
  if (child == 0) runChild(text);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  ErrMsgReset();
  waitpid(child, nullptr, 0);
}

void hostFork() {
  char why[2049];
  PidType child = 0;
  HostFork(programName, nullptr, 0, why, sizeof why, nullptr, logName, ".", &child);
  waitpid(child, nullptr, 0);
}

void BM_HostFork(benchmark::State& state) {
  comparePaired(state, hostFork, forkByHand, {.bound = 1.1});
  unlink(logName);
}
BENCHMARK(BM_HostFork)->Iterations(pairedTurns)->UseManualTime();

// posix_spawn copies no page tables, but starts a program as nobody else and without these steps.
void BM_HostForkBesideSpawn(benchmark::State& state) {
  comparePaired(state, hostFork, spawnWithLog);
  unlink(logName);
}
BENCHMARK(BM_HostForkBesideSpawn)->Iterations(pairedTurns)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  setenv("TARVOLIN_LANG", POVZEL_ENGLISH_COMPILED, 1);
  HostInit();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
