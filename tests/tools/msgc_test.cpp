#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/unixerr.h>
#include "child.h"

namespace {

const std::string english = POVZEL_SOURCES "/messages/english67.msg";
const std::string englishCompiled = POVZEL_INSTALLATION "/sys/english67.err";
const std::string german = POVZEL_SOURCES "/tests/tools/deutsch67.msg";

template <typename... Args>
ChildResult msgc(const Args&... args) {
  const std::string words[] = {"msgc", args...};
  return runInChild([&] {
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    execv(POVZEL_INSTALLATION "/bin/msgc", argv.data());
    _exit(127);
  });
}

void useFile(const std::string& name) {
  setenv("TARVOLIN_LANG", name.c_str(), 1);
  ErrMsgInit();
}

template <typename... Args>
std::string text(const char* symbol, const char* kinds, Args... args) {
  ErrMsgStrType buffer;
  ErrMsgSymToText(symbol, buffer, sizeof buffer, kinds, args...);
  return buffer;
}

// "host.m1196" and "host.m2380" have the same hash.
TEST(MessageCompiler, WritesEveryByteOrder) {
  writeFile("hard.msg",
            "host.m1196 (1) :one %d\nhost.m2380 (2 1):two %s %s\n# comment\n"
            "tail:ends in \\\\\n\nlead (1 2 3 4 5 6 7 8 9 10):  %%\\\n   x\n");
  std::string dumped[4];
  const char* const orders[] = {"little", "big", "2031", "0123"};
  for (int i = 0; i < 4; ++i) {
    const ChildResult compiled =
        msgc("--byte-order=" + std::string(orders[i]), "-o", "hard.err", "hard.msg");
    ASSERT_TRUE(compiled.exitedWith(0)) << compiled.err;
    useFile("hard.err");
    EXPECT_EQ(text("host.m1196", "d", 1L), "one 1");
    EXPECT_EQ(text("host.m2380", "ss", "a", "b"), "two b a");
    EXPECT_EQ(text("lead", "ssssssssss", "", "", "", "", "", "", "", "", "", ""), "  %   x");
    dumped[i] = msgc("--dump", "hard.err").out;
    EXPECT_EQ(dumped[i], dumped[0]);
  }
  EXPECT_EQ(dumped[0],
            "host.m1196 (1) :one %d\nhost.m2380 (2 1) :two %s %s\ntail :ends in \\\\\n\n"
            "lead (1 2 3 4 5 6 7 8 9 10) :  %%   x\n");
}

TEST(MessageCompiler, DumpsWhatCompilesToTheSame) {
  const std::string longest = "longest:" + std::string(2039, 'x') + "\n";
  writeFile("all.msg", readFile(english) + longest);
  ASSERT_TRUE(msgc("-o", "all.err", "all.msg").exitedWith(0));
  ASSERT_TRUE(msgc("--dump", "-o", "again.msg", "all.err").exitedWith(0));
  ASSERT_TRUE(msgc("-o", "again.err", "again.msg").exitedWith(0));
  EXPECT_EQ(readFile("all.err"), readFile("again.err"));
  EXPECT_FALSE(readFile("again.err").empty());
}

TEST(MessageCompiler, NamesFaultsByLine) {
  const std::string over(2048, 'x');
  const struct {
    std::string source;
    std::string faults;
  } rows[] = {
      {"a:1\nb x\n\nc (12):3\na:4\n",
       "s.msg near line 2: \":\" expected\ns.msg near line 4: numeral (12) out of range\n"
       "s.msg near line 5: symbol a is there already, near line 1\n"},
      {"a (1):%d %s\n",
       "s.msg near line 1: the list in parentheses names no argument for \"%s\"\n"},
      {"a:100% sure\n",
       "s.msg near line 1: \"% s\" is no directive (a percent sign is written %%)\n"
       "s.msg near line 1: the list in parentheses names no argument for \"% s\"\n"},
      {"a (1 1 1 1 1 1 1):\\%n%%%5d%n%*d%1$d%lld%ls%\n",
       "s.msg near line 1: \"%n\" is no directive (a percent sign is written %%)\n"
       "s.msg near line 1: \"%*d\" is no directive (a percent sign is written %%)\n"
       "s.msg near line 1: \"%1$d\" is no directive (a percent sign is written %%)\n"
       "s.msg near line 1: \"%lld\" is no directive (a percent sign is written %%)\n"
       "s.msg near line 1: \"%ls\" is no directive (a percent sign is written %%)\n"
       "s.msg near line 1: \"%\" is no directive (a percent sign is written %%)\n"},
      {"a (0):\n", "s.msg near line 1: arguments are counted from 1\n"},
      {"a:" + over + "\n", "s.msg near line 1: line too long (2050 characters, at most 2047)\n"},
      {std::string("a:b\0c\n", 6), "s.msg near line 1: line holds a zero byte\n"},
      {"a:1\nb:2", "s.msg near line 2: the last line does not end\n"},
      {"a:1\nb:2\\\n", "s.msg near line 2: nothing continues the last line\n"},
  };
  for (const auto& row : rows) {
    writeFile("s.msg", row.source);
    for (const char* how : {"--check", "--output=s.err"}) {
      const ChildResult result = msgc(how, "s.msg");
      EXPECT_EQ(result.err, row.faults);
      EXPECT_TRUE(result.exitedWith(1));
      EXPECT_FALSE(std::filesystem::exists("s.err"));
    }
  }
  EXPECT_EQ(msgc("--check", "none.msg").err, "none.msg: No such file or directory\n");
  EXPECT_TRUE(msgc("-o", "none/x.err", german).exitedWith(1));
  EXPECT_TRUE(msgc("--dump", german).exitedWith(1));
  for (const char* wrong : {"--byte-order=0122", "--byte-order=middle", "--odd", "-o"}) {
    EXPECT_TRUE(msgc(wrong, "s.msg").exitedWith(2)) << wrong;
  }
}

TEST(MessageCompiler, ComparesATranslationWithItsModel) {
  writeFile("model.msg", "a (1 2):%s %s\nb:1\nc:1\n");
  writeFile("good.msg", "c:x\nb:x\na (2 1):%s %s\n");
  writeFile("poor.msg", "a (1):%s\nb:x\nd:1\n");
  EXPECT_TRUE(msgc("--check", "--like=model.msg", "good.msg").exitedWith(0));
  const ChildResult result = msgc("--check", "--like=model.msg", "poor.msg");
  EXPECT_TRUE(result.exitedWith(1));
  EXPECT_EQ(result.err,
            "poor.msg near line 1: symbol a has 1 arguments, but 2 in model.msg\n"
            "poor.msg near line 3: symbol d is not in model.msg\n"
            "poor.msg: symbol c is missing\n");
}

TEST(Languages, MayReorderArguments) {
  ASSERT_TRUE(msgc("--byte-order=big", "-o", "deutsch67.err", german).exitedWith(0));
  useFile("deutsch67.err");
  EXPECT_EQ(text("host.fork7", "ds", 4711L, "/tmp/x"),
            "Die Protokolldatei '/tmp/x' von Prozess 4711 lässt sich nicht öffnen.");
  EXPECT_EQ(text("host.syscallfailed", "ss", "fork", "Kein Speicher"),
            "Kein Speicher: Systemaufruf fork() fehlgeschlagen");
  EXPECT_EQ(text("host.serverfailed", nullptr), "Der Server endete, bevor er     bereit war.");
  EXPECT_EQ(text("host.fork6", "d", 1L), "[host.fork6 1]");
  useFile(englishCompiled);
  EXPECT_EQ(text("host.fork7", "ds", 4711L, "/tmp/x"),
            "Process 4711 could not open its log file '/tmp/x'.");
}

TEST(Languages, EnglishIsTheInstallationsOwn) {
  for (const char* language : {"", "$TARVOLIN/sys/english67.err"}) {
    setenv("TARVOLIN", POVZEL_INSTALLATION, 1);
    setenv("TARVOLIN_LANG", language, 1);
    ErrMsgInit();
    EXPECT_EQ(englishCompiled, ErrUtlErrFileName);
    EXPECT_EQ(text("host.fork12", nullptr), "The program could not be started.");
  }
}

struct Entry {
  int expectedArgs;
  std::string directives;  // the kind of value each numeral's directive is for: d, g or s
};

std::map<std::string, Entry> readEnglish() {
  std::map<std::string, Entry> entries;
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(english.c_str(), "r"), std::fclose);
  ErrUtlEntrySType entry;
  unsigned long line = 0;
  BoolType bad = 0;
  while (ErrUtlNextSym(file.get(), english.c_str(), &line, &entry, 1, &bad)) {
    std::string kinds(static_cast<std::size_t>(entry.expectedArgCount), 's');
    int used = 0;
    const std::string buf = std::regex_replace(entry.buf, std::regex("%%|\\\\%"), "");
    const std::regex directive("%[^a-zA-Z]*l?([a-zA-Z])");
    for (std::sregex_iterator at(buf.begin(), buf.end(), directive), end; at != end; ++at) {
      const char conversion = (*at)[1].str()[0];
      const char kind = conversion == 's' ? 's' : std::strchr("eEfgG", conversion) ? 'g' : 'd';
      kinds[static_cast<std::size_t>(entry.argOrder[used++] - 1)] = kind;
    }
    entries[entry.sym] = {entry.expectedArgCount, kinds};
  }
  return entries;
}

// What is wrong with asking for the entry with these kinds. A %s shows any argument well.
std::string misfit(const Entry& entry, const std::string& kinds) {
  if (static_cast<std::size_t>(entry.expectedArgs) != kinds.size()) return "number of arguments";
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    const bool isReal = kinds[i] == 'g';
    const bool isString = kinds[i] == 's';
    if (entry.directives[i] == 'd' && (isReal || isString)) return "a directive for a number";
    if (entry.directives[i] == 'g' && !isReal) return "a directive for a real number";
  }
  return "";
}

// Every symbol in the library's sources has its English entry, for the kinds that follow it.
TEST(English, HasWhatTheCodeNames) {
  const std::map<std::string, Entry> entries = readEnglish();
  const std::regex symbolLiteral(
      R"re((ErrMsg\w+\(\s*)?"((?:errmsg|fault|host|pwvalidation|trvcall|unixerr|utl|version)\.(?!h")\w+)")re");
  const std::regex kindsLiteral(R"re("([dnosxg]{1,10})")re");
  int symbols = 0;
  int withKinds = 0;
  for (const char* root : {"/src", "/pov"}) {
    for (const auto& file :
         std::filesystem::recursive_directory_iterator(POVZEL_SOURCES + std::string(root))) {
      if (file.path().extension() != ".cpp") continue;
      const std::string code = readFile(file.path());
      for (std::sregex_iterator at(code.begin(), code.end(), symbolLiteral), end; at != end; ++at) {
        const std::string symbol = (*at)[2];
        // "unixerr.E" is completed by a macro; the next test covers these.
        if (symbol == "unixerr.E" || symbol == "errmsg.userErrTxt") continue;
        ++symbols;
        const auto entry = entries.find(symbol);
        if (entry == entries.end()) {
          ADD_FAILURE() << file.path() << ": " << symbol << " is not in english67.msg";
          continue;
        }
        const auto next = std::next(at);
        const auto limit = next != end ? code.begin() + next->position() : code.end();
        const auto statementEnd = std::find((*at)[0].second, limit, ';');
        std::smatch kinds;
        std::string following((*at)[0].second, statementEnd);
        const bool found = std::regex_search(following, kinds, kindsLiteral);
        if (found) ++withKinds;
        if (!found && !(*at)[1].matched) continue;
        EXPECT_EQ(misfit(entry->second, found ? kinds[1].str() : ""), "")
            << file.path() << ": " << symbol << " with \"" << (found ? kinds[1].str() : "") << '"';
      }
    }
  }
  EXPECT_GT(symbols, 124);
  EXPECT_GT(withKinds, 5);
}

TEST(English, HasEveryErrorNumber) {
  const std::map<std::string, Entry> entries = readEnglish();
  useFile(englishCompiled);
  ErrMsgStrType buffer;
  for (long number = 2000; number < 6100; ++number) {
    const char* symbol = ErrMsgTvErrNumToSym(number);
    if (symbol == nullptr) continue;
    ErrMsgToTxt(SystemErrCategoryOop, number, buffer, sizeof buffer);
    EXPECT_NE(buffer[0], '[') << symbol;
    EXPECT_EQ(entries.at(symbol).expectedArgs, 0) << symbol;
  }
  for (int number = 1; number <= 200; ++number) {
    UnixErr(number, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer).find('['), std::string::npos) << buffer;
  }
  UnixErr(2, buffer, sizeof buffer);
  EXPECT_STREQ(buffer, "errno=2, ENOENT, No such file or directory");
}

}  // namespace
