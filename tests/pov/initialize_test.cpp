// _initialize, which works once in a process: every situation has a process of its own.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <povzel/zelrtl.h>
#include <cstdlib>
#include <fstream>

#include "harness.h"

using harness::Context;
using harness::generic;
using recorder::state;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

const std::string starting = "[Info] libpovzel30 initializing.\n";
const std::string accepted =
    "[Info] libpovzel: TV/ZEL Product = TV/A\n[Info] libpovzel: TV/ZEL Version = 6.7\n";
const std::string completed = "[Info] libpovzel30 initialization completed.\n";
constexpr const char* fields[] = {
    "oop",          "classOop",    "classHistoryOop", "objType",    "namedSize",   "indexedSize",
    "isCollection", "isString",    "isDBString",      "valueType",  "valueInt1",   "valueInt2",
    "valueLong",    "valueDouble", "valueBytes",      "valueLongs", "valueString", "number",
    "message",      "category",    "context",         "fatal",      "argCount",    "args"};

struct ArgumentsSType {
  jint useLinked = 0;
  const char* appName = nullptr;
  jint bufSize = 1000;
  jint preloadSize = 256;
  jint debugFlag = 0;
};

// One call of _initialize, and what came of it.
struct Attempt : Context {
  explicit Attempt(const ArgumentsSType& a) {
    state.calls.clear();
    state.count = jnitable::state.references = 0;
    jstring appName = a.appName != nullptr ? jvm::newString(a.appName) : nullptr;
    status = run(NATIVE(initialize), a.useLinked, appName, a.bufSize, a.preloadSize, a.debugFlag,
                 static_cast<jthrowable>(named["error"]));
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_EQ(0, jnitable::state.held);
    EXPECT_LE(jnitable::state.references, 2);
    EXPECT_EQ("", jvm::takeWarnings());
  }

  jint status;
};

void expectStart(const ArgumentsSType& arguments) {
  EXPECT_EQ(32, Attempt(arguments).status);
}

// Unloads the library, which otherwise stays in the way of the next attempt.
void expectFailure(const ArgumentsSType& arguments, const testing::Matcher<std::string>& error) {
  const Attempt attempt(arguments);
  EXPECT_EQ(-1, attempt.status);
  EXPECT_THAT(attempt.shown("error"), error);
  ZelRtlUnload();
}

// Runs a situation in a new process, whose failures would otherwise not be heard of.
template <typename F>
void inProcess(F situation) {
  const auto body = [&situation] {
    recorder::install();
    harness::clear();
    situation();
    const auto& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result.total_part_count(); ++i) {
      const testing::TestPartResult& part = result.GetTestPartResult(i);
      std::fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
    }
    std::exit(result.Failed() ? 1 : 0);
  };
  EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
}

// Lines of the trace.
std::string traced(std::initializer_list<std::string> lines) {
  std::string text;
  for (const std::string& line : lines) text += "DEBUG/ZelInterface: " + line + "\n";
  return text;
}

TEST(InitializeDeathTest, Succeeds) {
  inProcess([] {
    const Attempt attempt({.bufSize = 100, .preloadSize = 0});
    EXPECT_EQ(32, attempt.status);
    EXPECT_EQ("", attempt.shown("error"));
    EXPECT_EQ("", attempt.flushed);
    EXPECT_EQ(starting + accepted + completed, attempt.printed);
    EXPECT_EQ("Product() Version() Init()", state.calls);
    // Once more: nothing but the line and the answer, not even a look at the JVM.
    jnitable::state = {};
    const Attempt again({.bufSize = 1, .preloadSize = 2});
    EXPECT_EQ(32, again.status);
    EXPECT_EQ(starting, again.printed);
    EXPECT_EQ("", state.calls);
    EXPECT_EQ(0, jnitable::state.count);
  });
}

TEST(InitializeDeathTest, TracesEveryStep) {
  inProcess([] {
    const Attempt attempt(
        {.useLinked = 5, .appName = "app", .bufSize = 1001, .preloadSize = 30, .debugFlag = 2});
    EXPECT_EQ("Product() Version() InitAppName('app',1) Init()", state.calls);
    const std::string sizes =
        traced({"Initialize.", "SIZEOF long = 4", "SiZEOF int = 4", "SIZEOF OopType = 4",
                "SIZEOF jlong = 8", "SizeOF jint   = 4", "SIZEOF jint = 4", "SizeOF jlong   = 8"});
    std::string found;
    for (const std::string field : fields) {
      found += traced({"JNI/Initialize:  Setting up FID " + field});
    }
    EXPECT_EQ(starting + sizes + traced({"Initialize:  PreloadSize = 30/7"}) + found +
                  traced({"     Ready to ZelRtlLoad: useLinked = 5"}) + accepted +
                  traced({"     Ready to ZelInitAppName: app", "     Ready to ZelInit..",
                          "     Ready to setup buffers", "Initialize: MaxBufferSize = 1001/250"}) +
                  completed + traced({"Returning: 32"}),
              attempt.printed);
    const std::string library = std::string(getenv("TARVOLIN")) + "/lib/libzellnk67.so";
    EXPECT_NE(nullptr, dlopen(library.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    EXPECT_EQ(starting + sizes + traced({"Already initialized.", "Returning: 32"}),
              Attempt({}).printed);
  });
}

TEST(InitializeDeathTest, FailsBeforeTheLibraryIsThere) {
  inProcess([] {
    expectFailure({.bufSize = 100, .preloadSize = 101}, generic("preloadSize exceeds bufSize"));
    expectFailure({.bufSize = -2, .preloadSize = -1}, generic("preloadSize exceeds bufSize"));
    jnitable::state = {.failAt = 1, .failName = "FindClass"};
    expectFailure({}, generic("JNI: Can't find PovZelReport"));
    jnitable::state = {.failAt = 2, .failName = "FindClass"};
    expectFailure({}, generic("JNI: Can't find PovZelException"));
    for (int n = 0; const std::string field : fields) {
      jnitable::state = {.failAt = ++n, .failName = "GetFieldID"};
      expectFailure({}, generic("JNI/Initialize: Field setup error on " + field));
    }
    harness::clear();
    setenv("TARVOLIN", "/no/such/directory", 1);
    expectFailure({}, HasSubstr("=ZelRtlLoad failure: dlopen(libzelrpc67.so) failed because "));
    unsetenv("TARVOLIN");
    expectFailure({}, HasSubstr("\nThe TARVOLIN environment variable is not defined.\n"
                                "Setting it should correct this error.\n category="));
    // Nothing of that is in the way of a proper start.
    recorder::install();
    expectStart({});
  });
}

TEST(InitializeDeathTest, RefusesOtherProductsAndVersions) {
  inProcess([] {
    for (const auto& [product, text] :
         {std::pair{0, ""}, {2, "TV/BB"}, {3, "TV/CC"}, {4, ""}, {255, ""}}) {
      state.results["Product"] = product;
      const Attempt attempt({});
      EXPECT_EQ(generic("Incorrect version of libpovzel loaded: wrong TV product"),
                attempt.shown("error"));
      EXPECT_THAT(attempt.printed, HasSubstr("Product = " + std::string(text) + "\n[Info] "));
      EXPECT_EQ("Product() Version()", state.calls);
      ZelRtlUnload();
    }
    state.results.clear();
    for (const char* version : {"6.2", "6.2.9", "10.0", "9.9.9999", "", "6", "a"}) {
      state.version = version;
      expectFailure({}, generic("Incorrect version of libpovzel: built for 6.3, running on " +
                                state.version));
    }
    state.version = std::string(5000, '1');
    EXPECT_EQ(-1, Attempt({}).status);
    // The library stays loaded, and that is what the next call finds.
    state.pending = true;
    EXPECT_EQ(harness::libraryError(), Attempt({}).shown("error"));
    expectFailure({}, generic("ZelRtlLoad failure: Library is already loaded."));
  });
  for (const char* version : {"6.3", "9.9.999"}) {
    inProcess([version] {
      state.version = version;
      expectStart({});
    });
  }
}

TEST(InitializeDeathTest, FailsInTheLibrary) {
  inProcess([] {
    jnitable::state = {.failAt = 1, .failName = "GetStringUTFChars"};
    const Attempt attempt({.appName = "app", .debugFlag = 1});
    EXPECT_EQ(-2, attempt.status);
    EXPECT_EQ("", attempt.shown("error"));
    EXPECT_THAT(attempt.printed, EndsWith(traced({"Allocation Error return", "Returning: -2"})));
    EXPECT_EQ("Product() Version()", state.calls);
    ZelRtlUnload();
    state.results["Init"] = 0;
    expectFailure({}, generic("ZelInit failure"));
    state.failName = "Init";
    state.failAt = 1;
    expectFailure({}, harness::libraryError());
  });
}

TEST(InitializeDeathTest, FailsWithoutMemory) {
  inProcess([] {
    jvm::start();
    constexpr jint size = 200 << 20;
    // How many buffers there is room for, beside those of the attempts before, which stay.
    for (const auto& [room, buffer] : {std::pair{0.5, "byte"}, {1.5, "oop"}, {2.5, "long"}}) {
      unsigned long pages = 0;
      std::ifstream("/proc/self/statm") >> pages;
      rlimit limit{};
      getrlimit(RLIMIT_AS, &limit);
      limit.rlim_cur = pages * getpagesize() + static_cast<rlim_t>(room * size);
      ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
      expectFailure({.bufSize = size}, generic("Problem allocating " + std::string(buffer) +
                                               " buffer in initialize()"));
      limit.rlim_cur = limit.rlim_max;
      setrlimit(RLIMIT_AS, &limit);
    }
  });
}

TEST(InitializeDeathTest, SizesAreKeptInBounds) {
  const struct {
    jint bufSize;
    jint preloadSize;
    const char* preloaded;  // bytes, as the library is asked for them
    const char* bytes;      // of an object of 1000 bytes
    const char* oops;       // of an object of 1000 oops
    jint most;              // bytes in one transfer
  } cases[] = {{1001, 30, "(4716,1,30,", "=<30>", "=[6,6,6,6,6,6,6]", 1001},
               {100, 15, "(4716,1,16,", "=<bbbbbbbbbbbbbbbb>", "=[6,6,6,6]", 100},
               {3, 3, "(4716,1,16,", "=<bbbbbbbbbbbbbbbb>", "=[6,6,6,6]", 3},
               {-100, -101, "(4716,1,0,", "=<>", "=[]", -1}};
  for (const auto& test : cases) {
    inProcess([&test] {
      expectStart({.bufSize = test.bufSize, .preloadSize = test.preloadSize});
      Context c;
      c.named["bytes"] = jvm::newBytes(std::string(5000, '-'));
      c.named["longs"] = jvm::newLongs(300);
      const auto transfer = [&c](const char* call, jint count, const char* array) {
        return c.call(call + std::to_string(count) + array);
      };
      state.body = std::string(5000, 'b');
      state.oops.assign(1000, 6);
      state.results = {{"impl", 1}, {"class", 900}, {"size", 1000}};
      state.calls.clear();
      EXPECT_EQ(0, c.call("setup object"));
      EXPECT_THAT(state.calls, HasSubstr(test.preloaded));
      state.results["impl"] = 0;
      EXPECT_EQ(0, c.call("setup object"));
      EXPECT_THAT(c.shown("object"), HasSubstr(test.bytes));
      EXPECT_THAT(c.shown("object"), HasSubstr(test.oops));
      if (test.most >= 0) {
        EXPECT_EQ(test.most, transfer("getBytes object 1 ", test.most, " bytes"));
        EXPECT_EQ(0, transfer("releaseOops longs ", test.most / 4, ""));
      }
      EXPECT_EQ(-1, transfer("releaseOops longs ", test.most / 4 + 1, ""));
      EXPECT_EQ(-1, transfer("getBytes object 1 ", test.most + 1, " bytes"));
      EXPECT_EQ(generic("getBytes(): numBytes requested exceeds buffer size"), c.shown("error"));
      state.error.argCount = 10;
      state.pending = true;
      EXPECT_EQ(-1, c.call("logout"));
      EXPECT_THAT(c.shown("error"), EndsWith(" args=[11,4294967295,13,0,0,0,0,0,0,0]"));
    });
  }
}

// Every native before initialization: the refusal, no library call, nothing released, and no trace
// but that of its entry.
TEST(InitializeDeathTest, NothingWorksBefore) {
  inProcess([] {
    expectFailure({.bufSize = 1, .preloadSize = 2, .debugFlag = 1},
                  generic("preloadSize exceeds bufSize"));
    for (const harness::ScenarioSType& scenario : harness::scenarios()) {
      SCOPED_TRACE(scenario.call);
      harness::clear();
      Context c;
      EXPECT_EQ(-1, scenario.run(c));
      EXPECT_EQ(generic("ZEL: Not initialized"), c.shown("error"));
      EXPECT_EQ("", state.calls);
      EXPECT_EQ("", jnitable::state.released);
      EXPECT_THAT(c.printed, EndsWith("  Number Args:  0\n"));
      EXPECT_LE(std::count(c.printed.begin(), c.printed.end(), '\n'), 9);
    }
  });
}

}  // namespace
