// The fault handler and the VM in one process, in either order and with the VM's signal-chaining
// library: each scenario of signals_program.cpp, and how the process ends.

using testing::_;
#include "tests.h"

namespace {

using Text = testing::Matcher<std::string>;

// The VM writes a report of its own.
bool takeVmReport() {
  return std::filesystem::remove("vm_report");
}

void expectEnds(bool vmFirst, bool chaining) {
  SCOPED_TRACE(std::string(vmFirst ? "VM first" : "handler first") +
               (chaining ? ", chaining" : ""));
  const auto run = [vmFirst, chaining](const char* scenario, const char* option = nullptr) {
    return runInChild([&] {
      if (chaining) setenv("LD_PRELOAD", POVZEL_LIBJSIG, 1);
      const char* const order = vmFirst ? "vm-first" : "handler-first";
      execl(POVZEL_SIGNALS_PROGRAM, "signals_program", order, scenario, option, nullptr);
      _exit(127);
    });
  };
  const std::string hook = "shutdown hook\n";
  const std::string own = "TV Signal Handler: Unhandled signal 11, SIGSEGV Received at ";
  // The VM reports, and its abort comes here.
  const std::string aborted = "TV signal handler: signal 6 (SIGABRT), received from";
  // Whether the VM sees a fault before the fault handler does.
  const bool inFront = chaining || !vmFirst;
  const struct {
    const char* scenario;
    int status;
    Text out;
    std::string err = "";  // part of it
  } rows[] = {
      {"java-faults", 0, "caught 40040, in handlers 0\n"},
      {"shut-down", 0, "caught 1010\ncaught 1010\ncaught 1010\n"},
      {"storm", 0, "wrong 0, in handlers 0\n"},
      {"thread-dump", 0, "thread dump\n"},
      {"terminate", vmFirst ? 0 : 143, vmFirst ? "" : hook},
      {"postponed-terminate", 143, hook},
      {"hang-up", vmFirst ? 129 : 0, vmFirst ? hook : "ignored\n"},
      // The VM in front has no use for a signal stack.
      {inFront ? "native-fault-in-thread" : "native-overflow", 3, _, inFront ? own : aborted},
      {"native-fault-in-threads", 3, _, inFront ? own : aborted},
      {"native-fault-after-shut-down", 3, _, inFront ? own : aborted},
      {"library-fault", 3, _, own},
  };
  for (const auto& [scenario, status, out, err] : rows) {
    SCOPED_TRACE(scenario);
    const ChildResult result = run(scenario);
    EXPECT_TRUE(result.exitedWith(status)) << result.status << result.err;
    EXPECT_THAT(result.out, out);
    EXPECT_THAT(result.err, HasSubstr(err));
    EXPECT_TRUE(status != 3 || result.err.find(err) == result.err.rfind(err)) << "twice";
    EXPECT_EQ(status == 3 && !inFront, takeVmReport());
  }
  // A replaced handler is all that checked JNI warns of.
  const ChildResult checked = run("java-faults", "-Xcheck:jni");
  EXPECT_TRUE(checked.exitedWith(inFront ? 0 : 70)) << checked.status;
  EXPECT_THAT(checked.err, HasSubstr(inFront ? "" : "Warning: SIGSEGV handler modified!"));
}

TEST(Signals, EndTheProcessOrNot) {
  for (const bool vmFirst : {false, true}) {
    for (const bool chaining : {false, true}) expectEnds(vmFirst, chaining);
  }
}

}  // namespace
