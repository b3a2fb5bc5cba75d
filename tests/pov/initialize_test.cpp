// _initialize, which works once in a process: every situation has a process of its own.

#include <povzel/zelrtl.h>

#include "harness.h"
#include "tests.h"

using harness::generic;
using recorder::state;

namespace {

const std::string starting = "[Info] libpovzel30 initializing.\n";
const std::string product = "[Info] libpovzel: TV/ZEL Product = TV/A\n";
const std::string version = "[Info] libpovzel: TV/ZEL Version = ";
const std::string completed = "\n[Info] libpovzel30 initialization completed.\n";
const std::string started = "32 | Product() Version() Init() | ";
const std::string asked = "Product() Version()";

std::string printed;  // by the last attempt

// One call with useLinked, appName, bufSize, preloadSize and debugFlag. Returns its status, the
// library's calls and the error.
std::string attempt(const std::string& arguments = "0 null 1000 256 0") {
  harness::Context c;
  state.calls.clear();
  state.count = jnitable::state.count = jnitable::state.references = 0;
  const jint status = c.call("initialize " + arguments);
  EXPECT_FALSE(c.env->ExceptionCheck());
  EXPECT_EQ(0, jnitable::state.held);
  EXPECT_LE(jnitable::state.references, 2);
  EXPECT_EQ("", jvm::takeWarnings());
  printed = c.printed;
  return std::to_string(status) + " | " + state.calls + " | " + c.shown("error");
}

// Unloads the library, which otherwise stays in the way of the next attempt.
std::string failure(const std::string& arguments = "0 null 1000 256 0") {
  std::string outcome = attempt(arguments);
  ZelRtlUnload();
  return outcome;
}

std::string refused(const std::string& message, const std::string& calls = "") {
  return "-1 | " + calls + " | " + generic(message);
}

// Runs a situation in a new process.
void inProcess(const std::function<void()>& situation) {
  const ChildResult child = inChild([&situation] {
    recorder::install();
    harness::clear();
    situation();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(0, exitCode(child)) << child.out << child.err;
}

// And nothing of it is in the way of a proper start.
TEST(Initialize, FailsAtEveryStep) {
  inProcess([] {
    EXPECT_EQ(refused("preloadSize exceeds bufSize"), failure("0 null 100 101 1"));
    // Until it has succeeded, every native refuses: no library call, nothing released, and no trace
    // but that of its entry.
    for (const harness::ScenarioSType& scenario : harness::scenarios()) {
      SCOPED_TRACE(scenario.call);
      harness::clear();
      harness::Context c;
      EXPECT_EQ(-1, scenario.run(c));
      EXPECT_EQ(generic("ZEL: Not initialized"), c.shown("error"));
      EXPECT_EQ("", state.calls + jnitable::state.released);
    }
    harness::clear();
    for (const auto& [function, n, message] :
         {std::tuple{"FindClass", 1, "JNI: Can't find PovZelReport"},
          {"FindClass", 2, "JNI: Can't find PovZelException"},
          {"GetFieldID", 1, "JNI/Initialize: Field setup error on oop"},
          {"GetFieldID", 18, "JNI/Initialize: Field setup error on number"},
          {"GetFieldID", 24, "JNI/Initialize: Field setup error on args"}}) {
      jnitable::state = {.failAt = n, .failName = function};
      EXPECT_EQ(refused(message), failure());
    }
    harness::clear();
    setenv("TARVOLIN", "/no/such/directory", 1);
    EXPECT_THAT(failure(),
                HasSubstr("=ZelRtlLoad failure: dlopen(libzelrpc67.so) failed because "));
    EXPECT_THAT(failure("5 null 1000 256 0"), HasSubstr(" dlopen(libzellnk67.so) failed "));
    recorder::install();
    state.results["Product"] = 3;
    EXPECT_EQ(refused("Incorrect version of libpovzel loaded: wrong TV product", asked), failure());
    EXPECT_THAT(printed, HasSubstr("Product = TV/CC\n[Info] "));
    state.results.clear();
    const std::string other = "Incorrect version of libpovzel: built for 6.3, running on ";
    for (const char* found : {"6.2.9", "10.0", "9.9.9999", "", "6"}) {
      state.version = found;
      EXPECT_EQ(refused(other + found, asked), failure());
    }
    state.version = std::string(5000, '1');
    EXPECT_EQ(refused(other + std::string(299 - other.size(), '1'), asked), attempt());
    // The library stays loaded, and that is what the next call finds.
    state.pending = true;
    EXPECT_EQ("-1 | ? | " + harness::libraryError(), attempt());
    EXPECT_EQ(refused("ZelRtlLoad failure: Library is already loaded.", "?"), failure());
    state.version = "6.7";
    jnitable::state = {.failAt = 1, .failName = "GetStringUTFChars"};
    EXPECT_EQ("-2 | " + asked + " | ", failure("0 'app' 1000 256 0"));
    state.results["Init"] = 0;
    EXPECT_EQ(refused("ZelInit failure", asked + " Init()?"), failure());
    state.failName = "Init";
    state.failAt = 1;
    EXPECT_EQ("-1 | " + asked + " Init()? | " + harness::libraryError(), failure());
    harness::clear();
    // More than there are addresses.
    EXPECT_THAT(failure("0 null 2147483647 256 0"), HasSubstr("message=Problem allocating "));
    EXPECT_EQ("32 | " + asked + " InitAppName('app',1) Init() | ", attempt("5 'app' 1001 30 1"));
    const std::string debug = "\nDEBUG/ZelInterface: ";
    EXPECT_THAT(printed, HasSubstr(debug + "JNI/Initialize:  Setting up FID args" + debug));
    EXPECT_THAT(printed, HasSubstr(debug + "Initialize: MaxBufferSize = 1001/250" + completed));
    // Once more: nothing but the lines and the answer, not even a look at the JVM.
    EXPECT_EQ("32 |  | ", attempt("0 null 1 2 0"));
    EXPECT_THAT(printed, StartsWith(starting + debug.substr(1) + "Initialize." + debug));
    EXPECT_THAT(printed, EndsWith(debug + "Already initialized." + debug + "Returning: 32\n"));
    EXPECT_EQ(0, jnitable::state.count);
  });
}

TEST(Initialize, SizesAreKeptInBounds) {
  for (const auto& test : {std::pair{"3 3", "(4716,1,16,"}, {"-100 -101", "(4716,1,0,"}}) {
    inProcess([&test] {
      state.version = "9.9.999";
      EXPECT_EQ(started, attempt("0 null " + std::string(test.first) + " 0"));
      EXPECT_EQ(starting + product + version + "9.9.999" + completed, printed);
      harness::Context c;
      EXPECT_EQ(0, c.call("setup object"));
      EXPECT_THAT(state.calls, HasSubstr(test.second));
      EXPECT_EQ(-1, c.call("getBytes object 1 4 bytes"));
      EXPECT_EQ(generic("getBytes(): numBytes requested exceeds buffer size"), c.shown("error"));
    });
  }
}

}  // namespace
