// The fault handler and the VM in one process, in either order and with the VM's signal-chaining
// library: each scenario of signals_program.cpp, and how the process ends.
#include "tests.h"

namespace {

using testing::_;
using Text = testing::Matcher<std::string>;

void expectEnds(bool vmFirst, bool chaining) {
  SCOPED_TRACE(std::string(vmFirst ? "VM first" : "handler first") +
               (chaining ? ", chaining" : ""));
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
      {"java-faults", 0, "caught 5000 10 40040, in handlers 0\n"},
      {"terminate", vmFirst ? 0 : 143, vmFirst ? "" : hook},
      {"hang-up", vmFirst ? 129 : 0, vmFirst ? hook : "ignored\n"},
      {"native-fault", 3, _, inFront ? own : aborted},
      {"library-fault", 3, _, own},
  };
  for (const auto& [scenario, status, out, err] : rows) {
    SCOPED_TRACE(scenario);
    const ChildResult result = runInChild([&, scenario = scenario] {
      if (chaining) setenv("LD_PRELOAD", POVZEL_LIBJSIG, 1);
      const char* const order = vmFirst ? "vm-first" : "handler-first";
      execl(POVZEL_SIGNALS_PROGRAM, "signals_program", order, scenario, nullptr);
      _exit(127);
    });
    EXPECT_TRUE(result.exitedWith(status)) << result.status << result.err;
    EXPECT_THAT(result.out, out);
    EXPECT_THAT(result.err, HasSubstr(err));
    EXPECT_EQ(status == 3 && !inFront, fs::remove("vm_report")) << "the VM's own report";
  }
}

TEST(Signals, EndTheProcessOrNot) {
  for (const bool vmFirst : {false, true}) {
    for (const bool chaining : {false, true}) expectEnds(vmFirst, chaining);
  }
}

}  // namespace
