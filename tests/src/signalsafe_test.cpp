// What a header marks as "Signal-safe" must reach nothing else of the C library than functions that
// are safe in a signal handler. The library's own code is read as the compiler left it.
//
// The mark in a declaration's comment goes for the declarations below it; "Signal-safe:" in the
// comment that opens a header goes for all of that header.

#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace {

// Of the functions that POSIX lists as safe, and the string functions, those that are in use; and
// mprotect, which is a bare system call here.
const std::set<std::string> safe = {"__errno_location",
                                    "_exit",
                                    "abort",
                                    "clock_gettime",
                                    "execv",
                                    "execve",
                                    "getpid",
                                    "kill",
                                    "memcpy",
                                    "memset",
                                    "pthread_sigmask",
                                    "raise",
                                    "sigaction",
                                    "sigaddset",
                                    "sigdelset",
                                    "sigemptyset",
                                    "sigfillset",
                                    "strlen",
                                    "time",
                                    "waitpid",
                                    "write",
                                    "mprotect"};

// The functions marked in the header `name`.
std::set<std::string> markedIn(const std::filesystem::path& name) {
  static const std::regex declaration("([A-Za-z_][A-Za-z_0-9]*)\\(");
  std::set<std::string> marked;
  std::ifstream header(name);
  bool opening = true;
  bool everything = false;
  bool here = false;
  for (std::string line; std::getline(header, line);) {
    if (line.rfind("//", 0) == 0) {
      if (opening && line.find("Signal-safe:") != std::string::npos) everything = true;
      if (line.find("Signal-safe.") != std::string::npos) here = true;
      continue;
    }
    opening = false;
    if (line.empty()) here = false;
    std::smatch match;
    if ((here || everything) && line[0] != ' ' && std::regex_search(line, match, declaration)) {
      marked.insert(match[1]);
    }
  }
  return marked;
}

// Whom each function of the library calls or jumps to, by their plain names.
class CallGraph {
 public:
  CallGraph() {
    static const std::regex label("^[0-9a-f]+ <(.+)>:\n$");
    static const std::regex jump("\\b(call|j[a-z]+)\\s+[0-9a-f]+ <(.+)>\n$");
    static const std::regex indirect("\\b(call|jmp)\\s+\\*");
    std::FILE* listing =
        popen("objdump -d -C --no-show-raw-insn -M att " POVZEL_LIBRARY " 2>&1", "r");
    std::string function;
    char line[1024];
    while (std::fgets(line, sizeof line, listing) != nullptr) {
      std::cmatch match;
      if (std::regex_search(line, match, label)) {
        const std::string name = match[1];
        const bool stub = name.ends_with("@plt");  // of a function outside
        function = stub ? "" : plain(name);
        if (!stub) calls_[function];
      } else if (function.empty()) {
        continue;
      } else if (std::regex_search(line, match, jump)) {
        const std::string target = plain(match[2]);
        if (target != function) calls_[function].insert(target);
      } else if (std::regex_search(line, indirect)) {
        calls_[function].insert("(a pointer)");
      }
    }
    EXPECT_EQ(pclose(listing), 0);
  }

  bool has(const std::string& function) const { return calls_.contains(function); }

  // Everything that is reached from `function` and is not the library's own, with the way there.
  std::map<std::string, std::string> reachedFrom(const std::string& function) const {
    std::map<std::string, std::string> outside;
    std::map<std::string, std::string> ways = {{function, function}};
    std::deque<std::string> waiting = {function};
    while (!waiting.empty()) {
      const std::string at = waiting.front();
      waiting.pop_front();
      for (const std::string& target : calls_.at(at)) {
        const std::string way = ways[at] + " -> " + target;
        if (target == "_Unwind_Resume") continue;  // a thread cancelled in a system call
        if (!calls_.contains(target)) {
          outside.emplace(target, way);
        } else if (ways.emplace(target, way).second) {
          waiting.push_back(target);
        }
      }
    }
    return outside;
  }

 private:
  // "f(int)+0x12" and "f@plt" are f; what is reached through the procedure table is outside unless
  // the library defines it.
  static std::string plain(std::string name) {
    for (const char* end : {"+0x", "@plt", "@@", "(int", "(char", "(void", "(long", "(unsigned",
                            "()", ".part.", ".cold", ".constprop.", ".isra."}) {
      const std::size_t at = name.find(end);
      if (at != std::string::npos && at > 0) name.resize(at);
    }
    const std::size_t space = name.rfind("::");
    return space != std::string::npos ? name.substr(space + 2) : name;
  }

  std::map<std::string, std::set<std::string>> calls_;
};

const CallGraph& libraryGraph() {
  static const CallGraph graph;
  return graph;
}

TEST(SignalSafe, MarkedFunctionsReachOnlySafeOnes) {
  const CallGraph& graph = libraryGraph();
  int checked = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(POVZEL_SOURCES)) {
    if (entry.path().extension() != ".h") continue;
    for (const std::string& function : markedIn(entry.path())) {
      if (!graph.has(function)) continue;  // inlined wherever it is used
      ++checked;
      for (const auto& [target, way] : graph.reachedFrom(function)) {
        EXPECT_TRUE(safe.contains(target)) << way;
      }
    }
  }
  EXPECT_GE(checked, 10);
}

TEST(SignalSafe, UnsafeFunctionsAreSeen) {
  const CallGraph& graph = libraryGraph();
  const auto reached = graph.reachedFrom("UnixErr");
  EXPECT_TRUE(reached.contains("pthread_mutex_lock"));
  EXPECT_TRUE(graph.reachedFrom("HostSetEnv").contains("putenv"));
}

}  // namespace
