// Every native in the situations of the scenarios: what it does, and what it does when any one of
// its calls to the JVM or to the interface library fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <set>

#include "harness.h"

using harness::Context;
using harness::scenarios;
using harness::ScenarioSType;
using testing::StartsWith;

namespace {

class Natives : public testing::Test {
 protected:
  static void SetUpTestSuite() { harness::initialize(0); }
  Natives() { clear(); }
  ~Natives() override { EXPECT_EQ("", jvm::takeWarnings()); }

  static void clear() {
    recorder::reset();
    jnitable::reset();
  }

  // Whatever happened: nothing is pending, nothing is held, and no loop left references behind.
  static void expectClean(JNIEnv* env) {
    EXPECT_FALSE(env->ExceptionCheck());
    env->ExceptionClear();
    EXPECT_EQ(0, jnitable::state.held);
    EXPECT_LE(jnitable::state.references, 4);
  }
};

TEST_F(Natives, DoWhatTheScenariosSay) {
  for (const ScenarioSType& scenario : scenarios()) {
    SCOPED_TRACE(scenario.name);
    clear();
    Context context;
    jint status = 0;
    std::string printed;
    {
      harness::Output output;
      status = scenario.run(context);
      printed = output.all();
    }
    EXPECT_EQ(scenario.status, status);
    std::string expected = scenario.calls;
    if (!expected.empty() && expected.back() == ' ') expected.pop_back();
    EXPECT_EQ(expected, harness::libraryCalls());
    EXPECT_EQ(scenario.fields, harness::outcome(context));
    EXPECT_EQ(scenario.error, harness::errorText(context.error));
    EXPECT_EQ("", printed);
    expectClean(context.env);
  }
}

// Errors that the text of the interface library's calls gives no room for: the poll that would see
// them comes after another call, or clears them, or never comes.
const std::set<std::string> passedOver = {"ZelFetchNamedOop", "ZelFetchObjInfo", "ZelOopToBool",
                                          "ZelOopToChr"};
const std::set<std::string> seenLater = {"ZelLogin", "ZelIsKindOf", "ZelOopToFlt", "ZelOopToLong"};

TEST_F(Natives, StopAtAnyErrorOfTheLibrary) {
  for (const ScenarioSType& scenario : scenarios()) {
    SCOPED_TRACE(scenario.name);
    for (int call = 1;; ++call) {
      clear();
      recorder::state.failAt = call;
      Context context;
      const jint status = scenario.run(context);
      const std::string failed = recorder::state.failed;
      // Past the last call, or the scenario itself is about an error.
      if (failed.empty() || !recorder::state.failName.empty()) break;
      SCOPED_TRACE(std::to_string(call) + ": " + failed);
      expectClean(context.env);
      const std::string made = harness::libraryCalls();
      const bool atLogout = failed == "ZelGetSessionId" && scenario.name == std::string("logout");
      const bool isAnswer = scenario.name == std::string("no description");
      if ((passedOver.contains(failed) && !isAnswer) || atLogout) {
        EXPECT_EQ(scenario.status, status);
        EXPECT_EQ(scenario.error, harness::errorText(context.error));
        continue;
      }
      EXPECT_EQ(-1, status);
      EXPECT_EQ(harness::libraryError(), harness::errorText(context.error));
      if (seenLater.contains(failed)) continue;
      // The failing call, its poll, and nothing behind it; before it, what is always done.
      EXPECT_THAT(scenario.calls, StartsWith(made));
      EXPECT_THAT(made, testing::EndsWith(" Zel?"));
      EXPECT_EQ(made.size() - 5, made.find(" Zel", made.rfind(failed)));
    }
  }
}

TEST_F(Natives, SurviveAnyFailureOfTheJvm) {
  const std::set<std::string> inReports = {"NewStringUTF", "NewLongArray", "SetLongArrayRegion"};
  for (const ScenarioSType& scenario : scenarios()) {
    SCOPED_TRACE(scenario.name);
    for (int call = 1;; ++call) {
      bool last = false;
      for (const bool afterwards : {false, true}) {
        clear();
        jnitable::state.failAt = call;
        jnitable::state.failAfterwards = afterwards;
        Context context;
        const jint status = scenario.run(context);
        const std::string failed = jnitable::state.failed;
        last = failed.empty();
        if (last) break;
        SCOPED_TRACE(std::to_string(call) + ": " + failed);
        expectClean(context.env);
        EXPECT_THAT(scenario.calls, StartsWith(harness::libraryCalls()));
        if (scenario.status == -1 && inReports.contains(failed)) {
          EXPECT_EQ(-1, status);  // the error stays an error when its report cannot be filled
        } else if (failed == "GetObjectArrayElement" || failed == "GetLongArrayRegion" ||
                   (failed == "SetLongArrayRegion" &&
                    scenario.name == std::string("changedOops"))) {
          EXPECT_EQ(-1, status);
          EXPECT_THAT(harness::errorText(context.error), StartsWith("2318 '"));
        } else {
          EXPECT_EQ(-2, status);
          EXPECT_EQ("", harness::errorText(context.error));
        }
      }
      if (last) break;
    }
  }
}

// Both sides' calls in their order, without those that only look after references and exceptions.
std::string sequence() {
  std::string text;
  for (const std::string& call : calls::all) {
    if (call.compare(0, 9, "Exception") == 0 || call.compare(0, 6, "Delete") == 0) continue;
    text += (text.empty() ? "" : " ") + call;
  }
  return text;
}

TEST_F(Natives, CallBothSidesInOrder) {
  const std::map<std::string, std::string> expected = {
      {"execute a text that fails",
       "ZelSetSessionId(7) Zel? GetStringUTFChars(?,null) ZelExecuteStr('3 +',10) Zel? "
       "SetIntField(error,number,2101) SetLongField(error,category,231169) "
       "SetLongField(error,context,777) SetBooleanField(error,fatal,0) "
       "SetIntField(error,argCount,3) NewStringUTF('something failed') "
       "SetObjectField(error,message,?) NewLongArray(3) SetLongArrayRegion(?,0,3,*) "
       "SetObjectField(error,args,?) ReleaseStringUTFChars(?,'3 +')"},
      {"login without the optional names",
       "GetStringUTFChars(?,null) GetStringUTFChars(?,null) GetStringUTFChars(?,null) "
       "ZelSetNet('srv',null,null,null) Zel? ZelLogin('usr','pass') ZelGetSessionId() Zel? "
       "ZelDirtyObjsInit() Zel? ReleaseStringUTFChars(?,'srv') ReleaseStringUTFChars(?,'usr') "
       "ReleaseStringUTFChars(?,'pass')"},
      {"double-byte string",
       "ZelSetSessionId(7) Zel? GetLongField(result,oop) SetLongField(result,oop,4000) "
       "ZelSaveObjs([4000],1) Zel? ZelFetchObjInfo(4000,1,256,*,*,*) "
       "SetLongField(result,classOop,1553) ZelFetchNamedOop(1553,12) Zel? "
       "SetLongField(result,classHistoryOop,0) SetIntField(result,namedSize,3) "
       "SetLongField(result,indexedSize,4) SetByteField(result,objType,1) "
       "SetBooleanField(result,isCollection,1) ZelIsKindOf(4000,1257) "
       "SetBooleanField(result,isString,1) ZelIsKindOf(4000,1553) "
       "SetBooleanField(result,isDBString,1) SetByteField(result,valueType,8) NewByteArray(4) "
       "SetByteArrayRegion(?,0,4,*) SetObjectField(result,valueBytes,?) Zel?"},
      {"nil",
       "ZelSetSessionId(7) Zel? GetLongField(result,oop) SetLongField(result,oop,10) "
       "SetByteField(result,objType,3) SetByteField(result,valueType,0)"},
      {"getBytes, fewer",
       "ZelSetSessionId(7) Zel? GetArrayLength(?) GetByteField(?,objType) GetLongField(?,oop) "
       "GetByteArrayElements(?,null) ZelFetchBytes(4716,1,*,10) Zel? "
       "ReleaseByteArrayElements(?,*,0) SetIntField(error,number,2318) "
       "SetLongField(error,category,10) SetLongField(error,context,10) "
       "SetBooleanField(error,fatal,0) SetIntField(error,argCount,0) "
       "NewStringUTF('Number of bytes fetched does not match request') "
       "SetObjectField(error,message,?) NewLongArray(0) SetObjectField(error,args,?)"},
  };
  std::size_t compared = 0;
  for (const ScenarioSType& scenario : scenarios()) {
    const auto found = expected.find(scenario.name);
    if (found == expected.end()) continue;
    clear();
    Context context;
    scenario.run(context);
    EXPECT_EQ(found->second, sequence());
    ++compared;
  }
  EXPECT_EQ(expected.size(), compared);
}

// A refused call makes no library call but that for the session.
TEST_F(Natives, RefuseBadArguments) {
  Context c;
  int refused = 0;
  const auto expect = [&](const std::string& message, jint status) {
    EXPECT_EQ(-1, status);
    EXPECT_EQ(harness::generic(message), harness::errorText(c.error));
    EXPECT_EQ("ZelSetSessionId(7) Zel?", harness::libraryCalls()) << message;
    expectClean(c.env);
    c.error = jvm::newException();
    clear();
    ++refused;
  };
  constexpr jint id = harness::session;
  jobject noReport = nullptr;
  jstring noString = nullptr;
  jobjectArray noArray = nullptr;
  jobjectArray many = jvm::newReports(harness::bufferOops + 1, c.object);
  jstring text = jvm::newString("text");
  constexpr jlong least = std::numeric_limits<jlong>::min();
  constexpr jint leastInt = std::numeric_limits<jint>::min();
  constexpr jint mostInt = std::numeric_limits<jint>::max();

  const struct {
    const char* name;
    decltype(&NATIVE(getObjs)) native;
    const char* exceeds;
  } objs[] = {{"getObjs", NATIVE(getObjs), "numObjs requested exceeds buffer size"},
              {"getNamedObjs", NATIVE(getNamedObjs), "buffer size exceeded"},
              {"putObjs", NATIVE(putObjs), "numObjs requested exceeds buffer size"},
              {"putNamedObjs", NATIVE(putNamedObjs), "numObjs requested exceeds buffer size"}};
  for (const auto& [name, native, exceeds] : objs) {
    const std::string prefix = std::string(name) + "(): ";
    for (const jlong start : {jlong{0}, jlong{-1}, least}) {
      expect(prefix + "startIndex < 1",
             c.run(native, id, noReport, start, mostInt, noArray, c.error));
    }
    for (const jint count : {harness::bufferOops + 1, 1000000, mostInt}) {
      expect(prefix + exceeds, c.run(native, id, noReport, jlong{1}, count, many, c.error));
    }
    for (const jint count : {-1, leastInt}) {
      expect(prefix + "numObjs is negative",
             c.run(native, id, c.object, jlong{1}, count, c.array, c.error));
    }
    expect(prefix + "numObjs exceeds the length of objs",
           c.run(native, id, c.object, jlong{1}, 6, c.array, c.error));
    expect(prefix + "NULL objs argument",
           c.run(native, id, c.object, jlong{1}, 1, noArray, c.error));
    expect(prefix + "NULL obj argument",
           c.run(native, id, noReport, jlong{1}, 1, c.array, c.error));
  }
  for (const auto& [name, native] :
       {std::pair{"getBytes", &NATIVE(getBytes)}, std::pair{"putBytes", &NATIVE(putBytes)}}) {
    const std::string prefix = std::string(name) + "(): ";
    jbyteArray noBytes = nullptr;
    for (const jlong start : {jlong{0}, least}) {
      expect(prefix + "startIndex < 1",
             c.run(native, id, noReport, start, mostInt, noBytes, c.error));
    }
    for (const jint count : {harness::bufferBytes + 1, mostInt}) {
      expect(prefix + "numBytes requested exceeds buffer size",
             c.run(native, id, noReport, jlong{1}, count, noBytes, c.error));
    }
    expect(prefix + "numBytes is negative",
           c.run(native, id, c.object, jlong{1}, leastInt, c.bytes, c.error));
    expect(prefix + "numBytes exceeds the length of bytes",
           c.run(native, id, c.object, jlong{1}, 11, c.bytes, c.error));
    expect(prefix + "NULL bytes argument",
           c.run(native, id, c.object, jlong{1}, 1, noBytes, c.error));
    expect(prefix + "NULL obj argument",
           c.run(native, id, noReport, jlong{1}, 1, c.bytes, c.error));
  }
  for (const auto& [name, native] : {std::pair{"releaseOops", &NATIVE(releaseOops)},
                                     std::pair{"changedOops", &NATIVE(changedOops)}}) {
    const std::string prefix = std::string(name) + "(): ";
    jlongArray noLongs = nullptr;
    for (const jint count : {harness::bufferOops + 1, mostInt}) {
      expect(prefix + "buffer size exceeded", c.run(native, id, noLongs, count, c.error));
    }
    expect(prefix + "numOops is negative", c.run(native, id, c.longs, -1, c.error));
    expect(prefix + "numOops exceeds the length of oops", c.run(native, id, c.longs, 11, c.error));
    expect(prefix + "NULL oops argument", c.run(native, id, noLongs, 1, c.error));
  }
  const auto remove = [&](jobjectArray array, jint count) {
    return c.run(NATIVE(removeFromExportSet), id, array, count, c.error);
  };
  expect("removeFromExportSet(): numObjs exceeds buffer size", remove(many, 251));
  expect("removeFromExportSet(): numObjs is negative", remove(c.array, -1));
  expect("removeFromExportSet(): numObjs exceeds the length of objs", remove(c.array, 6));
  expect("removeFromExportSet(): NULL objs argument", remove(noArray, 1));
  jobjectArray holes = jvm::newReports(20);
  expect("removeFromExportSet(): NULL objs element argument", remove(holes, 20));

  const auto perform = [&](jobject receiver, jstring selector, jobjectArray args, jint count,
                           jobject result) {
    return c.run(NATIVE(perform), id, receiver, selector, args, count, result, c.error);
  };
  expect("perform(): NULL receiver argument", perform(noReport, text, c.array, 1, c.result));
  expect("perform(): NULL selector argument", perform(c.object, noString, c.array, 1, c.result));
  expect("perform(): NULL args argument", perform(c.object, text, noArray, 1, c.result));
  expect("perform(): NULL args element argument", perform(c.object, text, holes, 1, c.result));
  expect("perform(): NULL result argument", perform(c.object, text, c.array, 1, noReport));
  expect("perform(): numArgs is negative", perform(c.object, text, c.array, -1, c.result));
  expect("perform(): numArgs exceeds the length of args",
         perform(c.object, text, c.array, 6, c.result));
  for (const jint count : {21, 1000000, mostInt}) {
    expect("perform(): numArgs exceeds 20", perform(c.object, text, many, count, c.result));
  }

  expect("executeStr(): NULL execStr argument",
         c.run(NATIVE(executeStr), id, noString, c.result, c.error));
  expect("executeStr(): NULL result argument",
         c.run(NATIVE(executeStr), id, text, noReport, c.error));
  expect("executeObj(): NULL exeObj argument",
         c.run(NATIVE(executeObj), id, noReport, c.result, c.error));
  expect("executeObj(): NULL result argument",
         c.run(NATIVE(executeObj), id, c.object, noReport, c.error));
  expect("setup(): NULL result argument", c.run(NATIVE(setup), id, noReport, c.error));
  expect("continue(): NULL process argument",
         c.run(NATIVE(continue), id, noReport, c.other, c.result, text, text, c.error));
  expect("continue(): NULL jvResult argument",
         c.run(NATIVE(continue), id, c.object, c.other, noReport, text, text, c.error));
  expect("isKindOf(): NULL obj argument", c.run(NATIVE(isKindOf), id, noReport, c.other, c.error));
  expect("isKindOf(): NULL cls argument", c.run(NATIVE(isKindOf), id, c.object, noReport, c.error));
  for (const int valueType : {7, 8}) {
    Context::value(c.other, valueType);
    expect("getOop(): NULL valueString", c.run(NATIVE(isKindOf), id, c.object, c.other, c.error));
  }
  EXPECT_EQ(-1, c.run(NATIVE(continue), id, c.object, noReport, c.result, text, noString, c.error));
  EXPECT_EQ(harness::generic("continue(): NULL errStk argument"), harness::errorText(c.error));
  expectClean(c.env);
}

TEST_F(Natives, AcceptWhatJustFits) {
  Context c;
  constexpr jint id = harness::session;
  constexpr jint oops = harness::bufferOops;
  recorder::state.oops.assign(oops, 6);
  jobjectArray objs = jvm::newReports(oops, c.object);
  jlongArray longs = jvm::newLongs(std::vector<jlong>(oops, 9));
  jbyteArray bytes = jvm::newBytes(std::string(harness::bufferBytes, 'x'));
  recorder::state.body = std::string(harness::bufferBytes, 'y');
  constexpr jlong most = std::numeric_limits<jlong>::max();
  EXPECT_EQ(oops, c.run(NATIVE(getObjs), id, c.object, most, oops, objs, c.error));
  EXPECT_EQ(0, c.run(NATIVE(putNamedObjs), id, c.object, jlong{1}, oops, objs, c.error));
  EXPECT_EQ(0, c.run(NATIVE(removeFromExportSet), id, objs, oops, c.error));
  EXPECT_EQ(0, c.run(NATIVE(releaseOops), id, longs, oops, c.error));
  EXPECT_EQ(oops, c.run(NATIVE(changedOops), id, longs, oops, c.error));
  EXPECT_EQ(1000, c.run(NATIVE(getBytes), id, c.object, jlong{1}, 1000, bytes, c.error));
  EXPECT_EQ(0, c.run(NATIVE(putBytes), id, c.object, jlong{1}, 1000, bytes, c.error));
  EXPECT_EQ(0,
            c.run(NATIVE(perform), id, c.object, jvm::newString("x"), objs, 20, c.result, c.error));
  EXPECT_EQ(0, c.run(NATIVE(getObjs), id, c.object, jlong{1}, 0, jobjectArray(nullptr), c.error));
  EXPECT_EQ(0, c.run(NATIVE(putBytes), id, c.object, jlong{1}, 0, bytes, c.error));

  // A megabyte of text, of every width of modified UTF-8.
  std::u16string text;
  while (text.size() < (1U << 20)) text += std::u16string(u"a\u00e4\u20ac\xd83d\xde00\0", 6);
  jstring large = jvm::newString(text);
  EXPECT_EQ(0, c.run(NATIVE(executeStr), id, large, c.result, c.error));
  for (const int valueType : {7, 8}) {
    jvm::setObject(Context::value(c.other, valueType), "valueString", large);
    calls::all.clear();
    EXPECT_EQ(0, c.run(NATIVE(isKindOf), id, c.object, c.other, c.error));
    const auto size = valueType == 7 ? c.env->GetStringUTFLength(large) : 2 * text.size();
    EXPECT_THAT(calls::joined("ZelStore"),
                testing::EndsWith(",<" + std::to_string(size) + ">," + std::to_string(size) + ")"));
  }
  EXPECT_EQ("", harness::errorText(c.error));
  expectClean(c.env);
}

// What the interface library should not answer.
TEST_F(Natives, AreNotMisledByTheLibrary) {
  Context c;
  constexpr jint id = harness::session;
  recorder::state.oops.assign(10, 6);
  for (const double claimed : {-1e6, -1.0, 6.0, 1e9}) {
    recorder::state.results = {{"ZelFetchVaryingOops", claimed},
                               {"ZelFetchNamedOops", claimed},
                               {"ZelFetchBytes", claimed},
                               {"changed", claimed}};
    const jint fetched = claimed < 0 ? 0 : 5;
    EXPECT_EQ(fetched, c.run(NATIVE(getObjs), id, c.object, jlong{1}, 5, c.array, c.error));
    EXPECT_EQ(fetched, c.run(NATIVE(getNamedObjs), id, c.object, jlong{1}, 5, c.array, c.error));
    EXPECT_EQ(-1, c.run(NATIVE(getBytes), id, c.object, jlong{1}, 5, c.bytes, c.error));
    EXPECT_EQ(5, c.run(NATIVE(changedOops), id, c.longs, 5, c.error));
  }
  recorder::state.results.clear();
  c.error = jvm::newException();
  constexpr jint least = std::numeric_limits<jint>::min();
  constexpr jint most = std::numeric_limits<jint>::max();
  for (const int objImpl : {0, 1, 2}) {
    for (const OopType objClass : {1857U, 1521U, 1169U}) {
      for (const auto& [size, named] :
           {std::pair{most, least}, {least, most}, {-1, 0}, {2, 5}, {most, 0}, {least, 0}}) {
        recorder::describe(objImpl, objClass, size, named);
        EXPECT_EQ(0, c.run(NATIVE(setup), id, c.object, c.error));
        EXPECT_LE(jvm::bytes(c.object, "valueBytes").size(), 256U);
        EXPECT_LE(jvm::longs(c.object, "valueLongs").size(), 64U);
      }
    }
  }
  EXPECT_EQ(0, jvm::number(c.error, "number"));
  for (const auto& [claimed, shown] : {std::pair{1000, 10}, {-3, 0}, {10, 10}}) {
    recorder::state.pending = true;
    recorder::state.error.argCount = claimed;
    std::memset(recorder::state.error.message, 'm', sizeof recorder::state.error.message);
    recorder::state.error.fatal = 0x80;
    EXPECT_EQ(-1, c.run(NATIVE(logout), id, c.error));
    EXPECT_EQ(shown, jvm::number(c.error, "argCount"));
    EXPECT_EQ(static_cast<std::size_t>(shown), jvm::longs(c.error, "args").size());
    EXPECT_EQ(std::string(400, 'm'), jvm::text(c.error, "message"));
    EXPECT_EQ(1, jvm::number(c.error, "fatal"));
  }
  recorder::state.pending = true;
  recorder::state.error.fatal = 0x100;
  EXPECT_EQ(-1, c.run(NATIVE(logout), id, c.error));
  EXPECT_EQ(0, jvm::number(c.error, "fatal"));
  EXPECT_EQ(0, jnitable::state.held);
}

TEST_F(Natives, TolerateANullErrorReport) {
  for (const ScenarioSType& scenario : scenarios()) {
    SCOPED_TRACE(scenario.name);
    clear();
    Context context;
    context.error = nullptr;
    EXPECT_EQ(scenario.status, scenario.run(context));
    expectClean(context.env);
  }
}

// The temporary strings' table: a hundred, released in the order in which they were made.
TEST_F(Natives, StringTableHoldsAHundred) {
  Context c;
  jstring text = jvm::newString(u"\u00e4b");
  c.run(NATIVE(logout), harness::session, c.error);
  clear();
  {
    const jnitable::Watch watch(c.env);
    ReleaseStrings();
    EXPECT_EQ("", calls::joined());
    ASSERT_STREQ(
        "\xc3\xa4"
        "b",
        reinterpret_cast<const char*>(GetSbString(text)));
    ASSERT_EQ(0, std::memcmp(u"\u00e4b", GetDbString(text), 4));
    for (int i = 2; i < 100; ++i) ASSERT_NE(nullptr, GetString(i == 2 ? 1 << 20 : 1));
    calls::all.clear();
    EXPECT_EQ(nullptr, GetSbString(text));
    EXPECT_EQ(nullptr, GetDbString(text));
    EXPECT_EQ(nullptr, GetString(1));
    EXPECT_EQ("", calls::joined());
    ReleaseStrings();
    EXPECT_EQ(
        "ReleaseStringUTFChars(?,'\xc3\xa4"
        "b') ReleaseStringChars(?,*)",
        calls::joined());
    EXPECT_NE(nullptr, GetSbString(text));
    ReleaseStrings();
  }
  expectClean(c.env);
}

// Bytes that the Java heap and the process's heap have in use.
struct UseSType {
  std::int64_t java;
  std::int64_t process;
};

UseSType memoryInUse(JNIEnv* env) {
  const jvm::Frame frame(8);
  jclass type = env->FindClass("java/lang/Runtime");
  const auto call = [&](jobject runtime, const char* name) {
    const jlong answer = env->CallLongMethod(runtime, env->GetMethodID(type, name, "()J"));
    EXPECT_FALSE(env->ExceptionCheck());
    return answer;
  };
  jobject runtime = env->CallStaticObjectMethod(
      type, env->GetStaticMethodID(type, "getRuntime", "()Ljava/lang/Runtime;"));
  EXPECT_FALSE(env->ExceptionCheck());
  env->CallVoidMethod(runtime, env->GetMethodID(type, "gc", "()V"));
  EXPECT_FALSE(env->ExceptionCheck());
  const std::int64_t total = call(runtime, "totalMemory");
  const std::int64_t unused = call(runtime, "freeMemory");
  return {total - unused, static_cast<std::int64_t>(mallinfo2().uordblks)};
}

TEST_F(Natives, LeaveMemoryAsItWas) {
  calls::recording = false;
  std::minstd_rand random(4711);
  const auto soak = [&random](int count) {
    for (int round = 0; round < count / 500; ++round) {
      Context context;
      for (int i = 0; i < 500; ++i) {
        const jvm::Frame frame(32);
        clear();
        // Now and then with a failure on either side.
        recorder::state.failAt = random() % 16 == 0 ? static_cast<int>(random() % 8) : 0;
        jnitable::state.failAt = random() % 16 == 0 ? static_cast<int>(random() % 6) : 0;
        scenarios()[random() % scenarios().size()].run(context);
      }
    }
  };
  JNIEnv* const env = jvm::start();
  soak(20000);
  const UseSType before = memoryInUse(env);
  soak(200000);
  const UseSType after = memoryInUse(env);
  calls::recording = true;
  EXPECT_LT(after.java - before.java, 64 << 10);
  EXPECT_LT(after.process - before.process, 64 << 10);
}

}  // namespace
