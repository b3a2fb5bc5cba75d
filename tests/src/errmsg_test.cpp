#include <povzel/errmsg.h>

#include <malloc.h>
#include <pthread.h>

#include <barrier>

#include <povzel/errutl.h>
#include <povzel/utlheap.h>
#include "messagefile.h"
#include "tests.h"

namespace {

template <typename... Args>
std::string text(const char* symbol, const char* kinds, Args... args) {
  ErrMsgStrType buffer;
  ErrMsgSymToText(symbol, buffer, sizeof buffer, kinds, args...);
  return buffer;
}

std::string repeated(std::size_t count, char c = 'a') {
  return std::string(count, c);
}

struct Catalogue : testing::Test {
  Catalogue() { ErrMsgShutdown(); }

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

// Before any other test: this process has not called it yet.
TEST_F(Catalogue, ManyThreadsMayBeTheFirstToOpenIt) {
  writeFile("test.err", compiledFile({{"m", "m:x\n"}}));
  setenv("TARVOLIN_LANG", "test.err", 1);
  const auto openAndFork = [] {
    alarm(30);
    std::barrier start(8);
    inThreads(8, [&](int) { start.arrive_and_wait(), ErrMsgInit(); });
    return exitCode(inChild([] { return text("m", "") == "x" ? 0 : 1; }));
  };
  for (int i = 0; i < 100 && !HasFailure(); ++i) EXPECT_EQ(exitCode(inChild(openAndFork)), 0);
}

TEST_F(Catalogue, FallbackFormShowsEverything) {
  EXPECT_EQ(text("a.b", "dnosxgoos", -1L, 2L, OopType{4097}, "t", 255UL, 0.5, OopType{31},
                 OopType{0xFFFFFFFF}, static_cast<const char*>(nullptr)),
            "[a.b -1 2 Oop(4097) t 0xff 0.5 SmallInteger(7) SmallInteger(-1) [null]]");
  EXPECT_EQ(text(nullptr, "dddddddddddd", 1L, 2L, 3L, 4L, 5L, 6L, 7L, 8L, 9L, 10L, 11L, 12L),
            "[ 1 2 3 4 5 6 7 8 9 10]");
  ErrMsgSetPanicked(0);
  EXPECT_EQ(text("a", "s", repeated(3000).c_str()), "[a " + repeated(2045));
  // It waits for no stream, not even to tell of an unknown kind.
  EXPECT_EQ(exitCode(inChild([] {
              alarm(30);
              flockfile(stderr);
              std::thread([] { text("a", "?", 1L); }).join();
              return 0;
            })),
            0);
}

TEST_F(Catalogue, TemplatesPlaceTheirArguments) {
  const std::pair<std::string, std::string> rows[] = {
      // entry, what it makes of 5 and "open"
      {"(2 1):%s failed (%d) 50%%", "open failed (5) 50%"},
      {"(2):%s failed (%d)", "open failed (%d)"},
      {"(0 2 3 3):%s %s %8s, %8d.", "[null] open   [null], [null]."},
      {"(1):%d", "[\"%d\" m 5 open]"},
      {"(2):\\n\\t\\r\\f\\v\\b\\q\\\\\\%d\\1018\\00000101\\777", "\n\t\r\f\v\bq\\%dA8A\xFF"},
      {"(2 2):%-2046s%s", "open" + repeated(2042, ' ') + "o"},
      {"(1 2):%.2147483647d", repeated(2047, '0')},
      {"(1 1 2):%-+ 05i|%#hhx|%.2s", "+5   |0x5|op"},
      // What printf must not get
      {"(1 2):%n %s", "5 open"},
      {"(1 2):%*d %1$d", "5 open"},
      {"(2 1):%ls %.*s", "open 5"}};
  for (const auto& [entry, text] : rows) EXPECT_EQ(show(entry, "ds", 5L, "open"), text);
  EXPECT_EQ(show("(1):%.2f", "g", 1.5), "1.50");
  EXPECT_EQ(show("(1 1):%-6s|%6.3s", "s", "größe"), "größe |   grö");
}

TEST_F(Catalogue, GetStringResolvesTwoEscapes) {
  open(compiledFile({{"m", "m (1) : a\\nb\\\\c\\td%d%%\n"}}));
  char* string = ErrMsgGetString("m");
  EXPECT_STREQ(string, " a\nb\\c\\td%d%%");
  UtlFree(string);
  EXPECT_EQ(ErrMsgGetString("n"), nullptr);
}

// "host.m1196" and "host.m2380" have the same hash. The tables are full.
TEST_F(Catalogue, FindsSymbolsInEveryByteOrder) {
  const auto texts = [] {
    std::string shown;
    for (const char* symbol : {"host.m2380", "host.m1196", "x", "y", ""}) shown += text(symbol, "");
    return shown;
  };
  for (const Transform& transform : {littleEndian, bigEndian, Transform{1, 3, 0, 2}}) {
    open(compiledFile({{"host.m1196", "host.m1196:one\n"},
                       {"host.m2380", "host.m2380:two\n"},
                       {"x", "x:three\n"}},
                      transform, 3, true));
    EXPECT_EQ(texts(), "twoonethree[y][]");
  }
  // Without key strings the hash decides, and the entry's symbol shows that it is another one.
  open(compiledFile({{"host.m1196", "host.m1196:one\n"}}));
  EXPECT_EQ(texts(), "[host.m2380]one[x][y][]");
}

TEST_F(Catalogue, PanicAndResetFollowTheFile) {
  show(":x", "");
  writeFile("test.err", compiledFile({{"m", "m:new text\n"}}));
  EXPECT_EQ(text("m", ""), "x") << "it is not read again";
  ErrMsgSetPanicked(1);
  EXPECT_TRUE(ErrMsgReset());
  EXPECT_EQ(text("m", ""), "[m]");
  ErrMsgSetPanicked(0);
  ErrMsgStrType shown;
  const std::size_t allocated = mallinfo2().uordblks;
  ErrMsgSymToText("m", shown, sizeof shown, "");
  EXPECT_EQ(mallinfo2().uordblks, allocated) << "a process with a spoilt heap looks up too";
  EXPECT_STREQ(shown, "new text");
  // A slot beyond the file
  open(compiledFile({{"m", "m:x\n"}}, littleEndian, 1).substr(0, 31));
  EXPECT_EQ(text("m", ""), "[m]");
  EXPECT_TRUE(ErrMsgGetPanicked());
  std::remove(ErrUtlErrFileName);
  EXPECT_FALSE(ErrMsgReset());
}

// What standard error gets of an operation, and what that returns.
std::string said(const std::function<std::string()>& operation) {
  std::string result;
  return printed([&] { result = operation(); }) + result;
}

TEST_F(Catalogue, SaysOnceWhyAFileDoesNotWork) {
  const auto shown = [](const char* symbol = "m") { return text(symbol, ""); };
  const auto shownAfterReset = [&] {
    const std::string closed = ErrMsgReset() ? "" : "closed ";
    return closed + shown();
  };
  const std::string good = compiledFile({{"m", "m:x\n"}});
  const std::string name = fs::absolute("test.err");
  const std::string why = "ErrUtlReset: \"" + name + "\" ";

  open(good);
  ASSERT_EQ(std::system("touch -d 2040-01-01 test.err"), 0);
  EXPECT_EQ(said(shownAfterReset), "x");

  // Even where what was known of the old table still leads to a text of the new file
  writeFile("test.err", std::string(good).replace(16, 1, 1, '\7'));
  EXPECT_EQ(said(shownAfterReset), why + "has another header than when it was opened\n[m]");
  EXPECT_EQ(said(shownAfterReset), "[m]");
  open(good);
  writeFile("test.err", "");
  EXPECT_EQ(said(shownAfterReset), why + "is empty\n[m]");
  EXPECT_EQ(said([&] { return open(good.substr(0, 100)), shownAfterReset(); }),
            why + "ends within its table\n[m]");
  open(good);
  fs::remove(name);
  fs::create_directory(name);
  EXPECT_EQ(said(shownAfterReset), why + "is not a regular file\n[m]");
  fs::remove(name);
  ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
  EXPECT_EQ(said([&] { return ErrMsgInit(), shownAfterReset(); }),
            why + "is a pipe\nErrUtlInit: Unable to use file " + name +
                " as a language file\nclosed [m]");
  fs::remove(name);
  // What never comes to an end, as a terminal does not, is not read.
  setenv("TARVOLIN_LANG", "/dev/zero", 1);
  EXPECT_EQ(said([&] { return ErrMsgInit(), shown(); }),
            "ErrUtlReset: \"/dev/zero\" is not a regular file\n"
            "ErrUtlInit: Unable to use file /dev/zero as a language file\n[m]");

  // Damaged entries and keys
  for (const auto& [bytes, complaint] :
       {std::pair(compiledFile({{"m", "#\n#\n#\nm:x\n"}}),
                  ":  line 0, why am I reading a comment?\n"),
        {compiledFile({{"m", "m (11):x\nm\n"}}), " near line 0: numeral (11) out of range\n"},
        {compiledFile({{"m", ""}}), ": unexpected eof\n"},
        {good.substr(0, 24 + 12 * (HashCStrHash("m") % 8)) + "\xFF\xFF" +
             good.substr(26 + 12 * (HashCStrHash("m") % 8)),
         ": the key of m lies beyond the end\n"}}) {
    open(bytes);
    // Who asks past the mark, or before it is set, gets no further line.
    EXPECT_EQ(said([&] {
                const std::string texts = shown() + (ErrMsgSetPanicked(0), shown());
                return ErrMsgGetString("m") == nullptr ? texts : "";
              }),
              name + complaint + "[m][m]");
  }
}

TEST_F(Catalogue, StreamsGetTheTextAndAreFlushed) {
  show("(1):<%d>\\n", "d", 1L);
  FILE* file = std::fopen("out", "w");
  ErrMsgSymToFileNoTimeStamp("m", file, "d", 7L);
  ErrMsgSymToFile("m", file, "d", 8L);
  const std::string stamped = readFile("out");
  EXPECT_THAT(stamped, Reads("<7>\n[~\n    <8>\n"));
  ErrMsgSymToFile_1("<%s>", file, "one");
  ErrMsgSymToFile_2("<%s %s>", file, "one", repeated(2000).c_str());
  std::fclose(file);
  EXPECT_THAT(readFile("out"), Reads(stamped + "~    <one>~    <one " + repeated(1018)));
}

TEST_F(Catalogue, ThreadsForksAndHandlersShareIt) {
  open(compiledFile({{"m", "m (1) :%d.\n"}}));
  static std::atomic<int> stop, wrong, interrupted;
  stop = wrong = interrupted = 0;
  std::signal(SIGUSR1, [](int) {
    char shown[32];
    ErrMsgSymToText("m", shown, sizeof shown, "d", 7L);
    if (std::strcmp(shown, "7.") != 0 || ErrMsgGetPanicked()) ++wrong;
    ++interrupted;
  });
  std::thread thread([] {
    // Allocates nothing outside the catalogue: not every checking allocator bears a fork then.
    char shown[32], wanted[32];
    for (long i = 0; stop == 0; ++i) {
      ErrMsgSymToText("m", shown, sizeof shown, "d", i);
      std::snprintf(wanted, sizeof wanted, "%ld.", i);
      if (std::strcmp(shown, wanted) != 0 || (i % 16 == 0 && !ErrMsgReset())) ++wrong;
    }
  });
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(exitCode(inChild([] { return ErrMsgReset() && text("m", "d", 1L) == "1." ? 0 : 1; })),
              0);
    ErrMsgInit();  // opening the file anew meanwhile disturbs nobody
    for (const int before = interrupted; interrupted < before + 3; std::this_thread::yield()) {
      pthread_kill(thread.native_handle(), SIGUSR1);
    }
  }
  stop = 1;
  thread.join();
  std::signal(SIGUSR1, SIG_DFL);
  EXPECT_EQ(wrong, 0);
}

TEST_F(Catalogue, ErrorNumbersHaveSymbolsAndTexts) {
  EXPECT_STREQ(ErrMsgNumToSym(2226), "errmsg.invalidErr");
  EXPECT_STREQ(ErrMsgNumToSym(2227), "errmsg.lgcProtcolError");

  open(compiledFile({{"errmsg.rtErrHardBreak", "errmsg.rtErrHardBreak (1) :stop %d\n"}}));
  char buffer[] = "!!!!!!!!!!!!!";
  ErrMsgToTxt(SystemErrCategoryOop, 6004, buffer, 12);
  EXPECT_STREQ(buffer, "stop [null]");
  ErrMsgToTxt(1, 6004, buffer, 8);
  EXPECT_STREQ(buffer, "errmsg.");
}

std::string report(ZelErrSType error, long number, BoolType displayOops, long errors) {
  static std::string printed;
  printed.clear();
  const auto print = [](const char* piece) { printed += piece; };
  const auto printObject = [](ErrMsgPrinterFuncType* printer, OopType oop) {
    printer(("#" + std::to_string(oop)).c_str());
  };
  ErrMsgWriteError(print, printObject, &error, number, displayOops, errors);
  return printed;
}

TEST_F(Catalogue, ReportsErrors) {
  ZelErrSType error{};
  error.category = SystemErrCategoryOop;
  error.context = 77;
  std::strcpy(error.message, (repeated(100) + "\n\n" + repeated(64) + "  b").c_str());
  error.fatal = 1;
  error.argCount = 2;
  error.args[1] = 20;
  EXPECT_EQ(report(error, 2183, 1, 2),
            repeated(53, '-') + "\n[errmsg.line1 2183 2]   [errmsg.line1b]\n" + repeated(80) +
                "\n" + repeated(20) + "\n\n" + repeated(64) +
                " \nb\n"
                "[errmsg.line3f 3613 [errmsg.line3b] 2183][errmsg.line3h 2][errmsg.line3i 77]\n"
                "[errmsg.line4 1]#0\n[errmsg.line4 2]#20\n");
  // Characters are neither cut nor counted byte by byte, as long as all before the end are whole.
  const std::string full = "\nü" + repeated(79), valid = full + "ü";
  for (const auto& [message, shown] : {std::pair(valid, full + "\nü\n"),
                                       {valid + "\xC3", full + "\nü\xC3\n"},
                                       {valid + "\xE2\x82", full + "\nü\xE2\x82\n"},
                                       {valid + "\xE2\xFF", "\nü" + repeated(78) + "\na"}}) {
    std::strcpy(error.message, message.c_str());
    EXPECT_THAT(report(error, 2183, 1, 2), HasSubstr("\n" + shown));
  }
  error.fatal = 0;
  error.argCount = 1000;
  EXPECT_THAT(
      report(error, 2004, 0, 1),
      AllOf(HasSubstr("\n[errmsg.line1a]         [errmsg.line1c]\n"),
            HasSubstr("[errmsg.line3g [errmsg.line3d] 2004]"), EndsWith("[errmsg.line4 10]#0\n")));
}

}  // namespace
