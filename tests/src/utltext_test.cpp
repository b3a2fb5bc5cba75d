#include <povzel/utltext.h>

#include <povzel/utlfilename.h>
#include <povzel/utlglob.h>
#include "tests.h"

namespace {

TEST(UtlGlob, Table) {
  const struct {
    const char* pattern;
    std::vector<const char*> matching, others;
  } cases[] = {
      {"[^a-c]x", {"dx", "^x", "\xFFx"}, {"bx", "x", "d"}},
      {"[^b-]x", {"ax", "\x80x"}, {"bx", "zx"}},
      {"[b-]", {"b", "~", "\x7F"}, {"a", "\x80", "-]"}},
      {"[\xFE-\x02]", {"\xFE", "\xFF", "\x01", "\x02"}, {"\x03", "a"}},
      {"[*?\\]", {"*", "?", "\\"}, {"a"}},
      {"[]a]", {}, {"a", "]", "a]", ""}},
      {"[^]*[a-", {}, {"]a", "a", "-"}},
      {"\\[a?\\a\\", {"[a?a\\", "[aba\\"}, {"aba\\", "[aa\\", "[aba"}},
  };
  for (const auto& c : cases) {
    for (const char* text : c.matching) EXPECT_EQ(UtlGlob(c.pattern, text), 1) << c.pattern << text;
    for (const char* text : c.others) EXPECT_EQ(UtlGlob(c.pattern, text), 0) << c.pattern << text;
  }
}

TEST(UtlGlob, ManyStarsTakeNoLonger) {
  std::string pattern;
  for (int i = 0; i < 1000; ++i) pattern += "a*";
  const std::string text(100000, 'a');
  EXPECT_EQ(UtlGlob(pattern.c_str(), text.c_str()), 1);
  EXPECT_EQ(UtlGlob((pattern + "b").c_str(), text.c_str()), 0);
}

TEST(UtlText, PrintsVisiblyOrUnchanged) {
  testing::internal::CaptureStdout();
  UtlPrintVisible(stdout, "");
  UtlPrintVisible(stdout, "a \t\n~\001\032\037\177\200\201\211\212\237\240\301\377");
  UtlPrintVisible(stdout, std::string(5000, '\001').c_str());
  UtlPrintStr("a\001%s\377");
  std::string expected = "a \t\n~^A^Z^_^?!^@!^A!\t!\n!^_! !A!^?";
  for (int i = 0; i < 5000; ++i) expected += "^A";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + "a\001%s\377");
}

TEST(UtlText, CaseOfTheLowSixteenBits) {
  std::vector<int> uppers, lowers;
  for (const int code : {'a' + 0, 'Q' + 0, 0xE0, 0x12345, 0x10061, -1}) {
    uppers.push_back(UtlToUpper(code));
    lowers.push_back(UtlToLower(code));
  }
  EXPECT_EQ(uppers, (std::vector<int>{'A', 'Q', 0xC0, 0x2345, 'A', 0xFFFF}));
  EXPECT_EQ(lowers, (std::vector<int>{'a', 'q', 0xE0, 0x2345, 'a', 0xFFFF}));
}

TEST(UtlText, PartialComparison) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"abc", "ABC", 0},   {"ab", "abc", -1}, {"abd", "abc", 1},    {"", "abc", 1},
      {"", "", 1},         {"abc", "", 1},    {"abc", "ab", 1},     {"aBx", "abc", 1},
      {"\xE0", "\xC0", 1}, {"a", "b", 1},     {"\xE0", "\xE0!", -1}};
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
  const std::pair<int, std::string> cases[] = {{ENOENT, "No such file or directory"},
                                               {-7, "(no message from strerror for -7)"}};
  for (const auto& [number, text] : cases) {
    for (std::size_t size = 0; size < text.size() + 3; ++size) {
      std::string buffer(size + 1, '#');
      errno = 77;
      UtlStrerror(number, buffer.data(), size);
      EXPECT_EQ(errno, 77);
      const std::string written = size > 0 ? text.substr(0, size - 1) + '\0' : "";
      EXPECT_EQ(buffer.substr(0, written.size()) + buffer[size], written + '#');
    }
  }
}

TEST(UtlFileName, Parts) {
  using Parts = std::tuple<long, long, long, std::string>;
  const std::pair<std::string, Parts> cases[] = {{"/tmp/log.txt", {0, 5, 8, "log"}},
                                                 {"log.txt", {7, 0, 3, "log"}},
                                                 {"a.b/c", {0, 4, 5, "c"}},
                                                 {"a.tar.gz", {8, 0, 5, "a.tar"}},
                                                 {"/d/.hidden", {0, 3, 3, ""}},
                                                 {"", {0, 0, 0, ""}},
                                                 {"dir/", {0, 4, 4, ""}},
                                                 {"end.", {4, 0, 3, "end"}}};
  for (const auto& [name, parts] : cases) {
    std::string copy = name;
    char* start = copy.data();
    const long path = UtlFnGetPathPtr(start) - start,
               extension = UtlFnGetExtensionPtr(start) - start;
    EXPECT_EQ(Parts(path, UtlFnGetNamePtr(start) - start, extension, UtlBasename(start)), parts);
  }
}

}  // namespace
