// Limits: what never ends, grows or nests too far becomes an error, and memory comes back.
#include <cstdio>
#include <thread>
#include <vector>

#include "objmem/memory.h"
#include "session_fixture.h"
#include "vm/interpreter.h"

namespace {

class Limits : public ZelSession {
 protected:
  void TearDown() override {
    zel::setExecutionLimits({});
    zel::setMemoryLimit(zel::defaultMemoryLimit);
    ZelSession::TearDown();
  }
  std::size_t objects() {
    zel::collect();
    return zel::memoryStatistics().objects;
  }
};

std::string repeated(const std::string& text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

TEST_F(Limits, RunawayProgramsEnd) {
  zel::setExecutionLimits({100'000, 2'000});
  const struct {
    const char* source;
    int error;
  } samples[] = {
      {"[true] whileTrue: []", 6004},
      {"[] repeat", 6004},
      {"[[] repeat] on: Exception do: [1]", 6004},
      {"1 to: 1000000000 do: [:i | i]", 6004},
      {"f := nil. f := [f value]. f value", 2138},
      {"Object compile: 'deep ^self deep'. nil deep", 2138},
      {"f := nil. f := [f value]. [f value] on: Error do: [:e | e number]", 0},
  };
  for (const auto& sample : samples) {
    run(sample.source);
    EXPECT_EQ(sample.error, errorNumber()) << sample.source;
    EXPECT_EQ("7", show("3 + 4"));
  }
  zel::setExecutionLimits({});
  run("f := nil. f := [f value]. f value");
  EXPECT_EQ(2138, errorNumber());
}

TEST_F(Limits, ABreakFromAnotherThreadStopsOrSuspends) {
  const auto breakSoon = [&](ZelUntypedFType slot) {
    return std::thread([slot] {
      // The program waits for nothing but the break, however late it comes.
      std::this_thread::yield();
      slot();
    });
  };
  std::thread hard = breakSoon(zel->ZelHardBreak);
  run("[true] whileTrue: []");
  hard.join();
  EXPECT_EQ(6004, errorNumber());
  std::thread soft = breakSoon(zel->ZelSoftBreak);
  run("go := true. n := 0. [go] whileTrue: [n := n + 1]. 'over'");
  soft.join();
  EXPECT_EQ(6003, errorNumber());
  const OopType process = error.context;
  run("go := false");
  EXPECT_EQ("'over'", zel::printString(zel->ZelContinueWith(process, 1, 0, nullptr)));
}

TEST_F(Limits, DeepAndLongTextsEnd) {
  EXPECT_EQ("1", show(repeated("(", 90) + "1" + repeated(")", 90)));
  for (const char* open : {"(", "[", "{", "#("}) {
    run(repeated(open, 100'000));
    EXPECT_EQ(2501, errorNumber()) << open;
  }
  run(repeated("a := ", 100'000) + "1");
  EXPECT_EQ(2501, errorNumber());
  EXPECT_EQ("20001", show("1" + repeated(" + 1", 20'000)));
  run("1" + repeated(" + 1", 100'000));
  EXPECT_EQ(2501, errorNumber());
  EXPECT_EQ("-1", show("1" + repeated(" negated", 20'001)));
  EXPECT_EQ("100000", show("#(" + repeated("1 ", 100'000) + ") size"));
}

TEST_F(Limits, MemoryIsBoundedAndComesBack) {
  zel::setMemoryLimit(16U << 20);
  run("keep := OrderedCollection new. [true] whileTrue: [keep add: (Array new: "
      "1000)]");
  EXPECT_EQ(2208, errorNumber());
  EXPECT_EQ("7", show("keep := nil. System collectGarbage. 3 + 4"));
  // Garbage alone never fills it.
  EXPECT_EQ("'done'", show("1 to: 100 do: [:i | Array new: 1000000]. 'done'"));
  EXPECT_EQ("'caught'", show("[(1 to: 99) collect: [:i | Array new: 500000]] "
                             "on: Error do: ['caught']"));
}

TEST_F(Limits, GarbageGoesAndWhatIsHeldStays) {
  run("keep := Array new: 1");
  const std::size_t before = objects();
  OopType held = run("1 to: 1000 do: [:i | 'garbage' copy]. 'held' copy");
  zel->ZelSaveObjs(&held, 1);
  const OopType handed = run("'handed' copy");
  run("keep at: 1 put: 'kept' copy. s := Set new. s add: 'in a set' copy");
  zel->ZelSetSessionId(zel->ZelGetSessionId());
  objects();
  EXPECT_EQ("'held'", zel::printString(held));
  EXPECT_EQ("'handed'", zel::printString(handed));
  EXPECT_EQ("an Array( 'kept' )", show("keep"));
  EXPECT_EQ("true", show("s includes: 'in a set'"));
  for (const OopType oop : {held, handed}) zel->ZelReleaseOops(&oop, 1);
  run("keep at: 1 put: nil. s := nil");
  // Besides the array and the session's names only what ran last may be left.
  EXPECT_LE(objects(), before + 8);
  zel->ZelFetchBytes(held, 1, nullptr, 0);
  EXPECT_EQ(2507, errorNumber());
}

TEST_F(Limits, AChangeOfHundredThousandObjectsIsLinear) {
  const std::string fill =
      "d := Dictionary new. s := Set new. o := OrderedCollection new. "
      "1 to: 100000 do: [:i | d at: i put: i. s add: i. o add: i]. d size";
  EXPECT_EQ("100000", show(fill));
  EXPECT_EQ("0", show("1 to: 100000 do: [:i | s remove: i. d removeKey: i]. s "
                      "size + d size"));
  std::vector<OopType> oops(100'000);
  const OopType all = run("o collect: [:i | Array new: 1]");
  ASSERT_EQ(100'000, zel->ZelFetchVaryingOops(all, 1, oops.data(), oops.size()));
  zel->ZelSaveObjs(oops.data(), oops.size());
  zel->ZelPerform(all, "do:", std::vector<OopType>{run("[:a | a at: 1 put: 1]")}.data(), 1);
  ArraySizeType count = oops.size();
  std::vector<OopType> dirty(oops.size());
  EXPECT_EQ(1, zel->ZelDirtySaveObjs(dirty.data(), &count));
  EXPECT_EQ(oops, dirty);
  zel->ZelReleaseOops(oops.data(), oops.size());
  const OopType text = zel->ZelNewOop(StringClassOop);
  const std::vector<ByteType> chunk(64, 'x');
  for (long at = 1; at <= 1 << 20; at += 64) {
    zel->ZelStoreBytesInstanceOf(NilOop, text, at, chunk.data(), chunk.size());
  }
  EXPECT_EQ(0, errorNumber());
  EXPECT_EQ("1048576", zel::printString(zel->ZelPerform(text, "size", nullptr, 0)));
}

long residentKilobytes() {
  long pages = 0;
  long resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr || std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = -1;
  if (file != nullptr) std::fclose(file);
  return resident * 4;
}

TEST_F(Limits, TwoHundredThousandTextsLeaveMemoryWhereItWas) {
#ifdef POVZEL_SANITIZE
  constexpr int rounds = 30'000;  // freed memory stays in quarantine for a while
  constexpr long slack = 1L << 20;
#else
  constexpr int rounds = 200'000;
  constexpr long slack = 4096;
#endif
  const auto round = [&](int i) {
    zel->ZelSetSessionId(zel->ZelGetSessionId());
    const OopType oop = run("'text ' , " + std::to_string(i) + " printString");
    const OopType argument = zel->ZelNewOop(StringClassOop);  // never released, as a caller may
    zel->ZelStoreBytesInstanceOf(NilOop, argument, 1, reinterpret_cast<const ByteType*>("abc"), 3);
    OopType sum = zel->ZelPerform(oop, ",", &argument, 1);
    zel->ZelSaveObjs(&sum, 1);
    zel->ZelReleaseOops(&sum, 1);
    zel->ZelReleaseOops(&oop, 1);
    if (i % 16 == 0) run("nil wrong");
    errorNumber();
  };
  for (int i = 0; i < 20'000; ++i) round(i);
  const std::size_t table = zel::memoryStatistics().tableSize;
  const long resident = residentKilobytes();
  for (int i = 0; i < rounds - 20'000; ++i) round(i);
  EXPECT_LE(zel::memoryStatistics().tableSize, table + table / 4);
  EXPECT_LE(residentKilobytes(), resident + slack);
}

}  // namespace
