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
constexpr const char* fields[] = {
    "oop",          "classOop",    "classHistoryOop", "objType",    "namedSize",   "indexedSize",
    "isCollection", "isString",    "isDBString",      "valueType",  "valueInt1",   "valueInt2",
    "valueLong",    "valueDouble", "valueBytes",      "valueLongs", "valueString", "number",
    "message",      "category",    "context",         "fatal",      "argCount",    "args"};

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
  EXPECT_EQ(printed.find("DEBUG/") == std::string::npos, c.flushed.empty());
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
template <typename F>
void inProcess(F situation) {
  const ChildResult child = inChild([&situation] {
    recorder::install();
    harness::clear();
    situation();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(0, exitCode(child)) << child.out << child.err;
}

// Lines of the trace.
std::string traced(std::initializer_list<std::string> lines) {
  std::string text;
  for (const std::string& line : lines) text += "DEBUG/ZelInterface: " + line + "\n";
  return text;
}

TEST(Initialize, TracesEveryStep) {
  inProcess([] {
    EXPECT_EQ("32 | Product() Version() InitAppName('app',1) Init() | ",
              attempt("5 'app' 1001 30 2"));
    const std::string sizes =
        traced({"Initialize.", "SIZEOF long = 4", "SiZEOF int = 4", "SIZEOF OopType = 4",
                "SIZEOF jlong = 8", "SizeOF jint   = 4", "SIZEOF jint = 4", "SizeOF jlong   = 8"});
    std::string found = traced({"Initialize:  PreloadSize = 30/7"});
    for (const std::string field : fields) {
      found += traced({"JNI/Initialize:  Setting up FID " + field});
    }
    found += traced({"     Ready to ZelRtlLoad: useLinked = 5"});
    const std::string last =
        traced({"     Ready to ZelInitAppName: app", "     Ready to ZelInit..",
                "     Ready to setup buffers", "Initialize: MaxBufferSize = 1001/250"});
    EXPECT_EQ(starting + sizes + found + product + version + "6.7\n" + last + completed.substr(1) +
                  traced({"Returning: 32"}),
              printed);
    // Once more: nothing but the lines and the answer, not even a look at the JVM.
    EXPECT_EQ("32 |  | ", attempt("0 null 1 2 0"));
    EXPECT_EQ(starting + sizes + traced({"Already initialized.", "Returning: 32"}), printed);
    EXPECT_EQ(0, jnitable::state.count);
  });
}

// And nothing of it is in the way of a proper start.
TEST(Initialize, FailsAtEveryStep) {
  inProcess([] {
    EXPECT_EQ(refused("preloadSize exceeds bufSize"), failure("0 null -2 -1 0"));
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
      EXPECT_THAT(c.printed, EndsWith("  Number Args:  0\n"));
      EXPECT_LE(std::count(c.printed.begin(), c.printed.end(), '\n'), 9);
    }
    harness::clear();
    const auto failing = [](const char* function, int n) {
      jnitable::state = {.failAt = n, .failName = function};
      return failure();
    };
    EXPECT_EQ(refused("JNI: Can't find PovZelReport"), failing("FindClass", 1));
    EXPECT_EQ(refused("JNI: Can't find PovZelException"), failing("FindClass", 2));
    for (int n = 0; const std::string field : fields) {
      EXPECT_EQ(refused("JNI/Initialize: Field setup error on " + field),
                failing("GetFieldID", ++n));
    }
    harness::clear();
    setenv("TARVOLIN", "/no/such/directory", 1);
    EXPECT_THAT(failure(),
                HasSubstr("=ZelRtlLoad failure: dlopen(libzelrpc67.so) failed because "));
    EXPECT_THAT(failure("5 null 1000 256 0"), HasSubstr(" dlopen(libzellnk67.so) failed "));
    unsetenv("TARVOLIN");
    EXPECT_THAT(failure(), HasSubstr("\nThe TARVOLIN environment variable is not defined.\n"
                                     "Setting it should correct this error.\n category="));
    recorder::install();
    for (const auto& [code, text] :
         {std::pair{0, ""}, {2, "TV/BB"}, {3, "TV/CC"}, {4, ""}, {255, ""}}) {
      state.results["Product"] = code;
      EXPECT_EQ(refused("Incorrect version of libpovzel loaded: wrong TV product", asked),
                failure());
      EXPECT_THAT(printed, HasSubstr("Product = " + std::string(text) + "\n[Info] "));
    }
    state.results.clear();
    const std::string other = "Incorrect version of libpovzel: built for 6.3, running on ";
    for (const char* found : {"6.2", "6.2.9", "10.0", "9.9.9999", "", "6", "a"}) {
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
    EXPECT_THAT(printed, EndsWith(traced({"Allocation Error return", "Returning: -2"})));
    state.results["Init"] = 0;
    EXPECT_EQ(refused("ZelInit failure", asked + " Init()?"), failure());
    state.failName = "Init";
    state.failAt = 1;
    EXPECT_EQ("-1 | " + asked + " Init()? | " + harness::libraryError(), failure());
    state.results.clear();
    EXPECT_EQ(started, attempt());
  });
}

TEST(Initialize, FailsWithoutMemory) {
  inProcess([] {
    jvm::start();
    constexpr jint room = 400 << 20;
    const rlim_t used = std::stoul(readFile("/proc/self/statm")) * getpagesize();
    const rlimit limit = {used + room, RLIM_INFINITY};
    ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
    // The buffers of an attempt stay in the way of the next. The one of longs takes twice the size.
    for (const auto& [size, buffer] :
         {std::pair{room, "byte"}, {room / 8 * 5, "oop"}, {room / 8, "long"}}) {
      EXPECT_EQ(refused("Problem allocating " + std::string(buffer) + " buffer in initialize()",
                        asked + " Init()"),
                failure("0 null " + std::to_string(size) + " 256 0"));
    }
  });
}

TEST(Initialize, SizesAreKeptInBounds) {
  const struct {
    std::string version;
    const char* sizes;      // of the buffers and of the preload
    const char* preloaded;  // bytes, as the library is asked for them
    const char* shown;      // of an object of 1000 bytes, and then of one of 1000 oops
    jint most;              // bytes in one transfer
  } cases[] = {
      {"6.3", "1001 30", "(4716,1,30,", " valueBytes=<30> valueLongs=[6,6,6,6,6,6,6]", 1001},
      {"9.9.999", "100 15", "(4716,1,16,", "=<bbbbbbbbbbbbbbbb> valueLongs=[6,6,6,6]", 100},
      {"6.7", "3 3", "(4716,1,16,", "=<bbbbbbbbbbbbbbbb> valueLongs=[6,6,6,6]", 3},
      {"6.7", "-100 -101", "(4716,1,0,", " valueBytes=<> valueLongs=[]", -1}};
  for (const auto& test : cases) {
    inProcess([&test] {
      state.version = test.version;
      EXPECT_EQ(started, attempt("0 null " + std::string(test.sizes) + " 0"));
      EXPECT_EQ(starting + product + version + test.version + completed, printed);
      harness::Context c;
      c.named["bytes"] = jvm::newBytes(std::string(5000, '-'));
      c.named["longs"] = jvm::newLongs(300);
      state.body = std::string(5000, 'b');
      state.oops.assign(1000, 6);
      state.results = {{"impl", 1}, {"class", 900}, {"size", 1000}};
      EXPECT_EQ(0, c.call("setup object"));
      EXPECT_THAT(state.calls, HasSubstr(test.preloaded));
      state.results["impl"] = 0;
      EXPECT_EQ(0, c.call("setup object"));
      EXPECT_THAT(c.shown("object"), EndsWith(test.shown));
      const auto transfer = [&c](const char* call, jint count, const char* array = "") {
        return c.call(call + std::to_string(count) + array);
      };
      EXPECT_EQ(std::min(test.most, 0), transfer("releaseOops longs ", test.most / 4));
      EXPECT_EQ(-1, transfer("releaseOops longs ", test.most / 4 + 1));
      EXPECT_EQ(test.most, transfer("getBytes object 1 ", test.most, " bytes"));
      EXPECT_EQ(-1, transfer("getBytes object 1 ", test.most + 1, " bytes"));
      EXPECT_EQ(generic("getBytes(): numBytes requested exceeds buffer size"), c.shown("error"));
    });
  }
}

}  // namespace
