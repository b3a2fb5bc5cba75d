// The fault handler and the VM in one process, in either order and with the VM's signal-chaining
// library: each scenario of signals_program.cpp, and how the process ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "process.h"

using testing::HasSubstr;

namespace {

struct Order {
  const char* argument;
  bool chaining;

  bool isVmFirst() const { return std::string(argument) == "vm-first"; }
  // Whether the VM sees a fault before the fault handler does.
  bool isVmInFront() const { return chaining || !isVmFirst(); }
};

constexpr Order orders[] = {
    {"handler-first", false}, {"handler-first", true}, {"vm-first", false}, {"vm-first", true}};

ChildResult run(const Order& order, const char* scenario, const char* option = nullptr) {
  return runInChild([&] {
    if (order.chaining) setenv("LD_PRELOAD", POVZEL_LIBJSIG, 1);
    execl(POVZEL_SIGNALS_PROGRAM, "signals_program", order.argument, scenario, option, nullptr);
    _exit(127);
  });
}

// The VM writes a report of its own into a file of the working directory.
bool takeVmReport() {
  bool found = false;
  for (const auto& entry : std::filesystem::directory_iterator(".")) {
    if (!entry.path().filename().string().starts_with("hs_err_pid")) continue;
    std::filesystem::remove(entry.path());
    found = true;
  }
  return found;
}

TEST(Signals, EndTheProcessOrNot) {
  constexpr char hook[] = "shutdown hook\n";
  constexpr char caught[] = "caught 5000 10 10020, in handlers 0\n";
  struct End {
    int status;
    const char* out;  // null if it does not matter
  };
  for (const Order& order : orders) {
    const bool vmFirst = order.isVmFirst();
    const bool inFront = order.isVmInFront();
    const struct {
      const char* scenario;
      End end;
    } rows[] = {
        {"java-faults", {0, caught}},
        {"many-threads", {0, "caught 40040\n"}},
        {"first-to-see", inFront ? End{0, caught} : End{1, nullptr}},
        {"thread-dump", {0, "thread dump\n"}},
        {"terminate", vmFirst ? End{0, ""} : End{143, hook}},
        {"postponed-terminate", {143, hook}},
        {"hang-up", vmFirst ? End{129, hook} : End{0, "ignored\n"}},
    };
    for (const auto& [scenario, end] : rows) {
      SCOPED_TRACE(std::string(order.argument) + (order.chaining ? ", chaining, " : ", ") +
                   scenario);
      const ChildResult result = run(order, scenario);
      EXPECT_TRUE(result.exitedWith(end.status)) << result.status << result.err;
      EXPECT_EQ(end.out != nullptr ? end.out : result.out, result.out);
    }
  }
}

TEST(Signals, CheckedJniWarnsOnlyOfReplacedHandlers) {
  for (const Order& order : orders) {
    const ChildResult checked = run(order, "java-faults", "-Xcheck:jni");
    EXPECT_TRUE(checked.exitedWith(order.isVmInFront() ? 0 : 70)) << checked.status;
    const bool warned = checked.err.find("Warning: SIGSEGV handler modified!") != std::string::npos;
    EXPECT_EQ(!order.isVmInFront(), warned);
  }
}

TEST(Signals, NativeFaultsEndTheProcess) {
  const auto own = HasSubstr("TV Signal Handler: Unhandled signal 11, SIGSEGV Received at ");
  // The VM reports, and its abort comes here.
  const auto aborted = HasSubstr("TV signal handler: signal 6 (SIGABRT), received from");
  for (const Order& order : orders) {
    SCOPED_TRACE(order.argument);
    for (const std::string scenario : {"native-fault", "native-fault-in-thread", "library-fault"}) {
      SCOPED_TRACE(scenario);
      const ChildResult fault = run(order, scenario.c_str());
      EXPECT_TRUE(fault.exitedWith(3)) << fault.status;
      const bool isOwn = order.isVmInFront() || scenario == "library-fault";
      EXPECT_THAT(fault.err, isOwn ? own : aborted);
      EXPECT_EQ(!order.isVmInFront(), takeVmReport());
    }
    // One of them may find the others in their reports for too long.
    const ChildResult several = run(order, "native-fault-in-threads");
    EXPECT_TRUE(several.exitedWith(3) || several.killedBy(SIGABRT)) << several.status;
    EXPECT_THAT(several.err, HasSubstr("TV "));
    takeVmReport();
  }
}

}  // namespace
