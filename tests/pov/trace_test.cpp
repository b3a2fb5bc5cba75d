// The trace on standard output, which once switched on stays on.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "harness.h"

using harness::Context;

namespace {

// Each line with the prefix, but for those within a message.
std::string prefixed(const std::string& trace) {
  std::istringstream lines(trace);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    text += (line.compare(0, 3, "at ") == 0 ? "" : "DEBUG/ZelInterface: ") + line + "\n";
  }
  return text;
}

TEST(Trace, IsWhatTheScenariosSay) {
  harness::initialize(1);
  int compared = 0;
  for (const harness::ScenarioSType& scenario : harness::scenarios()) {
    SCOPED_TRACE(scenario.name);
    recorder::reset();
    jnitable::reset();
    Context context;
    jint status = 0;
    std::string flushed;
    std::string all;
    {
      harness::Output output;
      status = scenario.run(context);
      flushed = output.flushed();
      all = output.all();
    }
    EXPECT_EQ(scenario.status, status);
    EXPECT_EQ(scenario.error, harness::errorText(context.error));
    EXPECT_EQ(all, flushed);
    if (scenario.trace.empty()) continue;
    ++compared;
    const std::regex reference("(jarg|jobj)(\\[\\d+\\]) = -?\\d+");
    EXPECT_EQ(prefixed(scenario.trace), std::regex_replace(all, reference, "$1$2 = P"));
  }
  EXPECT_LT(30, compared);
}

TEST(Trace, TellsOfAnErrorReportThatCannotBeFilled) {
  harness::initialize(1);
  for (const char* function : {"NewStringUTF", "NewLongArray"}) {
    recorder::reset();
    jnitable::reset();
    jnitable::state.failName = function;
    jnitable::state.failAt = 1;
    Context context;
    harness::Output output;
    const jint status =
        context.run(NATIVE(setup), harness::session, jobject(nullptr), context.error);
    const std::string text = output.all();
    const std::string tail = prefixed(
        "Allocation Error return\nReturning: -2\n"
        "Generic Error return: setup(): NULL result argument\nReturning: -1\n");
    ASSERT_EQ(-1, status);
    ASSERT_LE(tail.size(), text.size());
    EXPECT_EQ(tail, text.substr(text.size() - tail.size()));
  }
}

}  // namespace
