// Programs that are broken, continued and given up: what they owe runs, once.
#include <chrono>

#include "lang/compiler.h"
#include "session_fixture.h"

namespace {

// A message that makes a break, which the next one sees.
template <void (*make)()>
OopType breaking(zel::Memory& memory, OopType receiver, const OopType*) {
  make();
  memory.meter.hurry();
  return receiver;
}
OopType quiet(zel::Memory&, OopType receiver, const OopType*) {
  return receiver;
}
void soft() {
  ZelGetRtlTable()->ZelSoftBreak();
}
void hard() {
  ZelGetRtlTable()->ZelHardBreak();
}

class Unwinding : public ZelSession {
 protected:
  void SetUp() override {
    ZelSession::SetUp();
    install("interrupt", breaking<soft>);
    install("stop", breaking<hard>);
    log = run("Globals at: #L put: OrderedCollection new. System commit. L");
  }
  void install(const char* selector, zel::PrimitiveFType primitive) {
    zel::installRoutine(session().memory, zel::ObjectClass, selector, false,
                        {zel::Routine::Kind::primitive, nullptr, primitive});
  }
  // What the log has, after a message that is no text.
  std::string logged() {
    zel->ZelPerform(log, "printString", nullptr, 0);
    return shown(log);
  }
  int errorOf(const std::string& source) { return run(source), errorNumber(); }

  OopType log = NilOop;
};

const std::string owing =
    "L size: 0. [[L add: 0. nil foo. L add: 1] ensure: [L add: 2. nil bar]] ifCurtailed: [L add: "
    "3]";

TEST_F(Unwinding, AFailedProgramOwesItsBlocksUntilItIsGivenUp) {
  ASSERT_EQ(2010, errorOf(owing));
  OopType process = error.context;
  EXPECT_EQ("an OrderedCollection( 0 )", logged());
  // It goes on where it was, and fails in what it does then.
  EXPECT_EQ("error 2010: nil does not understand #bar",
            shown(zel->ZelContinueWith(process, 1, 0, nullptr)));
  EXPECT_EQ("an OrderedCollection( 0 1 2 )", logged());
  EXPECT_EQ("an OrderedCollection( 0 1 2 3 )", show("L copy"));

  ASSERT_EQ(2010, errorOf(owing));
  session().memory.collect(true);
  EXPECT_EQ("7", show("3 + 4"));
  EXPECT_EQ("an OrderedCollection( 0 2 3 )", logged());
  EXPECT_EQ(2510, (zel->ZelContinueWith(error.context, 1, 0, nullptr), errorNumber()));

  for (const bool all : {false, true}) {
    ASSERT_EQ(2010, errorOf(owing));
    all ? zel->ZelReleaseAllOops() : zel->ZelReleaseOops(&error.context, 1);
    EXPECT_EQ("an OrderedCollection( 0 2 3 )", logged());
  }

  ASSERT_EQ(2502, errorOf("L size: 0. [System suspend: 1] ensure: [L add: 1. System commit]"));
  const ZelSessionIdType first = zel->ZelGetSessionId();
  zel->ZelLogin("DataCurator", "swordfish");
  EXPECT_EQ("an OrderedCollection( )", show("L copy"));
  const ZelSessionIdType second = zel->ZelGetSessionId();
  zel->ZelSetSessionId(first);
  zel->ZelLogout();
  zel->ZelSetSessionId(second);
  EXPECT_EQ("an OrderedCollection( 1 )", show("System abort. L copy"));
}

TEST_F(Unwinding, WhatCannotGoOnRunsItsBlocksAtOnce) {
  session().memory.setLimit(16U << 20);
  const std::string ensured = "] ensure: [L add: ({1} collect: [:x | x printString])]";
  const auto logOf = [&](int number, const std::string& protectedText, const std::string& more) {
    run("L size: 0. System commit");
    EXPECT_EQ(number, errorOf("[[" + protectedText + ensured + more));
    return logged();
  };
  const std::string further = "] ensure: [L add: 2]";
  const std::string both = "an OrderedCollection( an Array( '1' ) 2 )";
  EXPECT_EQ(both, logOf(6004, "nil stop. [true] whileTrue", further));
  EXPECT_EQ(both, logOf(2208, "| c | c := {}. [c := {c. c copy}] repeat", further));
  EXPECT_EQ(both, logOf(2138, "f := nil. f := [f value]. f value", further));
  EXPECT_EQ("an OrderedCollection( an Array( '1' ) 3 )",
            logOf(6004, "nil stop. nil foo", "] ensure: [L add: 3. nil stop. L add: 4. nil foo]"));
  session().memory.meter.limit = 20'000;
  EXPECT_EQ(both, logOf(2522, "[true] whileTrue", further));
  // A block that never ends meets the limit again, and those further out still run.
  EXPECT_EQ("an OrderedCollection( an Array( '1' ) 4 )",
            logOf(2522, "[[true] whileTrue", "] ensure: [[true] whileTrue]] ensure: [L add: 4]"));
}

TEST_F(Unwinding, WhatIsOwedHasASecond) {
  ASSERT_EQ(2010, errorOf("[[nil foo] ensure: [L add: 1. [true] whileTrue]] ensure: [L add: 2]"));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ("an OrderedCollection( 1 )", show("L copy"));
  EXPECT_GT(std::chrono::seconds(10), std::chrono::steady_clock::now() - begin);
}

// A text is not kept waiting for ever, whatever breaks come.
TEST_F(Unwinding, WhatIsOwedHasItsSecondOnce) {
  ASSERT_EQ(2010, errorOf("[nil foo] ensure: [[1 to: 100000 do: [:i | i]. nil interrupt] repeat]"));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  int number = 6003;
  while (number == 6003 && std::chrono::steady_clock::now() < end) number = errorOf("L add: 9");
  EXPECT_EQ(0, number);
}

// A break while what is owed runs before a text is the text's: a hard one ends what is owed, a soft
// one leaves it for the next time.
TEST_F(Unwinding, ABreakInWhatIsOwedReachesTheTextThatWaits) {
  const auto owe = [&](const std::string& broken) {
    ASSERT_EQ(2010, errorOf("L size: 0. [[nil foo] ensure: [L add: 1. nil " + broken +
                            ". L add: 2]] ensure: [L add: 3]"));
  };
  owe("stop");
  EXPECT_EQ(6004, errorOf("L add: 9"));
  EXPECT_EQ("an OrderedCollection( 1 )", show("L copy"));
  owe("interrupt");
  EXPECT_EQ(6003, errorOf("L add: 9. L copy"));
  session().memory.collect(true);
  EXPECT_EQ("an OrderedCollection( 1 )", logged());
  EXPECT_EQ("an OrderedCollection( 1 2 3 9 )",
            shown(zel->ZelContinueWith(error.context, 1, 0, nullptr)));
  owe("interrupt");
  EXPECT_EQ(6003, errorOf("L add: 9"));
  EXPECT_EQ("an OrderedCollection( 1 2 3 )", show("L copy"));
  run("Object compile: 'own ^L copy'");
  owe("interrupt");
  EXPECT_EQ(6003, (zel->ZelPerform(31, "own", nullptr, 0), errorNumber()));
  EXPECT_EQ("an OrderedCollection( 1 2 3 )",
            shown(zel->ZelContinueWith(error.context, 1, 0, nullptr)));
}

TEST(BreakRequests, KeepTheHarderUntilTheyAreTaken) {
  zel::BreakRequest request;
  request.beginRun();
  request.make(zel::BreakRequest::hard);
  request.make(zel::BreakRequest::soft);
  EXPECT_EQ(zel::BreakRequest::hard, request.take(zel::BreakRequest::hard));
  EXPECT_EQ(zel::BreakRequest::none, request.take(zel::BreakRequest::soft));
}

// A soft break anywhere changes nothing in what a program does.
TEST_F(Unwinding, InterruptedProgramsGoOn) {
  run("Object compile: 'leave: l [[nil interrupt. ^l] ensure: [nil interrupt. l add: 1]] "
      "ensure: [l add: 2. nil interrupt. 3 yourself]'. Error subclass: 'Asked'. "
      "Asked compile: 'defaultAction nil interrupt. ^self messageText size'");
  for (const std::string text :
       {"[[nil interrupt. l add: 1. (1 / 0) + 1] ensure: [nil interrupt. l add: 2]] on: Error do: "
        "[:e | nil interrupt. l add: 3. nil interrupt. e return: 4]",
        "[[(1 / 0) + 1] ifCurtailed: [l add: 1]] on: Error do: [:e | [nil interrupt. e resume: 4] "
        "ensure: [l add: 2. nil interrupt. l add: 3]]",
        "[l add: l size. l size < 5 ifTrue: [1 / 0]. l size] on: Error do: [:e | nil interrupt. "
        "e perform: #retry]",
        "nil leave: l", "(Asked perform: #signal: with: 'asked') + (nil interrupt; yourself) hash",
        "[[nil perform: #interrupt. nil foo] on: Error do: [:e | nil interrupt. e pass]] on: Error "
        "do: [:e | nil interrupt. e retryUsing: [nil interrupt. l add: 7]]"}) {
    const std::string program = "l := OrderedCollection new. x := [" + text + "] value. {x. l}";
    install("interrupt", quiet);
    const std::string undisturbed = show(program);
    install("interrupt", breaking<soft>);
    int breaks = 0;
    OopType result = run(program);
    for (; errorNumber() == 6003; ++breaks) {
      result = zel->ZelContinueWith(error.context, 1, 0, nullptr);
    }
    const std::string shownResult = error.number == 6003 ? shown(result) : "";
    EXPECT_LT(0, breaks) << text;
    EXPECT_EQ(undisturbed, shownResult) << text;
  }
}

TEST_F(Unwinding, ManyExceptionsLeaveNothing) {
  const std::string handled =
      "1 to: 100000 do: [:i | [[1 / 0] ensure: [3]] on: Error do: [:e | e retryUsing: [4]]]";
  const auto bytes = [&] {
    session().memory.collect(true);
    return session().memory.statistics().bytes;
  };
  run(handled);
  const std::size_t before = bytes();
  run(handled);
  for (int i = 0; i < 5'000; ++i) ASSERT_EQ(2010, errorOf("[nil foo: 3] ensure: [nil bar]"));
  EXPECT_LE(bytes(), before + (64U << 10));
  EXPECT_EQ(2138, errorOf("f := nil. f := [[1 / 0] on: Error do: [:e | f value]]. f value"));
  EXPECT_EQ("1", show("f := nil. n := 0. f := [[f value] ensure: [n := n + 1]]. "
                      "[f value] on: Error do: [:e | n > 1000 ifTrue: [1]]"));
  session().memory.meter.limit = 100'000;
  EXPECT_EQ(2522, errorOf("[1 / 0] on: Error do: [:e | e retry]"));
}

}  // namespace
