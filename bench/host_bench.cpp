// The host layer beside what a program would write in its place.

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

#include <povzel/errmsg.h>
#include <povzel/hostfault.h>
#include <povzel/hostinit.h>
#include <povzel/hostpages.h>
#include <povzel/hostprocess.h>
#include <povzel/hosttime.h>
#include <povzel/utllogname.h>
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
}

// The bare handler: what a program would install, and nothing else.
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

// The file work: a log that begins with a header, written from a catalogue opened anew.
FILE* startLog() {
  ErrMsgReset();
  char name[4096];
  UtlExpandLogName(logName, name, sizeof name, "true", nullptr, nullptr, nullptr, 0);
  const int log = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  FILE* stream = fdopen(log, "a");
  VerLeadingEdge(stream);
  VerInfo(stream, nullptr);
  VerEndEdge(stream);
  return stream;
}

void spawnWithLog() {
  FILE* stream = startLog();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fileno(stream), 1);
  posix_spawn_file_actions_adddup2(&actions, fileno(stream), 2);
  char* argv[] = {const_cast<char*>(programName), nullptr};
  pid_t child = 0;
  posix_spawn(&child, programName, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  std::fclose(stream);
  waitpid(child, nullptr, 0);
}

// The least for a child that writes its header itself, as it must: the header holds its process id,
// and its user owns the log. The fork that this takes, in place of what posix_spawn does, is what
// keeps HostFork from its bound.
void forkWithLog() {
  const pid_t child = fork();
  if (child == 0) {
    setsid();
    FILE* stream = startLog();
    dup2(fileno(stream), 1);
    dup2(fileno(stream), 2);
    const int input = open("/dev/null", O_RDONLY);
    dup2(input, 0);
    char* argv[] = {const_cast<char*>(programName), nullptr};
    execv(programName, argv);
    _exit(3);
  }
  waitpid(child, nullptr, 0);
}

void hostFork() {
  char why[2049];
  PidType child = 0;
  HostFork(programName, nullptr, 0, why, sizeof why, nullptr, logName, ".", &child);
  waitpid(child, nullptr, 0);
}

void BM_HostFork(benchmark::State& state) {
  comparePaired(state, hostFork, spawnWithLog, {.bound = 1.2});
  unlink(logName);
}
BENCHMARK(BM_HostFork)->Iterations(pairedTurns)->UseManualTime();

void BM_HostForkOverItsFloor(benchmark::State& state) {
  comparePaired(state, hostFork, forkWithLog, {.bound = 1.2});
  unlink(logName);
}
BENCHMARK(BM_HostForkOverItsFloor)->Iterations(pairedTurns)->UseManualTime();

void BM_ForkFloor(benchmark::State& state) {
  comparePaired(state, forkWithLog, spawnWithLog);
  unlink(logName);
}
BENCHMARK(BM_ForkFloor)->Iterations(pairedTurns)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  setenv("TARVOLIN_LANG", POVZEL_ENGLISH_COMPILED, 1);
  HostInit();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
