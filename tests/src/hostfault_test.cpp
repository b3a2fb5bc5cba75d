#include <povzel/hostfault.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <povzel/hostdebug.h>
#include <povzel/hostinit.h>
#include <povzel/hostpages.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostsignals.h>
#include <povzel/hostsigterm.h>
#include <povzel/hoststack.h>
#include "child.h"

namespace {

constexpr std::size_t pageSize = 4096;

void installHandlers() {
  const struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  HostInit();
  HostInstallFaultHandler(nullptr, nullptr);
}

// A store that no sanitizer looks at.
void store(void* address) {
  asm volatile("movb $1, (%0)" : : "r"(address) : "memory");
}

char* newPages(std::size_t count) {
  return static_cast<char*>(
      mmap(nullptr, count * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

void installAction(int signal, void (*handler)(int, siginfo_t*, void*), int flags = 0) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | flags;
  sigaction(signal, &action, nullptr);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(HostProtectPage, RefusesWhatItCannotGuard) {
  HostInit();
  const HostProtectHandlerFType handler = [](char*, char*) -> BoolType { return 1; };
  char* pages = newPages(17);
  SysErrorSType error{};
  EXPECT_FALSE(HostProtectPage(pages + 1, handler, &error));
  EXPECT_TRUE(contains(error.errMsg, "was not aligned on page boundary 4096."));
  EXPECT_EQ(error.hostError, -1);
  for (int page = 0; page < 16; ++page) {
    EXPECT_TRUE(HostProtectPage(pages + page * pageSize, handler, &error));
  }
  EXPECT_TRUE(HostProtectPage(pages, handler, &error));  // keeps its slot
  EXPECT_FALSE(HostProtectPage(pages + 16 * pageSize, handler, &error));
  EXPECT_STREQ(error.errMsg, "System only supports protecting 16 pages.");
  for (int page = 0; page < 16; ++page) {
    EXPECT_TRUE(HostUnProtectPage(pages + page * pageSize));
    pages[page * pageSize] = 1;
  }
  EXPECT_FALSE(HostUnProtectPage(pages));
  EXPECT_FALSE(HostUnProtectPage(nullptr));
  munmap(pages, 17 * pageSize);
  EXPECT_FALSE(HostProtectPage(pages, handler, &error));
  EXPECT_TRUE(contains(error.errMsg, ",4096,PROT_NONE): ")) << error.errMsg;
  EXPECT_FALSE(HostUnProtectPage(pages));
  EXPECT_FALSE(HostBasicUnprotectPage(pages, pageSize));
}

TEST(HostFault, ResumesAfterGuardPages) {
  static char* touched;
  static char* guarded;
  const ChildResult child = runInChild([] {
    installHandlers();
    char* pages = newPages(2);
    SysErrorSType error;
    HostProtectPage(
        pages + pageSize,
        [](char* page, char* fault) -> BoolType {
          guarded = page;
          touched = fault;
          return 1;
        },
        &error);
    errno = 77;
    pages[pageSize + 5] = 'x';
    if (errno != 77 || pages[pageSize + 5] != 'x') _exit(1);
    if (guarded != pages + pageSize || touched != guarded + 5) _exit(2);
    if (HostUnProtectPage(guarded)) _exit(3);  // its slot is free already
    if (segvInProgressCount != 0) _exit(4);
    HostExitOnGuardPageAccess();
    HostProtectPage(
        pages, [](char*, char*) -> BoolType { return 1; }, &error);
    pages[0] = 'x';
  });
  EXPECT_TRUE(child.exitedWith(1)) << child.status;
  EXPECT_EQ(child.err.rfind("\n[Debug]: Tarvolin ignored signal SIGSEGV caused by attempted guard "
                            "page access at address 0x",
                            0),
            0u)
      << child.err;
  EXPECT_TRUE(contains(child.err,
                       "\n*** Tarvolin detected a SIGSEGV caused by an attempt to access "
                       "guard page address 0x"));
  EXPECT_TRUE(contains(child.err, "***.\nGoodbye.\n"));
}

// How a process ends by each signal that reaches it, and what it says.
TEST(HostFault, EndsByUnhandledSignals) {
  struct Case {
    const char* name;
    void (*body)();
    int exitStatus;
    std::vector<std::string> parts;
  };
  const Case cases[] = {
      {"fault",
       [] {
         char* page = newPages(1);
         munmap(page, pageSize);
         store(page);
       },
       3,
       {"\n\nTV Signal Handler: Unhandled signal 11, SIGSEGV Received at ",
        "HostFaultHandler: signal (int) = 11 \n", "    info->si_signo = 11 = 0xb  \n",
        "    info->si_code =  1 = 0x1  \n", "    info->si_errno = 0 = 0x0  \n",
        "    info->si_addr = 0x0x", "  Registers saved from frame receiving the signal:\n   gs 0x",
        "   edi 0x", "epb 0x", "   trapno 0xe err 0x", "   efl 0x", "[host.core4]"}},
      {"illegal instruction",
       [] { asm volatile("ud2"); },
       3,
       {"Unhandled signal 4, SIGILL", "    info->si_code =  2 = 0x2  \n", "[host.core4]"}},
      {"quit",
       [] { raise(SIGQUIT); },
       3,
       {"Unhandled signal 3, SIGQUIT", "    signal 3 , received from process ",
        "   si_code: -6, SI_TKILL"}},
      {"abort",
       [] { abort(); },
       3,
       {"TV signal handler: signal 6 (SIGABRT), received from process ",
        " userId 0\n  si_code: -6, "
        "SI_TKILL, signal from tkill(2) or abort(3C)\n"}},
      {"sent fault",
       [] {
         HostExitOnFault();
         kill(getpid(), SIGBUS);
       },
       1,
       {"TV signal handler: signal 7 (SIGBUS), received from process ",
        "\n*** Received signal 7 (SIGBUS) at ", " ***.\nGoodbye.\n"}},
      {"own SIGTERM", [] { raise(SIGTERM); }, 0, {}},
      {"CPU time",
       [] { raise(SIGXCPU); },
       0,
       {"\nTV Signal Handler: Signal 24, SIGXCPU, CPU time limit exceeded Received at "}},
      {"stack printing",
       [] {
         HostSetSmalltalkPrintStackFunc([] { HostSignalSafePrint("interpreter"); });
         raise(SIGUSR1);
         std::exit(42);
       },
       42,
       {"\n\nSignal SIGUSR1 received printingStack ...", "interpreter\n"}},
      {"invalid info",
       [] {
         siginfo_t info{};
         info.si_signo = SIGBUS;
         HostExitOnFault();
         HostFaultHandler(SIGILL, &info, nullptr);
       },
       3,
       {"TV signal handler: signal 4 (SIGILL), received with incomplete or invalid args.  "
        "Additional info not available.\n"}},
      {"no memory",
       [] {
         siginfo_t info{};
         info.si_signo = SIGFPE;
         info.si_errno = ENOMEM;
         HostFaultHandler(SIGFPE, &info, nullptr);
       },
       -SIGABRT,
       {"Unhandled signal 8, SIGFPE",
        "cannot safely fork() to print the C stack due to ENOMEM error.\n"}},
  };
  for (const Case& one : cases) {
    const ChildResult child = runInChild([&] {
      installHandlers();
      one.body();
    });
    if (one.exitStatus < 0) {
      EXPECT_TRUE(child.killedBy(-one.exitStatus)) << one.name << " " << child.status;
    } else {
      EXPECT_TRUE(child.exitedWith(one.exitStatus)) << one.name << " " << child.status;
    }
    std::size_t from = 0;
    for (const std::string& part : one.parts) {
      from = child.err.find(part, from);
      ASSERT_NE(from, std::string::npos) << one.name << ": " << part << " in\n" << child.err;
    }
    const bool expectsReport = !one.parts.empty();
    EXPECT_EQ(!child.err.empty(), expectsReport) << one.name << child.err;
    EXPECT_EQ(contains(child.err, "Unhandled signal"),
              expectsReport && contains(one.parts[0], "Unhandled"))
        << one.name;
  }
}

TEST(HostFault, TellsOfTerminationByOthers) {
  const ChildResult child = runInChild([] {
    installHandlers();
    const pid_t parent = getpid();
    if (fork() == 0) {
      kill(parent, SIGTERM);
      _exit(0);
    }
    for (;;) pause();
  });
  EXPECT_TRUE(child.exitedWith(0));
  EXPECT_TRUE(contains(child.err,
                       "\nTV Signal Handler: Signal 15, SIGTERM, Software Termination "
                       "Signal Received at "))
      << child.err;
}

TEST(HostFault, ChainsToEarlierHandlers) {
  static int calls;
  static bool blockedOther;
  const ChildResult child = runInChild([] {
    struct sigaction action = {};
    action.sa_sigaction = [](int signal, siginfo_t* info, void* context) {
      ++calls;
      sigset_t mask;
      sigprocmask(SIG_SETMASK, nullptr, &mask);
      blockedOther = sigismember(&mask, SIGUSR2) != 0;
      if (signal != SIGSEGV || info->si_signo != signal || context == nullptr) _exit(9);
      if (sigismember(&mask, SIGSEGV) != 1 || sigismember(&mask, SIGHUP) != 0) _exit(8);
      mprotect(reinterpret_cast<char*>(reinterpret_cast<std::uintptr_t>(info->si_addr) &
                                       ~(pageSize - 1)),
               pageSize, PROT_READ | PROT_WRITE);
    };
    action.sa_flags = SA_SIGINFO | static_cast<int>(SA_RESETHAND);
    sigaddset(&action.sa_mask, SIGUSR2);
    sigaction(SIGSEGV, &action, nullptr);
    std::signal(SIGFPE, [](int) { _exit(5); });
    std::signal(SIGPIPE, [](int) { ++calls; });
    installHandlers();
    struct sigaction kept;
    sigaction(SIGFPE, nullptr, &kept);
    if (kept.sa_sigaction == HostFaultHandler) _exit(7);
    sigaction(SIGHUP, nullptr, &kept);
    if (kept.sa_handler != SIG_IGN) _exit(6);

    char* page = newPages(1);
    mprotect(page, pageSize, PROT_NONE);
    page[1] = 1;
    raise(SIGPIPE);
    std::printf("%d %d %ld", calls, blockedOther, segvInProgressCount);
    std::fflush(stdout);
    // Reset by its flag, the earlier handler is gone now.
    mprotect(page, pageSize, PROT_NONE);
    page[1] = 1;
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status << child.err;
  EXPECT_EQ(child.out.rfind("2 1 0", 0), 0u) << child.out;
}

TEST(HostFault, HandsOnInfoThatItCannotUse) {
  static siginfo_t given;
  const ChildResult child = runInChild([] {
    installAction(SIGQUIT, [](int signal, siginfo_t* info, void* context) {
      _exit(signal == SIGQUIT && info == &given && context == nullptr ? 42 : 1);
    });
    installHandlers();
    given.si_signo = SIGBUS;
    HostFaultHandler(SIGQUIT, &given, nullptr);
  });
  EXPECT_TRUE(child.exitedWith(42)) << child.status;
}

TEST(HostFault, EndsNestedFaults) {
  const ChildResult child = runInChild([] {
    installAction(
        SIGSEGV, [](int, siginfo_t*, void*) { store(nullptr); }, SA_NODEFER);
    installHandlers();
    store(nullptr);
  });
  EXPECT_TRUE(child.killedBy(SIGABRT)) << child.status;
  EXPECT_EQ(child.err, "TV signal handler: Recursive SEGV detected, attempting to dump core\n");
}

TEST(HostFault, NeverCallsItselfAsAnEarlierHandler) {
  const ChildResult child = runInChild([] {
    installAction(SIGQUIT, HostFaultHandler);
    installHandlers();
    raise(SIGQUIT);
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status;
}

TEST(HostFault, PutsEarlierActionsBack) {
  std::signal(SIGQUIT, SIG_IGN);
  HostInstallFaultHandler(nullptr, nullptr);
  struct sigaction action;
  sigaction(SIGQUIT, nullptr, &action);
  EXPECT_EQ(action.sa_sigaction, HostFaultHandler);
  HostShutDown();
  HostShutDown();
  sigaction(SIGQUIT, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
  std::signal(SIGQUIT, SIG_DFL);
  sigaction(SIGSEGV, nullptr, &action);
  EXPECT_NE(action.sa_sigaction, HostFaultHandler);
}

TEST(HostFault, PostponesExitsButNotFaults) {
  static const auto later = [] {
    HostDelaySigExit([] { HostSignalSafePrint("later\n"); },
                     [] { HostSignalSafePrint("never\n"); });
  };
  const ChildResult terminated = runInChild([] {
    installHandlers();
    later();
    raise(SIGTERM);
    if (HostGetSigTerm_() != 1 || !HostGetFatalErr()) _exit(9);
    if (HostClearSigTerm() != 1 || HostGetSigTerm(__FILE__, __LINE__) != 0) _exit(8);
    HostSignalSafePrint("now\n");
    HostDoSigExit();
  });
  EXPECT_TRUE(terminated.exitedWith(0)) << terminated.status;
  EXPECT_EQ(terminated.err, "later\nnow\n");

  const ChildResult fault = runInChild([] {
    installHandlers();
    later();
    asm volatile("ud2");
  });
  EXPECT_TRUE(fault.exitedWith(3));
  EXPECT_FALSE(contains(fault.err, "later"));
}

TEST(HostFault, ReapsEveryChild) {
  const ChildResult child = runInChild([] {
    installHandlers();
    for (int count = 0; count < 1000; ++count) {
      if (fork() == 0) _exit(0);
    }
    // What the handler has not reaped yet ends here; a zombie would stay.
    while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
    if (errno != ECHILD) _exit(1);
  });
  EXPECT_TRUE(child.exitedWith(0)) << child.err;
}

// Threads touch guarded pages while the process is pelted with signals that it survives. Every one
// that is handed on to an earlier handler, and every request to terminate, is seen.
TEST(HostFault, LosesNothingUnderAStormOfSignals) {
  static std::atomic<long> seen{0};
  const ChildResult child = runInChild([] {
    for (const int signal : {SIGQUIT, SIGFPE, SIGXFSZ, SIGHUP, SIGPIPE}) {
      installAction(
          signal, [](int, siginfo_t*, void*) { ++seen; }, SA_RESTART);
    }
    installHandlers();
    HostDelaySigExit([] { ++seen; }, nullptr);
    std::atomic<bool> stop{false};
    std::thread storm([&] {
      std::mt19937 random(4711);
      const int signals[] = {SIGCHLD, SIGIO, SIGQUIT, SIGFPE, SIGXFSZ, SIGHUP, SIGPIPE, SIGTERM};
      long terminations = 0;
      for (long sent = 0; !stop;) {
        const int signal = signals[random() % 8];
        kill(getpid(), signal);
        if (signal == SIGCHLD || signal == SIGIO) continue;
        ++sent;
        if (signal == SIGTERM) ++terminations;
        // A signal that is sent while it is still pending would be one with that.
        while (seen != sent) std::this_thread::yield();
      }
      if (HostGetSigTerm_() != terminations || terminations == 0) _exit(3);
    });
    char* pages = newPages(4);
    std::thread touchers[4];
    for (int index = 0; index < 4; ++index) {
      touchers[index] = std::thread([page = pages + index * pageSize] {
        SysErrorSType error;
        for (int round = 0; round < 500; ++round) {
          static std::atomic_flag table;
          while (table.test_and_set()) std::this_thread::yield();
          HostProtectPage(
              page, [](char*, char*) -> BoolType { return 1; }, &error);
          page[round] = static_cast<char>(round);
          table.clear();
          if (page[round] != static_cast<char>(round)) _exit(1);
        }
      });
    }
    for (std::thread& toucher : touchers) toucher.join();
    stop = true;
    storm.join();
    if (segvInProgressCount != 0) _exit(2);
  });
  EXPECT_TRUE(child.exitedWith(0)) << child.status;
  std::size_t resumed = 0;
  for (std::size_t at = 0; (at = child.err.find("[Debug]", at)) != std::string::npos; ++at) {
    ++resumed;
  }
  EXPECT_EQ(resumed, 2000u);
}

TEST(HostSignals, KeepsAnIgnoredKeyboardInterrupt) {
  const ChildResult child = runInChild([] {
    const auto routine = [](int) { HostSignalSafePrint("interrupted\n"); };
    HostEnableKbInt(routine);
    raise(SIGINT);
    std::signal(SIGINT, SIG_IGN);
    HostEnableKbInt(routine);
    raise(SIGINT);
    HostBeginSampling("samples");
    HostStopSampling();
    HostDisableInterrupts();
    HostDisableInterrupts();
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    if (!sigismember(&mask, SIGUSR2)) _exit(1);
    HostEnableInterrupts();
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    if (sigismember(&mask, SIGUSR2)) _exit(2);
  });
  EXPECT_TRUE(child.exitedWith(0));
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
