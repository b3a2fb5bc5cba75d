#include <povzel/vermsg.h>

#include <povzel/hostinit.h>
#include <povzel/version.h>
#include "messages/internal.h"
#include "tests.h"

static std::string x(std::size_t count, const std::string& text = "x") {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

// Of a text that is valid UTF-8.
static std::string framed(const std::string& text) {
  const auto columns =
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
  return "| " + text + x(75 - columns, " ") + " |\n";
}

TEST(VerMsg, BreaksLinesCentresAndDrawsEdges) {
  enum { message, centered, edges };
  // To a stream, and past the streams.
  const std::pair<void (*)(FILE*, const char*), void (*)(int, const char*)> writers[] = {
      {VerMessage, verSafeMessage},
      {VerCenteredMessage, verSafeCenteredMessage},
      {[](FILE* f, const char*) { VerLeadingEdge(f), VerEndEdge(f); },
       [](int f, const char*) { verSafeLeadingEdge(f), verSafeEndEdge(f); }}};
  const std::tuple<int, std::string, std::string> cases[] = {
      {message, "a\n\nb\n", framed("a") + framed("") + framed("b") + framed("")},
      {message, x(76), "| " + x(76) + "|\n"},
      // A blank at column 73 stays, one at 74 ends the line.
      {message, x(73) + " y", framed(x(73) + " y")},
      {message, x(74) + "  y", framed(x(74)) + framed(" y")},
      // Characters of 2, 3 and 4 bytes are a column each; with a byte astray, bytes are.
      {message, x(37, "ä€") + " " + x(76, "𝄞"), framed(x(37, "ä€")) + "| " + x(76, "𝄞") + "|\n"},
      {message, "ä\xA4", "| ä\xA4" + x(72, " ") + " |\n"},
      {message, "\xC0\xA0\xED\xA0\x80", "| \xC0\xA0\xED\xA0\x80" + x(70, " ") + " |\n"},
      {message, "\xF4\x90\x80\x80", "| \xF4\x90\x80\x80" + x(71, " ") + " |\n"},
      {centered, x(72, "𝄞"), framed(" " + x(72, "𝄞"))},
      {centered, "title", framed(x(35, " ") + "title")},
      {centered, x(76), "| " + x(76) + "|\n"},
      // Longer than what is written past the streams in one go, and open on the right.
      {message, x(2100), "| " + x(2100) + "\n"},
      {edges, "", " " + x(77, "_") + "\n|" + x(77, "_") + "|\n"}};
  for (const auto& [what, text, frame] : cases) {
    const auto& [toStream, toFile] = writers[what];
    EXPECT_EQ(printed([&, text = text.c_str()] { toStream(stdout, text); }), frame);
    EXPECT_EQ(printed([&, text = text.c_str()] { toFile(STDOUT_FILENO, text); }), frame);
  }
}

// Without a message file the catalogue shows symbols and arguments, in the order asked for.
TEST(VerMsg, BannerHoldsTheVersionBlock) {
  const ChildResult child = runInChild([] {
    setenv("TARVOLIN_LANG", "/nonexistent", 1);
    setenv("TV_DEBUG_LOGIN_USER", "1", 1);
    HostInit();
    VerBanner(stdout, "prog", "prog.desc", ("9.9\nand " + x(69, "ü") + " yy").c_str(), 1);
  });
  EXPECT_THAT(child.out,
              Reads(" " + x(77, "_") + "\n~[version.name]~\n+" + x(77, "-") +
                    "+\n~[version.program prog [prog.desc]]~\n" + framed("[version.version 9.9") +
                    framed("and " + x(69, "ü")) + framed("yy]") +
                    "| [version.builtfor x86 (Linux 2.6.18-8.el5PAE~[version.runningon ~MB]~"
                    "[version.piddate ~[Debug]: ~[version.uids"));
}

TEST(Version, AnswersParameters) {
  HostInit();
  std::string answers;
  for (const int id : {VER_INFO_CPU_ARCH + 0, VER_INFO_TV_BUILD_ARCH + 0, VER_INFO_TV_RELEASE + 0,
                       VER_INFO_OS_NAME + 0, VER_INFO_PROCESS_ID + 0, VER_INFO_PROCESSOR_COUNT + 0,
                       VER_INFO_TV_IMAGE_KIND + 0, -1, 13}) {
    VerParamResultSType result;
    const bool isAnswered = VerGetVersionParam(static_cast<VerParamEType>(id), &result) != 0;
    const bool isText = isAnswered && result.kind != VER_INT_KIND;
    answers += std::string(isText ? result.stringVal : isAnswered ? "number" : "none") + "\n";
  }
  EXPECT_EQ(answers,
            "i686\nx86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)\n6.7\nLinux\nnumber\nnumber\n"
            "none\nnone\nnone\n");
  EXPECT_STREQ(VerTVVersion(), "6.7, Sun Dec  6 23:23:09 2015");
  EXPECT_STREQ(VerDbfVersion(), "6.0A, Sun Dec  6 23:23:09 2015");
}
