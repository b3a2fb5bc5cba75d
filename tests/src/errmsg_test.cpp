#include <povzel/errmsg.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <thread>
#include <utility>

#include <povzel/errutl.h>
#include <povzel/utlheap.h>
#include "messagefile.h"
#include "process.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

template <typename... Args>
std::string cutText(std::size_t size, const char* symbol, const char* kinds, Args... args) {
  std::string buffer(size + 1, '!');
  ErrMsgSymToText(symbol, buffer.data(), size, kinds, args...);
  EXPECT_EQ(buffer[size], '!') << symbol;
  return size == 0 ? "" : buffer.c_str();
}

template <typename... Args>
std::string text(const char* symbol, const char* kinds, Args... args) {
  return cutText(sizeof(ErrMsgStrType), symbol, kinds, args...);
}

std::string repeated(std::size_t count, char c = 'a') {
  return std::string(count, c);
}

class Catalogue : public testing::Test {
 protected:
  Catalogue() { ErrMsgShutdown(); }
  ~Catalogue() override { ErrMsgShutdown(); }

  void open(const std::string& bytes) {
    writeFile("test.err", bytes);
    setenv("TARVOLIN_LANG", "test.err", 1);
    ErrMsgInit();
  }

  // The text of a catalogue's one entry.
  template <typename... Args>
  std::string show(const std::string& entry, const char* kinds, Args... args) {
    open(compiledFile({{"m", "m" + entry + "\n"}}));
    return text("m", kinds, args...);
  }
};

TEST(CatalogueDeathTest, IsUnusableUntilOpened) {
  const auto look = [] {
    const bool wasPanicked = ErrMsgGetPanicked() != 0;
    std::fputs(text("host.fork4", "ss", "fork", "No such file").c_str(), stderr);
    ErrMsgSetPanicked(0);
    std::fputs(text("host.fork4", nullptr).c_str(), stderr);
    _exit(wasPanicked && ErrMsgGetString("host.fork4") == nullptr ? 0 : 1);
  };
  EXPECT_EXIT(look(), testing::ExitedWithCode(0),
              "^\\[host.fork4 fork No such file\\]\\[host.fork4\\]$");
}

TEST_F(Catalogue, FallbackFormShowsEverything) {
  EXPECT_EQ(text("a.b", "dnosxg", -1L, 2L, OopType{4096}, "t", 255UL, 0.5),
            "[a.b -1 2 Oop(4096) t 0xff 0.5]");
  EXPECT_EQ(text("a.b", "oo", OopType{31}, OopType{0xFFFFFFFF}),
            "[a.b SmallInteger(7) SmallInteger(-1)]");
  EXPECT_EQ(text("a.b", "dddddddddddd", 1L, 2L, 3L, 4L, 5L, 6L, 7L, 8L, 9L, 10L, 11L, 12L),
            "[a.b 1 2 3 4 5 6 7 8 9 10]");
  EXPECT_EQ(text("a.b", "s", static_cast<const char*>(nullptr)), "[a.b [null]]");
  EXPECT_EQ(text(nullptr, ""), "[]");
  EXPECT_EQ(text("a", "s", repeated(3000).c_str()), "[a " + repeated(2045));
  const std::string whole = "[a.b 12 t]";
  for (std::size_t size = 0; size < 12; ++size) {
    EXPECT_EQ(cutText(size, "a.b", "ds", 12L, "t"), whole.substr(0, std::max<int>(size, 1) - 1));
  }
  CaptureStderr();
  EXPECT_EQ(text("a.b", "ds?", 1L, "s", 7L), "[a.b 1 s 7]");
  EXPECT_EQ(GetCapturedStderr(),
            "Unknown argkind in errmsg|buildString\ndesperateErr: Illegal argument ? read\n");
}

TEST_F(Catalogue, TemplatesPlaceTheirArguments) {
  const struct {
    std::string entry;
    const char* kinds;  // of the arguments 5 and "open"
    std::string text;
  } rows[] = {
      {"(2 1):%s failed (%d)", "ds", "open failed (5)"},
      {":%s failed (%d)", nullptr, "%s failed (%d)"},
      {"(1 2):%d and %8s.", "d", "5 and   [null]."},
      {"(1 2):%d and %8d", "d", "5 and [null]"},
      {"(0 2):%s %s", "ds", "[null] open"},
      {"(1 1):%s%s%5s", "d", "55%5s"},
      {"(1):%d", "ds", "[\"%d\" m 5 open]"},
      {" (1) :", "d", ""},
      {"(1):%q %", "d", "%q %"},
      {"(1):%% %%%d%%", "d", "% %5%"},
      {":50%%", nullptr, "50%"},
      {":a\\101b\\\\c", nullptr, "aAb\\c"},
      {":\\n\\t\\r\\f\\v\\b\\q\\%d\\1018\\00000101\\777", nullptr,
       "\n\t\r\f\v\bq%d\x41\x38"
       "A\xFF"},
      {":a\\\\\n", nullptr, "a"},
      // Cut at their limits
      {"(2 2):%-2046s%s", "ds", "open" + repeated(2042, ' ') + "o"},
      {"(1):%9999999d", "d", repeated(2047, ' ')},
      {"(1):%.2147483647d", "d", repeated(2047, '0')},
      {"(1):%-4294967299d|", "d", "5" + repeated(2046, ' ')},
  };
  for (const auto& row : rows) EXPECT_EQ(show(row.entry, row.kinds, 5L, "open"), row.text);
  EXPECT_EQ(show("(1):bb%5s", "s", repeated(3000).c_str()), "bb" + repeated(2045));
  show("(1):text %d", "d", 5L);
  EXPECT_EQ(cutText(1, "m", "d", 5L) + cutText(7, "m", "d", 5L) + cutText(6, "m", "d", 5L),
            "text 5text ");
}

TEST_F(Catalogue, KindsMeetDirectives) {
  const struct {
    const char *directive, *number, *real, *string;  // what each argument is shown as
  } rows[] = {
      {"%d", "-42", "1.5", "txt"},
      {"%5d|", "  -42|", "1.5|", "txt|"},
      {"%-+ 05i|", "-42  |", "1.5|", "txt|"},
      {"%.4ld", "-0042", "1.5", "txt"},
      {"%#X", "0XFFFFFFD6", "1.5", "txt"},
      {"%hhu", "214", "1.5", "txt"},
      {"%jd", "-42", "1.5", "txt"},
      {"%c", "\xD6", "1.5", "txt"},
      {"%p d", "0xffffffd6 d", "1.5", "txt"},
      {"%.2f", "-42", "1.50", "txt"},
      {"%Lg", "-42", "1.5", "txt"},
      {"%E", "-42", "1.500000E+00", "txt"},
      {"%.2s", "-42", "1.5", "tx"},
      {"%5s", "-42", "1.5", "  txt"},
      {"%ls", "-42", "1.5", "txt"},
      // What printf must not get
      {"%n", "-42", "1.5", "txt"},
      {"%*d", "-42", "1.5", "txt"},
      {"%1$d", "-42", "1.5", "txt"},
      {"%p%s", "-42", "1.5", "txt"},
      {"%.*s", "-42", "1.5", "txt"},
  };
  for (const auto& row : rows) {
    const std::string entry = "(1):" + std::string(row.directive);
    EXPECT_EQ(show(entry, "d", -42L), row.number) << row.directive;
    EXPECT_EQ(show(entry, "g", 1.5), row.real) << row.directive;
    EXPECT_EQ(show(entry, "s", "txt"), row.string) << row.directive;
  }
  EXPECT_EQ(show("(1 1 1 2 3 3):%d %x %5s %s %d %s", "nox", 42L, OopType{4096}, 255UL),
            "42 42 42 Oop(4096) ff ff");
  CaptureStderr();
  EXPECT_EQ(show("(1):%d", "?", 9L), "9");
  EXPECT_EQ(GetCapturedStderr(),
            "Unknown argkind in errmsg|buildString\nmySprintf: Illegal argument ? read\n");
}

TEST_F(Catalogue, GetStringResolvesTwoEscapes) {
  open(compiledFile({{"m", "m (1) : a\\nb\\\\c\\td%d%%\n"}}));
  char* string = ErrMsgGetString("m");
  EXPECT_STREQ(string, " a\nb\\c\\td%d%%");
  UtlFree(string);
  EXPECT_EQ(ErrMsgGetString("n"), nullptr);
  EXPECT_EQ(ErrMsgGetString(nullptr), nullptr);
}

// "host.m1196" and "host.m2380" have the same hash. All tables are full but for one slot, or quite.
TEST_F(Catalogue, FindsSymbolsInEveryTable) {
  for (const Transform& transform : {littleEndian, bigEndian, Transform{1, 3, 0, 2}}) {
    for (const std::uint32_t tabSize : {3U, 4U, 5U, 64U}) {
      open(compiledFile({{"host.m1196", "host.m1196:one\n"},
                         {"host.m2380", "host.m2380:two\n"},
                         {"x", "x:three\n"}},
                        transform, tabSize, true));
      for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(text("host.m1196", "") + text("host.m2380", "") + text("x", ""), "onetwothree");
        EXPECT_EQ(text("y", "") + text("", ""), "[y][]");
        EXPECT_EQ(text(repeated(5000).c_str(), ""), "[" + repeated(2047));
      }
      EXPECT_FALSE(ErrMsgGetPanicked());
    }
  }
  // Without key strings the hash decides, and the entry's symbol shows that it is another one.
  open(compiledFile({{"host.m1196", "host.m1196:one\n"}}));
  EXPECT_EQ(text("host.m2380", "") + text("host.m1196", ""), "[host.m2380]one");
  EXPECT_FALSE(ErrMsgGetPanicked());
}

TEST_F(Catalogue, FailedReadsPanicAndMissesDoNot) {
  const std::string good = compiledFile({{"m", "m:x\n"}}, littleEndian, 1);
  const auto with = [&good](std::size_t at, const std::string& bytes) {
    return std::string(good).replace(at, 4, bytes);
  };
  const std::pair<std::string, bool> rows[] = {
      {good, false},
      {good.substr(0, 31), true},                    // slot
      {with(24, stored({40}, littleEndian)), true},  // key
      {with(28, stored({99}, littleEndian)), true},  // entry
      {with(32, "#:x\n"), true},
      {with(32, "m x\n"), true},
      {with(32, "n:x\n"), false},
      {with(20, "abcd"), false},
  };
  CaptureStderr();
  for (const auto& [bytes, panics] : rows) {
    open(bytes);
    EXPECT_EQ(text("m", ""), bytes == good ? "x" : "[m]") << bytes;
    EXPECT_EQ(ErrMsgGetPanicked() != 0, panics) << bytes;
    EXPECT_TRUE(ErrMsgReset());
    EXPECT_EQ(ErrMsgGetPanicked() != 0, panics) << bytes;
  }
  GetCapturedStderr();
}

TEST_F(Catalogue, PanicAndResetFollowTheFile) {
  EXPECT_EQ(show(":x", ""), "x");
  ErrMsgSetPanicked(1);
  EXPECT_EQ(text("m", ""), "[m]");
  ErrMsgSetPanicked(0);
  writeFile("test.err", compiledFile({{"m", "m:new text\n"}}));
  EXPECT_EQ(text("m", ""), "x") << "it is not read again";
  EXPECT_TRUE(ErrMsgReset());
  EXPECT_EQ(text("m", ""), "new text");

  // A stream that the program puts in its place is the file from then on.
  FILE* ours = std::exchange(ErrUtlErrFile, std::fopen("/dev/null", "r"));
  EXPECT_EQ(text("m", ""), "[m]");
  EXPECT_TRUE(ErrMsgGetPanicked());
  std::fclose(std::exchange(ErrUtlErrFile, ours));
  ErrMsgSetPanicked(0);
  EXPECT_EQ(text("m", ""), "new text");

  std::remove(ErrUtlErrFileName);
  CaptureStderr();
  EXPECT_FALSE(ErrMsgReset());
  EXPECT_TRUE(ErrMsgGetPanicked());
  ErrMsgInit();
  EXPECT_NE(GetCapturedStderr().find("ErrUtlInit: Unable to use file "), std::string::npos);
  EXPECT_EQ(text("m", ""), "[m]");
}

TEST_F(Catalogue, StreamsGetTheTextAndAreFlushed) {
  show("(1):<%d>\\n", "d", 1L);
  FILE* file = std::fopen("out", "w");
  ErrMsgSymToFileNoTimeStamp("m", file, "d", 7L);
  EXPECT_EQ(readFile("out"), "<7>\n");
  ErrMsgSymToFile("m", file, "d", 8L);
  const std::string stamped = readFile("out");
  EXPECT_EQ(stamped.substr(0, 5), "<7>\n[");
  EXPECT_TRUE(stamped.ends_with("\n    <8>\n"));
  ErrMsgSymToFile_1("<%s>", file, "one");
  ErrMsgSymToFile_2("<%s %s>", file, "one", repeated(2000).c_str());
  EXPECT_EQ(readFile("out"), stamped) << "not these two";
  std::fclose(file);
  const std::string whole = readFile("out");
  EXPECT_NE(whole.find("    <one>"), std::string::npos);
  EXPECT_NE(whole.find("    <one " + repeated(1018)), std::string::npos);
  EXPECT_EQ(whole.find(repeated(1019)), std::string::npos);
}

TEST_F(Catalogue, ThreadsAndForksShareIt) {
  open(compiledFile({{"m", "m (1) :%d.\n"}, {"n", "n:x\n"}}));
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  const auto ask = [&] {
    // Allocates nothing outside the catalogue: not every checking allocator bears a fork then.
    char shown[32];
    char wanted[32];
    for (long i = 0; !stop; ++i) {
      ErrMsgSymToText("m", shown, sizeof shown, "d", i);
      std::snprintf(wanted, sizeof wanted, "%ld.", i);
      if (std::strcmp(shown, wanted) != 0) ++wrong;
      if (i % 16 == 0 && !ErrMsgReset()) ++wrong;
    }
  };
  std::thread threads[] = {std::thread(ask), std::thread(ask)};
  for (int i = 0; i < 50; ++i) {
    const pid_t child = fork();
    if (child == 0) _exit(ErrMsgReset() && text("n", "") == "x" ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    ErrMsgInit();  // opening the file anew meanwhile disturbs nobody
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_FALSE(ErrMsgGetPanicked());
}

TEST(ErrorNumbers, HaveSymbols) {
  const std::pair<long, const char*> rows[] = {{2004, "errmsg.rtErrBadSubscript"},
                                               {2226, nullptr},
                                               {2227, "errmsg.lgcProtcolError"},
                                               {2234, "errmsg.lgcProtcolError"},
                                               {2235, nullptr},
                                               {2317, "errmsg.objErrTime_tOutOfRange"},
                                               {4149, "errmsg.lgcNetShutdown"},
                                               {6004, "errmsg.rtErrHardBreak"},
                                               {LONG_MIN, nullptr},
                                               {LONG_MAX, nullptr}};
  for (const auto& [number, symbol] : rows) {
    EXPECT_STREQ(ErrMsgTvErrNumToSym(number), symbol) << number;
    EXPECT_STREQ(ErrMsgNumToSym(number), symbol != nullptr ? symbol : "errmsg.invalidErr");
  }
}

TEST_F(Catalogue, ErrorNumbersHaveTexts) {
  open(compiledFile({{"errmsg.rtErrHardBreak", "errmsg.rtErrHardBreak (1) :stop %d\n"},
                     {"errmsg.invalidErr", "errmsg.invalidErr:what?\n"}}));
  const auto textOf = [](OopType category, long number, ArraySizeType size = 13) {
    char buffer[14] = "#############";
    ErrMsgToTxt(category, number, buffer, size);
    EXPECT_EQ(buffer[size], size < 13 ? '#' : '\0');
    return std::string(buffer);
  };
  EXPECT_EQ(textOf(SystemErrCategoryOop, 6004), "stop [null]");
  EXPECT_EQ(textOf(SystemErrCategoryOop, 1), "what?");
  EXPECT_EQ(textOf(1, 6004), "errmsg.userE");
  EXPECT_EQ(textOf(1, 6004, 1), "");
  EXPECT_EQ(textOf(1, 6004, 0)[0], '#');
}

std::string printed;
void print(const char* piece) {
  printed += "{" + std::string(piece) + "}";
}
void printObject(ErrMsgPrinterFuncType* printer, OopType oop) {
  printer(("#" + std::to_string(oop)).c_str());
}

std::string report(ZelErrSType error, long number, BoolType displayOops, long errors) {
  printed.clear();
  ErrMsgWriteError(print, printObject, &error, number, displayOops, errors);
  return printed;
}

TEST_F(Catalogue, ReportsErrors) {
  const std::string dashes = "{" + repeated(53, '-') + "\n}";
  ZelErrSType error{};
  error.category = SystemErrCategoryOop;
  error.context = 77;
  std::strcpy(error.message, "hello");
  EXPECT_EQ(report(error, 2004, 0, 1),
            dashes +
                "{[errmsg.line1a]         [errmsg.line1c]}{\n}{hello}{\n}"
                "{[errmsg.line3g [errmsg.line3d] 2004][errmsg.line3h 0]}{\n}");
  error.fatal = 1;
  error.argCount = 2;
  error.args[0] = 10;
  error.args[1] = 20;
  EXPECT_EQ(report(error, 2183, 1, 2),
            dashes +
                "{[errmsg.line1 2183 2]   [errmsg.line1b]}{\n}{hello}{\n}"
                "{[errmsg.line3f 3613 [errmsg.line3b] 2183][errmsg.line3h 2]"
                "[errmsg.line3i 77]}{\n}"
                "{[errmsg.line4 1]}{#10}{\n}{[errmsg.line4 2]}{#20}{\n}");
  EXPECT_NE(report(error, 4126, 0, 0).find("[errmsg.line3c]"), std::string::npos);
  error.category = 1;
  EXPECT_NE(report(error, 4126, 0, 0).find("[errmsg.line3e]"), std::string::npos);
  error.argCount = 1000;
  EXPECT_TRUE(report(error, 1, 0, 0).ends_with("{[errmsg.line4 10]}{#0}{\n}"));
  error.argCount = -1;
  EXPECT_TRUE(report(error, 1, 0, 0).ends_with("[errmsg.line3h -1]}{\n}"));
}

TEST_F(Catalogue, ReportsWrapTheMessage) {
  const std::pair<std::string, std::string> rows[] = {
      // message, pieces between bars
      {"", ""},
      {repeated(100), repeated(80) + "|" + repeated(20)},
      {"a\n\nb\n", "a||b|"},
      {repeated(64) + " b", repeated(64) + " b"},
      {repeated(65) + " b", repeated(65) + "|b"},
      {repeated(64) + "  b", repeated(64) + " |b"},
      {repeated(80) + " b", repeated(80) + "|b"},
      {repeated(80) + "\nb", repeated(80) + "|b"},
      {repeated(79) + "\x01" + "b", repeated(79) + "\x01|b"},
      {repeated(77) + "\t\r\ab", repeated(77) + "\t\r\a|b"},
      {repeated(78) + "\x7F" + "b", repeated(78) + "\x7F|b"},
  };
  for (const auto& [message, pieces] : rows) {
    ZelErrSType error{};
    std::memcpy(error.message, message.data(), message.size());
    std::string expected = "{\n}{" + pieces + "}{\n}{[errmsg.line3g";
    for (std::size_t bar; (bar = expected.find('|')) != std::string::npos;) {
      expected.replace(bar, 1, "}{\n}{");
    }
    EXPECT_NE(report(error, 1, 0, 0).find(expected), std::string::npos) << message;
  }
}

}  // namespace
