// One file, several processes: histories that have a serial order, writers that are killed, and
// databases larger than the memory.
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <random>

#include "histories.h"

namespace {

class Shared : public Histories {
 protected:
  const ScratchDirectory folder;
  const std::string file = folder / "shared.povzel";

  void openFile() { open(file); }
  void create(const std::string& text) {
    open(file + "?create=true");
    ASSERT_EQ("true", show(text + ". System commit"));
    zel->ZelShutdown();
  }
};

TEST_F(Shared, HistoriesHaveASerialOrder) {
  create(makeGlobals);
  expectSerialOrder(file, 4, 500);
}

// What lies beside a file is found by its name: one with two of them is refused, at a commit as
// well.
TEST_F(Shared, AFileHasOneName) {
  create("Globals at: #X put: 1");
  const std::string other = folder / "other.povzel";
  openFile();
  EXPECT_EQ("1", show("X"));
  ASSERT_EQ(0, link(file.c_str(), other.c_str()));
  EXPECT_EQ("error 2521", show("Globals at: #X put: 2. System commit").substr(0, 10));
  zel->ZelShutdown();
  for (const std::string& name : {file, other}) {
    ASSERT_NE(0, zel->ZelInit());
    zel->ZelSetNet(name.c_str(), nullptr, nullptr, nullptr);
    EXPECT_EQ(0, zel->ZelLogin("SystemUser", "geheim"));
    EXPECT_EQ(2521, errorNumber()) << name;
    zel->ZelShutdown();
  }
  ASSERT_EQ(0, unlink(other.c_str()));
  openFile();
  EXPECT_EQ("1", show("X"));
  zel->ZelShutdown();
}

// Who logs in gets the file that has the name now, or an error, and never one that had it.
TEST_F(Shared, AReplacedFileIsOpenedAnew) {
  const std::string second = folder / "second.povzel";
  create("Globals at: #X put: 2");
  fs::rename(file, second);
  create("Globals at: #X put: 1");
  openFile();
  const ZelSessionIdType first = zel->ZelGetSessionId();
  EXPECT_EQ("1", show("X"));
  fs::rename(file, folder / "first.povzel");
  fs::rename(second, file);
  EXPECT_EQ(0, zel->ZelLogin("SystemUser", "geheim"));
  EXPECT_THAT(takeError(), HasSubstr("error 2523: "));
  zel->ZelSetSessionId(first);
  EXPECT_EQ("error 2515", show("Globals at: #X put: X + 2. System commit").substr(0, 10));
  for (const char* end : {"-wal", "-shm"}) fs::remove(file + end);
  openFile();
  EXPECT_EQ("true", show("X = 2 and: [Globals at: #X put: 4. System commit]"));
  const ZelSessionIdType other = zel->ZelGetSessionId();
  zel->ZelSetSessionId(first);
  zel->ZelLogout();
  zel->ZelSetSessionId(other);
  EXPECT_EQ("true", show("System abort. X = 4 and: [Globals at: #X put: 5. System commit]"));
  zel->ZelShutdown();
}

// Names are as they are written, and in UTF-8 where a JVM writes halves of characters.
TEST_F(Shared, NamesMayHaveAnyCharacters) {
  const std::string halves = "\xED\xA0\xBD\xED\xB8\x80";
  const auto in = [&](const std::string& name, const std::string& user, const char* text) {
    EXPECT_NE(0, zel->ZelInit());
    zel->ZelSetNet((folder / name).c_str(), nullptr, nullptr, nullptr);
    zel->ZelLogin(user.c_str(), "geheim😀");
    const std::string failure = takeError();
    const std::string answer = failure.empty() ? show(text) : failure;
    zel->ZelShutdown();
    return answer;
  };
  const std::string add =
      "System addUser: '" + halves + "' password: 'geheim" + halves + "'. System commit";
  EXPECT_EQ("true", in("a?" + halves + ".povzel?create=true", "SystemUser", add.c_str()));
  EXPECT_EQ("'😀'", in("a?😀.povzel", halves, "System userName"));
  ASSERT_EQ(0, symlink("nowhere", (folder / "link").c_str()));
  fs::create_directory(folder / "b");
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"b.povzel?odd=1", "", "error 4051: ~not ?odd=1"},
      {"a?x=/none", "", "error 4051: ~/a?x=/none cannot be opened~"},
      {"link?create=true", "", "error 4051: ~a link that leads nowhere"},
      {"b?create=true", "", "error 4051: ~it is a folder"},
      {"../../../../../proc/b?create=true", "System commit", "error 4051: ~ failed: No such file~"},
      {"a?😀.povzel", "System backupTo: ''", "error 2094: the name of a file ~"},
  };
  for (const auto& [name, text, expected] : cases)
    EXPECT_THAT(in(name, "SystemUser", text), Reads(expected));
}

// A child process has no part in a file that its parent has open, which is none the worse for it.
TEST_F(Shared, AForkedProcessLeavesTheFileAlone) {
  create("Globals at: #X put: 1");
  openFile();
  const ZelSessionIdType inFile = zel->ZelGetSessionId();
  open("", "swordfish");
  const ZelSessionIdType inMemory = zel->ZelGetSessionId();
  const auto next = [&](ZelSessionIdType id) {
    zel->ZelSetSessionId(id);
    return show("Globals at: #X put: (Globals at: #X ifAbsent: [1]) + 1. System commit. X");
  };
  ASSERT_EQ("2", next(inFile));
  const pid_t child = fork();
  if (child == 0) {
    const bool refused = next(inFile).starts_with("error 2523") && next(inMemory) == "2";
    zel->ZelShutdown();
    _exit(refused ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ("3", next(inFile));
  EXPECT_EQ("2", next(inMemory));
  zel->ZelShutdown();
}

// What was acknowledged is there, and nothing by half. POVZEL_ROUNDS sets how often it is tried.
TEST_F(Shared, KilledWritersLoseNothing) {
  create(
      "Globals at: #A put: Dictionary new; at: #B put: Dictionary new; at: #L put: "
      "OrderedCollection new");
  constexpr int writers = 3;
  long acknowledged[writers] = {};
  std::mt19937 random(3);
  const char* rounds = std::getenv("POVZEL_ROUNDS");
  for (int round = rounds != nullptr ? std::atoi(rounds) : 12; round > 0; --round) {
    int pipes[writers][2];
    pid_t children[writers];
    for (int i = 0; i < writers; ++i) {
      ASSERT_EQ(0, pipe(pipes[i]));
      children[i] = fork();
      if (children[i] == 0) {
        openFile();
        for (long n = acknowledged[i] + 1;; ++n) {
          const std::string key = std::to_string(i) + " put: " + std::to_string(n);
          show("System abort. A at: " + key + ". B at: " + key + ". A at: 'x' , " +
               std::to_string(n % 7) + " printString put: (Array new: 50)");
          if (n % 5 == 0) show("L add: 1");
          if (show("System commit") == "true" && write(pipes[i][1], &n, sizeof n) < 0) _exit(1);
        }
      }
      close(pipes[i][1]);
    }
    const unsigned first = random() % writers;  // whose commit is waited for
    ASSERT_EQ(ssize_t{sizeof(long)}, read(pipes[first][0], &acknowledged[first], sizeof(long)));
    usleep(random() % 60'000);
    for (const pid_t child : children) kill(child, SIGKILL);
    for (int i = 0; i < writers; ++i) {
      waitpid(children[i], nullptr, 0);
      for (long n = 0; read(pipes[i][0], &n, sizeof n) == sizeof n;) acknowledged[i] = n;
      close(pipes[i][0]);
    }
    openFile();
    for (int i = 0; i < writers; ++i) {
      const std::string at = " at: " + std::to_string(i) + " ifAbsent: [0]";
      const long stored = std::stol(show("A" + at));
      EXPECT_LE(acknowledged[i], stored);
      EXPECT_EQ(std::to_string(stored), show("B" + at));
      acknowledged[i] = stored;
    }
    EXPECT_EQ("true", show("System commit"));
    zel->ZelShutdown();
  }
}

// Objects leave a small memory and come back, with what was changed of them and without.
TEST_F(Shared, DatabasesMayBeLargerThanTheMemory) {
  create("Globals at: #R put: OrderedCollection new; at: #D put: Dictionary new");
  setenv("POVZEL_MEMORY", "8M", 1);
  openFile();
  unsetenv("POVZEL_MEMORY");
  for (int part = 0; part < 16; ++part) {
    ASSERT_EQ("true", show("a := Array new: 2000. 1 to: 2000 do: [:i | a at: i put: (Array with: i "
                           "with: (String new: 500))]. R add: a. D at: R size put: a. a := nil. "
                           "System commit"));
  }
  EXPECT_EQ("32016000",
            show("R inject: 0 into: [:s :a | a inject: s into: [:t :e | t + (e at: 1)]]"));
  EXPECT_EQ("true", show("(D at: 7) == (R at: 7)"));
  EXPECT_EQ("true",
            show("1 to: 16 do: [:k | (D at: k) do: [:e | (e at: 1) = 9 ifTrue: [e at: 1 put: "
                 "-9]]]. System commit"));
  EXPECT_EQ("32015712",
            show("R inject: 0 into: [:s :a | a inject: s into: [:t :e | t + (e at: 1)]]"));
  zel->ZelShutdown();
}

}  // namespace
