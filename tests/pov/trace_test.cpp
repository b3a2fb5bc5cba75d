// The trace on standard output, which once switched on stays on.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "harness.h"

using harness::Context;
using harness::ScenarioSType;

namespace {

// CALL / GIVEN (see ScenarioSType), then the lines of its trace, each behind a "|". Of the
// abbreviations OOP stands for the beginning of every description, VALUE for the description of an
// immediate oop, GENERIC and LIBRARY for an error. A reference shows as "P".
constexpr char table[] = R"(
login 'srv' null 'usr' 'pass' null null / GetSessionId=3
|login.|     Connect: server = srv user = usr pass = pass|     Ready to ZelSetNet..
|     Ready to ZelLogin..|     Zel_Login OK!|     Setting up dirty object tracking..
|Login completed session = 3.|Returning: 3
login 'srv' null 'usr' 'pass' null null / Login=0
|login.|     Connect: server = srv user = usr pass = pass|     Ready to ZelSetNet..
|     Ready to ZelLogin..GENERIC(ZelLogin failure: cause unknown)|Returning: -1
logout / GetSessionId=9
|7:  Logout session.|     After Logout: Session ID = 9|Logout completed.|Returning: 0
setup result / result.oop=0 result.objType=3
|setupReport: initial oop 0|Returning: 0|setupReport: oop set to 0|Returning: 0|Returning: 0
setup result / result.oop=10
VALUE(10,Oop is NIL)|Returning: 0
setup result / result.oop=6
VALUE(6,Oop is Boolean)|Returning: 0
setup result / result.oop=6414
VALUE(6414,Oop is Char)|Returning: 0
setup result / result.oop=18
OOP(18)|   Initializing value fields for special|setup:  unknown special with oop 18
GENERIC(Logic error:  Bad object type)|Returning: -1|Returning: -1
setup result / result.oop=4000 impl=1 class=1521 size=4 OopToFlt=2.5
OOP(4000)|setup: oop 4000 objType 1|setupReport on FLOAT: 2.500000|Returning: 0|Returning: 0
setup result / result.oop=4000 class=1857 size=4 oops=8051,243,4444,10 OopToLong=-3600000
OOP(4000)|setup: oop 4000 objType 0|setup:  OOP/NSC cache size = 4
|setupReport CALENDAR: 2012 60 -3600000|Returning: 0|Returning: 0
isKindOf object other / object.objType=-1 object.valueType=5
|7: isKindOf.|getOop(): Logic error in case statement|Returning: 0|Returning: 0
|isKindOf completed.|Returning: 0
isKindOf object other / object.objType=-1 object.valueType=9 object.valueLong=4298567296
|7: isKindOf.|CALENDAR: yr -77 day -77 ms 4298567296|Returning: 0|Returning: 0
|isKindOf completed.|Returning: 0
executeStr '3 + 4' result / ExecuteStr=31
|7:  ExecuteStr.|     Execute Str = '3 + 4'|ResultOop = 31
VALUE(31,setup:  oop 31 is a small int, value = 7)|Returning: 0
executeStr '3 +' result / ExecuteStr=1 failing=ExecuteStr
|7:  ExecuteStr.|     Execute Str = '3 +'|ResultOop = 1LIBRARY()|Returning: -1
executeObj object result / Execute=10
|7:  ExecuteObj.|Returning: 0|     Execute str oop = 4716VALUE(10,Oop is NIL)|Returning: 0
perform object 'a:b:' array 2 result / Perform=10
|7: Perform.|Returning: 0|     Receiver = 4716|     NumArgs = 2|     jarg[0] = P|Returning: 0
|     arg[0] = 8000|     jarg[1] = P|Returning: 0|     arg[1] = 8004|     Selector = a:b:
VALUE(10,Oop is NIL)|Returning: 0
continue object other result null null / ContinueWith=10
|7:  Continue.|Returning: 0|Normal continue.|Returning: 0|Continue: oop result = 10
VALUE(10,Oop is NIL)|Returning: 0
continue object null result 'bad' 'at x\x0aat y' / ContinueWith=10
|7:  Continue.|Returning: 0|Error continue.|Error message: bad|Error stack: |at x|at y
|Continue: oop result = 10VALUE(10,Oop is NIL)|Returning: 0
continue object null result null null / ContinueWith=10
|7:  Continue.|Returning: 0|Interrupt continue.|Continue: oop result = 10
VALUE(10,Oop is NIL)|Returning: 0
getBytes object 4294967299 4 bytes / body=abcd
|7: getBytes start 4294967299 num 4|Returning: 0|     fetchedBytes = 4|getBytes completed.
|Returning: 4
putBytes object 4294967296 3 bytes /
|7: putBytes start 4294967296 num 3|Returning: 0|putBytes completed.|Returning: 0
getObjs object 2 5 array / oops=4000
|7: GetObjs start 2 num 5|Returning: 0|Zel_FetchVaryingOops: returned count 1 different from 5
|7:  GetObjs oopsFetched: 1OOP(4000)|Returning: 0|getObjs completed.|Returning: 1
getNamedObjs object 2 3 array / oops=10
|7: getNamedObjs start 2 num 3|Returning: 0VALUE(10,Oop is NIL)|getNamedObjs completed.
|Returning: 1
putObjs object 1 2 array /
|7: putObjs start 1 num 2|Returning: 0|Returning: 0|Returning: 0|putObjs completed.|Returning: 0
putNamedObjs object 9 1 array /
|7: putNamedObjs start 9 num 1|Returning: 0|Returning: 0|putNamedObjs completed.|Returning: 0
removeFromExportSet array 1 /
|7:  removeFromExportSet.|     jobj[0] = P|Returning: 0|     oop[0] = 8000
|removeFromExportSet completed.|Returning: 0
releaseOops longs 2 /
|7:  ReleaseOops.|     Releasing 2 oops:|     -77|     -76|ReleaseOops completed.|Returning: 0
changedOops longs 10 / oops=4000,4294967280
|7:  ChangedOops.|     Returning 2 changed oops:|     4000|     4294967280
|ChangedOops completed.|Returning: 2
)";

std::string spelledOut(const std::string& trace) {
  const std::pair<const char*, const char*> abbreviations[] = {
      {"VALUE\\((\\d+),([^()]*)\\)",
       "OOP($1)|   Initializing value fields for special|$2|Returning: 0"},
      {"OOP\\((\\d+)\\)", "|setupReport: initial oop $1|setupReport: oop set to $1"},
      {"GENERIC\\(([^()]*)\\)",
       "|GENERIC ERROR: $1|ZEL ERROR: |  Error:        2318|  Message:      $1"
       "|  Category Oop: 10|  Context Oop:  10|  FatalFlag:    0|  Number Args:  0"
       "|Generic Error return: $1"},
      {"LIBRARY\\(\\)",
       "|ZEL ERROR: |  Error:        2101|  Message:      something failed|  Category Oop: 231169"
       "|  Context Oop:  777|  FatalFlag:    0|  Number Args:  3|        ArgOop[0]:  11"
       "|        ArgOop[1]:  -1|        ArgOop[2]:  13"},
  };
  std::string text = trace;
  for (const auto& [short_, long_] : abbreviations) {
    text = std::regex_replace(text, std::regex(short_), long_);
  }
  return text;
}

// What was printed, as the table has it. The second line of a text has no prefix.
std::string abridged(const std::string& printed) {
  std::istringstream lines(printed);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    const std::string prefix = "DEBUG/ZelInterface: ";
    EXPECT_EQ(!line.starts_with("at "), line.starts_with(prefix)) << line;
    text += "|" + (line.starts_with(prefix) ? line.substr(prefix.size()) : line);
  }
  return std::regex_replace(text, std::regex("(jarg|jobj)(\\[\\d+\\]) = -?\\d+"), "$1$2 = P");
}

// The trace of a scenario; all of it is flushed.
std::string traceOf(const ScenarioSType& scenario, Context& context, jint* status) {
  harness::clear();
  std::string flushed;
  std::string all;
  {
    const harness::Output output;
    *status = scenario.run(context);
    flushed = output.flushed();
    all = output.all();
  }
  EXPECT_EQ(all, flushed);
  return abridged(all);
}

class Trace : public testing::Test {
 protected:
  static void SetUpTestSuite() { harness::initialize(1); }
};

TEST_F(Trace, IsWhatItAlwaysWas) {
  std::vector<std::pair<ScenarioSType, std::string>> rows;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t slash = line.find(" /");
    if (slash != std::string::npos) {
      rows.push_back({{.call = line.substr(0, slash), .given = line.substr(slash + 2)}, ""});
    } else if (!line.empty()) {
      rows.back().second += line;
    }
  }
  for (const auto& [scenario, trace] : rows) {
    Context context;
    jint status = 0;
    EXPECT_EQ(spelledOut(trace), traceOf(scenario, context, &status)) << scenario.call;
  }
}

TEST_F(Trace, ChangesNothing) {
  for (const ScenarioSType& scenario : harness::scenarios()) {
    SCOPED_TRACE(scenario.call);
    Context context;
    jint status = 0;
    traceOf(scenario, context, &status);
    EXPECT_EQ(scenario.status, status);
    EXPECT_EQ(scenario.error, context.shown("error"));
  }
}

TEST_F(Trace, TellsOfAnErrorReportThatCannotBeFilled) {
  for (const char* function : {"NewStringUTF", "NewLongArray"}) {
    Context context;
    harness::clear();
    jnitable::state = {.failAt = 1, .failName = function};
    harness::Output output;
    const jint status = context.call("setup null");
    const std::string text = abridged(output.all());
    ASSERT_EQ(-1, status);
    ASSERT_TRUE(
        text.ends_with("|Allocation Error return|Returning: -2|Generic Error return: "
                       "setup(): NULL result argument|Returning: -1"));
  }
}

}  // namespace
