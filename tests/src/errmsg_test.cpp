#include <povzel/errmsg.h>

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>
#include <thread>
#include <utility>

#include <povzel/errutl.h>
#include <povzel/utlheap.h>
#include "child.h"
#include "messagefile.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

template <typename... Args>
std::string cutText(std::size_t size, const char* symbol, const char* kinds, Args... args) {
  std::string buffer(size + 1, '!');
  ErrMsgSymToText(symbol, buffer.data(), size, kinds, args...);
  EXPECT_EQ(buffer[size], '!') << symbol;
  EXPECT_TRUE(size == 0 || buffer[size - 1] == '\0') << symbol;
  return size == 0 ? "" : buffer.c_str();
}

template <typename... Args>
std::string text(const char* symbol, const char* kinds, Args... args) {
  return cutText(sizeof(ErrMsgStrType), symbol, kinds, args...);
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
  EXPECT_EQ(text("a", "s", std::string(3000, 's').c_str()), "[a " + std::string(2045, 's'));
  const char* whole = "[a.b 12 t]";
  for (std::size_t size = 0; size < 12; ++size) {
    EXPECT_EQ(cutText(size, "a.b", "ds", 12L, "t"), std::string(whole, size > 0 ? size - 1 : 0));
  }
  CaptureStderr();
  EXPECT_EQ(text("a.b", "ds?", 1L, "s", 7L), "[a.b 1 s 7]");
  EXPECT_EQ(GetCapturedStderr(),
            "Unknown argkind in errmsg|buildString\ndesperateErr: Illegal argument ? read\n");
}

TEST_F(Catalogue, TemplatesPlaceTheirArguments) {
  EXPECT_EQ(show("(2 1):%s failed (%d)", "ds", 5L, "open"), "open failed (5)");
  EXPECT_EQ(show(":%s failed (%d)", nullptr), "%s failed (%d)");
  EXPECT_EQ(show("(1 2):%d and %d", "d", 1L), "1 and [null]");
  EXPECT_EQ(show("(1 2):%d and %8d", "d", 1L), "1 and [null]");
  EXPECT_EQ(show("(1 2):%d and %8s.", "d", 1L), "1 and   [null].");
  EXPECT_EQ(show("(0 2):%s %s", "dd", 1L, 2L), "[null] 2");
  EXPECT_EQ(show("(1 1):%s%s%5s", "s", "x"), "xx%5s");
  EXPECT_EQ(show("(1):%d", "dd", 1L, 2L), "[\"%d\" m 1 2]");
  EXPECT_EQ(show(" (1) :", "d", 1L), "");
  EXPECT_EQ(show("(1):%q %", "d", 1L), "%q %");
  EXPECT_EQ(show("(1):%% %%%d%%", "d", 1L), "% %1%");
  EXPECT_EQ(show(":50%%", nullptr), "50%");
  EXPECT_EQ(show(":a\\101b\\\\c", nullptr), "aAb\\c");
  EXPECT_EQ(show(":\\n\\t\\r\\f\\v\\b\\q\\%d\\1018\\00000101\\777", nullptr),
            "\n\t\r\f\v\bq%d\x41"
            "8A\xFF");
  EXPECT_EQ(show(":a\\\\\n", nullptr), "a");
}

TEST_F(Catalogue, KindsMeetDirectives) {
  const struct {
    const char* directive;
    const char* number;  // what each argument is shown as
    const char* real;
    const char* string;
  } rows[] = {
      {"%d", "-42", "1.5", "txt"},
      {"%ld", "-42", "1.5", "txt"},
      {"%5d|", "  -42|", "1.5|", "txt|"},
      {"%-+ 05i|", "-42  |", "1.5|", "txt|"},
      {"%.4d", "-0042", "1.5", "txt"},
      {"%x", "ffffffd6", "1.5", "txt"},
      {"%#X", "0XFFFFFFD6", "1.5", "txt"},
      {"%hhu", "214", "1.5", "txt"},
      {"%lld", "-42", "1.5", "txt"},
      {"%jd", "-42", "1.5", "txt"},
      {"%c", "\xD6", "1.5", "txt"},
      {"%p d", "0xffffffd6 d", "1.5", "txt"},
      {"%.2f", "-42", "1.50", "txt"},
      {"%Lg", "-42", "1.5", "txt"},
      {"%E", "-42", "1.500000E+00", "txt"},
      {"%s", "-42", "1.5", "txt"},
      {"%.2s", "-42", "1.5", "tx"},
      {"%5s", "-42", "1.5", "  txt"},
      {"%ls", "-42", "1.5", "txt"},
      // What printf must not get
      {"%n", "-42", "1.5", "txt"},
      {"%*d", "-42", "1.5", "txt"},
      {"%1$d", "-42", "1.5", "txt"},
      {"%p%s", "-42", "1.5", "txt"},
      {"%k%d", "-42", "1.5", "txt"},
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
  EXPECT_EQ(show("(1):%d", "o", OopType{31}), "SmallInteger(7)");
  CaptureStderr();
  EXPECT_EQ(show("(1):%d", "?", 9L), "9");
  EXPECT_EQ(GetCapturedStderr(),
            "Unknown argkind in errmsg|buildString\nmySprintf: Illegal argument ? read\n");
}

TEST_F(Catalogue, TextsAreCutAtTheirLimits) {
  const std::string longText(3000, 'a');
  EXPECT_EQ(show("(1):%5s", "s", longText.c_str()), longText.substr(0, 2047));
  EXPECT_EQ(show("(1):bb%s", "s", longText.c_str()), "bb" + longText.substr(0, 2045));
  EXPECT_EQ(show("(1 1):%-2046s%s%d", "s", "x"), "x" + std::string(2045, ' ') + "x");
  EXPECT_EQ(show("(1):%9999999d", "d", 5L), std::string(2047, ' '));
  EXPECT_EQ(show("(1):%.2147483647d", "d", 5L), std::string(2047, '0'));
  EXPECT_EQ(show("(1):%-99999999999d|", "d", 5L), "5" + std::string(2046, ' '));
  EXPECT_EQ(show("(1):%.3000f", "g", 0.5), "0.5" + std::string(2044, '0'));
  show("(1):text %d", "d", 5L);
  EXPECT_EQ(cutText(1, "m", "d", 5L), "");
  EXPECT_EQ(cutText(7, "m", "d", 5L), "text 5");
  EXPECT_EQ(cutText(6, "m", "d", 5L), "text ");
}

TEST_F(Catalogue, GetStringResolvesTwoEscapes) {
  open(compiledFile({{"m", "m (1) : a\\nb\\\\c\\td%d%%\n"}}));
  char* string = ErrMsgGetString("m");
  ASSERT_NE(string, nullptr);
  EXPECT_STREQ(string, " a\nb\\c\\td%d%%");
  UtlFree(string);
  EXPECT_EQ(ErrMsgGetString("n"), nullptr);
  EXPECT_EQ(ErrMsgGetString(nullptr), nullptr);
}

// "host.m1196" and "host.m2380" have the same hash. All tables are full but for one slot.
TEST_F(Catalogue, FindsSymbolsInEveryTable) {
  for (const Transform& transform : {littleEndian, bigEndian, Transform{1, 3, 0, 2}}) {
    for (const std::uint32_t tabSize : {4u, 5u, 64u}) {
      open(compiledFile({{"host.m1196", "host.m1196:one\n"},
                         {"host.m2380", "host.m2380:two\n"},
                         {"x", "x:three\n"}},
                        transform, tabSize, true));
      for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(text("host.m1196", ""), "one");
        EXPECT_EQ(text("host.m2380", ""), "two");
        EXPECT_EQ(text("x", ""), "three");
        EXPECT_EQ(text("y", ""), "[y]");
        EXPECT_EQ(text("", ""), "[]");
        EXPECT_EQ(text(std::string(5000, 'y').c_str(), ""), "[" + std::string(2047, 'y'));
      }
      EXPECT_FALSE(ErrMsgGetPanicked());
    }
  }
  // Without key strings the hash decides, and the entry's symbol shows that it is another one.
  open(compiledFile({{"host.m1196", "host.m1196:one\n"}}));
  EXPECT_EQ(text("host.m2380", ""), "[host.m2380]");
  EXPECT_EQ(text("host.m1196", ""), "one");
  EXPECT_FALSE(ErrMsgGetPanicked());
  // A table without an empty slot.
  open(compiledFile({{"a", "a:1\n"}, {"b", "b:2\n"}}, littleEndian, 2));
  EXPECT_EQ(text("a", "") + text("b", "") + text("c", ""), "12[c]");
  EXPECT_FALSE(ErrMsgGetPanicked());
}

TEST_F(Catalogue, DamagedFilesEndInTheFallbackForm) {
  const std::string good =
      compiledFile({{"ab", "ab (1) :x %d\n"}, {"c", "c:y\n"}}, littleEndian, 3, true);
  const auto check = [&](const std::string& bytes, const std::string& what) {
    CaptureStderr();
    open(bytes);
    for (const char* symbol : {"ab", "c", "d"}) {
      const std::string shown = text(symbol, "d", 5L);
      const std::string fallback = "[" + std::string(symbol) + " 5]";
      EXPECT_TRUE(shown == fallback || shown == "x 5" || shown == "[\"y\" c 5]") << what << shown;
    }
    GetCapturedStderr();
  };
  for (std::size_t size = 0; size <= good.size(); ++size) {
    check(good.substr(0, size), "size " + std::to_string(size) + " ");
  }
  for (std::size_t at = 8; at < 20 + 3 * 12; at += 4) {
    for (const std::uint32_t value :
         {1u, 19u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFFu,
          static_cast<std::uint32_t>(good.size()), static_cast<std::uint32_t>(good.size() - 1)}) {
      check(std::string(good).replace(at, 4, stored(value, littleEndian)),
            "value " + std::to_string(value) + " at " + std::to_string(at) + " ");
    }
  }
}

TEST_F(Catalogue, FailedReadsPanicAndMissesDoNot) {
  const std::string good = compiledFile({{"m", "m:x\n"}}, littleEndian, 1);
  const struct {
    std::string bytes;
    bool panics;
  } rows[] = {
      {good, false},
      {good.substr(0, 31), true},                                          // slot
      {std::string(good).replace(24, 4, stored(40, littleEndian)), true},  // key
      {std::string(good).replace(28, 4, stored(99, littleEndian)), true},  // entry
      {std::string(good).replace(32, 4, "#:x\n"), true},
      {std::string(good).replace(32, 4, "m x\n"), true},
      {std::string(good).replace(32, 4, "n:x\n"), false},
      {std::string(good).replace(20, 4, "abcd"), false},
  };
  for (const auto& row : rows) {
    CaptureStderr();
    open(row.bytes);
    EXPECT_EQ(text("m", ""), &row == rows ? "x" : "[m]") << row.bytes;
    EXPECT_EQ(ErrMsgGetPanicked() != 0, row.panics) << row.bytes;
    EXPECT_EQ(ErrMsgReset() != 0, true);
    EXPECT_EQ(ErrMsgGetPanicked() != 0, row.panics) << row.bytes;
    GetCapturedStderr();
  }
}

TEST_F(Catalogue, PanicAndResetFollowTheFile) {
  EXPECT_EQ(show(":x", ""), "x");
  ErrMsgSetPanicked(1);
  EXPECT_EQ(text("m", ""), "[m]");
  char* string = ErrMsgGetString("m");
  EXPECT_STREQ(string, "x");
  UtlFree(string);
  ErrMsgSetPanicked(0);
  EXPECT_EQ(text("m", ""), "x");

  writeFile("test.err", compiledFile({{"m", "m:new text\n"}}));
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
  ASSERT_NE(file, nullptr);
  ErrMsgSymToFileNoTimeStamp("m", file, "d", 7L);
  EXPECT_EQ(readFile("out"), "<7>\n");
  ErrMsgSymToFile("m", file, "d", 8L);
  const std::string stamped = readFile("out").substr(4);
  EXPECT_EQ(stamped[0], '[');
  EXPECT_EQ(stamped.substr(stamped.find('\n')), "\n    <8>\n");
  ErrMsgSymToFile_1("<%s>", file, "one");
  ErrMsgSymToFile_2("<%s>", file, std::string(2000, 'x').c_str(), "unused");
  ErrMsgSymToFile_2("<%s %s>", file, "one", "two");
  EXPECT_EQ(readFile("out").substr(4), stamped);
  std::fclose(file);
  const std::string whole = readFile("out");
  EXPECT_NE(whole.find("    <one>"), std::string::npos);
  EXPECT_NE(whole.find("    <one two>"), std::string::npos);
  EXPECT_NE(whole.find("    <" + std::string(1022, 'x')), std::string::npos);
  EXPECT_EQ(whole.find(std::string(1023, 'x')), std::string::npos);
}

// Allows a process nothing but to leave by SYS_exit.
void forbidSystemCalls() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL),
  };
  const sock_fprog program = {std::size(steps), steps};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    _exit(2);
  }
}

TEST_F(Catalogue, WarmLookupsMakeNoSystemCall) {
  open(compiledFile({{"m", "m (1 2) :%s and %5d\n"}, {"n", "n:x\n"}}, bigEndian, 8, true));
  char buffer[100];
  ErrMsgSymToText("n", buffer, sizeof buffer, "");
  const pid_t child = fork();
  if (child == 0) {
    forbidSystemCalls();
    ErrMsgSymToText("m", buffer, sizeof buffer, "sd", "a", 1L);
    ErrMsgSymToText("n", buffer, sizeof buffer, "");
    ErrMsgSymToText("absent", buffer, sizeof buffer, "d", 1L);
    syscall(SYS_exit, std::strcmp(buffer, "[absent 1]") == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(Catalogue, ThreadsAndForksShareIt) {
  open(compiledFile({{"m", "m (1) :%d.\n"}, {"n", "n:x\n"}}));
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::thread threads[2];
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      // Allocates nothing outside the catalogue: not every checking allocator bears a fork then.
      char shown[32];
      char wanted[32];
      for (long i = 0; !stop; ++i) {
        ErrMsgSymToText("m", shown, sizeof shown, "d", i);
        std::snprintf(wanted, sizeof wanted, "%ld.", i);
        if (std::strcmp(shown, wanted) != 0) ++wrong;
        if (i % 16 == 0 && !ErrMsgReset()) ++wrong;
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    const pid_t child = fork();
    if (child == 0) _exit(ErrMsgReset() && text("n", "") == "x" ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  // Opening the file anew meanwhile disturbs nobody.
  for (int i = 0; i < 50; ++i) ErrMsgInit();
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_FALSE(ErrMsgGetPanicked());
  EXPECT_EQ(text("m", "d", 1L), "1.");
}

TEST(ErrorNumbers, HaveSymbols) {
  const struct {
    long number;
    const char* symbol;
  } rows[] = {{2004, "errmsg.rtErrBadSubscript"},
              {2226, nullptr},
              {2227, "errmsg.lgcProtcolError"},
              {2230, "errmsg.lgcProtcolError"},
              {2234, "errmsg.lgcProtcolError"},
              {2235, nullptr},
              {2317, "errmsg.objErrTime_tOutOfRange"},
              {4149, "errmsg.lgcNetShutdown"},
              {6004, "errmsg.rtErrHardBreak"},
              {0, nullptr},
              {LONG_MIN, nullptr},
              {LONG_MAX, nullptr}};
  for (const auto& row : rows) {
    EXPECT_STREQ(ErrMsgTvErrNumToSym(row.number), row.symbol) << row.number;
    EXPECT_STREQ(ErrMsgNumToSym(row.number), row.symbol ? row.symbol : "errmsg.invalidErr");
  }
}

TEST_F(Catalogue, ErrorNumbersHaveTexts) {
  open(compiledFile({{"errmsg.rtErrHardBreak", "errmsg.rtErrHardBreak (1) :stop %d\n"},
                     {"errmsg.invalidErr", "errmsg.invalidErr:what?\n"}}));
  char buffer[13];
  ErrMsgToTxt(SystemErrCategoryOop, 6004, buffer, sizeof buffer);
  EXPECT_STREQ(buffer, "stop [null]");
  ErrMsgToTxt(SystemErrCategoryOop, 1, buffer, sizeof buffer);
  EXPECT_STREQ(buffer, "what?");
  ErrMsgToTxt(1, 6004, buffer, sizeof buffer);
  EXPECT_STREQ(buffer, "errmsg.userE");
  ErrMsgToTxt(1, 6004, buffer, 1);
  ErrMsgToTxt(1, 6004, buffer + 1, 0);
  EXPECT_EQ(std::string(buffer, 3), std::string("\0rr", 3));
}

std::string printed;
void print(const char* piece) {
  printed += "{" + std::string(piece) + "}";
}
void printObject(ErrMsgPrinterFuncType* printer, OopType oop) {
  printer(("#" + std::to_string(oop)).c_str());
}

std::string report(const ZelErrSType& error, long number, BoolType displayOops, long errors) {
  ZelErrSType copy = error;
  printed.clear();
  ErrMsgWriteError(print, printObject, &copy, number, displayOops, errors);
  return printed;
}

TEST_F(Catalogue, ReportsErrors) {
  const std::string dashes = "{-----------------------------------------------------\n}";
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
  EXPECT_NE(report(error, 1, 0, 0).find("[errmsg.line4 10]"), std::string::npos);
  EXPECT_EQ(report(error, 1, 0, 0).find("[errmsg.line4 11]"), std::string::npos);
  error.argCount = -1;
  EXPECT_EQ(report(error, 1, 0, 0).find("errmsg.line4"), std::string::npos);
}

TEST_F(Catalogue, ReportsWrapTheMessage) {
  const auto as = [](int count) { return std::string(static_cast<std::size_t>(count), 'a'); };
  const struct {
    std::string message;
    std::vector<std::string> pieces;
  } rows[] = {
      {"", {""}},
      {as(80), {as(80)}},
      {as(100), {as(80), as(20)}},
      {"a\n\nb\n", {"a", "", "b", ""}},
      {as(64) + " b", {as(64) + " b"}},
      {as(65) + " b", {as(65), "b"}},
      {as(64) + "  b", {as(64) + " ", "b"}},
      {as(80) + " b", {as(80), "b"}},
      {as(80) + "\nb", {as(80), "b"}},
      {as(79) + "\x01" + "b", {as(79) + "\x01", "b"}},
      {as(77) + "\t\r\ab", {as(77) + "\t\r\a", "b"}},
      {as(78) + "\x7F" + "b", {as(78) + "\x7F", "b"}},
      {std::string(401, 'a'), {as(80), as(80), as(80), as(80), as(80), "a"}},
  };
  for (const auto& row : rows) {
    ZelErrSType error{};
    std::memcpy(error.message, row.message.data(), row.message.size());
    const std::string whole = report(error, 1, 0, 0);
    std::string pieces = "{\n}";
    for (const std::string& piece : row.pieces) pieces += "{" + piece + "}{\n}";
    EXPECT_NE(whole.find(pieces + "{[errmsg.line3g"), std::string::npos) << whole;
  }
}

}  // namespace
