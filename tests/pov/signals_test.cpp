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

using testing::_;
using testing::HasSubstr;

namespace {

using Text = testing::Matcher<std::string>;

struct Order {
  const char* argument;
  bool chaining;

  bool isVmFirst() const { return std::string(argument) == "vm-first"; }
  // Whether the VM sees a fault before the fault handler does.
  bool isVmInFront() const { return chaining || !isVmFirst(); }
};

// The VM writes a report of its own.
bool takeVmReport() {
  return std::filesystem::remove("vm_report");
}

constexpr Order orders[] = {
    {"handler-first", false}, {"handler-first", true}, {"vm-first", false}, {"vm-first", true}};

ChildResult run(const Order& order, const char* scenario, const char* option = nullptr) {
  return runInChild([&] {
    if (order.chaining) setenv("LD_PRELOAD", POVZEL_LIBJSIG, 1);
    execl(POVZEL_SIGNALS_PROGRAM, "signals_program", order.argument, scenario, option, nullptr);
    _exit(127);
  });
}

TEST(Signals, EndTheProcessOrNot) {
  const std::string hook = "shutdown hook\n";
  const std::string caught = "caught 5000 10 10020, in handlers 0\n";
  const std::string own = "TV Signal Handler: Unhandled signal 11, SIGSEGV Received at ";
  // The VM reports, and its abort comes here.
  const std::string aborted = "TV signal handler: signal 6 (SIGABRT), received from";
  for (const Order& order : orders) {
    const bool vmFirst = order.isVmFirst();
    const bool inFront = order.isVmInFront();
    const struct {
      const char* scenario;
      int status;
      Text out;
      std::string err = "";  // part of it
    } rows[] = {
        {"java-faults", 0, caught},
        {"many-threads", 0, "caught 40040\n"},
        {"first-to-see", inFront ? 0 : 1, inFront ? Text(caught) : _},
        {"thread-dump", 0, "thread dump\n"},
        {"terminate", vmFirst ? 0 : 143, vmFirst ? "" : hook},
        {"postponed-terminate", 143, hook},
        {"hang-up", vmFirst ? 129 : 0, vmFirst ? hook : "ignored\n"},
        {"native-fault", 3, _, inFront ? own : aborted},
        {"native-fault-in-thread", 3, _, inFront ? own : aborted},
        {"library-fault", 3, _, own},
    };
    for (const auto& [scenario, status, out, err] : rows) {
      SCOPED_TRACE(std::string(order.argument) + (order.chaining ? ", chaining, " : ", ") +
                   scenario);
      const ChildResult result = run(order, scenario);
      EXPECT_TRUE(result.exitedWith(status)) << result.status << result.err;
      EXPECT_THAT(result.out, out);
      EXPECT_THAT(result.err, HasSubstr(err));
      EXPECT_EQ(status == 3 && !inFront, takeVmReport());
    }
    // One of them may find the others in their reports for too long.
    const ChildResult several = run(order, "native-fault-in-threads");
    EXPECT_TRUE(several.exitedWith(3) || several.killedBy(SIGABRT)) << several.status;
    EXPECT_THAT(several.err, HasSubstr("TV "));
    takeVmReport();
    // A replaced handler is all that checked JNI warns of.
    const ChildResult checked = run(order, "java-faults", "-Xcheck:jni");
    EXPECT_TRUE(checked.exitedWith(inFront ? 0 : 70)) << checked.status;
    EXPECT_THAT(checked.err, HasSubstr(inFront ? "" : "Warning: SIGSEGV handler modified!"));
  }
}

}  // namespace
