// The fault handler and the VM in one process, in either order and with the VM's signal-chaining
// library: each scenario of signals_program.cpp, and how the process ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "child.h"

using testing::HasSubstr;
using testing::Not;

namespace {

struct Order {
  const char* name;
  const char* argument;
  bool chaining;
};

constexpr Order orders[] = {
    {"handler first", "handler-first", false},
    {"handler first, chaining library", "handler-first", true},
    {"VM first", "vm-first", false},
    {"VM first, chaining library", "vm-first", true},
};

bool isVmStartedFirst(const Order& order) {
  return std::string(order.argument) == "vm-first";
}

// Whether the VM sees a fault before the fault handler does.
bool isVmInFront(const Order& order) {
  return order.chaining || !isVmStartedFirst(order);
}

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
    if (entry.path().filename().string().rfind("hs_err_pid", 0) != 0) continue;
    std::filesystem::remove(entry.path());
    found = true;
  }
  return found;
}

TEST(Signals, JavaFaultsStayTheVms) {
  for (const Order& order : orders) {
    SCOPED_TRACE(order.name);
    const ChildResult faults = run(order, "java-faults");
    EXPECT_TRUE(faults.exitedWith(0)) << faults.status << faults.err;
    EXPECT_EQ(faults.out, "caught 5000 10 10020, in handlers 0\n");
    const ChildResult many = run(order, "many-threads");
    EXPECT_TRUE(many.exitedWith(0)) << many.status << many.err;
    EXPECT_EQ(many.out, "caught 40040\n");

    const ChildResult first = run(order, "first-to-see");
    EXPECT_TRUE(first.exitedWith(isVmInFront(order) ? 0 : 1)) << first.status << first.err;
  }
}

TEST(Signals, CheckedJniWarnsOnlyOfReplacedHandlers) {
  for (const Order& order : orders) {
    SCOPED_TRACE(order.name);
    const ChildResult checked = run(order, "java-faults", "-Xcheck:jni");
    EXPECT_TRUE(checked.exitedWith(isVmInFront(order) ? 0 : 70)) << checked.status;
    const auto warning = HasSubstr("Warning: SIGSEGV handler modified!");
    if (isVmInFront(order)) {
      EXPECT_THAT(checked.err, Not(warning));
    } else {
      EXPECT_THAT(checked.err, warning);
    }
  }
}

TEST(Signals, ControlSignals) {
  constexpr char hook[] = "shutdown hook\n";
  for (const Order& order : orders) {
    SCOPED_TRACE(order.name);
    const bool vmStartedFirst = isVmStartedFirst(order);
    EXPECT_EQ(run(order, "thread-dump").out, "thread dump\n");

    const ChildResult term = run(order, "terminate");
    EXPECT_TRUE(term.exitedWith(vmStartedFirst ? 0 : 143)) << term.status;
    EXPECT_EQ(term.out, vmStartedFirst ? "" : hook);

    const ChildResult postponed = run(order, "postponed-terminate");
    EXPECT_TRUE(postponed.exitedWith(143)) << postponed.status;
    EXPECT_EQ(postponed.out, hook);

    const ChildResult hangUp = run(order, "hang-up");
    EXPECT_TRUE(hangUp.exitedWith(vmStartedFirst ? 129 : 0)) << hangUp.status;
    EXPECT_EQ(hangUp.out, vmStartedFirst ? hook : "ignored\n");
  }
}

TEST(Signals, NativeFaultsEndTheProcess) {
  const auto report = HasSubstr("TV Signal Handler: Unhandled signal 11, SIGSEGV Received at ");
  for (const Order& order : orders) {
    SCOPED_TRACE(order.name);
    for (const char* scenario : {"native-fault", "native-fault-in-thread"}) {
      const ChildResult fault = run(order, scenario);
      EXPECT_TRUE(fault.exitedWith(3)) << scenario << fault.status;
      EXPECT_EQ(takeVmReport(), !isVmInFront(order)) << scenario;
      if (isVmInFront(order)) {
        EXPECT_THAT(fault.err, report) << scenario;
      } else {
        // The VM reports, and its abort comes here.
        EXPECT_THAT(fault.err, HasSubstr("TV signal handler: signal 6 (SIGABRT), received from"));
      }
    }
    const ChildResult own = run(order, "library-fault");
    EXPECT_TRUE(own.exitedWith(3)) << own.status;
    EXPECT_THAT(own.err, report);
    EXPECT_EQ(takeVmReport(), !isVmInFront(order));

    // One of them may find the others in their reports for too long.
    const ChildResult several = run(order, "native-fault-in-threads");
    EXPECT_TRUE(several.exitedWith(3) || several.killedBy(SIGABRT)) << several.status;
    EXPECT_THAT(several.err, HasSubstr("TV "));
    takeVmReport();
  }
}

}  // namespace
