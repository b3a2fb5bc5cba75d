// The table: what each slot does as a client uses it, and with arguments that make no sense.
#include <array>
#include <cstring>
#include <functional>
#include <limits>

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
  int storeBytes(OopType oop, long start, const std::string& text, OopType classOop = NilOop) {
    zel->ZelStoreBytesInstanceOf(classOop, oop, start,
                                 reinterpret_cast<const ByteType*>(text.data()), text.size());
    return errorNumber();
  }
  std::string bytes(OopType oop, long start, ArraySizeType count) {
    std::string text(count, '?');
    const long fetched =
        zel->ZelFetchBytes(oop, start, reinterpret_cast<ByteType*>(text.data()), count);
    return text.substr(0, static_cast<std::size_t>(fetched));
  }
  // The changed exports that fit; `complete` says whether these are all.
  std::vector<OopType> changed(ArraySizeType room = 100) {
    std::vector<OopType> oops(room);
    ArraySizeType count = room;
    complete = zel->ZelDirtySaveObjs(oops.data(), &count) != 0;
    oops.resize(count);
    return oops;
  }
  OopType array(const std::vector<OopType>& oops) {
    const OopType oop = zel->ZelNewOop(ArrayClassOop);
    zel->ZelStoreIdxOops(oop, 1, oops.data(), oops.size());
    return oop;
  }

  bool complete = false;
};

TEST_F(Table, FillsEverySlotAndNamesTheOnesItDoesNotProvide) {
  EXPECT_EQ(312, zel->zelFeatureLevel);
  EXPECT_EQ(1, zel->zelCompatiblityLevel);
  const auto* slots = reinterpret_cast<const ZelUntypedFType*>(&zel->ZelAbort);
  for (int i = 0; i < ZelRtlSlotCount; ++i) EXPECT_NE(nullptr, slots[i]) << i;
  EXPECT_EQ(1, zel->ZelProduct());
  EXPECT_STREQ("6.7.1", zel->ZelVersion());
  EXPECT_EQ(0, reinterpret_cast<int (*)()>(zel->ZelTvSocketRead)());
  EXPECT_EQ("error 2509: ZelTvSocketRead is not provided by the embedded interface library",
            takeError());
  EXPECT_EQ("", takeError());
}

TEST_F(Table, RefusesWrongLoginsAndSessions) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  for (const auto& [user, password] : {std::pair("SystemUser", "wrong"), {"Nobody", "swordfish"}}) {
    EXPECT_EQ(0, zel->ZelLogin(user, password));
    EXPECT_EQ(4051, errorNumber());
  }
  EXPECT_EQ(4100, (zel->ZelSetSessionId(first + 1), errorNumber()));
  EXPECT_EQ(first, zel->ZelGetSessionId());
  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  EXPECT_NE(first, zel->ZelGetSessionId());
  run("nil foo");  // stays with its session
  zel->ZelLogout();
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ(0, zel->ZelGetSessionId());
  EXPECT_EQ(4100, (run("3"), errorNumber()));
  zel->ZelSetSessionId(first);
  EXPECT_EQ("7", show("3 + 4"));
  for (int i = 1; i < 64; ++i) ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish")) << i;
  EXPECT_EQ(0, zel->ZelLogin("SystemUser", "swordfish"));
  EXPECT_EQ(2512, errorNumber());
}

TEST_F(Table, ConvertsValues) {
  EXPECT_EQ(31U, zel->ZelLongToOop(7));
  EXPECT_EQ(-1, zel->ZelOopToLong(0xFFFFFFFF));
  using Limit = std::numeric_limits<long>;
  for (const long value : {536870912L, -536870913L, Limit::max(), Limit::min()}) {
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
  EXPECT_EQ(2163, (zel->ZelOopToLong(run("2 raisedTo: 31")), errorNumber()));
  EXPECT_EQ(2120, (zel->ZelOopToFlt(31), errorNumber()));
  EXPECT_EQ(2211, (zel->ZelOopToBool(31), errorNumber()));
  EXPECT_EQ(2164, (zel->ZelOopToChr(31), errorNumber()));
}

TEST_F(Table, MakesDateTimesThatExist) {
  const std::pair<ZelDateTimeSType, int> samples[] = {
      {{2012, 366, 0, NilOop}, 0},       {{2011, 366, 0, NilOop}, 2161},
      {{2012, 0, 0, NilOop}, 2161},      {{2012, 60, 86'399'999, NilOop}, 0},
      {{2012, 60, -1, NilOop}, 2161},    {{2012, 60, 86'400'000, NilOop}, 2161},
      {{1'000'000, 1, 0, NilOop}, 2161}, {{2012, 60, 0, wild}, 2507},
      {{1900, 366, 0, NilOop}, 2161},    {{2000, 366, 0, NilOop}, 0},
  };
  for (const auto& [time, number] : samples) {
    const OopType oop = zel->ZelNewDateTime(DateTimeClassOop, &time);
    EXPECT_EQ(number, errorNumber()) << time.year << " " << time.dayOfYear;
    if (number != 0) continue;
    OopType parts[4];
    EXPECT_EQ(4, zel->ZelFetchNamedOops(oop, 1, parts, 4));
    EXPECT_EQ(time.year, zel->ZelOopToLong(parts[0]));
    EXPECT_EQ(time.milliseconds, zel->ZelOopToLong(parts[2]));
  }
}

TEST_F(Table, DescribesObjects) {
  // Class, implementation, named slots, size, whether there is an indexed part.
  const std::pair<const char*, std::array<OopType, 5>> samples[] = {
      {"'abcde'", {StringClassOop, 1, 0, 5, 1}},
      {"'ab' asDoubleByteString", {DoubleByteStringClassOop, 1, 0, 4, 1}},
      {"1.5", {FloatClassOop, 1, 0, 8, 0}},
      {"Array new: 3", {ArrayClassOop, 0, 0, 3, 1}},
      {"DateTime now", {DateTimeClassOop, 0, 4, 4, 0}},
      {"1->2", {run("Association"), 0, 2, 2, 0}},
      {"Set withAll: #(1 2)", {run("Set"), 2, 0, 2, 1}},
  };
  ZelObjInfoSType record{};
  for (const auto& [source, parts] : samples) {
    EXPECT_EQ(1, zel->ZelFetchObjInfo(run(source), 1, 0, &record, nullptr, nullptr));
    EXPECT_EQ(parts,
              (std::array<OopType, 5>{
                  record.objClass, OopType{record.objImpl}, static_cast<OopType>(record.namedSize),
                  static_cast<OopType>(record.objSize), OopType{record.isIndexable}}))
        << source;
  }
  ByteType buffer[16];
  std::memset(buffer, '.', sizeof buffer);
  ArraySizeType count = 0;
  zel->ZelFetchObjInfo(run("'abcde'"), 2, 3, &record, buffer, &count);
  EXPECT_EQ(3U, count);
  EXPECT_EQ(0, std::memcmp("bcd.", buffer, 4));
  zel->ZelFetchObjInfo(run("#(1 2 3)"), 1, 11, &record, buffer, &count);
  EXPECT_EQ(2U, count);
  EXPECT_EQ(0, std::memcmp("\x07\0\0\0\x0B\0\0\0.", buffer, 9));
  // A class keeps its history in named slot 12.
  EXPECT_EQ("a ClassHistory( String )", shown(zel->ZelFetchNamedOop(StringClassOop, 12)));
  EXPECT_EQ("error 2507: oop 10 is a value without a body",
            shown(zel->ZelFetchNamedOop(NilOop, 12)));
}

TEST_F(Table, ReadsAndWritesRangesOfBytes) {
  const OopType oop = newString("hello");
  EXPECT_EQ(0, storeBytes(oop, 6, " world") + storeBytes(oop, 1, "J") + storeBytes(oop, 1, ""));
  EXPECT_EQ("Jello world", bytes(oop, 1, 100));
  EXPECT_EQ("world", bytes(oop, 7, 5));
  EXPECT_EQ("", bytes(oop, 12, 5));
  EXPECT_EQ(0, errorNumber());
  using Limit = std::numeric_limits<long>;
  for (const long start : {0L, -1L, 13L, Limit::min(), Limit::max()}) {
    EXPECT_EQ(2110, (bytes(oop, start, 1), errorNumber())) << start;
    EXPECT_EQ(2110, storeBytes(oop, start, "x")) << start;
  }
  EXPECT_EQ(2094, storeBytes(oop, 1, "", ArrayClassOop));
  EXPECT_EQ(2110, storeBytes(zel->ZelFltToOop(1), 8, "xx"));
  EXPECT_EQ(2506, storeBytes(run("#symbol"), 1, "x"));
  EXPECT_EQ(2094, storeBytes(run("Array new: 2"), 1, "x"));
  const ByteType byte = 0;
  zel->ZelStoreBytesInstanceOf(NilOop, oop, 1, &byte, 0xFFFFFFFF);
  EXPECT_EQ(2208, errorNumber());
  EXPECT_EQ("Jello world", bytes(oop, 1, 100));
}

TEST_F(Table, ReadsAndWritesRangesOfOops) {
  const OopType oops[] = {7, 11, 15};
  const OopType bad[] = {7, wild};
  const OopType oop = array({7, 11, 15});
  zel->ZelStoreIdxOops(oop, 3, oops, 3);
  zel->ZelStoreOop(oop, 6, TrueOop);
  OopType fetched[8] = {};
  EXPECT_EQ(2, zel->ZelFetchVaryingOops(oop, 5, fetched, 8));
  EXPECT_EQ(TrueOop, fetched[1]);
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ(2110, (zel->ZelStoreOop(oop, 8, TrueOop), errorNumber()));
  EXPECT_EQ(2110, (zel->ZelStoreIdxOops(oop, 0, oops, 3), errorNumber()));
  EXPECT_EQ(2507, (zel->ZelStoreIdxOops(oop, 1, bad, 2), errorNumber()));
  EXPECT_EQ(5065, (zel->ZelStoreIdxOops(oop, 1, oops, 0x80000001), errorNumber()));
  EXPECT_EQ("an Array( 1 2 1 2 3 true )", shown(oop));

  const OopType pair = run("1->2");
  zel->ZelStoreNamedOops(pair, 2, oops, 1);
  EXPECT_EQ(7U, zel->ZelFetchNamedOop(pair, 2));
  EXPECT_EQ(1, zel->ZelFetchNamedOops(pair, 2, fetched, 8));
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ(2110, (zel->ZelStoreNamedOops(pair, 2, oops, 2), errorNumber()));
  EXPECT_EQ(2110, (zel->ZelFetchNamedOop(pair, 3), errorNumber()));
  EXPECT_EQ(2094, (zel->ZelStoreIdxOops(pair, 1, oops, 1), errorNumber()));
  EXPECT_EQ(2506, (zel->ZelStoreNamedOops(StringClassOop, 1, oops, 1), errorNumber()));

  // Indexes of the indexed part count behind the named slots, ZelStoreOop's over both.
  const OopType both = run("(Array subclass: 'Both' instVarNames: #(a b)) new: 2");
  zel->ZelStoreIdxOops(both, 2, oops, 2);
  zel->ZelStoreOop(both, 2, TrueOop);
  zel->ZelStoreOop(both, 3, FalseOop);
  EXPECT_EQ("a Both( false 1 2 )", shown(both));
  EXPECT_EQ(2, zel->ZelFetchVaryingOops(both, 2, fetched, 8));
  EXPECT_EQ(7U, fetched[0]);
  EXPECT_EQ(2, zel->ZelFetchNamedOops(both, 1, fetched, 8));
  EXPECT_EQ(TrueOop, fetched[1]);

  // A dictionary whose slots a client rewrites still finds its keys; a set refuses.
  const OopType dictionary = run("d := Dictionary new. d at: 1 put: 2. d");
  zel->ZelStoreIdxOops(dictionary, 1, oops + 1, 2);
  EXPECT_EQ("3", show("d at: 2"));
  EXPECT_EQ(2094, (zel->ZelStoreIdxOops(run("Set new"), 1, oops, 1), errorNumber()));
}

TEST_F(Table, PerformsAndExecutes) {
  const OopType args[] = {zel->ZelLongToOop(4), zel->ZelLongToOop(9)};
  EXPECT_EQ(31U, zel->ZelPerform(15, "+", args, 1));
  EXPECT_EQ(TrueOop, zel->ZelPerform(23, "between:and:", args, 2));
  EXPECT_EQ("'3'", shown(zel->ZelPerform(15, "printString", nullptr, 0)));
  EXPECT_EQ(31U, zel->ZelExecute(newString("3 + 4"), NilOop));
  EXPECT_EQ(31U, zel->ZelExecute(run("'3 + 4' asDoubleByteString"), NilOop));
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ(2005, (zel->ZelPerform(15, "+", args, 2), errorNumber()));
  EXPECT_EQ(2005, (zel->ZelPerform(15, "not a message", nullptr, 0), errorNumber()));
  EXPECT_EQ(2507, (zel->ZelPerform(wild, "size", nullptr, 0), errorNumber()));
  EXPECT_EQ(2507, (zel->ZelPerform(0, "size", nullptr, 0), errorNumber()));
  EXPECT_EQ(2094, (zel->ZelExecute(31, NilOop), errorNumber()));
  EXPECT_EQ(2010, (zel->ZelPerform(15, "foo:", args, 1), errorNumber()));
  EXPECT_EQ(3, error.argCount);
  EXPECT_EQ(15U, error.args[0]);
  EXPECT_EQ(3613U, error.category);
  EXPECT_EQ(0, error.fatal);
}

TEST_F(Table, SuspendsAndContinues) {
  const auto suspended = [&](const std::string& source) {
    EXPECT_EQ("error 2502: the program is suspended", show(source));
    EXPECT_EQ(error.context, error.args[0]);
    return error.context;
  };
  const auto continued = [&](OopType process, OopType with, ZelErrSType* raised = nullptr) {
    return shown(zel->ZelContinueWith(process, with, 0, raised));
  };
  OopType process = suspended("| x | x := System suspend: #ask. x + 1");
  EXPECT_EQ("#ask", shown(error.args[1]));
  EXPECT_EQ("7", continued(process, array({27})));
  EXPECT_EQ("error 2510: the process is not suspended", continued(process, array({27})));

  process = suspended("[System suspend: 1] on: Error do: [:e | e messageText , e stack]");
  EXPECT_EQ("'lost at line 9'",
            continued(process, array({newString("lost"), newString(" at line 9")})));
  process = suspended("System suspend: 1");
  EXPECT_EQ("error 2503: lost", continued(process, array({newString("lost"), newString("")})));
  EXPECT_EQ(process, error.context);
  EXPECT_EQ("nil", continued(process, 1));
  process = suspended("System suspend: 1");
  ZelErrSType raised{};
  raised.number = 99;
  std::strcpy(raised.message, "mine");
  EXPECT_EQ("error 99: mine", continued(process, 1, &raised));

  // An error's message can be answered from outside, too.
  EXPECT_EQ("error 2010: nil does not understand #foo:", show("(nil foo: 3) + 1"));
  EXPECT_EQ("7", continued(error.context, array({27})));

  process = suspended("System suspend: 1");
  for (const OopType bad : {wild, OopType{0}, NilOop, array({}), array({7, 11, 15})}) {
    EXPECT_EQ("error", continued(process, bad).substr(0, 5)) << bad;
    EXPECT_EQ("error", continued(bad, array({7})).substr(0, 5)) << bad;
  }
  ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish"));
  EXPECT_EQ(4100, (zel->ZelContinueWith(process, 1, 0, nullptr), errorNumber()));
}

TEST_F(Table, TracksChangesOfExportedObjects) {
  const OopType a = run("a := Array new: 2");
  const OopType b = run("b := String new: 2");
  const OopType c = run("c := Set new");
  const OopType saved[] = {a, b, c};
  zel->ZelSaveObjs(saved, 3);
  EXPECT_TRUE(changed().empty());
  EXPECT_TRUE(complete);
  run("a at: 1 put: 3; at: 2 put: 4. c add: 5. Array new at: 1 put: 1");
  EXPECT_EQ(2004, errorNumber());
  storeBytes(b, 1, "x");
  EXPECT_EQ((std::vector<OopType>{a, c}), changed(2));
  EXPECT_FALSE(complete);
  EXPECT_EQ(std::vector<OopType>{b}, changed(2));
  EXPECT_TRUE(complete);
  zel->ZelReleaseOops(&a, 1);
  run("a at: 1 put: 5. c remove: 5");
  EXPECT_EQ(std::vector<OopType>{c}, changed());
  // What is released after its change is no longer told.
  run("c add: 5");
  storeBytes(b, 1, "y");
  zel->ZelReleaseOops(&c, 1);
  EXPECT_EQ(std::vector<OopType>{b}, changed());
  ArraySizeType count = 5;
  EXPECT_EQ(5065, (zel->ZelDirtySaveObjs(nullptr, &count), errorNumber()));
  EXPECT_EQ(0U, count);
  EXPECT_EQ(5065, (zel->ZelDirtySaveObjs(nullptr, nullptr), errorNumber()));
  const OopType oops[] = {a, wild, 31, b};
  EXPECT_EQ(2507, (zel->ZelSaveObjs(oops, 4), errorNumber()));
  for (int i = 0; i < 2; ++i) zel->ZelReleaseOops(oops, 4);
  EXPECT_EQ(0, errorNumber());
}

TEST_F(Table, CommitsAndAborts) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  const OopType shared = run("Globals at: #Shared put: #(1) copy. System commit. Shared");
  zel->ZelSaveObjs(&shared, 1);
  run("Shared at: 1 put: 2. Globals at: #Other put: 3. Object subclass: 'Lost'");
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
  EXPECT_EQ(2094, (zel->ZelIsKindOf(31, symbol), errorNumber()));
  EXPECT_EQ(2507, (zel->ZelIsKindOf(wild, ArrayClassOop), errorNumber()));
}

// Every function with each kind of bad argument, with and without a session: an error, no crash.
TEST_F(Table, SurvivesBadArguments) {
  OopType oop = 0;
  const std::function<void()> refused[] = {
      [&] { zel->ZelExecute(oop, oop); },
      [&] { zel->ZelExecuteStr(nullptr, oop); },
      [&] { zel->ZelPerform(oop, nullptr, nullptr, 3); },
      [&] { zel->ZelPerform(oop, "at:", nullptr, 1); },
      [&] { zel->ZelPerform(oop, "", nullptr, 0); },
      [&] { zel->ZelContinueWith(oop, oop, 0, nullptr); },
      [&] { zel->ZelFetchBytes(oop, 1, nullptr, 5); },
      [&] { zel->ZelFetchVaryingOops(oop, 1, nullptr, 5); },
      [&] { zel->ZelFetchNamedOops(oop, 1, nullptr, 5); },
      [&] { zel->ZelFetchNamedOop(oop, -1); },
      [&] { zel->ZelFetchObjInfo(oop, 1, 5, nullptr, nullptr, nullptr); },
      [&] { zel->ZelStoreBytesInstanceOf(oop, oop, 1, nullptr, 5); },
      [&] { zel->ZelStoreIdxOops(oop, 1, nullptr, 5); },
      [&] { zel->ZelStoreNamedOops(oop, 1, nullptr, 5); },
      [&] { zel->ZelStoreOop(oop, 0, oop); },
      [&] { zel->ZelNewDateTime(oop, nullptr); },
      [&] { zel->ZelSaveObjs(nullptr, 5); },
      [&] { zel->ZelReleaseOops(nullptr, 5); },
      [&] { zel->ZelDirtySaveObjs(nullptr, nullptr); },
      [&] { zel->ZelIsKindOf(oop, 31); },
      [&] { zel->ZelLogin(nullptr, nullptr); },
      [&] { zel->ZelSetNet(nullptr, nullptr, nullptr, nullptr); },
      [&] { zel->ZelInitAppName(nullptr, 1); },
      [&] { zel->ZelSetSessionId(static_cast<int>(oop) | 1 << 30); },
  };
  const auto everything = [&] {
    for (const OopType strange : {0U, 1U, 2U, 18U, 6U, 10U, 31U, 78U, wild, 0x80000001, 0xFFFFFFFD,
                                  0xFFFFFFFF, ArrayClassOop, StringClassOop}) {
      oop = strange;
      for (const auto& call : refused) {
        EXPECT_NE(0, (call(), errorNumber())) << &call - refused << " of " << oop;
      }
      // These may succeed with some of the oops, and must survive all of them.
      zel->ZelNewOop(oop);
      zel->ZelOopToBool(oop);
      zel->ZelOopToChr(oop);
      zel->ZelOopToFlt(oop);
      zel->ZelOopToLong(oop);
      errorNumber();
    }
  };
  everything();
  EXPECT_EQ(0, zel->ZelErr(nullptr));
  zel->ZelLogout();
  everything();
  EXPECT_EQ(4100, (zel->ZelLogout(), errorNumber()));
}

}  // namespace
