// The table: what each slot does as a client uses it, and with arguments that make no sense.
#include <cstring>
#include <limits>
#include <set>
#include <vector>

#include "session_fixture.h"

namespace {

constexpr OopType wild = 4U * 900'000 + 1;

class Table : public ZelSession {
 protected:
  OopType newString(const std::string& text) {
    const OopType oop = zel->ZelNewOop(StringClassOop);
    storeBytes(oop, 1, text);
    return oop;
  }
  void storeBytes(OopType oop, long start, const std::string& text) {
    zel->ZelStoreBytesInstanceOf(NilOop, oop, start, reinterpret_cast<const ByteType*>(text.data()),
                                 text.size());
  }
  std::string bytes(OopType oop, long start, ArraySizeType count) {
    std::string text(count, '?');
    const long fetched =
        zel->ZelFetchBytes(oop, start, reinterpret_cast<ByteType*>(text.data()), count);
    return text.substr(0, static_cast<std::size_t>(fetched));
  }
  ZelObjInfoSType info(OopType oop) {
    ZelObjInfoSType record{};
    EXPECT_NE(0, zel->ZelFetchObjInfo(oop, 1, 0, &record, nullptr, nullptr)) << takeError();
    return record;
  }
  std::vector<OopType> changed(ArraySizeType room = 100) {
    std::vector<OopType> oops(room);
    ArraySizeType count = room;
    complete = zel->ZelDirtySaveObjs(oops.data(), &count) != 0;
    oops.resize(count);
    return oops;
  }
  void save(OopType oop) { zel->ZelSaveObjs(&oop, 1); }
  void release(OopType oop) { zel->ZelReleaseOops(&oop, 1); }

  bool complete = false;
};

TEST_F(Table, FillsEverySlotAndNamesTheOnesItDoesNotProvide) {
  EXPECT_EQ(312, zel->zelFeatureLevel);
  EXPECT_EQ(1, zel->zelCompatiblityLevel);
  const auto* slots = reinterpret_cast<const ZelUntypedFType*>(&zel->ZelAbort);
  for (int i = 0; i < ZelRtlSlotCount; ++i) EXPECT_NE(nullptr, slots[i]) << i;
  EXPECT_EQ(1, zel->ZelProduct());
  EXPECT_STREQ("6.7.1", zel->ZelVersion());
  zel->ZelTvSocketRead();
  EXPECT_EQ(
      "error 2509: ZelTvSocketRead is not provided by the embedded "
      "interface library",
      takeError());
  EXPECT_EQ("", takeError());
}

TEST_F(Table, RefusesWrongLoginsAndSessions) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  EXPECT_EQ(0, zel->ZelLogin("SystemUser", "wrong"));
  EXPECT_EQ(4051, errorNumber());
  EXPECT_EQ(0, zel->ZelLogin("Nobody", "swordfish"));
  EXPECT_EQ(4051, errorNumber());
  EXPECT_EQ(first, zel->ZelGetSessionId());
  zel->ZelSetSessionId(first + 1);
  EXPECT_EQ(4100, errorNumber());
  EXPECT_EQ(first, zel->ZelGetSessionId());
  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  const ZelSessionIdType second = zel->ZelGetSessionId();
  EXPECT_NE(first, second);
  run("nil foo");  // stays with its session
  zel->ZelLogout();
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ(0, zel->ZelGetSessionId());
  run("3");
  EXPECT_EQ(4100, errorNumber());
  zel->ZelSetSessionId(first);
  EXPECT_EQ("7", show("3 + 4"));
  for (int i = 1; i < 64; ++i) ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish")) << i;
  EXPECT_EQ(0, zel->ZelLogin("SystemUser", "swordfish"));
  EXPECT_EQ(2512, errorNumber());
}

TEST_F(Table, ConvertsValues) {
  EXPECT_EQ(31U, zel->ZelLongToOop(7));
  EXPECT_EQ(-1, zel->ZelOopToLong(0xFFFFFFFF));
  for (const long value : {536870912L, -536870913L, std::numeric_limits<long>::max(),
                           std::numeric_limits<long>::min()}) {
    const OopType oop = zel->ZelLongToOop(value);
    EXPECT_EQ(0U, oop & 2) << value;
    EXPECT_EQ(value, zel->ZelOopToLong(oop));
  }
  EXPECT_EQ(1.25, zel->ZelOopToFlt(zel->ZelFltToOop(1.25)));
  EXPECT_EQ(1, zel->ZelOopToBool(TrueOop));
  EXPECT_EQ(0, zel->ZelOopToBool(FalseOop));
  EXPECT_EQ('A', zel->ZelOopToChr(65 << 5 | 14));
  EXPECT_EQ(-56, zel->ZelOopToChr(200 << 5 | 14));
  EXPECT_EQ(0, errorNumber());
  zel->ZelOopToLong(run("2 raisedTo: 31"));
  EXPECT_EQ(2163, errorNumber());
  zel->ZelOopToFlt(31);
  EXPECT_EQ(2120, errorNumber());
  zel->ZelOopToBool(31);
  EXPECT_EQ(2211, errorNumber());
  zel->ZelOopToChr(31);
  EXPECT_EQ(2164, errorNumber());
}

TEST_F(Table, MakesDateTimesThatExist) {
  struct {
    ZelDateTimeSType time;
    int error;
  } const samples[] = {
      {{2012, 366, 0, NilOop}, 0},       {{2011, 366, 0, NilOop}, 2161},
      {{2012, 0, 0, NilOop}, 2161},      {{2012, 60, 86'399'999, NilOop}, 0},
      {{2012, 60, -1, NilOop}, 2161},    {{2012, 60, 86'400'000, NilOop}, 2161},
      {{1'000'000, 1, 0, NilOop}, 2161}, {{2012, 60, 0, wild}, 2507},
  };
  for (const auto& sample : samples) {
    const OopType oop = zel->ZelNewDateTime(DateTimeClassOop, &sample.time);
    EXPECT_EQ(sample.error, errorNumber()) << sample.time.year << " " << sample.time.dayOfYear;
    if (sample.error != 0) continue;
    EXPECT_EQ(DateTimeClassOop, info(oop).objClass);
    OopType parts[4];
    EXPECT_EQ(4, zel->ZelFetchNamedOops(oop, 1, parts, 4));
    EXPECT_EQ(sample.time.year, zel->ZelOopToLong(parts[0]));
    EXPECT_EQ(sample.time.milliseconds, zel->ZelOopToLong(parts[2]));
  }
}

TEST_F(Table, DescribesObjects) {
  struct {
    const char* source;
    OopType classOop;
    int impl, named, size, indexable;
  } const samples[] = {
      {"'abcde'", StringClassOop, 1, 0, 5, 1},
      {"'ab' asDoubleByteString", DoubleByteStringClassOop, 1, 0, 4, 1},
      {"1.5", FloatClassOop, 1, 0, 8, 0},
      {"Array new: 3", ArrayClassOop, 0, 0, 3, 1},
      {"DateTime now", DateTimeClassOop, 0, 4, 4, 0},
      {"1->2", 0, 0, 2, 2, 0},
      {"Set withAll: #(1 2)", 0, 2, 0, 2, 1},
  };
  for (const auto& sample : samples) {
    const ZelObjInfoSType record = info(run(sample.source));
    EXPECT_TRUE(sample.classOop == 0 || sample.classOop == record.objClass) << sample.source;
    EXPECT_EQ(sample.impl, record.objImpl) << sample.source;
    EXPECT_EQ(sample.named, record.namedSize) << sample.source;
    EXPECT_EQ(sample.size, record.objSize) << sample.source;
    EXPECT_EQ(sample.indexable, record.isIndexable) << sample.source;
  }
  ByteType buffer[16];
  std::memset(buffer, '.', sizeof buffer);
  ZelObjInfoSType record{};
  ArraySizeType count = 0;
  zel->ZelFetchObjInfo(run("'abcde'"), 2, 3, &record, buffer, &count);
  EXPECT_EQ(3U, count);
  EXPECT_EQ(0, std::memcmp("bcd.", buffer, 4));
  zel->ZelFetchObjInfo(run("#(1 2 3)"), 1, 11, &record, buffer, &count);
  EXPECT_EQ(2U, count);
  EXPECT_EQ(0, std::memcmp("\x07\0\0\0\x0B\0\0\0.", buffer, 9));
  // A class keeps its history in named slot 12.
  const OopType history = zel->ZelFetchNamedOop(StringClassOop, 12);
  EXPECT_EQ("error 2507: oop 10 is a value without a body",
            (zel->ZelFetchNamedOop(NilOop, 12), takeError()));
  OopType version = 0;
  EXPECT_EQ(1, zel->ZelFetchVaryingOops(history, 1, &version, 1));
  EXPECT_EQ(StringClassOop, version);
}

TEST_F(Table, ReadsAndWritesRangesOfBytes) {
  const OopType oop = newString("hello");
  storeBytes(oop, 6, " world");
  storeBytes(oop, 1, "J");
  EXPECT_EQ("Jello world", bytes(oop, 1, 100));
  EXPECT_EQ("world", bytes(oop, 7, 5));
  EXPECT_EQ("", bytes(oop, 12, 5));
  EXPECT_EQ(0, errorNumber());
  for (const long start :
       {0L, -1L, 13L, std::numeric_limits<long>::min(), std::numeric_limits<long>::max()}) {
    bytes(oop, start, 1);
    EXPECT_EQ(2110, errorNumber()) << start;
    storeBytes(oop, start, "x");
    EXPECT_EQ(2110, errorNumber()) << start;
  }
  storeBytes(oop, 1, "");
  EXPECT_EQ(0, errorNumber());
  zel->ZelStoreBytesInstanceOf(ArrayClassOop, oop, 1, nullptr, 0);
  EXPECT_EQ(2094, errorNumber());
  storeBytes(zel->ZelFltToOop(1), 8, "xx");
  EXPECT_EQ(2110, errorNumber());
  storeBytes(run("#symbol"), 1, "x");
  EXPECT_EQ(2506, errorNumber());
  storeBytes(run("Array new: 2"), 1, "x");
  EXPECT_EQ(2094, errorNumber());
  const ByteType byte = 0;
  zel->ZelStoreBytesInstanceOf(NilOop, oop, 1, &byte, 0xFFFFFFFF);
  EXPECT_EQ(2208, errorNumber());
  EXPECT_EQ("Jello world", bytes(oop, 1, 100));
}

TEST_F(Table, ReadsAndWritesRangesOfOops) {
  const OopType array = zel->ZelNewOop(ArrayClassOop);
  const OopType oops[] = {7, 11, 15};
  zel->ZelStoreIdxOops(array, 1, oops, 3);
  zel->ZelStoreIdxOops(array, 3, oops, 3);
  EXPECT_EQ("an Array( 1 2 1 2 3 )", zel::printString(array));
  zel->ZelStoreOop(array, 6, TrueOop);
  OopType fetched[8] = {};
  EXPECT_EQ(2, zel->ZelFetchVaryingOops(array, 5, fetched, 8));
  EXPECT_EQ(TrueOop, fetched[1]);
  EXPECT_EQ(0, errorNumber());
  zel->ZelStoreOop(array, 8, TrueOop);
  EXPECT_EQ(2110, errorNumber());
  zel->ZelStoreIdxOops(array, 0, oops, 3);
  EXPECT_EQ(2110, errorNumber());
  const OopType bad[] = {7, wild};
  zel->ZelStoreIdxOops(array, 1, bad, 2);
  EXPECT_EQ(2507, errorNumber());
  zel->ZelStoreIdxOops(array, 1, oops, 0x80000001);
  EXPECT_EQ(5065, errorNumber());
  EXPECT_EQ("an Array( 1 2 1 2 3 true )", zel::printString(array));

  const OopType pair = run("1->2");
  zel->ZelStoreNamedOops(pair, 2, oops, 1);
  EXPECT_EQ(7U, zel->ZelFetchNamedOop(pair, 2));
  EXPECT_EQ(1, zel->ZelFetchNamedOops(pair, 2, fetched, 8));
  EXPECT_EQ(0, errorNumber());
  zel->ZelStoreNamedOops(pair, 2, oops, 2);
  EXPECT_EQ(2110, errorNumber());
  zel->ZelFetchNamedOop(pair, 3);
  EXPECT_EQ(2110, errorNumber());
  zel->ZelStoreIdxOops(pair, 1, oops, 1);
  EXPECT_EQ(2094, errorNumber());
  zel->ZelStoreNamedOops(StringClassOop, 1, oops, 1);
  EXPECT_EQ(2506, errorNumber());

  // A dictionary whose slots a client rewrites still finds its keys; a set refuses.
  const OopType dictionary = run("d := Dictionary new. d at: 1 put: 2. d");
  zel->ZelStoreIdxOops(dictionary, 1, oops + 1, 2);
  EXPECT_EQ("3", show("d at: 2"));
  zel->ZelStoreIdxOops(run("Set new"), 1, oops, 1);
  EXPECT_EQ(2094, errorNumber());
}

TEST_F(Table, PerformsAndExecutes) {
  const OopType args[] = {zel->ZelLongToOop(4), zel->ZelLongToOop(9)};
  EXPECT_EQ(31U, zel->ZelPerform(15, "+", args, 1));
  EXPECT_EQ(TrueOop, zel->ZelPerform(23, "between:and:", args, 2));
  EXPECT_EQ("'3'", zel::printString(zel->ZelPerform(15, "printString", nullptr, 0)));
  EXPECT_EQ(31U, zel->ZelExecute(newString("3 + 4"), NilOop));
  EXPECT_EQ(31U, zel->ZelExecute(run("'3 + 4' asDoubleByteString"), NilOop));
  EXPECT_EQ(0, errorNumber());
  zel->ZelPerform(15, "+", args, 2);
  EXPECT_EQ(2005, errorNumber());
  zel->ZelPerform(15, "not a message", nullptr, 0);
  EXPECT_EQ(2005, errorNumber());
  zel->ZelPerform(wild, "size", nullptr, 0);
  EXPECT_EQ(2507, errorNumber());
  zel->ZelPerform(0, "size", nullptr, 0);
  EXPECT_EQ(2507, errorNumber());
  zel->ZelPerform(15, "foo:", args, 1);
  EXPECT_EQ(2010, errorNumber());
  EXPECT_EQ(3, error.argCount);
  EXPECT_EQ(15U, error.args[0]);
  EXPECT_EQ(3613U, error.category);
  EXPECT_EQ(0, error.fatal);
  zel->ZelExecute(31, NilOop);
  EXPECT_EQ(2094, errorNumber());
}

TEST_F(Table, SuspendsAndContinues) {
  const auto suspended = [&](const std::string& source) {
    run(source);
    EXPECT_EQ("error 2502: the program is suspended", takeError());
    EXPECT_EQ(error.context, error.args[0]);
    return error.context;
  };
  const auto array = [&](const std::vector<OopType>& oops) {
    const OopType oop = zel->ZelNewOop(ArrayClassOop);
    for (std::size_t i = 0; i < oops.size(); ++i) {
      zel->ZelStoreOop(oop, static_cast<long>(i) + 1, oops[i]);
    }
    return oop;
  };
  OopType process = suspended("| x | x := System suspend: #ask. x + 1");
  EXPECT_EQ("#ask", zel::printString(error.args[1]));
  EXPECT_EQ(31U, zel->ZelContinueWith(process, array({27}), 0, nullptr));
  zel->ZelContinueWith(process, array({27}), 0, nullptr);
  EXPECT_EQ(2510, errorNumber());

  process = suspended("[System suspend: 1] on: Error do: [:e | e messageText , e stack]");
  EXPECT_EQ("'lost at line 9'",
            zel::printString(zel->ZelContinueWith(
                process, array({newString("lost"), newString(" at line 9")}), 0, nullptr)));
  process = suspended("System suspend: 1");
  zel->ZelContinueWith(process, array({newString("lost"), newString("")}), 0, nullptr);
  EXPECT_EQ("error 2503: lost", takeError());
  EXPECT_EQ(process, error.context);

  EXPECT_EQ("nil", zel::printString(zel->ZelContinueWith(process, 1, 0, nullptr)));
  process = suspended("System suspend: 1");
  ZelErrSType raised{};
  raised.number = 99;
  std::strcpy(raised.message, "mine");
  zel->ZelContinueWith(process, 1, 0, &raised);
  EXPECT_EQ("error 99: mine", takeError());

  // An error's message can be answered from outside, too.
  run("(nil foo: 3) + 1");
  EXPECT_EQ(2010, errorNumber());
  EXPECT_EQ(31U, zel->ZelContinueWith(error.context, array({27}), 0, nullptr));

  process = suspended("System suspend: 1");
  for (const OopType bad : {wild, OopType{0}, NilOop, array({}), array({7, 11, 15})}) {
    zel->ZelContinueWith(process, bad, 0, nullptr);
    EXPECT_NE(0, errorNumber()) << bad;
    zel->ZelContinueWith(bad, array({7}), 0, nullptr);
    EXPECT_NE(0, errorNumber()) << bad;
  }
  ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish"));
  zel->ZelContinueWith(process, 1, 0, nullptr);
  EXPECT_EQ(4100, errorNumber());
}

TEST_F(Table, TracksChangesOfExportedObjects) {
  const OopType a = run("a := Array new: 2");
  const OopType b = run("b := String new: 2");
  const OopType c = run("c := Set new");
  for (const OopType oop : {a, b, c}) save(oop);
  EXPECT_TRUE(changed().empty());
  EXPECT_TRUE(complete);
  run("a at: 1 put: 3; at: 2 put: 4. c add: 5. Array new at: 1 put: 1");
  storeBytes(b, 1, "x");
  EXPECT_EQ((std::vector<OopType>{a, c}), changed(2));
  EXPECT_FALSE(complete);
  EXPECT_EQ(std::vector<OopType>{b}, changed(2));
  EXPECT_TRUE(complete);
  EXPECT_EQ(2004, errorNumber());
  release(a);
  run("a at: 1 put: 5. c remove: 5");
  EXPECT_EQ(std::vector<OopType>{c}, changed());
  ArraySizeType count = 5;
  zel->ZelDirtySaveObjs(nullptr, &count);
  EXPECT_EQ(5065, errorNumber());
  EXPECT_EQ(0U, count);
  zel->ZelDirtySaveObjs(nullptr, nullptr);
  EXPECT_EQ(5065, errorNumber());
  const OopType oops[] = {a, wild, 31, b};
  zel->ZelSaveObjs(oops, 4);
  EXPECT_EQ(2507, errorNumber());
  zel->ZelReleaseOops(oops, 4);
  zel->ZelReleaseOops(oops, 4);
  EXPECT_EQ(0, errorNumber());
}

TEST_F(Table, CommitsAndAborts) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  run("Globals at: #Shared put: (Array new: 1). Shared at: 1 put: 1. System "
      "commit");
  const OopType shared = run("Shared");
  save(shared);
  run("Shared at: 1 put: 2. Globals at: #Other put: 3. Object subclass: "
      "'Lost'");
  EXPECT_EQ("true", show("System needsCommit"));
  EXPECT_EQ(std::vector<OopType>{shared}, changed());

  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  EXPECT_EQ("error 2508: session " + std::to_string(first) +
                " has changed the object and not committed yet",
            show("Shared at: 1 put: 9"));
  const ZelSessionIdType second = zel->ZelGetSessionId();
  zel->ZelSetSessionId(first);
  run("System abort");
  EXPECT_EQ("1", show("Shared at: 1"));
  EXPECT_EQ("error 2189: Other is not defined", show("Other"));
  EXPECT_EQ("error 2189: Lost is not defined", show("Lost"));
  EXPECT_EQ(std::vector<OopType>{shared}, changed());
  EXPECT_EQ("false", show("System needsCommit"));

  zel->ZelSetSessionId(second);
  EXPECT_EQ("9", show("Shared at: 1 put: 9"));
  zel->ZelSetSessionId(first);
  EXPECT_EQ(std::vector<OopType>{shared}, changed());
  zel->ZelSetSessionId(second);
  zel->ZelLogout();  // without a commit
  zel->ZelSetSessionId(first);
  EXPECT_EQ("1", show("Shared at: 1"));
}

TEST_F(Table, TestsMembership) {
  const OopType symbol = run("#abc");
  EXPECT_EQ(1, zel->ZelIsKindOf(symbol, StringKindClassOop));
  EXPECT_EQ(1, zel->ZelIsKindOf(run("'a' asDoubleByteString"), StringKindClassOop));
  EXPECT_EQ(0, zel->ZelIsKindOf(symbol, DoubleByteStringClassOop));
  EXPECT_EQ(0, zel->ZelIsKindOf(31, ArrayClassOop));
  EXPECT_EQ(0, errorNumber());
  zel->ZelIsKindOf(31, symbol);
  EXPECT_EQ(2094, errorNumber());
  zel->ZelIsKindOf(wild, ArrayClassOop);
  EXPECT_EQ(2507, errorNumber());
}

// Every function with each kind of bad argument, with and without a session: an error, no crash.
TEST_F(Table, SurvivesBadArguments) {
  const OopType strange[] = {
      0,  1,    2,          18,         6,          NilOop,        31,
      78, wild, 0x80000001, 0xFFFFFFFD, 0xFFFFFFFF, ArrayClassOop, StringClassOop};
  const auto everything = [&](OopType oop) {
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"ZelExecute", [&] { zel->ZelExecute(oop, oop); }},
        {"ZelExecuteStr", [&] { zel->ZelExecuteStr(nullptr, oop); }},
        {"ZelPerform", [&] { zel->ZelPerform(oop, nullptr, nullptr, 3); }},
        {"ZelPerform", [&] { zel->ZelPerform(oop, "at:", nullptr, 1); }},
        {"ZelPerform", [&] { zel->ZelPerform(oop, "", nullptr, 0); }},
        {"ZelContinueWith", [&] { zel->ZelContinueWith(oop, oop, 0, nullptr); }},
        {"ZelFetchBytes", [&] { zel->ZelFetchBytes(oop, 1, nullptr, 5); }},
        {"ZelFetchVaryingOops", [&] { zel->ZelFetchVaryingOops(oop, 1, nullptr, 5); }},
        {"ZelFetchNamedOops", [&] { zel->ZelFetchNamedOops(oop, 1, nullptr, 5); }},
        {"ZelFetchNamedOop", [&] { zel->ZelFetchNamedOop(oop, -1); }},
        {"ZelFetchObjInfo", [&] { zel->ZelFetchObjInfo(oop, 1, 5, nullptr, nullptr, nullptr); }},
        {"ZelStoreBytesInstanceOf", [&] { zel->ZelStoreBytesInstanceOf(oop, oop, 1, nullptr, 5); }},
        {"ZelStoreIdxOops", [&] { zel->ZelStoreIdxOops(oop, 1, nullptr, 5); }},
        {"ZelStoreNamedOops", [&] { zel->ZelStoreNamedOops(oop, 1, nullptr, 5); }},
        {"ZelStoreOop", [&] { zel->ZelStoreOop(oop, 0, oop); }},
        {"ZelNewDateTime", [&] { zel->ZelNewDateTime(oop, nullptr); }},
        {"ZelSaveObjs", [&] { zel->ZelSaveObjs(nullptr, 5); }},
        {"ZelReleaseOops", [&] { zel->ZelReleaseOops(nullptr, 5); }},
        {"ZelDirtySaveObjs", [&] { zel->ZelDirtySaveObjs(nullptr, nullptr); }},
        {"ZelIsKindOf", [&] { zel->ZelIsKindOf(oop, 31); }},
        {"ZelLogin", [&] { zel->ZelLogin(nullptr, nullptr); }},
        {"ZelSetNet", [&] { zel->ZelSetNet(nullptr, nullptr, nullptr, nullptr); }},
        {"ZelInitAppName", [&] { zel->ZelInitAppName(nullptr, 1); }},
        {"ZelSetSessionId", [&] { zel->ZelSetSessionId(static_cast<int>(oop) | 1 << 30); }},
    };
    for (const auto& [name, call] : calls) {
      call();
      EXPECT_NE(0, errorNumber()) << name << " of " << oop;
    }
    // These may succeed with some of the oops, and must survive all of them.
    zel->ZelNewOop(oop);
    zel->ZelOopToBool(oop);
    zel->ZelOopToChr(oop);
    zel->ZelOopToFlt(oop);
    zel->ZelOopToLong(oop);
    errorNumber();
  };
  for (const OopType oop : strange) everything(oop);
  EXPECT_EQ(0, zel->ZelErr(nullptr));
  errorNumber();
  zel->ZelLogout();
  for (const OopType oop : strange) everything(oop);
  zel->ZelLogout();
  EXPECT_EQ(4100, errorNumber());
}

}  // namespace
