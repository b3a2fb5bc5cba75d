// Random transactions over a vector V, a dictionary D and a set S of the database's globals.
#pragma once

#include <map>
#include <random>
#include <string>

#include "session_fixture.h"

struct Step {
  std::string text;
  std::string answer;
};

constexpr const char* makeGlobals =
    "Globals at: #V put: (Array new: 8); at: #D put: Dictionary new; at: #S put: Set new. 1 to: 8 "
    "do: "
    "[:i | V at: i put: (OrderedCollection with: 0)]";
constexpr const char* allOfGlobals =
    "{V. D keys asSortedCollection asArray. S asSortedCollection asArray}";

inline std::string randomStep(std::mt19937& random) {
  const auto number = [&] { return std::to_string(1 + random() % 8); };
  switch (random() % 9) {
    case 0:
      return "(V at: " + number() + ") first";
    case 1:
      return "(V at: " + number() + ") at: 1 put: (V at: " + number() + ") first + 1";
    case 2:
      return "D at: " + number() + " ifAbsent: [0]";
    case 3:
      return "D at: " + number() + " put: (V at: " + number() + ") first";
    case 4:
      return "D removeKey: " + number() + " ifAbsent: [0]";
    case 5:
      return "S includes: " + number();
    case 6:
      return "{S add: " + number() + ". S includes: " + number() + "}";
    case 7:
      return "S remove: " + number() + " ifAbsent: [0]";
    default:
      return "{D size. S size. (V inject: 0 into: [:a :b | a + b first])}";
  }
}

// A test of sessions in databases with names. SystemUser has the password of those.
class Histories : public ZelSession {
 protected:
  void SetUp() override {}

  void open(const std::string& name, const char* password = "geheim") {
    ASSERT_NE(0, zel->ZelInit());
    zel->ZelSetNet(name.c_str(), nullptr, nullptr, nullptr);
    ASSERT_NE(0, zel->ZelLogin("SystemUser", password)) << takeError();
  }

  // Runs random transactions in several processes at once, then what they have committed, in the
  // order of the versions, in the database in memory: the answers are the same.
  void expectSerialOrder(const std::string& name, unsigned processes, int count) {
    const ScratchDirectory folder;
    std::vector<pid_t> children;
    std::vector<std::string> logs;
    for (unsigned i = 0; i < processes; ++i) {
      logs.push_back(folder.write("log" + std::to_string(i), ""));
      children.push_back(fork());
      if (children.back() != 0) continue;
      std::FILE* log = std::fopen(logs.back().c_str(), "w");
      runTransactions(name, i, count, fileno(log));
      _exit(HasFailure() ? 1 : 0);
    }
    for (const pid_t child : children) {
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_EQ(0, status);
    }
    std::map<long, std::vector<Step>> committed;
    for (const std::string& log : logs) addLog(readFile(log), committed);
    EXPECT_GT(committed.size(), 100U);
    open(name);
    const std::string end = show(allOfGlobals);
    zel->ZelShutdown();
    open("", "swordfish");
    show(makeGlobals);
    for (const auto& [version, steps] : committed) {
      for (const Step& step : steps)
        EXPECT_EQ(step.answer, show(step.text)) << version << step.text;
    }
    EXPECT_EQ(end, show(allOfGlobals));
  }

 private:
  // Writes those that changed something, each with its version.
  void runTransactions(const std::string& name, unsigned seed, int count, int log) {
    std::mt19937 random(seed);
    open(name);
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

  static void addLog(const std::string& log, std::map<long, std::vector<Step>>& committed) {
    std::istringstream lines(log);
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
};
