// The message compiler and the message files.
#include <gtest/gtest.h>
#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/unixerr.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "process.h"

namespace {

const std::string english = POVZEL_SOURCES "/messages/english67.msg";
const std::string englishCompiled = POVZEL_INSTALLATION "/sys/english67.err";
const std::string german = POVZEL_SOURCES "/tests/tools/deutsch67.msg";

template <typename... Args>
ChildResult msgc(const Args&... args) {
  return runInChild([&] {
    execl(POVZEL_INSTALLATION "/bin/msgc", "msgc", std::string(args).c_str()..., nullptr);
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
  for (const char* order : {"little", "big", "2031", "0123"}) {
    const std::string option = std::string("--byte-order=") + order;
    EXPECT_EQ(msgc(option, "-o", "hard.err", "hard.msg").err, "");
    useFile("hard.err");
    EXPECT_EQ(text("host.m1196", "d", 1L), "one 1");
    EXPECT_EQ(text("host.m2380", "ss", "a", "b"), "two b a");
    EXPECT_EQ(text("lead", "ssssssssss", "", "", "", "", "", "", "", "", "", ""), "  %   x");
    EXPECT_EQ(msgc("--dump", "hard.err").out,
              "host.m1196 (1) :one %d\nhost.m2380 (2 1) :two %s %s\ntail :ends in \\\\\n\n"
              "lead (1 2 3 4 5 6 7 8 9 10) :  %%   x\n");
  }
}

TEST(MessageCompiler, DumpsWhatCompilesToTheSame) {
  writeFile("all.msg", readFile(english) + "longest:" + std::string(2039, 'x') + "\n");
  ASSERT_TRUE(msgc("-o", "all.err", "all.msg").exitedWith(0));
  ASSERT_TRUE(msgc("--dump", "-o", "again.msg", "all.err").exitedWith(0));
  ASSERT_TRUE(msgc("-o", "again.err", "again.msg").exitedWith(0));
  EXPECT_EQ(readFile("all.err"), readFile("again.err"));
  EXPECT_FALSE(readFile("again.err").empty());
}

TEST(MessageCompiler, NamesFaultsByLine) {
  const auto noDirective = [](const std::string& written) {
    return "1: \"" + written + "\" is no directive (a percent sign is written %%)\n";
  };
  // "@" stands for "s.msg near line ".
  const std::pair<std::string, std::string> rows[] = {
      {"a:1\nb x\n\nc (12):3\na:4\n",
       "@2: \":\" expected\n@4: numeral (12) out of range\n"
       "@5: symbol a is there already, near line 1\n"},
      {"a (1):%d %s\n", "@1: the list in parentheses names no argument for \"%s\"\n"},
      {"a:100% sure\n",
       "@" + noDirective("% s") + "@1: the list in parentheses names no argument for \"% s\"\n"},
      {"a (1 1 1 1 1 1 1):\\%n%%%5d%n%*d%1$d%lld%ls%\n",
       "@" + noDirective("%n") + "@" + noDirective("%*d") + "@" + noDirective("%1$d") + "@" +
           noDirective("%lld") + "@" + noDirective("%ls") + "@" + noDirective("%")},
      {"a (0):\n", "@1: arguments are counted from 1\n"},
      {"a:" + std::string(2048, 'x') + "\n", "@1: line too long (2050 characters, at most 2047)\n"},
      {std::string("a:b\0c\n", 6), "@1: line holds a zero byte\n"},
      {"a:1\nb:2", "@2: the last line does not end\n"},
      {"a:1\nb:2\\\n", "@2: nothing continues the last line\n"},
  };
  for (const auto& [source, faults] : rows) {
    writeFile("s.msg", source);
    for (const char* how : {"--check", "--output=s.err"}) {
      const ChildResult result = msgc(how, "s.msg");
      EXPECT_EQ(result.err, std::regex_replace(faults, std::regex("@"), "s.msg near line "));
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
}

TEST(English, IsTheInstallationsOwn) {
  for (const char* language : {"", "$TARVOLIN/sys/english67.err"}) {
    setenv("TARVOLIN", POVZEL_INSTALLATION, 1);
    useFile(language);
    EXPECT_EQ(englishCompiled, ErrUtlErrFileName);
    EXPECT_EQ(text("host.fork12", nullptr), "The program could not be started.");
  }
}

TEST(English, HasEveryErrorNumber) {
  useFile(englishCompiled);
  ErrMsgStrType buffer;
  for (long number = 2000; number < 6100; ++number) {
    const char* symbol = ErrMsgTvErrNumToSym(number);
    if (symbol == nullptr) continue;
    ErrMsgToTxt(SystemErrCategoryOop, number, buffer, sizeof buffer);
    EXPECT_NE(buffer[0], '[') << symbol;
  }
  for (int number = 1; number <= 200; ++number) {
    UnixErr(number, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer).find('['), std::string::npos) << buffer;
  }
  UnixErr(2, buffer, sizeof buffer);
  EXPECT_STREQ(buffer, "errno=2, ENOENT, No such file or directory");
}

}  // namespace
