#include <povzel/vermsg.h>

#include <povzel/hostinit.h>
#include <povzel/version.h>
#include "tests.h"

namespace {

std::string x(std::size_t count, char character = 'x') {
  return std::string(count, character);
}

std::string framed(const std::string& text) {
  return "| " + text + x(75 - text.size(), ' ') + " |\n";
}

TEST(VerMsg, BreaksLinesCentresAndDrawsEdges) {
  const std::tuple<void (*)(FILE*, const char*), std::string, std::string> cases[] = {
      {VerMessage, "a\n\nb\n", framed("a") + framed("") + framed("b") + framed("")},
      {VerMessage, x(76), "| " + x(76) + "|\n"},
      // A blank at column 73 stays, one at 74 ends the line.
      {VerMessage, x(73) + " y", framed(x(73) + " y")},
      {VerMessage, x(74) + "  y", framed(x(74)) + framed(" y")},
      {VerCenteredMessage, "title", framed(x(35, ' ') + "title")},
      {VerCenteredMessage, x(76), "| " + x(76) + "|\n"},
      {[](FILE* f, const char*) { VerEndEdge(f); }, "", "|" + x(77, '_') + "|\n"}};
  for (const auto& [write, text, frame] : cases) {
    testing::internal::CaptureStdout();
    write(stdout, text.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), frame);
  }
}

// Without a message file the catalogue shows symbols and arguments, in the order asked for.
TEST(VerMsg, BannerHoldsTheVersionBlock) {
  const ChildResult child = runInChild([] {
    setenv("TARVOLIN_LANG", "/nonexistent", 1);
    HostInit();
    VerBanner(stdout, "prog", "prog.desc", "9.9", 1);
  });
  EXPECT_THAT(child.out,
              Reads(" " + x(77, '_') + "\n~[version.name]~\n+" + x(77, '-') +
                    "+\n~[version.program prog [prog.desc]]~[version.version 9.9]~"
                    "[version.builtfor x86 (Linux 2.6.18-8.el5PAE~[version.runningon ~MB]~"
                    "[version.piddate ~[version.uids"));
}

// The text that answers the query, or of what kind the answer is.
std::string answerTo(int id) {
  VerParamResultSType result;
  std::memset(&result, 'x', sizeof result);
  if (VerGetVersionParam(static_cast<VerParamEType>(id), &result) == 0) return "none\n";
  return (result.kind == VER_INT_KIND ? "number" : std::string(result.stringVal)) + "\n";
}

TEST(Version, AnswersParameters) {
  HostInit();
  std::string answers;
  for (const int id :
       {VER_INFO_CPU_ARCH, VER_INFO_TV_BUILD_ARCH, VER_INFO_TV_BUILD_DATE, VER_INFO_TV_RELEASE,
        VER_INFO_OS_NAME, VER_INFO_PROCESS_ID, VER_INFO_PROCESSOR_COUNT, VER_INFO_TV_IMAGE_KIND}) {
    answers += answerTo(id);
  }
  EXPECT_EQ(answers + answerTo(-1) + answerTo(13),
            "i686\nx86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)\nSun Dec  6 23:23:09 2015\n"
            "6.7\nLinux\nnumber\nnumber\nnone\nnone\nnone\n");
  EXPECT_STREQ(VerTVVersion(), "6.7, Sun Dec  6 23:23:09 2015");
  EXPECT_STREQ(VerDbfVersion(), "6.0A, Sun Dec  6 23:23:09 2015");
}

}  // namespace
