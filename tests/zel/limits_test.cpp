// Limits: what never ends, grows or nests too far becomes an error, and memory comes back.
#include "session_fixture.h"

namespace {

class Limits : public ZelSession {
 protected:
  int errorOf(const std::string& source) { return run(source), errorNumber(); }
  std::size_t objects() {
    database().memory.collect();
    return database().memory.statistics().objects;
  }
};

std::string repeated(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

TEST_F(Limits, RunawayProgramsEnd) {
  database().memory.meter.limit = 100'000;
  database().machine.mostFrames = 2'000;
  for (const char* endless : {"[true] whileTrue: []", "[[] repeat] on: Exception do: [1]"}) {
    EXPECT_EQ(2522, errorOf(endless)) << endless;
    EXPECT_EQ("7", show("3 + 4"));
  }
  EXPECT_EQ(2138, errorOf("Object compile: 'deep ^self deep'. nil deep"));
  EXPECT_EQ(2138, errorOf("f := nil. f := [f value]. f value"));
  database().memory.meter.limit = 0;
  database().machine.mostFrames = 20'000;
  EXPECT_EQ(2138, errorOf("f value"));
}

// Breaks that a thread makes until it goes: one that comes between two programs is lost.
class Breaking {
 public:
  explicit Breaking(void (*make)())
      : thread_([this, make] {
          while (!over_) make();
        }) {}
  ~Breaking() {
    over_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> over_{false};
  std::thread thread_;
};

TEST_F(Limits, ABreakFromAnotherThreadStopsOrSuspends) {
  const auto brokenBy = [&](ZelUntypedFType make, const std::string& source) {
    const Breaking breaking(make);
    return errorOf(source);
  };
  EXPECT_EQ(6004, brokenBy(zel->ZelHardBreak, "[true] whileTrue: []"));
  EXPECT_EQ(6003, brokenBy(zel->ZelSoftBreak,
                           "go := true. n := 0. [go] whileTrue: [n := n + 1]. 'over'"));
  const OopType process = error.context;
  run("go := false");
  EXPECT_EQ("'over'", shown(zel->ZelContinueWith(process, 1, 0, nullptr)));
  // One that finds nothing running does nothing to what comes next.
  zel->ZelSoftBreak();
  EXPECT_EQ("an Object", show("Object new"));
}

TEST_F(Limits, DeepAndLongTextsEnd) {
  for (const char* open : {"(", "[", "{", "#(", "a := "}) {
    EXPECT_EQ(2501, errorOf(repeated(open, 100'000) + "1")) << open;
  }
  EXPECT_EQ(2501, errorOf("1" + repeated(" + 1", 100'000)));
  EXPECT_EQ("20001", show("1" + repeated(" + 1", 20'000)));
}

TEST_F(Limits, MemoryIsBoundedAndComesBack) {
  database().memory.setLimit(16U << 20);
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
  const std::size_t entries = database().memory.statistics().tableSize;
  for (int i = 0; i < 20; ++i) run("1 to: 1000 do: [:i | 'garbage' copy]. System collectGarbage");
  EXPECT_EQ(entries, database().memory.statistics().tableSize);
}

}  // namespace
