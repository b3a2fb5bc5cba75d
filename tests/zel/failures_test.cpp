// Sessions whose allocations fail, one of them or all from one on: what was begun is done as a
// whole or not at all, and can be done again.
#include <cstdlib>

#include "process.h"
#include "session_fixture.h"

namespace {

int allocationsLeft = -1;  // until one fails; below 0 none does
bool allFail = false;      // from then on

}  // namespace

void* operator new(std::size_t size) {
  if (allocationsLeft == 0 || (allocationsLeft > 0 && --allocationsLeft == 0)) {
    if (!allFail) allocationsLeft = -1;
    throw std::bad_alloc();
  }
  if (void* room = std::malloc(size)) return room;
  throw std::bad_alloc();
}
void operator delete(void* room) noexcept {
  std::free(room);
}
void operator delete(void* room, std::size_t) noexcept {
  std::free(room);
}

namespace {

class Failures : public ZelSession {
 protected:
  // Carries it out with that failure. Answers whether it came to it.
  template <typename Step>
  static bool failing(int allocation, bool all, Step step) {
    allocationsLeft = allocation;
    allFail = all;
    step();
    return std::exchange(allocationsLeft, -1) <= 0;
  }
};

// The first allocations of a login, some of the many that compile the kernel, and its last.
TEST_F(Failures, LoginsLeaveNothing) {
  constexpr int most = 1 << 24;
  const ScratchDirectory folder;
  ::zel::Database& database = session().database;
  const ZelSessionIdType first = zel->ZelGetSessionId();
  for (const std::string& server : {std::string(), folder / "new.povzel?create=true"}) {
    const auto login = [&] {
      zel->ZelSetNet(server.c_str(), nullptr, nullptr, nullptr);
      return zel->ZelLogin("SystemUser", server.empty() ? "swordfish" : "geheim") != 0;
    };
    allocationsLeft = most;
    ASSERT_TRUE(login());
    const int count = most - std::exchange(allocationsLeft, -1);
    zel->ZelLogout();
    const std::size_t bytes = database.inMemory->bytes();
    for (int n = 1; n <= count; n += n < 40 || n > count - 100 ? 1 : 1 + count / 40) {
      for (const bool all : {false, true}) {
        zel->ZelSetSessionId(first);
        bool done = false;
        failing(n, all, [&] { done = login(); });
        EXPECT_EQ(done ? 0 : 2208, errorNumber()) << server << n;
        EXPECT_EQ(done ? 2U : 1U, database.sessions.size()) << n;
        EXPECT_EQ(done, first != zel->ZelGetSessionId()) << n;
        if (done) zel->ZelLogout();
        EXPECT_EQ(bytes, database.inMemory->bytes()) << n;
        for (const auto& [path, file] : database.opened) EXPECT_TRUE(file.expired()) << n;
      }
    }
    zel->ZelSetSessionId(first);
  }
}

// Two objects that are changed together, and a third that is new each time.
TEST_F(Failures, TransactionsAreWholeOrDoneAgain) {
  const std::string all = "{X at: 1. Y at: 1. (D at: 1) first. Object new later}";
  run("Object compile: 'later ^0'. Globals at: #X put: (Array with: 0); at: #Y put: (Array with: "
      "0); "
      "at: #D put: Dictionary new. D at: 1 put: (Array with: 0). System commit");
  const ZelSessionIdType writer = zel->ZelGetSessionId();
  ASSERT_NE(0, zel->ZelLogin("DataCurator", "swordfish"));
  const ZelSessionIdType reader = zel->ZelGetSessionId();
  const auto showIn = [&](ZelSessionIdType id, const std::string& text) {
    zel->ZelSetSessionId(id);
    return show(text);
  };
  const auto stateOf = [](int value) {
    const std::string text = std::to_string(value);
    return "an Array( " + text + ' ' + text + ' ' + text + ' ' + text + " )";
  };
  int value = 0;
  for (int round = 0; round < 8; ++round) {
    const int step = round % 4;
    for (int n = 1, quiet = 0; quiet < 3; n += 1 + n / 24) {
      const std::string next = std::to_string(value + 1);
      const std::string change = "X at: 1 put: " + next + ". Y at: 1 put: " + next +
                                 ". D at: 1 put: (Array with: " + next +
                                 "). Object compile: 'later ^" + next + "'";
      zel->ZelSetSessionId(writer);
      if (step != 0) run(change);
      const bool failed = failing(n, round >= 4, [&] {
        if (step == 0) run(change);
        if (step == 1) zel->ZelCommit();
        if (step == 2) zel->ZelAbort();
        if (step == 3) run("System commit");
      });
      quiet += failed ? 0 : 1;
      const int number = errorNumber();
      EXPECT_TRUE(number == 0 || number == 2208) << number << error.message;
      if (step == 0 && number == 0) {
        EXPECT_EQ(stateOf(value + 1), showIn(writer, all)) << n;
      }
      // What was said to be committed is, and nothing else.
      if (step % 2 == 1 && number == 0) ++value;
      EXPECT_EQ(stateOf(value), showIn(reader, "System abort. " + all)) << step << ' ' << n;
      EXPECT_EQ(stateOf(value), showIn(writer, "System abort. " + all)) << step << ' ' << n;
    }
  }
}

}  // namespace
