// The table: what each slot does as a client uses it, and with arguments that make no sense.

#include "session_fixture.h"
#include "tests.h"

namespace {

using std::pair, std::tuple;
using testing::Each;
using testing::Ne;
using Oops = std::vector<OopType>;
using LongLimit = std::numeric_limits<long>;

constexpr OopType wild = 4U * 900'000 + 1;

// No pointer, or the number at hand, for any parameter of a slot.
template <typename Parameter>
Parameter strange(OopType number) {
  if constexpr (!std::is_pointer_v<Parameter>) return static_cast<Parameter>(number);
  return Parameter();
}

class Table : public ZelSession {
 protected:
  template <typename Result, typename... Parameters>
  int errorOf(Result (*slot)(Parameters...), std::type_identity_t<Parameters>... arguments) {
    slot(arguments...);
    return errorNumber();
  }
  template <typename Result, typename... Parameters>
  int errorOfStrange(OopType number, Result (*slot)(Parameters...)) {
    return errorOf(slot, strange<Parameters>(number)...);
  }
  template <typename... Slots>
  std::vector<int> errorsOfStrange(OopType number, Slots... slots) {
    return {errorOfStrange(number, slots)...};
  }
  int storeBytes(OopType oop, long start, const std::string& text, OopType classOop = NilOop) {
    return errorOf(zel->ZelStoreBytesInstanceOf, classOop, oop, start,
                   reinterpret_cast<const ByteType*>(text.data()), text.size());
  }
  std::string bytes(OopType oop, long start, ArraySizeType count) {
    std::string text(count, '?');
    text.resize(zel->ZelFetchBytes(oop, start, reinterpret_cast<ByteType*>(text.data()), count));
    return text;
  }
  // What ZelFetchNamedOops or ZelFetchVaryingOops gives from `start` on, with room to spare.
  Oops fetched(decltype(ZelRtlJumpSType::ZelFetchNamedOops) slot, OopType oop, long start) {
    Oops oops(8);
    oops.resize(slot(oop, start, oops.data(), oops.size()));
    return oops;
  }
  // The changed exports that fit, and whether these are all.
  pair<Oops, bool> changed(ArraySizeType room = 100) {
    Oops oops(room);
    const bool complete = zel->ZelDirtySaveObjs(oops.data(), &room) != 0;
    oops.resize(room);
    return {oops, complete};
  }
  // What `source` shows in a session.
  std::string showIn(ZelSessionIdType session, const std::string& source) {
    zel->ZelSetSessionId(session);
    return show(source);
  }
};

TEST_F(Table, FillsEverySlotAndNamesTheOnesItDoesNotProvide) {
  const auto* slots = reinterpret_cast<const ZelUntypedFType*>(&zel->ZelAbort);
  EXPECT_THAT(std::vector(slots, slots + ZelRtlSlotCount), Each(Ne(nullptr)));
  EXPECT_EQ(
      tuple(312, 1, 1, std::string("6.7.1")),
      tuple(zel->zelFeatureLevel, zel->zelCompatiblityLevel, zel->ZelProduct(), zel->ZelVersion()));
  EXPECT_EQ(0, reinterpret_cast<int (*)()>(zel->ZelTvSocketRead)());
  EXPECT_EQ("error 2509: ZelTvSocketRead is not provided by the embedded interface library",
            takeError());
  EXPECT_EQ("", takeError());
}

TEST_F(Table, RefusesWrongLoginsAndSessions) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  EXPECT_EQ(tuple(4051, 4051, 4100), tuple(errorOf(zel->ZelLogin, "SystemUser", "wrong"),
                                           errorOf(zel->ZelLogin, "Nobody", "swordfish"),
                                           errorOf(zel->ZelSetSessionId, first + 1)));
  EXPECT_EQ(first, zel->ZelGetSessionId());
  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  EXPECT_NE(first, zel->ZelGetSessionId());
  run("nil foo");  // stays with its session
  EXPECT_EQ(0, errorOf(zel->ZelLogout));
  EXPECT_EQ(0, zel->ZelGetSessionId());
  EXPECT_EQ(4100, errorOf(zel->ZelExecuteStr, "3", NilOop));
  EXPECT_EQ("7", showIn(first, "3 + 4"));
  for (int i = 1; i < 64; ++i) ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish")) << i;
  EXPECT_EQ(2512, errorOf(zel->ZelLogin, "SystemUser", "swordfish"));
}

TEST_F(Table, ConvertsValues) {
  EXPECT_EQ(pair(31U, -1L), pair(zel->ZelLongToOop(7), zel->ZelOopToLong(0xFFFFFFFF)));
  for (const long value : {536870912L, -536870913L, LongLimit::max(), LongLimit::min()}) {
    EXPECT_EQ(value, zel->ZelOopToLong(zel->ZelLongToOop(value)));
  }
  const OopType text = run("'a' asDoubleByteString");
  EXPECT_EQ(tuple(1, 0, 1, 0, -56, 1.25),
            tuple(zel->ZelIsKindOf(text, StringKindClassOop), zel->ZelIsKindOf(31, ArrayClassOop),
                  zel->ZelOopToBool(TrueOop), zel->ZelOopToBool(FalseOop),
                  zel->ZelOopToChr(200 << 5 | 14), zel->ZelOopToFlt(zel->ZelFltToOop(1.25))));
  EXPECT_EQ(0, errorNumber());
  const OopType large = run("2 raisedTo: 31");
  EXPECT_EQ(
      tuple(2163, 2120, 2211, 2164, 2094, 2507),
      tuple(errorOf(zel->ZelOopToLong, large), errorOf(zel->ZelOopToFlt, 31),
            errorOf(zel->ZelOopToBool, 31), errorOf(zel->ZelOopToChr, 31),
            errorOf(zel->ZelIsKindOf, 31, text), errorOf(zel->ZelIsKindOf, wild, ArrayClassOop)));
}

TEST_F(Table, MakesDateTimesThatExist) {
  const pair<ZelDateTimeSType, int> samples[] = {
      {{2012, 366, 86'399'999, NilOop}, 0},   {{2000, 366, 0, NilOop}, 0},
      {{1900, 366, 0, NilOop}, 2161},         {{2012, 0, 0, NilOop}, 2161},
      {{2012, 60, -1, NilOop}, 2161},         {{1'000'000, 1, 0, NilOop}, 2161},
      {{2012, 60, 86'400'000, NilOop}, 2161}, {{2012, 60, 0, wild}, 2507},
  };
  for (const auto& [time, number] : samples) {
    const OopType oop = zel->ZelNewDateTime(DateTimeClassOop, &time);
    EXPECT_EQ(number, errorNumber()) << time.year << " " << time.dayOfYear;
    if (number != 0) continue;
    EXPECT_EQ((Oops{zel->ZelLongToOop(time.year), zel->ZelLongToOop(time.dayOfYear),
                    zel->ZelLongToOop(time.milliseconds), NilOop}),
              fetched(zel->ZelFetchNamedOops, oop, 1));
  }
}

TEST_F(Table, DescribesObjects) {
  // Class, implementation, named slots, size, whether there is an indexed part.
  const pair<const char*, tuple<OopType, int, int, int, int>> samples[] = {
      {"'abcde'", {StringClassOop, 1, 0, 5, 1}},
      {"'ab' asDoubleByteString", {DoubleByteStringClassOop, 1, 0, 4, 1}},
      {"1.5", {FloatClassOop, 1, 0, 8, 0}},
      {"Array new: 3", {ArrayClassOop, 0, 0, 3, 1}},
      {"1->2", {run("Association"), 0, 2, 2, 0}},
      {"Set withAll: #(1 2)", {run("Set"), 2, 0, 2, 1}},
  };
  ZelObjInfoSType record{};
  for (const auto& [source, parts] : samples) {
    EXPECT_EQ(1, zel->ZelFetchObjInfo(run(source), 1, 0, &record, nullptr, nullptr));
    EXPECT_EQ(parts, tuple(record.objClass, +record.objImpl, record.namedSize, record.objSize,
                           +record.isIndexable));
  }
  // The body, as far as whole elements fit.
  OopType body[] = {2, 2, 2};
  ArraySizeType count = 0;
  zel->ZelFetchObjInfo(run("#(0 1 2 3)"), 2, 11, &record, reinterpret_cast<ByteType*>(body),
                       &count);
  EXPECT_EQ(pair(2U, Oops{7, 11, 2}), pair(count, Oops(body, body + 3)));
  // A class keeps its history in named slot 12.
  EXPECT_EQ("a ClassHistory( String )", shown(zel->ZelFetchNamedOop(StringClassOop, 12)));
  EXPECT_EQ("error 2507: oop 10 is a value without a body",
            shown(zel->ZelFetchNamedOop(NilOop, 12)));
}

TEST_F(Table, ReadsAndWritesRangesOfBytes) {
  const OopType oop = zel->ZelNewOop(StringClassOop);
  EXPECT_EQ(tuple(0, 0), tuple(storeBytes(oop, 1, "hello"), storeBytes(oop, 1, "")));
  EXPECT_EQ(tuple(0, 0), tuple(storeBytes(oop, 6, " world"), storeBytes(oop, 1, "J")));
  EXPECT_EQ("Jello world/world/",
            bytes(oop, 1, 100) + "/" + bytes(oop, 7, 5) + "/" + bytes(oop, 12, 5));
  EXPECT_EQ(0, errorNumber());
  for (const long start : {0L, -1L, 13L, LongLimit::min(), LongLimit::max()}) {
    EXPECT_EQ(2110, (bytes(oop, start, 1), errorNumber())) << start;
    EXPECT_EQ(2110, storeBytes(oop, start, "x")) << start;
  }
  const ByteType byte = 0;
  EXPECT_EQ(tuple(2094, 2094, 2110, 2506, 2208),
            tuple(storeBytes(oop, 1, "", ArrayClassOop), storeBytes(run("Array new: 2"), 1, "x"),
                  storeBytes(zel->ZelFltToOop(1), 8, "xx"), storeBytes(run("#symbol"), 1, "x"),
                  errorOf(zel->ZelStoreBytesInstanceOf, NilOop, oop, 1, &byte, 0xFFFFFFFF)));
  EXPECT_EQ("Jello world", bytes(oop, 1, 100));
}

TEST_F(Table, ReadsAndWritesRangesOfOops) {
  // Indexes of the indexed part count behind the named slots, ZelStoreOop's over both.
  const OopType oops[] = {7, 11, wild};
  const OopType both = run("(Array subclass: 'Both' instVarNames: #(a b)) new: 2");
  zel->ZelStoreIdxOops(both, 2, oops, 2);
  zel->ZelStoreNamedOops(both, 1, oops, 2);
  zel->ZelStoreOop(both, 2, TrueOop);
  zel->ZelStoreOop(both, 3, FalseOop);
  zel->ZelStoreOop(both, 6, NilOop);
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ(
      tuple(2110, 2110, 2110, 2110, 2506, 2507, 5065),
      tuple(errorOf(zel->ZelStoreOop, both, 8, TrueOop), errorOf(zel->ZelFetchNamedOop, both, 3),
            errorOf(zel->ZelStoreIdxOops, both, 0, oops, 2),
            errorOf(zel->ZelStoreNamedOops, both, 2, oops, 2),
            errorOf(zel->ZelStoreNamedOops, StringClassOop, 1, oops, 1),
            errorOf(zel->ZelStoreIdxOops, both, 1, oops, 3),
            errorOf(zel->ZelStoreIdxOops, both, 1, oops, 0x80000001)));
  EXPECT_EQ("a Both( false 1 2 nil )", shown(both));
  EXPECT_EQ((Oops{7, 11, NilOop}), fetched(zel->ZelFetchVaryingOops, both, 2));
  EXPECT_EQ((Oops{7, TrueOop}), fetched(zel->ZelFetchNamedOops, both, 1));
  EXPECT_EQ(Oops{TrueOop}, fetched(zel->ZelFetchNamedOops, both, 2));
  EXPECT_EQ(TrueOop, zel->ZelFetchNamedOop(both, 2));
  for (const char* unordered : {"Set new", "1->2"}) {
    EXPECT_EQ(2094, errorOf(zel->ZelStoreIdxOops, run(unordered), 1, oops, 1)) << unordered;
  }

  // A dictionary whose slots a client rewrites still finds its keys.
  zel->ZelStoreIdxOops(run("d := Dictionary new. d at: 5 put: 9. d"), 1, oops, 2);
  EXPECT_EQ("2", show("d at: 1"));
}

TEST_F(Table, PerformsAndExecutes) {
  const OopType args[] = {19, 39};
  EXPECT_EQ("true", shown(zel->ZelPerform(23, "between:and:", args, 2)));
  for (const char* text : {"'3 + 4'", "'3 + 4' asDoubleByteString"}) {
    EXPECT_EQ("7", shown(zel->ZelExecute(run(text), NilOop))) << text;
  }
  for (const char* selector : {"+", "not a message", ""}) {
    EXPECT_EQ(2005, errorOf(zel->ZelPerform, 15, selector, args, 2)) << selector;
  }
  EXPECT_EQ(tuple(2507, 2507, 5065, 2094), tuple(errorOf(zel->ZelPerform, wild, "size", nullptr, 0),
                                                 errorOf(zel->ZelPerform, 0, "size", nullptr, 0),
                                                 errorOf(zel->ZelPerform, 15, "+", nullptr, 1),
                                                 errorOf(zel->ZelExecute, 31, NilOop)));
  EXPECT_EQ(2010, errorOf(zel->ZelPerform, 15, "foo:", args, 1));
  EXPECT_EQ(tuple(3, 15U, 3613U, 0),
            tuple(error.argCount, error.args[0], error.category, error.fatal));
}

TEST_F(Table, SuspendsAndContinues) {
  const auto suspended = [&](const std::string& source) {
    EXPECT_EQ("error 2502: the program is suspended", show(source));
    EXPECT_EQ(error.context, error.args[0]);
    return error.context;
  };
  const OopType six = run("#(6)");
  const OopType lost = run("#('lost' ' at line 9')");
  const auto continued = [&](OopType process, OopType with, ZelErrSType* raised = nullptr) {
    return shown(zel->ZelContinueWith(process, with, 0, raised));
  };
  OopType process = suspended("| x | x := System suspend: #ask. x + 1");
  EXPECT_EQ("#ask", shown(error.args[1]));
  EXPECT_EQ("7", continued(process, six));
  EXPECT_EQ("error 2510: the process is not suspended", continued(process, six));

  process = suspended("[System suspend: 1] on: Error do: [:e | e messageText , e stack]");
  EXPECT_EQ("'lost at line 9'", continued(process, lost));
  // An error can be answered from outside, too.
  process = suspended("System suspend: 1");
  ZelErrSType raised{0, 99, 0, "mine", {}, 0, 0};
  EXPECT_EQ("error 99: mine", continued(process, 1, &raised));
  EXPECT_EQ("error 2503: lost", continued(process, lost));
  EXPECT_EQ(process, error.context);
  for (const OopType bad : {wild, OopType{0}, NilOop, run("#()"), run("#(1 2 3)")}) {
    EXPECT_NE(0, errorOf(zel->ZelContinueWith, process, bad, 0, nullptr)) << bad;
    EXPECT_NE(0, errorOf(zel->ZelContinueWith, bad, six, 0, nullptr)) << bad;
  }
  EXPECT_EQ("nil", continued(process, 1));
  process = suspended("System suspend: 1");
  ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish"));
  EXPECT_EQ(4100, errorOf(zel->ZelContinueWith, process, 1, 0, nullptr));
}

TEST_F(Table, TracksChangesOfExportedObjects) {
  const OopType a = run("a := Array new: 2");
  const OopType b = run("b := String new: 2");
  const OopType c = run("c := Set new");
  const OopType saved[] = {a, b, c};
  zel->ZelSaveObjs(saved, 3);
  EXPECT_EQ(pair(Oops{}, true), changed());
  run("a at: 1 put: 3; at: 2 put: 4. c add: 5. Array new at: 1 put: 1");
  EXPECT_EQ(2004, errorNumber());
  storeBytes(b, 1, "x");
  EXPECT_EQ(pair(Oops{a, c}, false), changed(2));
  EXPECT_EQ(pair(Oops{b}, true), changed(2));
  zel->ZelReleaseOops(&a, 1);
  run("a at: 1 put: 5. c remove: 5");
  EXPECT_EQ(pair(Oops{c}, true), changed());
  // What is released after its change is no longer told.
  run("c add: 5");
  storeBytes(b, 1, "y");
  zel->ZelReleaseOops(&c, 1);
  EXPECT_EQ(pair(Oops{b}, true), changed());
  ArraySizeType count = 5;
  EXPECT_EQ(5065, errorOf(zel->ZelDirtySaveObjs, nullptr, &count));
  EXPECT_EQ(0U, count);
  const OopType oops[] = {a, wild, 31, b};
  EXPECT_EQ(2507, errorOf(zel->ZelSaveObjs, oops, 4));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0, errorOf(zel->ZelReleaseOops, oops, 4));
}

TEST_F(Table, CommitsAndAborts) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  const OopType shared = run("Globals at: #Shared put: #(1) copy. System commit. Shared");
  zel->ZelSaveObjs(&shared, 1);
  run("Shared at: 1 put: 2. Globals at: #Other put: 3. Object subclass: 'Lost'");
  EXPECT_EQ("true", show("System needsCommit"));
  EXPECT_EQ(pair(Oops{shared}, true), changed());

  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  const ZelSessionIdType second = zel->ZelGetSessionId();
  const std::string conflict = " has changed the object and not committed yet";
  EXPECT_EQ("error 2508: session " + std::to_string(first) + conflict, show("Shared at: 1 put: 9"));
  EXPECT_EQ("an Array( 1 false )",
            showIn(first, "System abort. {Shared at: 1. System needsCommit}"));
  EXPECT_EQ("error 2189: Other is not defined", show("Other"));
  EXPECT_EQ("error 2189: Lost is not defined", show("Lost"));
  EXPECT_EQ(pair(Oops{shared}, true), changed());

  EXPECT_EQ("9", showIn(second, "Shared at: 1 put: 9"));
  zel->ZelSetSessionId(first);
  EXPECT_EQ(pair(Oops{shared}, true), changed());
  zel->ZelSetSessionId(second);
  zel->ZelLogout();  // without a commit
  EXPECT_EQ("1", showIn(first, "Shared at: 1"));
}

// Null for any pointer and nonsense for any number, with and without a session: an error, no crash.
TEST_F(Table, SurvivesBadArguments) {
  for (const char* when : {"with a session", "without"}) {
    for (const OopType oop : {1U, 2U, 18U, 6U, 10U, 31U, 78U, wild, 0x80000001, 0xFFFFFFFD,
                              0xFFFFFFFF, ArrayClassOop, StringClassOop}) {
      const auto errors = errorsOfStrange(
          oop, zel->ZelExecute, zel->ZelExecuteStr, zel->ZelPerform, zel->ZelContinueWith,
          zel->ZelFetchBytes, zel->ZelFetchVaryingOops, zel->ZelFetchNamedOops,
          zel->ZelFetchNamedOop, zel->ZelFetchObjInfo, zel->ZelStoreBytesInstanceOf,
          zel->ZelStoreIdxOops, zel->ZelStoreNamedOops, zel->ZelStoreOop, zel->ZelNewDateTime,
          zel->ZelSaveObjs, zel->ZelReleaseOops, zel->ZelDirtySaveObjs, zel->ZelLogin,
          zel->ZelSetNet, zel->ZelInitAppName);
      EXPECT_THAT(errors, Each(Ne(0))) << oop << " " << when;
      // These may succeed with some of the oops.
      errorsOfStrange(oop, zel->ZelNewOop, zel->ZelOopToBool, zel->ZelOopToChr, zel->ZelOopToFlt,
                      zel->ZelOopToLong, zel->ZelIsKindOf);
    }
    EXPECT_EQ(0, zel->ZelErr(nullptr));
    zel->ZelLogout();
  }
  EXPECT_EQ(4100, errorNumber());
}

}  // namespace
