#include <povzel/utltext.h>

#include <povzel/utlfilename.h>
#include <povzel/utlglob.h>
#include "tests.h"

TEST(UtlGlob, ReachesTheLastOfASetAndOfAPattern) {
  EXPECT_TRUE(UtlGlob("[b-]", "\x7F") && UtlGlob("a\\", "a\\"));
}

TEST(UtlGlob, ManyStarsTakeNoLonger) {
  std::string pattern;
  for (int i = 0; i < 1000; ++i) pattern += "a*";
  const std::string text(100000, 'a');
  EXPECT_EQ(UtlGlob(pattern.c_str(), text.c_str()), 1);
  EXPECT_EQ(UtlGlob((pattern + "b").c_str(), text.c_str()), 0);
}

TEST(UtlText, PrintsVisiblyOrUnchanged) {
  std::string expected = "a \t\n~^A^Z^_^?!^@!^A!\t!\n!^_! !A!^?";
  for (int i = 0; i < 5000; ++i) expected += "^A";
  const auto print = [] {
    UtlPrintVisible(stdout, "");
    UtlPrintVisible(stdout, "a \t\n~\001\032\037\177\200\201\211\212\237\240\301\377");
    UtlPrintVisible(stdout, std::string(5000, '\001').c_str());
    UtlPrintStr("a\001%s\377");
  };
  EXPECT_EQ(printed(print), expected + "a\001%s\377");
}

TEST(UtlText, CaseAndPartialComparison) {
  EXPECT_EQ(UtlToUpper(0x100E0), 0xC0);
  EXPECT_EQ(UtlToLower(0x10051), 'q');
  EXPECT_EQ(UtlToLower(-1), 0xFFFF);
  const std::tuple<const char*, const char*, int> cases[] = {
      {"abc", "ABC", 0}, {"ab", "abc", -1}, {"abd", "abc", 1},   {"", "abc", 1},
      {"abc", "", 1},    {"abc", "ab", 1},  {"\xE0", "\xC0", 1}, {"\xE0", "\xE0!", -1}};
  for (const auto& [a, b, expected] : cases) EXPECT_EQ(UtlPartialStrCmp(a, b), expected) << a << b;
}

TEST(UtlText, BytesCompareUnsignedAtEveryLengthAndPlace) {
  EXPECT_EQ(UtlMemcmp("a", "b", 0), 0);
  for (std::size_t length = 1; length < 200; ++length) {
    const std::vector<char> a(length, '\x7F');
    EXPECT_EQ(UtlMemcmp(a.data(), std::vector(a).data(), length), 0);
    for (std::size_t at = 0; at < length; ++at) {
      std::vector<char> b = a;
      b.back() = 0;  // a later, opposite difference
      b[at] = '\x80';
      ASSERT_EQ(UtlMemcmp(a.data(), b.data(), length), -1) << at << " of " << length;
      ASSERT_EQ(UtlMemcmp(b.data(), a.data(), length), 1) << at << " of " << length;
    }
  }
}

TEST(UtlText, ErrorTexts) {
  char buffer[40];
  errno = 77;
  UtlStrerror(ENOENT, buffer, 5);
  EXPECT_STREQ(buffer, "No s");
  UtlStrerror(-7, buffer, sizeof buffer);
  EXPECT_STREQ(buffer, "(no message from strerror for -7)");
  EXPECT_EQ(errno, 77);
}

TEST(UtlFileName, Parts) {
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      // whole, name, extension, base name
      {"/tmp/log.tar.gz", "log.tar.gz", ".gz", "log.tar"},
      {"log.txt", "log.txt", ".txt", "log"},
      {"a.b/c", "c", "", "c"},
      {"/d/.hidden", ".hidden", ".hidden", ""}};
  for (auto [whole, name, extension, base] : cases) {
    EXPECT_EQ(UtlFnGetNamePtr(whole.data()), name);
    EXPECT_EQ(UtlFnGetExtensionPtr(whole.data()), extension);
    EXPECT_EQ(UtlFnGetPathPtr(whole.data()), whole.find('/') < whole.size() ? whole : "");
    EXPECT_EQ(UtlBasename(whole.data()), base);
  }
}
