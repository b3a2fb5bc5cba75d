// One file, several processes: histories that have a serial order, writers that are killed, and
// databases larger than the memory.
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>

#include "histories.h"
#include "process.h"
#include "session_fixture.h"

namespace {

class Shared : public ZelSession {
 protected:
  void SetUp() override {}

  const ScratchDirectory folder;
  const std::string file = folder / "shared.povzel";

  // Logs in to a database: the file, or the one in memory.
  void open(const std::string& name, const char* password) {
    ASSERT_NE(0, zel->ZelInit());
    zel->ZelSetNet(name.c_str(), nullptr, nullptr, nullptr);
    ASSERT_NE(0, zel->ZelLogin("SystemUser", password)) << takeError();
  }
  void openFile() { open(file, "geheim"); }
  void create(const std::string& text) {
    open(file + "?create=true", "geheim");
    ASSERT_EQ("true", show(text + ". System commit"));
    zel->ZelShutdown();
  }

  // Runs random transactions and writes those that changed something, each with its version.
  void runTransactions(unsigned seed, int count, int log) {
    std::mt19937 random(seed);
    openFile();
    for (int n = 0; n < count; ++n) {
      std::string record;
      for (unsigned steps = 1 + random() % 3; steps > 0; --steps) {
        const std::string text = randomStep(random);
        record += text + "\t" + show(text) + "\n";
      }
      const bool changes = show("System needsCommit") == "true";
      const std::string answer = show("System commit");
      if (answer != "true") {
        EXPECT_EQ("error 2513", answer.substr(0, 10)) << answer;
        show("System abort");
      } else if (changes) {
        record = std::to_string(session().workspace->lastCommit()) + "\n" + record + "\n";
        ASSERT_EQ(static_cast<ssize_t>(record.size()), write(log, record.data(), record.size()));
      }
    }
    zel->ZelShutdown();
  }
};

TEST_F(Shared, HistoriesHaveASerialOrder) {
  create(makeGlobals);
  std::vector<pid_t> children;
  std::vector<std::string> logs;
  for (unsigned i = 0; i < 4; ++i) {
    logs.push_back(folder.write("log" + std::to_string(i), ""));
    children.push_back(fork());
    if (children.back() != 0) continue;
    std::FILE* log = std::fopen(logs.back().c_str(), "w");
    runTransactions(i, 500, fileno(log));
    _exit(HasFailure() ? 1 : 0);
  }
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
  }
  std::map<long, std::vector<Step>> committed;
  for (const std::string& log : logs) {
    std::istringstream lines(readFile(log));
    std::vector<Step>* steps = nullptr;
    for (std::string line; std::getline(lines, line);) {
      const std::size_t tab = line.find('\t');
      if (line.empty()) {
        steps = nullptr;
      } else if (steps == nullptr) {
        steps = &committed[std::stol(line)];
        EXPECT_TRUE(steps->empty()) << "two commits with one version";
      } else {
        steps->push_back({line.substr(0, tab), line.substr(tab + 1)});
      }
    }
  }
  EXPECT_GT(committed.size(), 100U);
  openFile();
  const std::string end = show(allOfGlobals);
  zel->ZelShutdown();
  open("", "swordfish");
  show(makeGlobals);
  for (const auto& [version, steps] : committed) {
    for (const Step& step : steps) EXPECT_EQ(step.answer, show(step.text)) << version << step.text;
  }
  EXPECT_EQ(end, show(allOfGlobals));
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
