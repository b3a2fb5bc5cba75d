#include <povzel/hostfault.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>

#include <povzel/hostinit.h>
#include <povzel/hostpages.h>
#include <povzel/hostprocess.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsignals.h>
#include <povzel/hostsigterm.h>
#include <povzel/hoststack.h>
#include <povzel/unixio.h>
#include "process.h"
#include "reads.h"

namespace {

using testing::HasSubstr;

constexpr std::size_t pageSize = 4096;
constexpr int survived = 42;

// Runs `body` in a child with the handlers installed, `before` ahead of that. The child leaves no
// core, and ends with status 42 where `body` returns.
ChildResult runHandled(void (*body)(), void (*before)() = nullptr) {
  HostInit();  // here, because it may complain of a missing message file
  return inChild([&] {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    if (before != nullptr) before();
    HostInstallFaultHandler(nullptr, nullptr);
    body();
    return survived;
  });
}

// A store that no sanitizer looks at.
void store(void* address) {
  asm volatile("movb $1, (%0)" : : "r"(address) : "memory");
}

void illegal() {
  asm volatile("ud2");
}

char* newPages(std::size_t count) {
  return static_cast<char*>(
      mmap(nullptr, count * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

BoolType letPass(char* /*page*/, char* /*fault*/) {
  return 1;
}

void setAction(int signal, UnixSigHandlerFType* handler, int flags = 0) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | flags;
  sigaddset(&action.sa_mask, SIGUSR2);
  sigaction(signal, &action, nullptr);
}

struct sigaction actionOf(int signal) {
  struct sigaction action;
  sigaction(signal, nullptr, &action);
  return action;
}

bool isBlocked(int signal) {
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) != 0;
}

TEST(HostProtectPage, RefusesWhatItCannotGuard) {
  char* pages = newPages(17);
  char* end = pages + 16 * pageSize;
  SysErrorSType error{};
  EXPECT_FALSE(HostProtectPage(pages + 1, letPass, &error));
  EXPECT_THAT(error.errMsg, HasSubstr("was not aligned on page boundary 4096."));
  EXPECT_EQ(error.hostError, -1);
  for (char* page = pages; page < end; page += pageSize) {
    EXPECT_TRUE(HostProtectPage(page, letPass, &error));
  }
  EXPECT_TRUE(HostProtectPage(pages, letPass, &error));  // keeps its slot
  EXPECT_FALSE(HostProtectPage(end, letPass, &error));
  EXPECT_STREQ(error.errMsg, "System only supports protecting 16 pages.");
  for (char* page = pages; page < end; page += pageSize) {
    EXPECT_TRUE(HostUnProtectPage(page));
    *page = 1;
  }
  EXPECT_FALSE(HostUnProtectPage(pages) || HostUnProtectPage(nullptr));
  munmap(pages, 17 * pageSize);
  EXPECT_FALSE(HostProtectPage(pages, letPass, &error));
  EXPECT_THAT(error.errMsg, HasSubstr(",4096,PROT_NONE): "));
  EXPECT_FALSE(HostUnProtectPage(pages) || HostBasicUnprotectPage(pages, pageSize));
}

TEST(HostFault, ResumesAfterGuardPages) {
  static char* touched;
  static char* guarded;
  const ChildResult child = runHandled([] {
    char* pages = newPages(2);
    SysErrorSType error;
    const auto note = [](char* page, char* fault) -> BoolType {
      guarded = page;
      touched = fault;
      return 1;
    };
    HostProtectPage(pages + pageSize, note, &error);
    errno = 77;
    pages[pageSize + 5] = 'x';
    if (errno != 77 || pages[pageSize + 5] != 'x') _exit(11);
    if (guarded != pages + pageSize || touched != guarded + 5) _exit(12);
    if (HostUnProtectPage(guarded) || segvInProgressCount != 0) _exit(13);  // its slot is free
    HostExitOnGuardPageAccess();
    HostProtectPage(pages, letPass, &error);
    pages[0] = 'x';
  });
  EXPECT_EQ(exitCode(child), 1);
  EXPECT_THAT(child.err, Reads("\n[Debug]: Tarvolin ignored signal SIGSEGV caused by attempted "
                               "guard page access at address 0x~\n*** Tarvolin detected a SIGSEGV "
                               "caused by an attempt to access guard page address 0x~***.\n"
                               "Goodbye.\n"));
}

void handle(int signal, int infoSignal, int error) {
  siginfo_t info{};
  info.si_signo = infoSignal;
  info.si_errno = error;
  HostFaultHandler(signal, &info, nullptr);
}

void postpone() {
  HostDelaySigExit([] { HostSignalSafePrint("later\n"); }, [] { HostSignalSafePrint("never\n"); });
}

template <int signal>
void raiseAndExit() {
  raise(signal);
  if (HostClearSigTerm() != (signal == SIGTERM) || HostGetSigTerm_() != 0) _exit(11);
  if (HostGetFatalErr() != (signal == SIGTERM)) _exit(12);
  HostDoSigExit();
}

// How a process ends by each signal that reaches it: its exit status, or the signal with a minus,
// and what it says.
TEST(HostFault, EndsBySignals) {
  struct Case {
    void (*body)();
    int end;
    const char* report;
    void (*before)() = nullptr;
  };
  const Case cases[] = {
      {[] { store(reinterpret_cast<void*>(8)); }, 3,
       "\n\nTV Signal Handler: Unhandled signal 11, SIGSEGV Received at ~HostFaultHandler: signal "
       "(int) = 11 \n    info->si_signo = 11 = 0xb  \n    info->si_code =  1 = 0x1  \n"
       "    info->si_errno = 0 = 0x0  \n    info->si_addr = 0x0x8  pc = 0x~  Registers saved from "
       "frame receiving the signal:\n   gs 0x~   edi 0x~epb 0x~   trapno 0xe err 0x~   efl 0x~"
       "[host.core4]"},
      {illegal, 3,
       "\n\nTV Signal Handler: Unhandled signal 4, SIGILL~    info->si_code =  2 = 0x2  \n"
       "~[host.core4]"},
      {[] { raise(SIGQUIT); }, 3,
       "\n\nTV Signal Handler: Unhandled signal 3, SIGQUIT~    signal 3 , received from process ~"
       "   si_code: -6, SI_TKILL"},
      {[] { abort(); }, 3,
       "TV signal handler: signal 6 (SIGABRT), received from process ~\n  si_code: -6, SI_TKILL, "
       "signal from tkill(2) or abort(3C)\n"},
      {[] { kill(getpid(), SIGBUS); }, 1,
       "TV signal handler: signal 7 (SIGBUS), received from process ~\n*** Received signal 7 "
       "(SIGBUS) at ~ ***.\nGoodbye.\n",
       HostExitOnFault},
      {illegal, 1, "\n*** Received signal 4 (SIGILL) at ~ ***.\nGoodbye.\n", HostExitOnFault},
      {[] { handle(SIGILL, SIGBUS, 0); }, 3,
       "TV signal handler: signal 4 (SIGILL), received with incomplete or invalid args.  "
       "Additional info not available.\n"},
      {[] { handle(SIGFPE, SIGFPE, ENOMEM); }, -SIGABRT,
       "\n\nTV Signal Handler: Unhandled signal 8, SIGFPE~cannot safely fork() to print the C "
       "stack due to ENOMEM error.\n"},
      {[] { raise(SIGTERM); }, 0, ""},
      {[] { UnixIoSystem("kill -TERM $PPID", 0); }, 0,
       "\nTV Signal Handler: Signal 15, SIGTERM, Software Termination Signal Received at "},
      {[] { raise(SIGXCPU); }, 0,
       "\nTV Signal Handler: Signal 24, SIGXCPU, CPU time limit exceeded Received at "},
      {[] { raise(SIGUSR1); }, survived,
       "\n\nSignal SIGUSR1 received printingStack ...~interpreter\n",
       [] { HostSetSmalltalkPrintStackFunc([] { HostSignalSafePrint("interpreter"); }); }},
      {raiseAndExit<SIGTERM>, 0, "later\n", postpone},
      {raiseAndExit<SIGQUIT>, 3, "\n\nTV Signal Handler: Unhandled signal 3~later\n~[host.core4]",
       postpone},
      {illegal, 3, "\n\nTV Signal Handler: Unhandled signal 4", postpone},  // never postponed
      // Earlier handlers: one that faults itself, and our own.
      {[] { store(nullptr); }, -SIGABRT,
       "TV signal handler: Recursive SEGV detected, attempting to dump core\n",
       [] {
         setAction(
             SIGSEGV, [](int, siginfo_t*, void*) { store(nullptr); }, SA_NODEFER);
       }},
      {[] { raise(SIGQUIT); }, 3, "\n\nTV Signal Handler: Unhandled signal 3, SIGQUIT",
       [] { setAction(SIGQUIT, HostFaultHandler); }},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.report);
    const ChildResult child = runHandled(one.body, one.before);
    EXPECT_TRUE(one.end < 0 ? child.killedBy(-one.end) : child.exitedWith(one.end)) << child.status;
    EXPECT_THAT(child.err, Reads(one.report));
    for (const char* word : {"Unhandled", "later", "never"}) {
      EXPECT_EQ(child.err.find(word) != std::string::npos,
                std::strstr(one.report, word) != nullptr);
    }
  }
}

TEST(HostFault, ChainsToEarlierHandlers) {
  static siginfo_t other;
  static int calls;
  const auto before = [] {
    setAction(
        SIGSEGV,
        [](int signal, siginfo_t* info, void* context) {
          ++calls;
          if (signal != SIGSEGV || info->si_signo != signal || context == nullptr) _exit(9);
          if (!isBlocked(SIGSEGV) || !isBlocked(SIGUSR2) || isBlocked(SIGHUP)) _exit(8);
          mprotect(static_cast<char*>(info->si_addr) - 1, pageSize, PROT_READ | PROT_WRITE);
        },
        static_cast<int>(SA_RESETHAND));
    setAction(SIGQUIT, [](int signal, siginfo_t* info, void* context) {
      calls += signal == SIGQUIT && info == &other && context == nullptr ? 1 : 100;
    });
    std::signal(SIGFPE, [](int) { _exit(5); });
    std::signal(SIGPIPE, [](int) { ++calls; });
  };
  const ChildResult child = runHandled(
      [] {
        if (actionOf(SIGFPE).sa_sigaction == HostFaultHandler) _exit(7);
        if (actionOf(SIGHUP).sa_handler != SIG_IGN) _exit(6);
        char* page = newPages(1);
        mprotect(page, pageSize, PROT_NONE);
        page[1] = 1;
        raise(SIGPIPE);
        other.si_signo = SIGBUS;  // of no use to the handler, and handed on
        HostFaultHandler(SIGQUIT, &other, nullptr);
        if (calls != 3 || isBlocked(SIGUSR2) || segvInProgressCount != 0) _exit(4);
        // Reset by its flag, the earlier handler of the fault is gone now.
        mprotect(page, pageSize, PROT_NONE);
        page[1] = 1;
      },
      before);
  EXPECT_EQ(exitCode(child), 3) << child.err;
}

TEST(HostFault, PutsEarlierActionsBack) {
  std::signal(SIGQUIT, SIG_IGN);
  HostInstallFaultHandler(nullptr, nullptr);
  EXPECT_EQ(actionOf(SIGQUIT).sa_sigaction, HostFaultHandler);
  HostShutDown();
  HostShutDown();
  EXPECT_EQ(actionOf(SIGQUIT).sa_handler, SIG_IGN);
  std::signal(SIGQUIT, SIG_DFL);
  EXPECT_NE(actionOf(SIGSEGV).sa_sigaction, HostFaultHandler);
}

// A storm of signals that the process survives, while threads touch guarded pages and the main one
// starts children and commands.
namespace storm {

std::atomic<long> seen{0};
std::atomic<bool> terminates{false};
std::atomic<bool> over{false};
constexpr int touches = 500;

void prepare() {
  for (const int signal : {SIGQUIT, SIGFPE, SIGXFSZ, SIGHUP, SIGPIPE}) {
    setAction(
        signal, [](int, siginfo_t*, void*) { ++seen; }, SA_RESTART);
  }
  HostDelaySigExit([] { ++seen; }, nullptr);
}

void send() {
  std::mt19937 random(4711);
  const int signals[] = {SIGCHLD, SIGIO, SIGQUIT, SIGFPE, SIGXFSZ, SIGHUP, SIGPIPE, SIGTERM};
  int terminations = 0;
  for (long sent = 0; !over;) {
    const int signal = signals[random() % (terminates ? 8 : 7)];
    kill(getpid(), signal);
    if (signal == SIGTERM) ++terminations;
    if (signal == SIGCHLD || signal == SIGIO) continue;
    // A signal that is sent while it is still pending would be one with that.
    for (++sent; seen != sent;) std::this_thread::yield();
  }
  if (HostGetSigTerm_() != terminations) _exit(1);
}

void touch(char* page) {
  static std::atomic_flag table;
  for (int round = 0; round < touches; ++round) {
    while (table.test_and_set()) std::this_thread::yield();
    SysErrorSType error;
    HostProtectPage(page, letPass, &error);
    page[round] = static_cast<char>(round);
    table.clear();
    if (page[round] != static_cast<char>(round)) _exit(2);
  }
}

void startChildren() {
  char why[200];
  PidType pid = 0;
  if (!HostFork("/bin/sh client", nullptr, 0, why, sizeof why, "", "log", ".", &pid)) _exit(3);
  if (!HostForkServer("/bin/sh server", why, sizeof why, &pid)) _exit(4);
  if (HostForkServer("/nonexistent", why, sizeof why, &pid) || pid <= 0) _exit(5);
  if (UnixIoSystem("exit 3", 0) != -1 || UnixIoSystem("exit 0", 0) != 0) _exit(6);
}

std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

void run() {
  const auto before = openDescriptors();
  char* pages = newPages(4);
  std::thread sender(send);
  std::thread touchers[4];
  for (int i = 0; i < 4; ++i) touchers[i] = std::thread(touch, pages + i * pageSize);
  for (int count = 0; count < 50; ++count) startChildren();
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
  }
  if (errno != ECHILD) _exit(7);
  terminates = true;  // a command would give up
  for (std::thread& toucher : touchers) toucher.join();
  while (HostGetSigTerm_() < 10) std::this_thread::yield();
  over = true;
  sender.join();
  if (segvInProgressCount != 0 || openDescriptors() != before) _exit(8);
}

}  // namespace storm

// Every fault is resumed, every signal that is handed on and every request to terminate is seen,
// every child does its work and is reaped, and no descriptor stays open.
TEST(HostFault, LosesNothingInAStorm) {
  writeFile("client", "echo >> ends\n");
  writeFile("server", "eval \"echo x >&$TARVOLIN_SERVER_PIPE\"; echo >> ends\n");
  const ChildResult child = runHandled(storm::run, storm::prepare);
  EXPECT_EQ(exitCode(child), survived) << child.err.substr(0, 1000);
  EXPECT_EQ(readFile("ends"), std::string(100, '\n'));
  std::size_t resumed = 0;
  for (std::size_t at = 0; (at = child.err.find("[Debug]", at)) != std::string::npos; ++at) {
    ++resumed;
  }
  EXPECT_EQ(resumed, 4u * storm::touches);
}

TEST(HostSignals, KeepsAnIgnoredKeyboardInterrupt) {
  const ChildResult child = inChild([] {
    const auto routine = [](int) { HostSignalSafePrint("interrupted\n"); };
    HostEnableKbInt(routine);
    raise(SIGINT);
    std::signal(SIGINT, SIG_IGN);
    HostEnableKbInt(routine);
    raise(SIGINT);
    HostBeginSampling("samples");
    HostStopSampling();
    HostDisableInterrupts();
    const bool disabled = isBlocked(SIGUSR2);
    HostEnableInterrupts();
    return disabled && !isBlocked(SIGUSR2) ? survived : 1;
  });
  EXPECT_EQ(exitCode(child), survived);
  EXPECT_EQ(child.err, "interrupted\n");
  EXPECT_EQ(child.out,
            "Error -- Profiling (to file samples) not enabled in this executable.\n"
            "Error -- profiling not enabled in this executable.\n");
}

TEST(HostSignals, RunsTheProfilingTimer) {
  static volatile sig_atomic_t ticks;
  const auto before = std::signal(SIGVTALRM, SIG_IGN);
  ASSERT_TRUE(HostStartProfTimer(1, [](int) { ticks = ticks + 1; }));
  while (ticks < 3) {
  }
  HostStopProfTimer();
  EXPECT_EQ(std::signal(SIGVTALRM, before), SIG_IGN);
}

}  // namespace
