// The table: what each slot does as a client uses it, and with arguments that make no sense.

#include <dlfcn.h>

#include "misaligned.h"
#include "session_fixture.h"

static bool sawMisaligned = false;

// What a slot that refuses its arguments calls of another library.
extern "C" void* __cxa_allocate_exception(std::size_t size) noexcept {
  sawMisaligned |= !STACK_IS_ALIGNED();
  void* const real = dlsym(RTLD_NEXT, "__cxa_allocate_exception");
  return reinterpret_cast<void* (*)(std::size_t)>(real)(size);
}

namespace {

using std::tuple;
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
  Oops changedExports() {
    Oops oops(8);
    ArraySizeType room = oops.size();
    zel->ZelDirtySaveObjs(oops.data(), &room);
    oops.resize(room);
    return oops;
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
  EXPECT_EQ(0, reinterpret_cast<int (*)()>(zel->ZelTvSocketRead)());
  EXPECT_EQ("error 2509: ZelTvSocketRead is not provided by the embedded interface library",
            takeError());
}

TEST_F(Table, AlignsTheStackForWhatItCalls) {
  for (const unsigned bytesOff : {4, 8, 12}) {
    misaligned(bytesOff, zel->ZelOopToBool)(7);
    EXPECT_EQ(2211, errorNumber());
    misaligned(bytesOff, zel->ZelExecuteStr)("nil foo", NilOop);
    EXPECT_EQ(2010, errorNumber());
    EXPECT_FALSE(sawMisaligned) << bytesOff;
  }
}

TEST_F(Table, RefusesWrongLoginsAndSessions) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  EXPECT_EQ(tuple(4051, 4051, 4100), tuple(errorOf(zel->ZelLogin, "SystemUser", "wrong"),
                                           errorOf(zel->ZelLogin, "Nobody", "swordfish"),
                                           errorOf(zel->ZelSetSessionId, first + 1)));
  EXPECT_EQ(first, zel->ZelGetSessionId());
  run("Globals at: #All put: Set new. System commit");
  for (int i = 1; i < 64; ++i) {
    ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish")) << i;
    EXPECT_EQ(std::to_string(i), show("All add: System sessionId. System commit. All size"));
  }
  EXPECT_EQ(2512, errorOf(zel->ZelLogin, "SystemUser", "swordfish"));
  EXPECT_EQ(0, errorOf(zel->ZelLogout));
  EXPECT_EQ(4100, errorOf(zel->ZelExecuteStr, "3", NilOop));
  EXPECT_EQ("7", showIn(first, "3 + 4"));
}

TEST_F(Table, ConvertsValues) {
  for (const long value : {536870912L, -536870913L, LongLimit::max(), LongLimit::min()}) {
    EXPECT_EQ(value, zel->ZelOopToLong(zel->ZelLongToOop(value)));
  }
  EXPECT_EQ(tuple(-1L, 1, 0, -56, 1.25),
            tuple(zel->ZelOopToLong(0xFFFFFFFF), zel->ZelIsKindOf(StringClassOop, run("Object")),
                  zel->ZelOopToBool(FalseOop), zel->ZelOopToChr(200 << 5 | 14),
                  zel->ZelOopToFlt(zel->ZelFltToOop(1.25))));
  EXPECT_EQ(0, errorNumber());
  const OopType large = run("2 raisedTo: 31");
  EXPECT_EQ(
      tuple(2163, 2163, 2120, 2211, 2164, 2094),
      tuple(errorOf(zel->ZelOopToLong, large), errorOf(zel->ZelOopToLong, run("99 factorial")),
            errorOf(zel->ZelOopToFlt, 31), errorOf(zel->ZelOopToBool, 31),
            errorOf(zel->ZelOopToChr, 31), errorOf(zel->ZelIsKindOf, 31, large)));
  using Time = ZelDateTimeSType;  // of which only the first exists
  const Time times[] = {{2012, 366, 0, 10}, {1900, 366, 0, 10}, {2012, 60, 86'400'000, 10}};
  for (const Time& time : times) {
    EXPECT_EQ(&time == times ? 0 : 2161, errorOf(zel->ZelNewDateTime, DateTimeClassOop, &time));
  }
}

TEST_F(Table, ReadsAndWritesRangesOfBytes) {
  const OopType oop = run("'hello' copy");
  EXPECT_EQ(tuple(0, 0), tuple(storeBytes(oop, 6, " world"), storeBytes(oop, 1, "J")));
  EXPECT_EQ("Jello world/world/",
            bytes(oop, 1, 100) + "/" + bytes(oop, 7, 5) + "/" + bytes(oop, 12, 5));
  for (const long start : {0L, 13L, LongLimit::min(), LongLimit::max()}) {
    EXPECT_EQ(2110, (bytes(oop, start, 1), errorNumber())) << start;
    EXPECT_EQ(2110, storeBytes(oop, start, "x")) << start;
  }
  const ByteType byte = 0;
  EXPECT_EQ(tuple(2094, 2110, 2506, 2506, 2208),
            tuple(storeBytes(oop, 1, "", ArrayClassOop), storeBytes(zel->ZelFltToOop(1), 8, "xx"),
                  storeBytes(run("'literal'"), 1, "x"), storeBytes(zel->ZelFltToOop(1), 1, "x"),
                  errorOf(zel->ZelStoreBytesInstanceOf, NilOop, oop, 1, &byte, 0xFFFFFFFF)));
}

// Clients see the bytes of a string, programs its characters, also after the other changed them.
TEST_F(Table, CharactersFollowTheBytesThatClientsStore) {
  const OopType oop = run("s := String new. 200 timesRepeat: [s add: $ü]. s size. s");
  EXPECT_EQ("an Array( 200 $\u00FC )", show("{s size. s at: 190}"));
  EXPECT_EQ(0, storeBytes(oop, 1, "ab"));
  EXPECT_EQ("an Array( 201 $b 400 )", show("{s size. s at: 2. s byteSize}"));
  run("s at: 3 put: (Character value: 16r20AC)");
  EXPECT_EQ("ab\u20AC\u00FC", bytes(oop, 1, 7));
  EXPECT_EQ(0, storeBytes(oop, 1, std::string(401, 'x')));
  EXPECT_EQ("an Array( 401 $x )", show("{s size. s at: 401}"));
  const OopType wide = run("w := 'ab' asDoubleByteString");
  EXPECT_EQ(0, storeBytes(wide, 5, "c"));  // half a unit
  EXPECT_EQ("an Array( 2 'ab' 'ba' )", show("{w size. w. w reversed}"));
  EXPECT_EQ("an Array( 3 $x 6 )", show("w add: $x. {w size. w last. w byteSize}"));
}

TEST_F(Table, ReadsAndWritesRangesOfOops) {
  // Indexes of the indexed part count behind the named slots, ZelStoreOop's over both.
  const OopType oops[] = {7, 11, wild};
  const OopType both = run("(Array subclass: 'Both' instVarNames: #(a b)) new: 2");
  zel->ZelStoreIdxOops(both, 2, oops, 2);
  zel->ZelStoreNamedOops(both, 1, oops, 2);
  zel->ZelStoreOop(both, 2, TrueOop);
  zel->ZelStoreOop(both, 3, FalseOop);
  EXPECT_EQ(
      tuple(2110, 2110, 2110, 2506, 2507, 5065),
      tuple(errorOf(zel->ZelStoreOop, both, 8, TrueOop), errorOf(zel->ZelFetchNamedOop, both, 3),
            errorOf(zel->ZelStoreNamedOops, both, 2, oops, 2),
            errorOf(zel->ZelStoreIdxOops, run("#(1)"), 1, oops, 1),
            errorOf(zel->ZelStoreIdxOops, both, 1, oops, 3),
            errorOf(zel->ZelStoreIdxOops, both, 1, oops, 0x80000001)));
  EXPECT_EQ("a Both( false 1 2 )", shown(both));
  // What places its elements itself is not written from outside.
  const OopType dictionary = run("d := IdentityDictionary new. d at: 5 put: 9. d");
  const OopType sorted = run("s := #(3 1) asSortedCollection");
  EXPECT_EQ(tuple(2506, 2506), tuple(errorOf(zel->ZelStoreIdxOops, dictionary, 1, oops, 2),
                                     errorOf(zel->ZelStoreOop, sorted, 2, TrueOop)));
  EXPECT_EQ("an Array( an IdentityDictionary( 5->9 ) a SortedCollection( 1 3 ) )", show("{d. s}"));
}

TEST_F(Table, SuspendsAndContinues) {
  const auto suspended = [&](const std::string& source) {
    EXPECT_EQ("error 2502: the program is suspended", show(source));
    return error.context;
  };
  const auto continued = [&](OopType process, OopType with, ZelErrSType* raised = nullptr) {
    return shown(zel->ZelContinueWith(process, with, 0, raised));
  };
  const OopType six = run("#(6)");
  const OopType lost = run("#('lost' ' at line 9')");
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
  for (const OopType bad : {wild, NilOop, run("#()"), run("#(1 2 3)")}) {
    EXPECT_NE(0, errorOf(zel->ZelContinueWith, process, bad, 0, nullptr)) << bad;
    EXPECT_NE(0, errorOf(zel->ZelContinueWith, bad, six, 0, nullptr)) << bad;
  }
  ASSERT_NE(0, zel->ZelLogin("SystemUser", "swordfish"));
  EXPECT_EQ(2507, errorOf(zel->ZelContinueWith, process, 1, 0, nullptr));
}

TEST_F(Table, CommitsAndAborts) {
  const ZelSessionIdType first = zel->ZelGetSessionId();
  const OopType shared = run("Globals at: #Shared put: #(1) copy. System commit. Shared");
  zel->ZelSaveObjs(&shared, 1);
  run("Shared at: 1 put: 2. Globals at: #Other put: 3. Object subclass: 'Lost'");
  EXPECT_EQ(Oops{shared}, changedExports());

  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  const ZelSessionIdType second = zel->ZelGetSessionId();
  EXPECT_EQ("an Array( 1 false )", show("{Shared at: 1. Globals includesKey: #Other}"));
  EXPECT_EQ("9", show("Shared at: 1 put: 9"));
  EXPECT_EQ("an Array( 1 false )",
            showIn(first, "System abort. {Shared at: 1. System needsCommit}"));
  EXPECT_EQ("error 2189: Lost is not defined", show("Lost"));
  EXPECT_EQ(Oops{shared}, changedExports());

  EXPECT_EQ("9", showIn(second, "Shared at: 1 put: 9"));
  zel->ZelLogout();  // without a commit
  EXPECT_EQ("1", showIn(first, "Shared at: 1"));
}

// Taking the transcript is no program, nor is asking for names: what failed can be continued. What
// the transcript holds is counted.
TEST_F(Table, TakesTheTranscriptBetweenPrograms) {
  const std::size_t before = session().memory.statistics().bytes;
  ASSERT_EQ("error 2010", show("Transcript show: 'so'. (nil foo) + 1").substr(0, 10));
  const OopType process = error.context;
  EXPECT_EQ("'so'", show("System takeTranscript"));
  EXPECT_NE(std::string::npos, show("System names").find("\nWriteStream\n"));
  EXPECT_EQ("8", shown(zel->ZelContinueWith(process, run("{7}"), 0, nullptr)));
  show("1 to: 300000 do: [:i | Transcript show: i]");
  EXPECT_LE(before + (1U << 20), session().memory.statistics().bytes);
  zel->ZelLogout();
  EXPECT_EQ("error 4100", show("System takeTranscript").substr(0, 10));
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
