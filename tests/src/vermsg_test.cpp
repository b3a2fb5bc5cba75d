#include <povzel/vermsg.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <povzel/hostinit.h>
#include <povzel/version.h>
#include "child.h"

namespace {

std::string written(const std::function<void(FILE*)>& write) {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  write(stream);
  std::fclose(stream);
  std::string result(text, size);
  std::free(text);
  return result;
}

std::string message(const std::string& text) {
  return written([&](FILE* f) { VerMessage(f, text.c_str()); });
}

std::string framed(const std::string& text) {
  return "| " + text + std::string(75 - text.size(), ' ') + " |\n";
}

const std::string x(std::size_t count, char character = 'x') {
  return std::string(count, character);
}

TEST(VerMsg, DrawsEdges) {
  EXPECT_EQ(written(VerLeadingEdge), " " + x(77, '_') + "\n");
  EXPECT_EQ(written(VerEndEdge), "|" + x(77, '_') + "|\n");
  EXPECT_EQ(written(VerDividerLine), "+" + x(77, '-') + "+\n");
}

TEST(VerMsg, BreaksLinesAtNewLinesAndLateBlanks) {
  EXPECT_EQ(message(""), "|" + x(77, ' ') + "|\n");
  EXPECT_EQ(message("a\n\nb"), framed("a") + framed("") + framed("b"));
  EXPECT_EQ(message("a\n"), framed("a") + framed(""));
  EXPECT_EQ(message(x(75)), framed(x(75)));
  EXPECT_EQ(message(x(76)), "| " + x(76) + "|\n");
  EXPECT_EQ(message(x(77)), "| " + x(77) + "\n");
  // A blank at column 73 stays, one at 74 ends the line.
  EXPECT_EQ(message(x(73) + " y"), framed(x(73) + " y"));
  EXPECT_EQ(message(x(74) + " y"), framed(x(74)) + framed("y"));
  EXPECT_EQ(message(x(74) + "  y"), framed(x(74)) + framed(" y"));
  EXPECT_EQ(message(x(80) + " y"), "| " + x(80) + "\n" + framed("y"));
}

TEST(VerMsg, CentresShortTexts) {
  const auto centered = [](const std::string& text) {
    return written([&](FILE* f) { VerCenteredMessage(f, text.c_str()); });
  };
  EXPECT_EQ(centered("title"), framed(x(35, ' ') + "title"));
  EXPECT_EQ(centered(""), framed(x(37, ' ')));
  EXPECT_EQ(centered(x(73)), framed(" " + x(73)));
  EXPECT_EQ(centered(x(74)), framed(x(74)));
  EXPECT_EQ(centered(x(76)), "| " + x(76) + "|\n");
}

// Without a message file the catalogue shows symbols and arguments, in the order asked for.
TEST(VerMsg, BannerHoldsTheVersionBlock) {
  const ChildResult child = runInChild([] {
    setenv("TARVOLIN_LANG", "/nonexistent", 1);
    setenv("TV_CFTIME", "%m/%d/%Y %r", 1);
    HostInit();
    VerBanner(stdout, "prog", "prog.desc", "9.9", 1);
    VerBanner(stdout, nullptr, "prog.desc", "9.9", 1);
  });
  std::size_t last = 0;
  for (const char* expected :
       {" ____", "[version.name]", "+---", "[version.program prog [prog.desc]]",
        "[version.version 9.9]", "[version.builtfor x86 (Linux 2.6.18-8.el5PAE",
        "[version.runningon ", "MB]", "[version.piddate ", "[version.uids"}) {
    const std::size_t found = child.out.find(expected, last);
    ASSERT_NE(found, std::string::npos) << expected << " in\n" << child.out;
    last = found;
  }
  EXPECT_EQ(child.out.find("|__"), std::string::npos);
}

TEST(Version, AnswersParameters) {
  HostInit();
  struct Case {
    int id;
    BoolType answered;
    VerResultEType kind;
    const char* text;  // null: any
  };
  const Case cases[] = {
      {VER_INFO_CPU_ARCH, 1, VER_STRING_KIND, "i686"},
      {VER_INFO_TV_BUILD_ARCH, 1, VER_STRING_KIND,
       "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)"},
      {VER_INFO_TV_BUILD_DATE, 1, VER_STRING_KIND, "Sun Dec  6 23:23:09 2015"},
      {VER_INFO_TV_IMAGE_KIND, 0, VER_STRING_KIND, ""},
      {VER_INFO_TV_RELEASE, 1, VER_STRING_KIND, "6.7"},
      {VER_INFO_TV_VERSION, 1, VER_STRING_KIND, "6.7"},
      {VER_INFO_OS_NAME, 1, VER_STRING_KIND, "Linux"},
      {VER_INFO_PROCESS_ID, 1, VER_INT_KIND, ""},
      {VER_INFO_PROCESSOR_COUNT, 1, VER_INT_KIND, ""},
      {-1, 0, VER_STRING_KIND, ""},
      {13, 0, VER_STRING_KIND, ""},
  };
  for (const Case& one : cases) {
    VerParamResultSType result;
    std::memset(&result, 'x', sizeof result);
    EXPECT_EQ(VerGetVersionParam(static_cast<VerParamEType>(one.id), &result), one.answered)
        << one.id;
    EXPECT_EQ(result.kind, one.kind) << one.id;
    EXPECT_STREQ(result.stringVal, one.text) << one.id;
    EXPECT_EQ(result.stringVal[299], '\0');
    EXPECT_EQ(result.intVal != 0, one.kind == VER_INT_KIND);
  }
  EXPECT_STREQ(VerTVVersion(), "6.7, Sun Dec  6 23:23:09 2015");
  EXPECT_STREQ(VerDbfVersion(), "6.0A, Sun Dec  6 23:23:09 2015");
  EXPECT_STREQ(VerTrvCallVersion(), VerTVVersion());
}

}  // namespace
