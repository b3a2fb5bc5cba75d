#include <povzel/vermsg.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include <povzel/hostinit.h>
#include <povzel/version.h>
#include "process.h"
#include "reads.h"

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

std::string x(std::size_t count, char character = 'x') {
  return std::string(count, character);
}

std::string framed(const std::string& text) {
  return "| " + text + x(75 - text.size(), ' ') + " |\n";
}

TEST(VerMsg, DrawsEdges) {
  EXPECT_EQ(written(VerLeadingEdge), " " + x(77, '_') + "\n");
  EXPECT_EQ(written(VerEndEdge), "|" + x(77, '_') + "|\n");
  EXPECT_EQ(written(VerDividerLine), "+" + x(77, '-') + "+\n");
}

TEST(VerMsg, BreaksLinesAndCentres) {
  const std::tuple<void (*)(FILE*, const char*), std::string, std::string> cases[] = {
      {VerMessage, "", "|" + x(77, ' ') + "|\n"},
      {VerMessage, "a\n\nb", framed("a") + framed("") + framed("b")},
      {VerMessage, "a\n", framed("a") + framed("")},
      {VerMessage, x(75), framed(x(75))},
      {VerMessage, x(76), "| " + x(76) + "|\n"},
      {VerMessage, x(77), "| " + x(77) + "\n"},
      // A blank at column 73 stays, one at 74 ends the line.
      {VerMessage, x(73) + " y", framed(x(73) + " y")},
      {VerMessage, x(74) + " y", framed(x(74)) + framed("y")},
      {VerMessage, x(74) + "  y", framed(x(74)) + framed(" y")},
      {VerMessage, x(80) + " y", "| " + x(80) + "\n" + framed("y")},
      {VerCenteredMessage, "title", framed(x(35, ' ') + "title")},
      {VerCenteredMessage, "", framed(x(37, ' '))},
      {VerCenteredMessage, x(73), framed(" " + x(73))},
      {VerCenteredMessage, x(74), framed(x(74))},
      {VerCenteredMessage, x(76), "| " + x(76) + "|\n"},
  };
  for (const auto& [write, text, frame] : cases) {
    EXPECT_EQ(written([write = write, text = text](FILE* f) { write(f, text.c_str()); }), frame);
  }
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
  EXPECT_THAT(child.out,
              Reads(" ____~[version.name]~+---~[version.program prog [prog.desc]]~[version.version "
                    "9.9]~[version.builtfor x86 (Linux 2.6.18-8.el5PAE~[version.runningon ~MB]~"
                    "[version.piddate ~[version.uids"));
  EXPECT_EQ(child.out.find("|__"), std::string::npos);
}

TEST(Version, AnswersParameters) {
  HostInit();
  const char* const none = "x";
  const std::pair<int, const char*> texts[] = {
      {VER_INFO_CPU_ARCH, "i686"},
      {VER_INFO_TV_BUILD_ARCH, "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)"},
      {VER_INFO_TV_BUILD_DATE, "Sun Dec  6 23:23:09 2015"},
      {VER_INFO_TV_RELEASE, "6.7"},
      {VER_INFO_TV_VERSION, "6.7"},
      {VER_INFO_OS_NAME, "Linux"},
      {VER_INFO_PROCESS_ID, ""},
      {VER_INFO_PROCESSOR_COUNT, ""},
      {VER_INFO_TV_IMAGE_KIND, none},
      {-1, none},
      {13, none},
  };
  for (const auto& [id, text] : texts) {
    SCOPED_TRACE(id);
    const bool isInt = id == VER_INFO_PROCESS_ID || id == VER_INFO_PROCESSOR_COUNT;
    VerParamResultSType result;
    std::memset(&result, 'x', sizeof result);
    EXPECT_EQ(VerGetVersionParam(static_cast<VerParamEType>(id), &result), text != none);
    EXPECT_EQ(result.kind, isInt ? VER_INT_KIND : VER_STRING_KIND);
    EXPECT_STREQ(result.stringVal, text != none ? text : "");
    EXPECT_EQ(result.stringVal[299], '\0');
    EXPECT_EQ(result.intVal != 0, isInt);
  }
  EXPECT_STREQ(VerTVVersion(), "6.7, Sun Dec  6 23:23:09 2015");
  EXPECT_STREQ(VerDbfVersion(), "6.0A, Sun Dec  6 23:23:09 2015");
  EXPECT_STREQ(VerTrvCallVersion(), VerTVVersion());
}

}  // namespace
