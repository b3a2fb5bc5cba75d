// _initialize, which works once in a process: every situation has a process of its own.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include <povzel/zelrtl.h>
#include "harness.h"

using harness::Context;
using harness::errorText;
using harness::generic;
using recorder::state;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char starting[] = "[Info] libpovzel30 initializing.\n";
constexpr char completed[] = "[Info] libpovzel30 initialization completed.\n";
constexpr char accepted[] =
    "[Info] libpovzel: TV/ZEL Product = TV/A\n[Info] libpovzel: TV/ZEL Version = 6.7\n";

// One call of _initialize, and what came of it.
struct Attempt {
  jint status = 0;
  std::string error;
  std::string printed;
  std::string flushed;
};

struct ArgumentsSType {
  jint useLinked = 0;
  const char* appName = nullptr;
  jint bufSize = 1000;
  jint preloadSize = 256;
  jint debugFlag = 0;
};

Attempt initialize(const ArgumentsSType& arguments) {
  Context context;
  jstring appName = arguments.appName != nullptr ? jvm::newString(arguments.appName) : nullptr;
  calls::all.clear();
  Attempt attempt;
  {
    harness::Output output;
    attempt.status =
        context.run(NATIVE(initialize), arguments.useLinked, appName, arguments.bufSize,
                    arguments.preloadSize, arguments.debugFlag, context.error);
    attempt.flushed = output.flushed();
    attempt.printed = output.all();
  }
  attempt.error = errorText(context.error);
  EXPECT_FALSE(context.env->ExceptionCheck());
  EXPECT_EQ(0, jnitable::state.held);
  EXPECT_EQ("", jvm::takeWarnings());
  return attempt;
}

void prepare() {
  recorder::install();
  recorder::reset();
  jnitable::reset();
}

void expectFailure(const ArgumentsSType& arguments, const std::string& error) {
  const Attempt attempt = initialize(arguments);
  EXPECT_EQ(-1, attempt.status);
  EXPECT_EQ(error, attempt.error);
}

// Ends a process, whose failures would otherwise not be heard of.
[[noreturn]] void leave() {
  const auto& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i) {
    const testing::TestPartResult& part = result.GetTestPartResult(i);
    std::fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
  }
  std::exit(result.Failed() ? 1 : 0);
}

// Runs a situation in a new process.
void inProcess(void (*situation)()) {
  EXPECT_EXIT(
      {
        prepare();
        situation();
        leave();
      },
      testing::ExitedWithCode(0), "");
}

std::string housekept(const std::string& calls) {
  return calls.find("ExceptionCheck") == std::string::npos ? calls : "ExceptionCheck";
}

TEST(InitializeDeathTest, Succeeds) {
  inProcess([] {
    Attempt attempt = initialize({.bufSize = 100, .preloadSize = 0});
    EXPECT_EQ(32, attempt.status);
    EXPECT_EQ("", attempt.error);
    EXPECT_EQ("", attempt.flushed);
    EXPECT_EQ(std::string(starting) + accepted + completed, attempt.printed);
    EXPECT_EQ("ZelProduct() ZelVersion() ZelInit()", calls::joined("Zel"));
    EXPECT_THAT(
        housekept(calls::joined()),
        StartsWith("FindClass('com/tarvolin/povzel/PovZelReport') GetFieldID(?,'oop','J') "
                   "GetFieldID(?,'classOop','J') GetFieldID(?,'classHistoryOop','J') "
                   "GetFieldID(?,'objType','B') GetFieldID(?,'namedSize','I') "
                   "GetFieldID(?,'indexedSize','J') GetFieldID(?,'isCollection','Z') "
                   "GetFieldID(?,'isString','Z') GetFieldID(?,'isDBString','Z') "
                   "GetFieldID(?,'valueType','B') GetFieldID(?,'valueInt1','I') "
                   "GetFieldID(?,'valueInt2','I') GetFieldID(?,'valueLong','J') "
                   "GetFieldID(?,'valueDouble','D') GetFieldID(?,'valueBytes','[B') "
                   "GetFieldID(?,'valueLongs','[J') "
                   "GetFieldID(?,'valueString','Ljava/lang/String;') DeleteLocalRef(?) "
                   "FindClass('com/tarvolin/povzel/PovZelException') GetFieldID(?,'number','I') "
                   "GetFieldID(?,'message','Ljava/lang/String;') GetFieldID(?,'category','J') "
                   "GetFieldID(?,'context','J') GetFieldID(?,'fatal','Z') "
                   "GetFieldID(?,'argCount','I') GetFieldID(?,'args','[J') DeleteLocalRef(?) "
                   "ZelProduct() ZelVersion() ZelInit()"));
    // Once more: nothing but the line and the answer.
    attempt = initialize({.bufSize = 1, .preloadSize = 2});
    EXPECT_EQ(32, attempt.status);
    EXPECT_EQ(starting, attempt.printed);
    EXPECT_EQ("", calls::joined());
  });
}

TEST(InitializeDeathTest, TracesEveryStep) {
  inProcess([] {
    Attempt attempt = initialize(
        {.useLinked = 5, .appName = "app", .bufSize = 1001, .preloadSize = 30, .debugFlag = 2});
    EXPECT_EQ(32, attempt.status);
    EXPECT_EQ("ZelProduct() ZelVersion() ZelInitAppName('app',1) ZelInit()", calls::joined("Zel"));
    const std::string d = "DEBUG/ZelInterface: ";
    const std::string sizes = d + "Initialize.\n" + d + "SIZEOF long = 4\n" + d +
                              "SiZEOF int = 4\n" + d + "SIZEOF OopType = 4\n" + d +
                              "SIZEOF jlong = 8\n" + d + "SizeOF jint   = 4\n" + d +
                              "SIZEOF jint = 4\n" + d + "SizeOF jlong   = 8\n";
    std::string fields;
    for (const char* field :
         {"oop",         "classOop",     "classHistoryOop", "objType",     "namedSize",
          "indexedSize", "isCollection", "isString",        "isDBString",  "valueType",
          "valueInt1",   "valueInt2",    "valueLong",       "valueDouble", "valueBytes",
          "valueLongs",  "valueString",  "number",          "message",     "category",
          "context",     "fatal",        "argCount",        "args"}) {
      fields += d + "JNI/Initialize:  Setting up FID " + field + "\n";
    }
    EXPECT_EQ(starting + sizes + d + "Initialize:  PreloadSize = 30/7\n" + fields + d +
                  "     Ready to ZelRtlLoad: useLinked = 5\n" + accepted + d +
                  "     Ready to ZelInitAppName: app\n" + d + "     Ready to ZelInit..\n" + d +
                  "     Ready to setup buffers\n" + d + "Initialize: MaxBufferSize = 1001/250\n" +
                  completed + d + "Returning: 32\n",
              attempt.printed);
    const std::string library = std::string(getenv("TARVOLIN")) + "/lib/libzellnk67.so";
    EXPECT_NE(nullptr, dlopen(library.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    attempt = initialize({});
    EXPECT_EQ(starting + sizes + d + "Already initialized.\n" + d + "Returning: 32\n",
              attempt.printed);
  });
}

TEST(InitializeDeathTest, FailsBeforeTheLibraryIsThere) {
  inProcess([] {
    expectFailure({.bufSize = 100, .preloadSize = 101}, generic("preloadSize exceeds bufSize"));
    expectFailure({.bufSize = -2, .preloadSize = -1}, generic("preloadSize exceeds bufSize"));

    const auto failing = [](const char* function, int at) {
      jnitable::reset();
      jnitable::state.failName = function;
      jnitable::state.failAt = at;
    };
    failing("FindClass", 1);
    expectFailure({}, generic("JNI: Can't find PovZelReport"));
    failing("FindClass", 2);
    expectFailure({}, generic("JNI: Can't find PovZelException"));
    const char* const fields[] = {"oop",         "classOop",    "classHistoryOop", "objType",
                                  "namedSize",   "indexedSize", "isCollection",    "isString",
                                  "isDBString",  "valueType",   "valueInt1",       "valueInt2",
                                  "valueLong",   "valueDouble", "valueBytes",      "valueLongs",
                                  "valueString", "number",      "message",         "category",
                                  "context",     "fatal",       "argCount",        "args"};
    for (int i = 0; i < 24; ++i) {
      failing("GetFieldID", i + 1);
      expectFailure({}, generic(std::string("JNI/Initialize: Field setup error on ") + fields[i]));
      EXPECT_LE(jnitable::state.references, 2);
    }
    EXPECT_EQ(0, ZelRtlIsLoaded());
    jnitable::reset();

    setenv("TARVOLIN", "/no/such/directory", 1);
    Attempt attempt = initialize({});
    EXPECT_EQ(-1, attempt.status);
    EXPECT_THAT(attempt.error,
                StartsWith("2318 'ZelRtlLoad failure: dlopen(libzelrpc67.so) failed because "));
    unsetenv("TARVOLIN");
    attempt = initialize({});
    EXPECT_THAT(attempt.error, HasSubstr("\nThe TARVOLIN environment variable is not defined.\n"
                                         "Setting it should correct this error.\n'"));
    // Nothing of that is in the way of a proper start.
    prepare();
    EXPECT_EQ(32, initialize({}).status);
  });
}

TEST(InitializeDeathTest, RefusesOtherProductsAndVersions) {
  inProcess([] {
    for (const auto& [product, text] :
         {std::pair{0, ""}, {2, "TV/BB"}, {3, "TV/CC"}, {4, ""}, {255, ""}}) {
      state.results["ZelProduct"] = product;
      const Attempt attempt = initialize({});
      EXPECT_EQ(-1, attempt.status);
      EXPECT_EQ(generic("Incorrect version of libpovzel loaded: wrong TV product"), attempt.error);
      EXPECT_THAT(attempt.printed, HasSubstr("Product = " + std::string(text) + "\n[Info] "));
      EXPECT_EQ("ZelProduct() ZelVersion()", calls::joined("Zel"));
      ZelRtlUnload();
    }
    state.results.clear();
    for (const char* version : {"6.2", "6.2.9", "10.0", "9.9.9999", "", "6", "a"}) {
      state.version = version;
      expectFailure({}, generic(std::string("Incorrect version of libpovzel: built for 6.3, "
                                            "running on ") +
                                version));
      ZelRtlUnload();
    }
    state.version = std::string(5000, '1');
    EXPECT_EQ(-1, initialize({}).status);
    // The library stays loaded, and that is what the next call finds.
    state.version = "6.7";
    expectFailure({}, generic("ZelRtlLoad failure: Library is already loaded."));
    state.pending = true;
    expectFailure({}, harness::libraryError());
  });
  inProcess([] {
    state.version = "6.3";
    EXPECT_EQ(32, initialize({}).status);
  });
  inProcess([] {
    state.version = "9.9.999";
    EXPECT_EQ(32, initialize({}).status);
  });
}

TEST(InitializeDeathTest, FailsInTheLibrary) {
  inProcess([] {
    jnitable::state.failName = "GetStringUTFChars";
    jnitable::state.failAt = 1;
    const Attempt attempt = initialize({.appName = "app", .debugFlag = 1});
    EXPECT_EQ(-2, attempt.status);
    EXPECT_EQ("", attempt.error);
    EXPECT_THAT(attempt.printed, testing::EndsWith("DEBUG/ZelInterface: Allocation Error return\n"
                                                   "DEBUG/ZelInterface: Returning: -2\n"));
    EXPECT_EQ("ZelProduct() ZelVersion()", calls::joined("Zel"));
    ZelRtlUnload();

    state.results["ZelInit"] = 0;
    expectFailure({}, generic("ZelInit failure"));
    ZelRtlUnload();
    recorder::reset();
    state.results["ZelInit"] = 0;
    state.failName = "ZelInit";
    state.failAt = 1;
    expectFailure({}, harness::libraryError());
  });
}

TEST(InitializeDeathTest, FailsWithoutMemory) {
  inProcess([] {
    jvm::start();
    const struct {
      double room;  // in buffers
      const char* buffer;
    } cases[] = {{0.5, "byte"}, {1.5, "oop"}, {2.5, "long"}};
    constexpr jint size = 200 << 20;
    for (const auto& c : cases) {
      unsigned long pages = 0;
      std::ifstream("/proc/self/statm") >> pages;
      const rlim_t now = pages * static_cast<rlim_t>(getpagesize());
      rlimit limit{};
      getrlimit(RLIMIT_AS, &limit);
      limit.rlim_cur = now + static_cast<rlim_t>(c.room * size);
      ASSERT_EQ(0, setrlimit(RLIMIT_AS, &limit));
      // Without the pages of what was allocated before, which stays.
      expectFailure({.bufSize = size}, generic(std::string("Problem allocating ") + c.buffer +
                                               " buffer in initialize()"));
      limit.rlim_cur = limit.rlim_max;
      setrlimit(RLIMIT_AS, &limit);
      ZelRtlUnload();
    }
  });
}

TEST(InitializeDeathTest, SizesAreKeptInBounds) {
  const auto describeString = [](const char* shownRoom) {
    Context context;
    recorder::describe(1, 1169, 1000);
    calls::all.clear();
    EXPECT_EQ(0, context.run(NATIVE(setup), 7, context.object, context.error));
    EXPECT_THAT(calls::joined("ZelFetchObjInfo"),
                StartsWith("ZelFetchObjInfo(4716,1," + std::string(shownRoom) + ","));
    recorder::describe(0, 1045, 1000);
    EXPECT_EQ(0, context.run(NATIVE(setup), 7, context.object, context.error));
    return std::to_string(jvm::bytes(context.object, "valueBytes").size()) + " " +
           std::to_string(jvm::longs(context.object, "valueLongs").size());
  };
  static const auto describe = describeString;
  static const auto getBytes = [](jint count) {
    Context context;
    state.body = std::string(5000, 'b');
    context.run(NATIVE(getBytes), 7, context.object, jlong{1}, count,
                jvm::newBytes(std::string(5000, '-')), context.error);
    return errorText(context.error);
  };
  const std::string exceeded = generic("getBytes(): numBytes requested exceeds buffer size");
  static const std::string refused = exceeded;
  inProcess([] {
    EXPECT_EQ(32, initialize({.bufSize = 1001, .preloadSize = 30}).status);
    EXPECT_EQ("30 7", describe("30"));
    EXPECT_EQ("", getBytes(1001));
    EXPECT_EQ(refused, getBytes(1002));
    Context context;
    jlongArray many = jvm::newLongs(std::vector<jlong>(300, 20));
    EXPECT_EQ(0, context.run(NATIVE(releaseOops), 7, many, 250, context.error));
    EXPECT_EQ(-1, context.run(NATIVE(releaseOops), 7, many, 251, context.error));
  });
  inProcess([] {
    EXPECT_EQ(32, initialize({.bufSize = 100, .preloadSize = 15}).status);
    EXPECT_EQ("16 4", describe("16"));
  });
  inProcess([] {
    EXPECT_EQ(32, initialize({.bufSize = 3, .preloadSize = 3}).status);
    EXPECT_EQ("16 4", describe("16"));
    EXPECT_EQ("", getBytes(3));
    EXPECT_EQ(refused, getBytes(4));
    state.error.argCount = 10;
    state.pending = true;
    Context context;
    EXPECT_EQ(-1, context.run(NATIVE(logout), 7, context.error));
    EXPECT_EQ(10U, jvm::longs(context.error, "args").size());
  });
  inProcess([] {
    EXPECT_EQ(32, initialize({.bufSize = -100, .preloadSize = -101}).status);
    EXPECT_EQ("0 0", describe("0"));
    EXPECT_EQ(refused, getBytes(0));
  });
}

// A hundred thousand elements in one call: no reference outlives its turn of the loop.
TEST(InitializeDeathTest, LongArraysLeaveNoReferences) {
  inProcess([] {
    constexpr jint count = 100000;
    EXPECT_EQ(32, initialize({.bufSize = 4 * count}).status);
    calls::recording = false;
    Context context;
    jobject text = Context::textValue(jvm::newReport(), 7, u"element");
    jobjectArray objs = jvm::newReports(count, text);
    state.oops.assign(count, 4000);
    jnitable::reset();
    const auto expect = [&](jint wanted, jint status) {
      EXPECT_EQ(wanted, status);
      EXPECT_EQ("", errorText(context.error));
    };
    expect(0,
           context.run(NATIVE(putObjs), 7, context.object, jlong{1}, count, objs, context.error));
    expect(0, context.run(NATIVE(removeFromExportSet), 7, objs, count, context.error));
    expect(count,
           context.run(NATIVE(getObjs), 7, context.object, jlong{1}, count, objs, context.error));
    jlongArray longs = jvm::newLongs(std::vector<jlong>(count, 0));
    expect(count, context.run(NATIVE(changedOops), 7, longs, count, context.error));
    expect(0, context.run(NATIVE(releaseOops), 7, longs, count, context.error));
    EXPECT_LE(jnitable::state.mostReferences, 4);
    EXPECT_EQ(0, jnitable::state.references);
    EXPECT_EQ("", jvm::takeWarnings());
  });
}

// Every native before initialization: the refusal, no library call and no trace of its own but
// that of its entry.
TEST(InitializeDeathTest, NothingWorksBefore) {
  inProcess([] {
    EXPECT_EQ(-1, initialize({.bufSize = 1, .preloadSize = 2, .debugFlag = 1}).status);
    for (const harness::ScenarioSType& scenario : harness::scenarios()) {
      SCOPED_TRACE(scenario.name);
      prepare();
      Context context;
      std::string printed;
      {
        harness::Output output;
        EXPECT_EQ(-1, scenario.run(context));
        printed = output.all();
      }
      EXPECT_EQ(generic("ZEL: Not initialized"), errorText(context.error));
      EXPECT_EQ("", calls::joined("Zel"));
      EXPECT_EQ("", calls::joined("Release"));
      EXPECT_THAT(printed, testing::EndsWith("  Number Args:  0\n"));
      const std::size_t own = printed.find("DEBUG/ZelInterface: GENERIC ERROR");
      const std::string entry = own > 0 ? printed.substr(20, own - 20) : "";
      if (scenario.trace.empty()) continue;
      EXPECT_THAT(scenario.trace, StartsWith(entry));
    }
  });
}

}  // namespace
