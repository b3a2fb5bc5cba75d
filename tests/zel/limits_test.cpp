// Limits: what never ends, grows or nests too far becomes an error, and memory comes back.
#include <malloc.h>

#include <thread>

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
  int errorOf(const std::string& source) { return run(source), errorNumber(); }
  std::size_t objects() {
    zel::collect();
    return zel::memoryStatistics().objects;
  }
};

std::string repeated(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

TEST_F(Limits, RunawayProgramsEnd) {
  zel::setExecutionLimits({100'000, 2'000});
  for (const char* endless : {"[true] whileTrue: []", "[] repeat", "1 to: 1000000000 do: [:i | i]",
                              "[[] repeat] on: Exception do: [1]"}) {
    EXPECT_EQ(6004, errorOf(endless)) << endless;
    EXPECT_EQ("7", show("3 + 4"));
  }
  EXPECT_EQ(2138, errorOf("Object compile: 'deep ^self deep'. nil deep"));
  EXPECT_EQ(2138, errorOf("f := nil. f := [f value]. f value"));
  EXPECT_EQ("2138", show("[f value] on: Error do: [:e | e number]"));
  zel::setExecutionLimits({});
  EXPECT_EQ(2138, errorOf("f value"));
}

// The programs wait for nothing but the break, however late it comes.
TEST_F(Limits, ABreakFromAnotherThreadStopsOrSuspends) {
  std::thread hard(zel->ZelHardBreak);
  EXPECT_EQ(6004, errorOf("[true] whileTrue: []"));
  hard.join();
  std::thread soft(zel->ZelSoftBreak);
  EXPECT_EQ(6003, errorOf("go := true. n := 0. [go] whileTrue: [n := n + 1]. 'over'"));
  soft.join();
  const OopType process = error.context;
  run("go := false");
  EXPECT_EQ("'over'", shown(zel->ZelContinueWith(process, 1, 0, nullptr)));
}

TEST_F(Limits, DeepAndLongTextsEnd) {
  for (const char* open : {"(", "[", "{", "#(", "a := "}) {
    EXPECT_EQ(2501, errorOf(repeated(open, 100'000) + "1")) << open;
  }
  EXPECT_EQ(2501, errorOf("1" + repeated(" + 1", 100'000)));
  EXPECT_EQ("1", show(repeated("(", 90) + "1" + repeated(")", 90)));
  EXPECT_EQ("20001", show("1" + repeated(" + 1", 20'000)));
  EXPECT_EQ("-1", show("1" + repeated(" negated", 20'001)));
  EXPECT_EQ("100000", show("#(" + repeated("1 ", 100'000) + ") size"));
}

TEST_F(Limits, MemoryIsBoundedAndComesBack) {
  zel::setMemoryLimit(16U << 20);
  EXPECT_EQ(2208, errorOf("k := OrderedCollection new. [k add: (Array new: 1000)] repeat"));
  EXPECT_EQ("7", show("k := nil. System collectGarbage. 3 + 4"));
  // Garbage alone never fills it.
  EXPECT_EQ("'done'", show("1 to: 100 do: [:i | Array new: 1000000]. 'done'"));
  EXPECT_EQ("1", show("[(1 to: 99) collect: [:i | Array new: 500000]] on: Error do: [1]"));
}

TEST_F(Limits, GarbageGoesAndWhatIsHeldStays) {
  const std::size_t before = objects();
  const OopType held = run("1 to: 1000 do: [:i | 'garbage' copy]. 'held' copy");
  zel->ZelSaveObjs(&held, 1);
  const OopType handed =
      run("keep := {'kept' copy}. s := Set withAll: {'in a set' copy}. 'handed' copy");
  zel->ZelSetSessionId(zel->ZelGetSessionId());
  objects();
  EXPECT_EQ("'held' 'handed'", shown(held) + " " + shown(handed));
  EXPECT_EQ("an Array( an Array( 'kept' ) true )", show("{keep. s includes: 'in a set'}"));
  for (const OopType oop : {held, handed}) zel->ZelReleaseOops(&oop, 1);
  run("keep := nil. s := nil");
  // Besides the session's names only what ran last may be left.
  EXPECT_LE(objects(), before + 8);
  EXPECT_EQ(2507, (zel->ZelFetchBytes(held, 1, nullptr, 0), errorNumber()));
}

TEST_F(Limits, CollectionsOfAHundredThousandAreQuick) {
  EXPECT_EQ("an Array( 100000 0 )",
            show("d := Dictionary new. s := Set new. o := OrderedCollection new. "
                 "1 to: 100000 do: [:i | d at: i put: i. s add: i. o add: i]. n := d size. "
                 "o do: [:i | s remove: i. d removeKey: i]. {n. s size + d size}"));
}

TEST_F(Limits, ManyTextsLeaveMemoryWhereItWas) {
  const auto memoryAfter = [&](int rounds) {
    while (rounds-- > 0) {
      zel->ZelSetSessionId(zel->ZelGetSessionId());
      const OopType oop = run("'text ' , " + std::to_string(rounds) + " printString");
      const OopType argument = zel->ZelNewOop(StringClassOop);  // never released, as a caller may
      const OopType sum = zel->ZelPerform(oop, ",", &argument, 1);
      zel->ZelSaveObjs(&sum, 1);
      for (const OopType done : {sum, oop}) zel->ZelReleaseOops(&done, 1);
      EXPECT_EQ(0, errorNumber());
      EXPECT_EQ(rounds % 16 == 0 ? 2010 : 0, errorOf(rounds % 16 == 0 ? "nil wrong" : "nil"));
    }
    objects();
    const struct mallinfo2 heap = mallinfo2();
    return std::pair(zel::memoryStatistics().tableSize, heap.uordblks + heap.hblkhd);
  };
  const auto before = memoryAfter(20'000);
  const auto after = memoryAfter(60'000);
  EXPECT_LE(after.first, before.first + before.first / 8);
  EXPECT_LE(after.second, before.second + (64U << 10));
}

}  // namespace
