// Every native in the situations of the scenarios: what it does, and what it does when any one of
// its calls to the JVM or to the interface library fails.
#include <malloc.h>

#include "harness.h"
#include "misaligned.h"
#include "tests.h"

namespace harness {
namespace {

// Whatever happened: nothing is pending, nothing is held, no loop left references behind, and the
// next call works.
void expectClean(Context& c) {
  EXPECT_FALSE(c.env->ExceptionCheck());
  c.env->ExceptionClear();
  EXPECT_EQ(0, jnitable::state.held);
  EXPECT_LE(jnitable::state.references, 4);
  clear();
  EXPECT_EQ(0, c.call("logout"));
  EXPECT_EQ("SetSessionId(7)? Logout()? GetSessionId()", recorder::state.calls);
}

class Natives : public testing::Test {
 protected:
  static void SetUpTestSuite() { initialize(0); }
  Natives() { clear(); }
};

// Errors that the order of the library's calls gives no room for: the poll that would see them
// comes after another call, or clears them, or never comes.
const std::set<std::string> passedOver = {"FetchNamedOop", "FetchObjInfo", "OopToBool", "OopToChr"};
const std::set<std::string> seenLater = {"Login", "IsKindOf", "OopToFlt", "OopToLong"};

void expectStopped(const ScenarioSType& scenario, const Context& c, jint status) {
  const std::string failed = recorder::state.failed;
  const std::string made = recorder::state.calls;
  const bool atLogout = failed == "GetSessionId" && scenario.call == "logout";
  const bool isAnswer = scenario.given.ends_with("FetchObjInfo=0");
  if ((passedOver.contains(failed) && !isAnswer) || atLogout) {
    EXPECT_EQ(scenario.status, status);
    EXPECT_EQ(scenario.error, c.shown("error"));
    return;
  }
  EXPECT_EQ(-1, status);
  EXPECT_EQ(libraryError(), c.shown("error"));
  if (seenLater.contains(failed)) return;
  // The failing call, its poll, and nothing behind it; before it, what is always done.
  EXPECT_THAT(scenario.calls, StartsWith(made));
  EXPECT_THAT(made, EndsWith("?"));
  EXPECT_EQ(std::string::npos, made.find(") ", made.rfind(failed)));
}

const std::set<std::string> inReports = {"NewStringUTF", "NewLongArray"};

void expectSurvived(const ScenarioSType& scenario, const Context& c, jint status) {
  const std::string failed = jnitable::state.failed;
  EXPECT_THAT(scenario.calls, StartsWith(recorder::state.calls));
  if (scenario.status == -1 && inReports.contains(failed)) {
    EXPECT_EQ(-1, status);  // the error stays an error when its report cannot be filled
  } else if (failed == "GetObjectArrayElement") {
    EXPECT_EQ(-1, status);
    EXPECT_THAT(c.shown("error"), StartsWith("number=2318 "));
  } else {
    EXPECT_EQ(-2, status);
    EXPECT_EQ("", c.shown("error"));
  }
}

// Every scenario with its first failure, its second, and so on, until there is none any more: then
// the native does what the scenario says.
template <typename Fail, typename Expect>
void sweep(Fail fail, Expect expect) {
  for (const ScenarioSType& scenario : scenarios()) {
    SCOPED_TRACE(scenario.call + " | " + scenario.given);
    bool failed = true;
    for (int n = 1; failed; ++n) {
      clear();
      fail(n);
      Context context;
      const jint status = scenario.run(context);
      EXPECT_EQ("", context.printed);
      const std::string function = recorder::state.failed + jnitable::state.failed;
      failed = !function.empty();
      SCOPED_TRACE(std::to_string(n) + ": " + function);
      if (failed) {
        expect(scenario, context, status);
      } else {
        EXPECT_EQ(scenario.status, status);
        EXPECT_EQ(scenario.calls, recorder::state.calls);
        EXPECT_EQ(scenario.changes, context.changes());
        EXPECT_EQ(scenario.error, context.shown("error"));
      }
      expectClean(context);
    }
  }
}

TEST_F(Natives, StopAtAnyErrorOfTheLibrary) {
  sweep([](int n) { recorder::state.failAt = n; }, expectStopped);
}

TEST_F(Natives, SurviveAnyFailureOfTheJvm) {
  sweep(
      [](int n) {
        jnitable::state.failAt = (n + 1) / 2;
        jnitable::state.failAfterwards = n % 2 == 0;
      },
      expectSurvived);
}

TEST_F(Natives, AlignTheStackForWhatTheyCall) {
  for (const unsigned bytesOff : {4, 8, 12}) {
    for (const ScenarioSType& scenario : scenarios()) {
      clear();
      Context c;
      c.bytesOff = bytesOff;
      EXPECT_EQ(scenario.status, scenario.run(c));
      misaligned(bytesOff, zelError)(nullptr);
      EXPECT_FALSE(recorder::state.misaligned || jnitable::state.misaligned) << scenario.call;
    }
  }
}

// Whole characters, in Java's form of UTF-8; what is none is a question mark a byte.
TEST_F(Natives, TextsReachJavaWellFormed) {
  const auto repeated = [](int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
  };
  const std::string grin = "\xf0\x9f\x98\x80";
  const std::string halves = "\xed\xa0\xbd\xed\xb8\x80";
  for (const auto& [told, shown] :
       {std::pair{"caf\xe9 " + grin + " the rest", "caf? " + halves + " the rest"},
        {repeated(200, "\xe2\x82\xac"), repeated(133, "\xe2\x82\xac")},
        {"ab" + repeated(100, grin), "ab" + repeated(99, halves)},
        {"abc" + repeated(100, halves), "abc" + repeated(66, halves)},
        {"\xc0\x80\xc3\xa4" + halves, "\xc0\x80\xc3\xa4" + halves},
        {"\xed\xa0\xbdx\xed\xb8\x80", "???x???"},
        {"\xc0\xaf\xe0\x9f\xbf\xf0\x8f\xbf\xbf\xf4\x90\x80\x80\xff", std::string(14, '?')}}) {
    Context c;
    EXPECT_EQ(0, genericError(c.named["error"], told.c_str()));
    EXPECT_THAT(c.shown("error"), HasSubstr("message=" + shown + " category"));
  }
}

// And no reference outlives its turn of a loop.
TEST_F(Natives, AcceptWhatJustFits) {
  Context c;
  recorder::state.oops.assign(250, 4000);
  jobject text = jvm::newReport("objType=-1 valueType=7 valueString=text");
  c.named["array"] = jvm::newReports(250, text);
  for (const auto& [call, status] : {std::pair{"getObjs object 9223372036854775807 250 array", 250},
                                     {"getNamedObjs object 1 250 array", 250},
                                     {"putObjs object 1 250 array", 0},
                                     {"removeFromExportSet array 250", 0},
                                     {"perform object 'x' array 20 result", 0}}) {
    jnitable::state = {};
    EXPECT_EQ(status, c.call(call)) << call;
    EXPECT_LE(jnitable::state.mostReferences, 4) << call;
  }
  c.named["error"] = nullptr;
  EXPECT_EQ(-1, c.call("setup null"));
  expectClean(c);
}

// What the interface library should not answer.
TEST_F(Natives, AreNotMisledByTheLibrary) {
  Context c;
  recorder::state.oops.assign(10, 6);
  for (const double claimed : {-1.0, 1e9}) {
    for (const char* slot : {"FetchVaryingOops", "FetchNamedOops", "FetchBytes", "changed"}) {
      recorder::state.results[slot] = claimed;
    }
    EXPECT_EQ(claimed < 0 ? 0 : 5, c.call("getObjs object 1 5 array"));
    EXPECT_EQ(claimed < 0 ? 0 : 5, c.call("getNamedObjs object 1 5 array"));
    EXPECT_EQ(-1, c.call("getBytes object 1 5 bytes"));
    EXPECT_EQ(5, c.call("changedOops longs 5"));
    EXPECT_EQ(5U, recorder::state.room);
  }
  clear();
  recorder::state.oops = {10, 10};
  for (const auto& [size, shown] :
       {std::pair{INT32_MAX, "[64]"}, {INT32_MIN, "[]"}, {2, "[10,10]"}}) {
    recorder::state.results = {{"class", 1857}, {"size", size}, {"named", INT32_MIN}};
    c.named["result"] = jvm::newReport("oop=4000");
    EXPECT_EQ(0, c.call("setup result"));
    EXPECT_THAT(c.shown("result"), EndsWith(std::string(" valueLongs=") + shown));
  }
  recorder::state.pending = true;
  recorder::state.error.argCount = 1000;
  std::memset(recorder::state.error.message, 'm', sizeof recorder::state.error.message);
  EXPECT_EQ(-1, c.call("logout"));
  EXPECT_THAT(c.shown("error"), HasSubstr("message=" + std::string(400, 'm') + " "));
  EXPECT_THAT(c.shown("error"), EndsWith(" args=[11,4294967295,13,0,0,0,0,0,0,0]"));
}

// The temporary strings' table: a hundred, released in the order in which they were made.
TEST_F(Natives, StringTableHoldsAHundred) {
  Context c;
  jstring text = jvm::newString("\u00e4b");
  c.call("logout");
  clear();
  const jnitable::Watch watch(c.env);
  const auto mapped = mallinfo2().hblkhd;
  ASSERT_STREQ("\u00e4b", reinterpret_cast<const char*>(GetSbString(text)));
  ASSERT_EQ(0, std::memcmp(u"\u00e4b", GetDbString(text), 4));
  for (int i = 2; i < 100; ++i) ASSERT_NE(nullptr, GetString(i == 2 ? 1 << 20 : 1));
  EXPECT_EQ(nullptr, GetSbString(text));
  EXPECT_EQ(nullptr, GetDbString(text));
  EXPECT_EQ(nullptr, GetString(1));
  ReleaseStrings();
  EXPECT_EQ(mapped, mallinfo2().hblkhd);
  EXPECT_EQ("ReleaseStringUTFChars ReleaseStringChars ", jnitable::state.released);
}

}  // namespace
}  // namespace harness
