// Limits: what never ends, grows or nests too far becomes an error, and memory comes back.
#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

#include "session_fixture.h"
#include "vm/printing.h"

namespace {

class Limits : public ZelSession {
 protected:
  int errorOf(const std::string& source) { return run(source), errorNumber(); }
  std::size_t objects() {
    session().memory.collect();
    return session().memory.statistics().objects;
  }
};

std::string repeated(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

TEST_F(Limits, RunawayProgramsEnd) {
  session().memory.meter.limit = 100'000;
  session().machine.mostFrames = 2'000;
  for (const char* endless : {"[true] whileTrue: []", "[[] repeat] on: Exception do: [1]"}) {
    EXPECT_EQ(2522, errorOf(endless)) << endless;
    EXPECT_EQ("7", show("3 + 4"));
  }
  // A message that has itself sent, for ever, without a frame of its own.
  EXPECT_EQ(2522, errorOf("a := {#perform:withArguments:. nil}. a at: 2 put: a. "
                          "nil perform: #perform:withArguments: withArguments: a"));
  EXPECT_EQ(2138, errorOf("Object compile: 'deep ^self deep'. nil deep"));
  EXPECT_EQ(2138, errorOf("f := nil. f := [f value]. f value"));
  session().memory.meter.limit = 0;
  session().machine.mostFrames = 20'000;
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
  EXPECT_THAT(error.message, testing::EndsWith("(line 1, column 26)"));
  EXPECT_EQ("'text, line 1, column 26'", shown(zel->ZelPerform(process, "stack", nullptr, 0)));
  run("go := false");
  EXPECT_EQ("'over'", shown(zel->ZelContinueWith(process, 1, 0, nullptr)));
  // One that finds nothing running does nothing to what comes next.
  zel->ZelSoftBreak();
  EXPECT_EQ("an Object", show("Object new"));
}

TEST_F(Limits, BreaksThatKeepComingLetLongPrimitivesEnd) {
  run("k := (1 to: 200000) asArray collect: [:i | {i}]");
  run("System suspend: 0. (k perform: #asSet) size");
  takeError();
  const OopType process = error.context;
  OopType size = 0;
  {
    const Breaking breaking(zel->ZelSoftBreak);
    do {
      size = zel->ZelContinueWith(process, 1, 0, nullptr);
    } while (errorNumber() == 6003);
  }
  EXPECT_EQ("200000", shown(size));
}

TEST_F(Limits, DeepAndLongTextsEnd) {
  for (const char* open : {"(", "[", "{", "#(", "a := "}) {
    EXPECT_EQ(2501, errorOf(repeated(open, 100'000) + "1")) << open;
  }
  EXPECT_EQ(2501, errorOf("1" + repeated(" + 1", 100'000)));
  EXPECT_EQ("20001", show("1" + repeated(" + 1", 20'000)));
}

TEST_F(Limits, TextsThatAreCompiledAreWeighed) {
  session().memory.setLimit(8U << 20);
  const std::size_t before = (objects(), session().memory.statistics().bytes);
  for (const char* part : {"a. ", "[:a | a]. ", "#(a) "}) {
    const int number = errorOf((part[0] == '#' ? "#(" : "") + repeated(part, 60'000));
    EXPECT_TRUE(number == 2208 || number == 2501) << part << number;
  }
  EXPECT_EQ(2208, errorOf(repeated("a foo. ", 30'000)));
  EXPECT_LE((objects(), session().memory.statistics().bytes), before + (64U << 10));
}

TEST_F(Limits, MemoryIsBoundedAndComesBack) {
  session().memory.setLimit(16U << 20);
  EXPECT_EQ(2208, errorOf("k := OrderedCollection new. [k add: (Array new: 1000)] repeat"));
  EXPECT_EQ("7", show("k := nil. System collectGarbage. 3 + 4"));
  // Garbage alone never fills it.
  EXPECT_EQ("'done'", show("1 to: 100 do: [:i | Array new: 1000000]. 'done'"));
}

// However often programs fill the memory, small ones run, and what was given up comes back.
TEST_F(Limits, AFullMemoryCanBeEmptied) {
  session().memory.setLimit(16U << 20);
  const std::size_t before = (objects(), session().memory.statistics().bytes);
  run("h := OrderedCollection new");
  for (const char* filling : {"[h add: (String new: 10)] repeat", "[h add: 'x' copy] repeat",
                              "[h add: h size printString asSymbol] repeat", "[h add: 5] repeat",
                              "[[h add: {5}] repeat] on: Error do: [nil foo]",
                              "| s | s := ''. [h add: s. s := s , (String new: 1000)] repeat"}) {
    for (int i = 0; i < 20; ++i) EXPECT_NE(0, errorOf(filling)) << filling;
    EXPECT_EQ("7", show("3 + 4"));
    EXPECT_EQ("'7'", shown(zel->ZelPerform(31, "printString", nullptr, 0)));
  }
  const ZelSessionIdType first = zel->ZelGetSessionId();
  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  EXPECT_EQ("7", show("3 + 4"));
  zel->ZelLogout();
  zel->ZelSetSessionId(first);
  EXPECT_EQ("an OrderedCollection( )", show("h size: 0. h"));
  run("h := nil");
  for (int i = 0; i < 1100; ++i) {  // until h itself is no longer handed out
    zel->ZelSetSessionId(first);
    run("'x' copy");
  }
  EXPECT_LE((objects(), session().memory.statistics().bytes), before + (128U << 10));
}

TEST_F(Limits, AHandlerRunsOnceWhatFilledTheMemoryIsReleased) {
  session().memory.setLimit(8U << 20);
  for (const std::string first : {"", "e class. ", "e messageText. ", "System memoryBytes. "}) {
    EXPECT_EQ("3", show("| x | [[x := Array with: x with: (String new: 1000)] repeat. 4] on: Error "
                        "do: [:e | x := nil. " +
                        first + "e return: 3]"));
  }
}

TEST_F(Limits, FailedProgramsLeaveNothingBehind) {
  session().memory.setLimit(64U << 20);
  const std::size_t before = (objects(), session().memory.statistics().bytes);
  zel->ZelSetSessionId(zel->ZelGetSessionId());  // and never again
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(2010, errorOf("| a | a := (1 to: 50000) collect: [:k | k printString]. a foo: 1"));
  }
  // Only the program that failed last can be continued.
  const OopType process = error.context;
  ASSERT_EQ(2010, errorOf("nil foo"));
  EXPECT_EQ(2510, (zel->ZelContinueWith(process, 1, 0, nullptr), errorNumber()));
  for (int i = 0; i < 20'000; ++i) ASSERT_EQ(2010, errorOf("nil foo: 3"));
  EXPECT_LE((objects(), session().memory.statistics().bytes), before + (1U << 20));
}

#ifndef POVZEL_SANITIZE  // whose shadow needs more room
// What the process itself has no memory for, whatever the limit says.
TEST_F(Limits, SmallTextsRunInAProcessWithoutMemory) {
  // Allocates nothing itself.
  const auto numberAfter = [&](const char* source) {
    zel->ZelExecuteStr(source, NilOop);
    return errorNumber();
  };
  const auto fillAndEmpty = [&](const char* filling) {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t most = pages * 4096 + (48U << 20);
    const rlimit room{most, most};
    setrlimit(RLIMIT_AS, &room);
    numberAfter("h := OrderedCollection new");
    for (int i = 0; i < 3; ++i) {
      if (numberAfter(filling) != 2208) _exit(1);
      if (zel->ZelExecuteStr("3 + 4", NilOop) != zel::smallIntOop(7)) _exit(2);
      if (numberAfter("nil foo") != 2010) _exit(3);
      for (const char* small :
           {"'abc' , 'def'", "[nil foo] on: Error do: [:e | e messageText]",
            "#(3 1 2) asOrderedCollection sort: [:a :b | a <= b]", "'abcd' reversed asSymbol"}) {
        if (numberAfter(small) != 0) _exit(5);
      }
      numberAfter("h size: 0");
    }
    numberAfter("h := nil");
    _exit(numberAfter("(1 to: 1000) collect: [:i | Array new: 1000]") == 0 ? 0 : 4);
  };
  for (const char* filling :
       {"[h add: (Array new: 20)] repeat", "[h add: (String new: 300)] repeat",
        "[h add: 1 -> (Dictionary new at: 1 put: 2; yourself)] repeat"}) {
    EXPECT_EXIT(fillAndEmpty(filling), testing::ExitedWithCode(0), "") << filling;
  }
}

// The library as it is loaded: what the C++ runtime keeps for a thread is there before it throws.
TEST(LoadedLibrary, AThreadsFirstErrorNeedsNoMemory) {
  const auto failWithoutMemory = [] {
    const auto getTable = reinterpret_cast<const ZelRtlJumpSType* (*)()>(
        dlsym(dlopen(ZEL_LIBRARY, RTLD_NOW | RTLD_LOCAL), "ZelGetRtlTable"));
    const ZelRtlJumpSType* loaded = getTable();
    loaded->ZelInit();
    loaded->ZelLogin("SystemUser", "swordfish");
    std::thread([loaded] {
      const rlimit room{100U << 20, 100U << 20};
      setrlimit(RLIMIT_AS, &room);
      while (std::malloc(8) != nullptr) {
      }
      ZelErrSType error{};
      loaded->ZelExecuteStr("nil foo", NilOop);
      _exit(loaded->ZelErr(&error) != 0 && (error.number == 2010 || error.number == 2208) ? 0 : 1);
    }).join();
  };
  EXPECT_EXIT(failWithoutMemory(), testing::ExitedWithCode(0), "");
}
#endif

// Marking takes neither C++ stack nor memory, however deep a structure is.
TEST_F(Limits, DeepStructuresSurviveCollections) {
  run("list := nil. 1 to: 300000 do: [:i | list := {list. i}]");
  objects();
  EXPECT_EQ("300000", show("| n at | n := 0. at := list. [at isNil] whileFalse: [n := n + 1. "
                           "at := at at: 1]. n"));
}

// What takes long without a message counts steps, too, and is seen by breaks as often.
TEST_F(Limits, LongPrimitivesAndTextsCountSteps) {
  run("k := (1 to: 20000) collect: [:i | {i}]. m := k collect: [:each | each copy]");
  session().memory.meter.limit = 10'000;
  for (const std::string& source :
       {std::string("k asSet"), std::string("k = m"),
        std::string("(2 raisedTo: 65000) printString"), "#(" + repeated("a ", 20'000) + ")",
        repeated("3. ", 20'000), "#[" + repeated("1 ", 20'000) + "]",
        "'" + repeated("word", 500'000) + "'", repeated("word", 500'000), repeated("1234", 500'000),
        "#" + repeated("word", 500'000)}) {
    EXPECT_EQ(2522, errorOf(source)) << source.substr(0, 60);
  }
}

TEST_F(Limits, TakingOneByOneIsLinear) {
  session().memory.meter.limit = 3'000'000;
  EXPECT_EQ("0",
            show("s := Set withAll: (1 to: 20000). [s isEmpty] whileFalse: [s remove: s any]. "
                 "b := Bag withAll: (1 to: 20000). [b size = 0] whileFalse: [b remove: b any]. "
                 "t := (1 to: 3000) asOrderedCollection. t removeAll: t reversed. t size"));
}

// Primitives count steps by the bytes that they go through, so that a break that comes while they
// are repeated is seen soon.
TEST_F(Limits, RepeatedLongPrimitivesCountTheirBytes) {
  run("s := String new: 3000000. d := s asDoubleByteString. a := Array new: 750000. b := a copy. "
      "o := a asOrderedCollection. y := s asByteArray. k := Dictionary new. System commit");
  for (const std::string turn : {"s hash",
                                 "d hash",
                                 "y hash",
                                 "k at: s ifAbsent: [0]",
                                 "s asDoubleByteString",
                                 "d asString",
                                 "s indexOfString: 'x'",
                                 "d indexOfString: 'x'",
                                 "s includesSubstring: 'x'",
                                 "s copy",
                                 "a copy",
                                 "s copyFrom: 1 to: 3000000",
                                 "a copyFrom: 1 to: 750000",
                                 "s , 'x'",
                                 "'x' , d",
                                 "a , b",
                                 "a = b",
                                 "s = d",
                                 "o add: 1 beforeIndex: 2",
                                 "o removeAtIndex: 2",
                                 "a asArray",
                                 "y asString",
                                 "s asByteArray",
                                 "Array new: 750000",
                                 "s printString",
                                 "a printString",
                                 "s asLowercase",
                                 "s trimmed",
                                 "'x' subStrings: s",
                                 "s asSymbol",
                                 "s copyReplaceAll: 'x' with: 'y'",
                                 "[nil perform: s] on: Error do: [:e | 0]",
                                 "System collectGarbage",
                                 "s at: 1 put: $a. System commit"}) {
    session().memory.meter.limit = 20'000;
    EXPECT_EQ(2522, errorOf("n := 0. [" + turn + ". n := n + 1] repeat")) << turn;
    session().memory.meter.limit = 0;
    EXPECT_EQ("true", show("n between: 0 and: 30")) << turn << " " << show("n");
  }
}

// Two databases in one process know nothing of each other.
TEST(Databases, AreIndependent) {
  zel::BreakRequest breaks[2];
  zel::Database first(breaks[0]);
  zel::Database second(breaks[1]);
  for (zel::Database* database : {&first, &second}) {
    login(*database, "", "SystemUser", "swordfish");
    database->current->machine.execute("Object subclass: 'Only'. x := 3");
  }
  first.current->machine.execute("Only compile: 'answer ^42'. x := Only new answer");
  const auto shown = [](zel::Database& database, const char* source) {
    return zel::printString(database.current->memory, database.current->machine.execute(source));
  };
  EXPECT_EQ("42 3", shown(first, "x") + " " + shown(second, "x"));
  EXPECT_THROW(second.current->machine.execute("Only new answer"), zel::Failure);
}

TEST(Environment, SetsLimits) {
  const ZelRtlJumpSType* table = ZelGetRtlTable();
  const auto loginWith = [&](const char* name, const char* value) {
    table->ZelShutdown();
    setenv(name, value, 1);
    table->ZelInit();
    unsetenv(name);
    table->ZelLogin("SystemUser", "swordfish");
    ZelErrSType error{};
    table->ZelErr(&error);
    return std::string(error.message);
  };
  const auto limits = [] {
    const zel::Memory& memory = zel::library().database->current->memory;
    return std::pair(memory.limit(), memory.meter.limit);
  };
  EXPECT_EQ("", loginWith("POVZEL_MEMORY", "16M"));
  EXPECT_EQ(std::pair(std::size_t{16} << 20, std::uint64_t{0}), limits());
  EXPECT_EQ("", loginWith("POVZEL_STEPS", "1000"));
  EXPECT_EQ(std::pair(std::size_t{256} << 20, std::uint64_t{1000}), limits());
  for (const std::string name : {"POVZEL_MEMORY", "POVZEL_STEPS"}) {
    for (const char* value : {"x", "-1", "12Q", "1 M", "99999999999999999999", "5MM"}) {
      EXPECT_THAT(loginWith(name.c_str(), value), testing::StartsWith("login denied: " + name));
    }
  }
  table->ZelShutdown();
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
  const std::size_t entries = session().memory.statistics().tableSize;
  for (int i = 0; i < 20; ++i) run("1 to: 1000 do: [:i | 'garbage' copy]. System collectGarbage");
  EXPECT_EQ(entries, session().memory.statistics().tableSize);
}

}  // namespace
