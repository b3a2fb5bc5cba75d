// The message compiler and the message files.
#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/unixerr.h>
#include "tests.h"

namespace {

using namespace std::string_literals;

// Runs the compiler with a command line as the shell reads it: what it prints, and its exit status.
std::string msgc(const std::string& arguments) {
  const ChildResult child = runInChild([&] {
    const std::string line = "exec " POVZEL_INSTALLATION "/bin/msgc " + arguments;
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
  });
  return child.out + child.err + std::to_string(exitCode(child));
}

TEST(MessageCompiler, NamesFaultsByLine) {
  writeFile("s.msg", "b x\nc (12):3\na:1\na:4\nd (1):%d %s\ne:100% sure\ng (0):\nh:1\0\ni:"s +
                         std::string(2048, 'x') + "\nj:2\\\n");
  const std::string told = msgc("--check s.msg");
  EXPECT_EQ(std::regex_replace(told, std::regex("s.msg near line "), "@"),
            "@1: \":\" expected\n@2: numeral (12) out of range\n"
            "@4: symbol a is there already, near line 3\n"
            "@5: the list in parentheses names no argument for \"%s\"\n"
            "@6: \"% s\" is no directive (a percent sign is written %%)\n"
            "@6: the list in parentheses names no argument for \"% s\"\n"
            "@7: arguments are counted from 1\n@8: line holds a zero byte\n"
            "@9: line too long (2050 characters, at most 2047)\n"
            "@10: nothing continues the last line\n1");
  EXPECT_EQ(msgc("--output=s.err s.msg"), told);
  EXPECT_FALSE(fs::exists("s.err"));
}

TEST(MessageCompiler, RefusesWrongCommandsAndFiles) {
  writeFile("model.msg", "a (1 2):%s %s\nc:1\n");
  writeFile("poor.msg", "a (1):%s\nd:1\n");
  EXPECT_EQ(msgc("--check --like=model.msg poor.msg"),
            "poor.msg near line 1: symbol a has 1 arguments, but 2 in model.msg\n"
            "poor.msg near line 2: symbol d is not in model.msg\n"
            "poor.msg: symbol c is missing\n1");
  EXPECT_EQ(msgc("-o none/x.err model.msg"),
            "none/x.err: cannot be written: No such file or directory\n1");
  EXPECT_EQ(msgc("--check ."), ".: cannot be read: Is a directory\n1");
  EXPECT_EQ(msgc("--dump " POVZEL_INSTALLATION "/sys/english67.err >/dev/full"),
            "standard output: cannot be written: No space left on device\n1");
  EXPECT_THAT(msgc("--dump model.msg"), EndsWith("\n1"));
  EXPECT_THAT(msgc("--byte-order=0122 model.msg"), EndsWith("\n2"));
  EXPECT_THAT(msgc("--help"), EndsWith("\n0"));
}

TEST(English, HasEveryErrorNumberAndSurvivesADump) {
  setenv("TARVOLIN", POVZEL_INSTALLATION, 1);
  setenv("TARVOLIN_LANG", "", 1);
  ErrMsgInit();
  EXPECT_STREQ(ErrUtlErrFileName, POVZEL_INSTALLATION "/sys/english67.err");
  ErrMsgStrType buffer;
  for (long number = 2000; number < 6100; ++number) {
    const char* symbol = ErrMsgTvErrNumToSym(number);
    if (symbol == nullptr) continue;
    ErrMsgToTxt(SystemErrCategoryOop, number, buffer, sizeof buffer);
    EXPECT_NE(buffer[0], '[') << symbol;
  }
  for (int number = 200; number > 0; --number) {
    UnixErr(number, buffer, sizeof buffer);
    EXPECT_THAT(buffer, Not(HasSubstr("[")));
  }
  EXPECT_STREQ(buffer, "errno=1, EPERM, Operation not permitted");

  const std::string hard =
      "hard (2 1) :  %s %s\\303\\244\nfull (1 2 3 4 5 6 7 8 9 10) :ends in \\\\\n\n";
  writeFile("all.msg", readFile(POVZEL_SOURCES "/messages/english67.msg") + hard);
  symlink("real.err", "all.err");
  writeFile("real.err", "");
  for (const char* step : {"-o all.err all.msg", "--dump -o again.msg all.err",
                           "--byte-order=2031 -o again.err again.msg"}) {
    EXPECT_EQ(msgc(step), "0");
  }
  EXPECT_TRUE(fs::is_symlink("all.err"));
  EXPECT_THAT(msgc("--dump again.err"), EndsWith("\n" + hard + "0"));
  setenv("TARVOLIN_LANG", "again.err", 1);
  ErrMsgInit();
  ErrMsgSymToText("hard", buffer, sizeof buffer, "ss", "a", "b");
  EXPECT_STREQ(buffer, "  b a\303\244");
}

}  // namespace
