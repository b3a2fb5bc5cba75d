// Limits: what never ends, grows or nests too far becomes an error, and memory comes back.
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
  for (const char* endless : {"[true] whileTrue: []", "[[] repeat] on: Exception do: [1]"}) {
    EXPECT_EQ(6004, errorOf(endless)) << endless;
    EXPECT_EQ("7", show("3 + 4"));
  }
  EXPECT_EQ(2138, errorOf("Object compile: 'deep ^self deep'. nil deep"));
  EXPECT_EQ(2138, errorOf("f := nil. f := [f value]. f value"));
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
  EXPECT_EQ("20001", show("1" + repeated(" + 1", 20'000)));
}

TEST_F(Limits, MemoryIsBoundedAndComesBack) {
  zel::setMemoryLimit(16U << 20);
  EXPECT_EQ(2208, errorOf("k := OrderedCollection new. [k add: (Array new: 1000)] repeat"));
  EXPECT_EQ("7", show("k := nil. System collectGarbage. 3 + 4"));
  // Garbage alone never fills it.
  EXPECT_EQ("'done'", show("1 to: 100 do: [:i | Array new: 1000000]. 'done'"));
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
  // The oops of what went are given out again.
  const std::size_t entries = zel::memoryStatistics().tableSize;
  for (int i = 0; i < 20; ++i) run("1 to: 1000 do: [:i | 'garbage' copy]. System collectGarbage");
  EXPECT_EQ(entries, zel::memoryStatistics().tableSize);
}

}  // namespace
