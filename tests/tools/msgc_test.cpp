// The message compiler and the message files.
#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/unixerr.h>
#include "tests.h"

namespace {

using namespace std::string_literals;

// Runs a line of the shell that finds the compiler: what it prints, and its exit status.
std::string shell(const std::string& line) {
  const ChildResult child = runInChild([&] {
    setenv("PATH", POVZEL_INSTALLATION "/bin:/usr/bin:/bin", 1);
    execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
  });
  return child.out + child.err + std::to_string(exitCode(child));
}

std::string msgc(const std::string& arguments) {
  return shell("exec msgc " + arguments);
}

TEST(MessageCompiler, NamesFaultsByLine) {
  writeFile("s.msg", "b x\nc (12):3\na:1\na:4\nd (1):%d %s\ne:\\\\% sure\ng (0):\nh:1\0\ni:"s +
                         std::string(2048, 'x') + "\nk:\\101\\%\\777\\0\\q\nl:\xE4\nj:2\\\n");
  const std::string told = msgc("--check s.msg");
  EXPECT_EQ(std::regex_replace(told, std::regex("s.msg near line "), "@"),
            "@1: \":\" expected\n@2: numeral (12) out of range\n"
            "@4: symbol a is there already, near line 3\n"
            "@5: the list in parentheses names no argument for \"%s\"\n"
            "@6: \"% s\" is no directive (a percent sign is written %%)\n"
            "@6: the list in parentheses names no argument for \"% s\"\n"
            "@7: arguments are counted from 1\n@8: line holds a zero byte\n"
            "@9: line too long (2050 characters, at most 2047)\n"
            "@10: \"\\777\" is beyond \\377, the largest byte\n@10: \"\\0\" ends the text there\n"
            "@10: \"\\q\" is no escape (a backslash is written \\\\)\n@11: line is not UTF-8\n"
            "@12: nothing continues the last line\n1");
  EXPECT_EQ(msgc("--output=s.err s.msg"), told);
  EXPECT_FALSE(fs::exists("s.err"));
  writeFile("s.msg", "\xEF\xBB\xBF# a\n\na:1\\\r\n\r\nb:2\r\n");
  EXPECT_EQ(msgc("--check s.msg"),
            "s.msg near line 1: the file starts with a byte order mark\n"
            "s.msg near line 3: the line ends in a carriage return (as do 3 in all)\n1");
}

TEST(MessageCompiler, RefusesWrongCommandsAndFiles) {
  writeFile("model.msg", "a (1 2):%s %s\nc:1\n");
  writeFile("poor.msg", "a (1):%s\nd:1\n");
  EXPECT_EQ(msgc("--check --like=model.msg poor.msg"),
            "poor.msg near line 1: symbol a has 1 arguments, but 2 in model.msg\n"
            "poor.msg near line 2: symbol d is not in model.msg\n"
            "poor.msg: symbol c is missing\n1");
  // An argument may be shown again and by %s, but must not get lost or turn into another kind.
  writeFile("model.msg", "a (1 2):%d %s\nb (1):%s\n");
  writeFile("poor.msg", "a (2 1 1 2):%c %x %s %s\nb (1 1):%s %5.2f\n");
  EXPECT_EQ(msgc("--check --like=model.msg poor.msg"),
            "poor.msg near line 1: symbol a shows argument 2 as %c, but model.msg as %s\n"
            "poor.msg near line 2: symbol b shows argument 1 as %e, but model.msg as %s\n1");
  writeFile("poor.msg", "a (2):%s\nb (1):%s\n");
  EXPECT_EQ(msgc("--check --like=model.msg poor.msg"),
            "poor.msg near line 1: symbol a does not show argument 1, as model.msg does\n1");
  EXPECT_EQ(msgc("--check --like=none poor.msg"), "none: No such file or directory\n1");
  EXPECT_EQ(msgc("--check /dev/null"), "/dev/null: holds no message\n1");
  EXPECT_EQ(shell("iconv -t utf-16 model.msg | msgc --check /dev/stdin"),
            "/dev/stdin: is in UTF-16: a source is a text in UTF-8\n1");
  EXPECT_EQ(msgc("--check " POVZEL_INSTALLATION "/sys/english67.err"), POVZEL_INSTALLATION
            "/sys/english67.err: is a compiled file, not a source (msgc --dump "
            "makes one of it)\n1");
  for (const char* many : {"--check --dump model.msg", "--dump --check model.msg",
                           "--check -o x model.msg", "--dump --like=model.msg model.msg",
                           "-o x -o y model.msg", "--check --byte-order=big model.msg"}) {
    EXPECT_THAT(msgc(many), AllOf(StartsWith("usage: "), EndsWith("\n2")));
  }
  EXPECT_EQ(msgc("-o none/x.err model.msg"),
            "none/x.err: cannot be written: No such file or directory\n1");
  EXPECT_EQ(msgc("--check ."), ".: cannot be read: Is a directory\n1");
  EXPECT_EQ(msgc("--dump " POVZEL_INSTALLATION "/sys/english67.err >/dev/full"),
            "standard output: cannot be written: No space left on device\n1");
  EXPECT_THAT(msgc("--dump model.msg"), EndsWith("\n1"));
  EXPECT_THAT(msgc("--byte-order=0122 model.msg"), EndsWith("\n2"));
  EXPECT_THAT(msgc("--help"), EndsWith("\n0"));
  EXPECT_EQ(msgc("--version >/dev/full"), "1");
}

TEST(MessageCompiler, WritesWhereItIsPointed) {
  fs::create_directory("out");
  fs::current_path("out");
  writeFile("a.msg", "a:1\n");
  const std::string compiled = shell("cat a.msg | msgc -o /dev/stdout /dev/stdin");
  EXPECT_THAT(compiled, EndsWith("a :1\n0"));
  EXPECT_EQ(shell("touch -d 2040-01-01 a.msg"), "0");
  // Nothing that it reads is written over, under whatever name.
  fs::create_symlink("a.msg", "link");
  fs::create_hard_link("a.msg", "hard");
  for (const std::string name : {"a.msg", "link", "hard", "/dev/stdout >>a.msg"}) {
    EXPECT_THAT(msgc("-o " + name + " a.msg"), EndsWith("1")) << name;
    EXPECT_THAT(msgc("--like=a.msg -o " + name + " /dev/stdin <<end\na:2\nend"), EndsWith("1"));
  }
  EXPECT_EQ(readFile("a.msg"), "a:1\n");
  for (const std::string into : {">>", "1<>"}) {
    EXPECT_EQ(shell("msgc -o a.err a.msg; msgc --dump a.err " + into + "a.err"),
              "standard output: is a.err itself, and is not written over\n1");
  }
  EXPECT_EQ(readFile("a.err") + "0", compiled);
  fs::remove("a.err");
  // Links are followed and kept, also to what is not there yet; and so are rights, and bystanders.
  fs::create_directory("far");
  fs::create_symlink("far/b.err", "b.err");
  fs::create_symlink("c.err", "far/b.err");
  writeFile("far/c.err.new", "precious");
  EXPECT_EQ(shell("umask 027; msgc -o b.err a.msg; stat -Lc %a b.err"), "640\n0");
  EXPECT_EQ(shell("chmod 604 far/c.err; msgc -o b.err a.msg; stat -c %a far/c.err"), "604\n0");
  EXPECT_TRUE(fs::is_symlink("b.err") && fs::is_symlink("far/b.err"));
  EXPECT_EQ(shell("mkfifo p; cat p & msgc -o p a.msg || : >p; wait"), compiled);
  EXPECT_EQ(shell("msgc -o /dev/stdout a.msg >p.err; cat p.err; msgc -o p.err a.msg"), compiled);
  // A write that fails leaves the old file, and nothing else.
  EXPECT_EQ(shell("(trap '' XFSZ; ulimit -f 0; msgc -o b.err a.msg 2>/dev/full); echo $?"), "1\n0");
  EXPECT_EQ(readFile("b.err") + "0", compiled);
  EXPECT_EQ(shell("ls -A . far | xargs"),
            ".: a.msg b.err far hard link p p.err far: b.err c.err c.err.new\n0");
}

TEST(MessageCompiler, NamesDamageOfCompiledFiles) {
  writeFile("a.msg", "a:1\n");
  EXPECT_EQ(msgc("--byte-order=big -o a.err a.msg"), "0");
  EXPECT_EQ(shell("cat a.err | msgc --dump /dev/stdin"),
            "# Compiled with --byte-order=3210\na :1\n0");
  std::string bytes = readFile("a.err");
  std::size_t used = 20;
  while (bytes.substr(used, 12) == std::string(12, '\0')) used += 12;
  writeFile("a.err", std::string(bytes).replace(used + 4, 1, "\x7F"));
  EXPECT_EQ(msgc("--dump a.err"), "a.err: a look-up does not find symbol a in its slot\n1");
  ++bytes[used + 3];
  writeFile("a.err", bytes);
  EXPECT_EQ(msgc("--dump a.err"), "a.err: symbol a cannot be found by its hash\n1");
  bytes.replace(20 + (used + 12 - 20) % 768, 12, bytes, used, 12);
  writeFile("a.err", bytes);
  EXPECT_THAT(msgc("--dump a.err"), HasSubstr("a.err: several slots lead to offset 788\n"));
}

// The commands of docs/messages.md, in a fresh shell, show what the page says.
TEST(English, IsTranslatedAsThePageSays) {
  fs::create_directories("fresh/build/tarvolin");
  fs::current_path("fresh");
  fs::create_symlink(POVZEL_SOURCES "/messages", "messages");
  fs::create_symlink(POVZEL_INSTALLATION "/lib", "build/tarvolin/lib");
  for (const std::string folder : {"bin", "sys"})
    fs::copy(POVZEL_INSTALLATION "/" + folder, "build/tarvolin/" + folder);
  const std::string page = readFile(POVZEL_SOURCES "/docs/messages.md");
  const std::size_t begin = page.find("\n```\n$ ") + 5;
  std::istringstream block(page.substr(begin, page.find("\n```\n", begin) + 1 - begin));
  std::string commands, shown;
  for (std::string line; std::getline(block, line);) {
    const bool isCommand = line.starts_with("$ ");
    (isCommand ? commands : shown) += line.substr(isCommand ? 2 : 0) + "\n";
  }
  writeFile("commands", commands);
  EXPECT_EQ(shell("exec env -i PATH=/usr/bin:/bin sh -e commands"), shown + "0");
  EXPECT_THAT(shown, HasSubstr("ö"));
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
