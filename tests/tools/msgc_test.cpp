// The message compiler and the message files.
#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/unixerr.h>
#include "tests.h"

namespace {

using namespace std::string_literals;

const std::string englishCompiled = POVZEL_INSTALLATION "/sys/english67.err";

// Runs the compiler with a command line as the shell reads it: what it prints, and its exit status.
std::string msgc(const std::string& arguments) {
  const ChildResult child = runInChild([&] {
    const std::string line = "exec " POVZEL_INSTALLATION "/bin/msgc " + arguments;
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
  });
  return child.out + child.err + std::to_string(exitCode(child));
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
            "tail:ends in \\\\\n\nlead (1 2 3 4 5 6 7 8 9 10):  %%\\\n   \\303\\244\n");
  for (const std::string order : {"little", "big", "2031", "0123"}) {
    EXPECT_EQ(msgc("--byte-order=" + order + " -o hard.err hard.msg"), "0");
    useFile("hard.err");
    EXPECT_EQ(text("host.m1196", "d", 1L), "one 1");
    EXPECT_EQ(text("host.m2380", "ss", "a", "b"), "two b a");
    EXPECT_EQ(text("lead", "ssssssssss", "", "", "", "", "", "", "", "", "", ""), "  %   ä");
    EXPECT_EQ(msgc("--dump hard.err"),
              "host.m1196 (1) :one %d\nhost.m2380 (2 1) :two %s %s\ntail :ends in \\\\\n\n"
              "lead (1 2 3 4 5 6 7 8 9 10) :  %%   \\303\\244\n0");
  }
}

TEST(MessageCompiler, NamesFaultsByLine) {
  // "@" stands for "s.msg near line ", and "~" for what is wrong with a directive.
  const std::pair<std::string, std::string> rows[] = {
      {"a:1\nb x\n\nc (12):3\na:4\nd (1):%d %s\ne:100% sure\ng (0):\nh:1\0\ni:"s +
           std::string(2048, 'x') + "\nj (1 1 1 1 1 1 1):\\%n%%%5d\\\\%n%*d%1$d%lld%ls%\n",
       "@2: \":\" expected\n@4: numeral (12) out of range\n"
       "@5: symbol a is there already, near line 1\n"
       "@6: the list in parentheses names no argument for \"%s\"\n"
       "@7: \"% s\"~@7: the list in parentheses names no argument for \"% s\"\n"
       "@8: arguments are counted from 1\n@9: line holds a zero byte\n"
       "@10: line too long (2050 characters, at most 2047)\n"
       "@11: \"%n\"~@11: \"%*d\"~@11: \"%1$d\"~@11: \"%lld\"~@11: \"%ls\"~@11: \"%\"~"},
      {"a:1\nb:2", "@2: the last line does not end\n"},
      {"a:1\nb:2\\\n", "@2: nothing continues the last line\n"},
  };
  for (const auto& [source, faults] : rows) {
    writeFile("s.msg", source);
    const std::string told =
        std::regex_replace(std::regex_replace(faults, std::regex("@"), "s.msg near line "),
                           std::regex("~"), " is no directive (a percent sign is written %%)\n");
    EXPECT_EQ(msgc("--check s.msg"), told + "1");
    EXPECT_EQ(msgc("--output=s.err s.msg"), told + "1");
    EXPECT_FALSE(std::filesystem::exists("s.err"));
  }
}

TEST(MessageCompiler, RefusesWrongCommandsAndFiles) {
  writeFile("model.msg", "a (1 2):%s %s\nb:1\nc:1\n");
  writeFile("good.msg", "c:x\nb:x\na (2 1):%s %s\n");
  writeFile("poor.msg", "a (1):%s\nb:x\nd:1\n");
  EXPECT_EQ(msgc("--check --like=model.msg good.msg"), "0");
  EXPECT_EQ(msgc("--check --like=model.msg poor.msg"),
            "poor.msg near line 1: symbol a has 1 arguments, but 2 in model.msg\n"
            "poor.msg near line 3: symbol d is not in model.msg\n"
            "poor.msg: symbol c is missing\n1");
  EXPECT_EQ(msgc("--check none.msg"), "none.msg: No such file or directory\n1");
  EXPECT_EQ(msgc("--check ."), ".: cannot be read: Is a directory\n1");
  EXPECT_EQ(msgc("--dump " + englishCompiled + " >/dev/full"),
            "standard output: cannot be written: No space left on device\n1");
  EXPECT_EQ(msgc("-o none/x.err good.msg"),
            "none/x.err: cannot be written: No such file or directory\n1");
  EXPECT_TRUE(msgc("--dump good.msg").ends_with("\n1"));
  for (const char* wrong : {"--byte-order=0122", "--byte-order=middle", "--odd", "-o"}) {
    EXPECT_TRUE(msgc(wrong + std::string(" good.msg")).ends_with("\n2")) << wrong;
  }
}

TEST(English, HasEveryErrorNumberAndSurvivesADump) {
  for (const char* language : {"", "$TARVOLIN/sys/english67.err"}) {
    setenv("TARVOLIN", POVZEL_INSTALLATION, 1);
    useFile(language);
    EXPECT_EQ(englishCompiled, ErrUtlErrFileName);
    EXPECT_EQ(text("host.fork12", nullptr), "The program could not be started.");
  }
  ErrMsgStrType buffer;
  for (long number = 2000; number < 6100; ++number) {
    const char* symbol = ErrMsgTvErrNumToSym(number);
    if (symbol == nullptr) continue;
    ErrMsgToTxt(SystemErrCategoryOop, number, buffer, sizeof buffer);
    EXPECT_NE(buffer[0], '[') << symbol;
  }
  for (int number = 200; number > 0; --number) {
    UnixErr(number, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer).find('['), std::string::npos) << buffer;
  }
  EXPECT_STREQ(buffer, "errno=1, EPERM, Operation not permitted");

  const std::string source = readFile(POVZEL_SOURCES "/messages/english67.msg");
  writeFile("all.msg", source + "longest:" + std::string(2039, 'x') + "\n");
  for (const char* step :
       {"-o all.err all.msg", "--dump -o again.msg all.err", "-o again.err again.msg"}) {
    EXPECT_EQ(msgc(step), "0");
  }
  EXPECT_EQ(readFile("all.err"), readFile("again.err"));
}

}  // namespace
