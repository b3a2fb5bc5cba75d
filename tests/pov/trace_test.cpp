// The trace on standard output, which once switched on stays on.

#include "harness.h"
#include "tests.h"

using harness::Context;

namespace {

// What the traces in the scenarios' table abbreviate.
constexpr std::pair<const char*, const char*> abbreviations[] = {
    {"SEVEN", "VALUE(31,setup:  oop 31 is a small int, value = 7);Returning: 0"},
    {"VALUE\\((\\d+),([^()]*)\\)",
     "OOP($1);   Initializing value fields for special;$2;Returning: 0"},
    {"OOP\\((\\d+)\\)", ";setupReport: initial oop $1;setupReport: oop set to $1"},
    {"GENERIC\\(([^()]*)\\)",
     ";GENERIC ERROR: $1;ZEL ERROR: ;  Error:        2318;  Message:      $1;  Category Oop: 10"
     ";  Context Oop:  10;  FatalFlag:    0;  Number Args:  0;Generic Error return: $1"},
};

// As it is printed, but for references, which show as "P". The second line of a text has no prefix.
std::string printed(std::string trace) {
  for (const auto& [abbreviation, text] : abbreviations) {
    trace = std::regex_replace(trace, std::regex(abbreviation), text);
  }
  trace = std::regex_replace(trace, std::regex(";(?!at )"), "\nDEBUG/ZelInterface: ");
  return std::regex_replace(trace, std::regex(";"), "\n").substr(1) + "\n";
}

TEST(Trace, TellsOfEveryStepAndChangesNothing) {
  harness::initialize(1);
  const std::regex reference("(jarg\\[\\d+\\]) = -?\\d+");
  for (const harness::ScenarioSType& scenario : harness::scenarios()) {
    SCOPED_TRACE(scenario.call + " | " + scenario.given);
    harness::clear();
    Context context;
    EXPECT_EQ(scenario.status, scenario.run(context));
    EXPECT_EQ(scenario.error, context.shown("error"));
    EXPECT_EQ(context.printed, context.flushed);
    if (scenario.trace.empty()) continue;
    EXPECT_EQ(printed(scenario.trace), std::regex_replace(context.printed, reference, "$1 = P"));
  }
  // An error that cannot be reported is told of.
  Context context;
  harness::clear();
  recorder::state.pending = true;
  jnitable::state = {.failAt = 1, .failName = "NewLongArray"};
  EXPECT_EQ(-1, context.call("logout"));
  EXPECT_THAT(context.printed,
              EndsWith(printed(
                  ";ZEL ERROR: ;  Error:        2101;  Message:      something failed"
                  ";  Category Oop: 231169;  Context Oop:  777;  FatalFlag:    0;  Number Args:  3"
                  ";        ArgOop[0]:  11;        ArgOop[1]:  -1;        ArgOop[2]:  13"
                  ";Allocation Error return;Returning: -2;Returning: -1")));
}

}  // namespace
