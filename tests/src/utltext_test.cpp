#include <povzel/utltext.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <povzel/utlfilename.h>
#include <povzel/utlglob.h>
#include "slowglob.h"

namespace {

TEST(UtlGlob, Table) {
  const struct {
    const char* pattern;
    std::vector<const char*> matching;
    std::vector<const char*> others;
  } cases[] = {
      {"", {""}, {"a"}},
      {"a*c", {"abc", "ac", "acc", "acbc"}, {"a", "c", "acb"}},
      {"a?c", {"abc", "a?c"}, {"ac", "abbc"}},
      {"*", {"", "a", "*"}, {}},
      {"**?", {"a", "ab"}, {""}},
      {"*ab*ab", {"abab", "xabyab", "ababab"}, {"ab", "aba", "ababx"}},
      {"[^a-c]x", {"dx", "^x", "\xFFx"}, {"bx", "x", "d"}},
      {"[a^]", {"a", "^"}, {"b"}},
      {"[b-]", {"b", "~", "\x7F"}, {"a", "\x80", "-]"}},
      {"[^b-]x", {"ax", "\x80x"}, {"bx", "zx"}},
      {"[\xFE-\x02]", {"\xFE", "\xFF", "\x01", "\x02"}, {"\x03", "a"}},
      {"[z-a]", {}, {"a", "m", "z", "-"}},
      {"[-a]", {"-", "a"}, {"b"}},
      {"[a-c-e]", {"b", "-", "e"}, {"d"}},
      {"[*?\\]", {"*", "?", "\\"}, {"a"}},
      {"[]", {}, {"", "]", "a"}},
      {"[^]", {"]", "a"}, {""}},
      {"[]a]", {}, {"a", "]", "a]"}},
      {"[[]", {"["}, {"]"}},
      {"a*[b", {}, {"ab", "a", "a[b"}},
      {"[a-", {}, {"a", "-"}},
      {"\\*", {"*"}, {"a", "\\*", ""}},
      {"\\[a]", {"[a]"}, {"a"}},
      {"a\\", {"a\\"}, {"a"}},
      {"\\a\\\\", {"a\\"}, {"\\a\\"}},
  };
  for (const auto& c : cases) {
    for (const char* text : c.matching) EXPECT_EQ(UtlGlob(c.pattern, text), 1) << c.pattern << text;
    for (const char* text : c.others) EXPECT_EQ(UtlGlob(c.pattern, text), 0) << c.pattern << text;
  }
}

TEST(UtlGlob, AgreesWithTheSlowMatcher) {
  std::mt19937 random(3);
  const auto pick = [&](const std::string& letters, std::size_t most) {
    std::string text(random() % (most + 1), ' ');
    for (char& c : text) c = letters[random() % letters.size()];
    return text;
  };
  int matches = 0;
  for (int i = 0; i < 100000; ++i) {
    const std::string pattern = pick("aabb**?[]^-\\\xF0", 9);
    const std::string text = pick("aabb-]\\\xF0", 7);
    const bool expected = slowGlob(pattern, text);
    matches += expected ? 1 : 0;
    ASSERT_EQ(UtlGlob(pattern.c_str(), text.c_str()), expected ? 1 : 0) << pattern << " " << text;
  }
  EXPECT_GT(matches, 4000);
}

TEST(UtlGlob, ManyStarsTakeNoLonger) {
  std::string pattern;
  for (int i = 0; i < 1000; ++i) pattern += "a*";
  const std::string text(100000, 'a');
  EXPECT_EQ(UtlGlob(pattern.c_str(), text.c_str()), 1);
  EXPECT_EQ(UtlGlob((pattern + "b").c_str(), text.c_str()), 0);
}

TEST(UtlText, PrintsVisiblyOrUnchanged) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    text += "a \t\n~\001\032\037\177\200\201\211\212\237\240\301\377";
    expected += "a \t\n~^A^Z^_^?!^@!^A!\t!\n!^_! !A!^?";
  }
  testing::internal::CaptureStdout();
  UtlPrintVisible(stdout, "");
  UtlPrintVisible(stdout, text.c_str());
  UtlPrintStr("a\001%s\377");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + "a\001%s\377");
}

TEST(UtlText, CaseOfTheLowSixteenBits) {
  const struct {
    int c, upper, lower;
  } cases[] = {
      {'a', 'A', 'a'},           {'Q', 'Q', 'q'},      {0xE0, 0xC0, 0xE0},    {0x10061, 'A', 'a'},
      {0x12345, 0x2345, 0x2345}, {-1, 0xFFFF, 0xFFFF}, {-32, 0xFFE0, 0xFFE0}, {'1', '1', '1'}};
  for (const auto& c : cases) {
    EXPECT_EQ(UtlToUpper(c.c), c.upper);
    EXPECT_EQ(UtlToLower(c.c), c.lower);
  }
}

TEST(UtlText, PartialComparison) {
  const struct {
    const char* a;
    const char* b;
    int expected;
  } cases[] = {{"abc", "ABC", 0}, {"ab", "abc", -1},   {"abd", "abc", 1},    {"", "abc", 1},
               {"abc", "", 1},    {"", "", 1},         {"abc", "ab", 1},     {"aBx", "abc", 1},
               {"a", "b", 1},     {"\xE0", "\xC0", 1}, {"\xE0", "\xE0!", -1}};
  for (const auto& c : cases) EXPECT_EQ(UtlPartialStrCmp(c.a, c.b), c.expected) << c.a << c.b;
}

TEST(UtlText, BytesCompareUnsignedAtEveryLengthAndPlace) {
  EXPECT_EQ(UtlMemcmp("a", "b", 0), 0);
  for (std::size_t length = 1; length < 200; ++length) {
    const std::vector<char> a(length, '\x7F');
    std::vector<char> b = a;
    EXPECT_EQ(UtlMemcmp(a.data(), b.data(), length), 0);
    for (std::size_t at = 0; at < length; ++at) {
      b[at] = '\x80';
      if (at + 1 < length) b[length - 1] = 0;  // a later, opposite difference
      ASSERT_EQ(UtlMemcmp(a.data(), b.data(), length), -1) << at << " of " << length;
      ASSERT_EQ(UtlMemcmp(b.data(), a.data(), length), 1) << at << " of " << length;
      b = a;
    }
  }
}

TEST(UtlText, ErrorTexts) {
  const struct {
    int number;
    std::string text;
  } cases[] = {{ENOENT, "No such file or directory"},
               {0, "Success"},
               {-7, "(no message from strerror for -7)"},
               {99999, "(no message from strerror for 99999)"}};
  for (const auto& c : cases) {
    for (std::size_t length = 0; length < c.text.size() + 3; ++length) {
      std::vector<char> buffer(length + 1, '#');
      errno = 77;
      UtlStrerror(c.number, buffer.data(), length);
      EXPECT_EQ(errno, 77);
      EXPECT_EQ(buffer[length], '#');
      EXPECT_EQ(length > 0 ? buffer.data() : "", c.text.substr(0, length > 0 ? length - 1 : 0));
    }
  }
}

TEST(UtlFileName, Parts) {
  const struct {
    const char* name;
    std::size_t path, namePart, extension;
    const char* base;
  } cases[] = {
      {"/tmp/log.txt", 0, 5, 8, "log"},
      {"log.txt", 7, 0, 3, "log"},
      {"a.b/c", 0, 4, 5, "c"},
      {"a.tar.gz", 8, 0, 5, "a.tar"},
      {"/d/.hidden", 0, 3, 3, ""},
      {"", 0, 0, 0, ""},
      {"dir/", 0, 4, 4, ""},
      {"end.", 4, 0, 3, "end"},
  };
  for (const auto& c : cases) {
    std::string name = c.name;
    char* start = name.data();
    EXPECT_EQ(UtlFnGetPathPtr(start) - start, static_cast<long>(c.path)) << c.name;
    EXPECT_EQ(UtlFnGetNamePtr(start) - start, static_cast<long>(c.namePart)) << c.name;
    EXPECT_EQ(UtlFnGetExtensionPtr(start) - start, static_cast<long>(c.extension)) << c.name;
    EXPECT_STREQ(UtlBasename(start), c.base) << c.name;
  }
}

}  // namespace
