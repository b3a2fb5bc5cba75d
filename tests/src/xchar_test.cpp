#include <povzel/xchar.h>

#include <gtest/gtest.h>
#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <povzel/hostdebug.h>
#include <povzel/utlheap.h>
#include <povzel/utltext.h>

namespace {

// Unicode's general categories of the first 256 characters.
constexpr char unicodeCategories[] =
    "CcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCc"
    "ZsPoPoPoScPoPoPoPsPePoSmPoPdPoPoNdNdNdNdNdNdNdNdNdNdPoPoSmSmSmPo"
    "PoLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuPsPoPeSkPc"
    "SkLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlPsSmPeSmCc"
    "CcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCcCc"
    "ZsPoScScScScSoPoSkSoLoPiSmCfSoSkSoSmNoNoSkLlPoPoSkNoLoPfNoNoNoPo"
    "LuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuLuSmLuLuLuLuLuLuLuLl"
    "LlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlLlSmLlLlLlLlLlLlLlLl";

constexpr char categoryNames[] = "??LuLlLtLmLoMnMcMeNdNlNoPcPdPsPePiPfPoSmScSkSoZsZlZpCcCfCsCoCn";

TEST(XChar, CategoriesAreUnicodesButForFour) {
  static_assert(sizeof unicodeCategories == 513 && sizeof categoryNames == 63);
  std::set<int> different;
  for (int code = 0; code < 256; ++code) {
    const char* ours = categoryNames + 2 * XCharCategory(code);
    if (std::memcmp(ours, unicodeCategories + 2 * code, 2) != 0) different.insert(code);
  }
  // The section and paragraph signs are symbols here, the ordinal indicators lower-case letters.
  EXPECT_EQ(different, (std::set<int>{0xA7, 0xAA, 0xB6, 0xBA}));
  EXPECT_EQ(XCharCategory(0xA7), XCharCategorySo);
  EXPECT_EQ(XCharCategory(0xB6), XCharCategorySo);
  EXPECT_EQ(XCharCategory(0xAA), XCharCategoryLl);
  EXPECT_EQ(XCharCategory(0xBA), XCharCategoryLl);
}

TEST(XChar, CaseIsTheCLibrarysButForTwo) {
  const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (locale == nullptr) GTEST_SKIP() << "no Unicode locale";
  std::set<int> differentUpper;
  for (int code = 0; code < 256; ++code) {
    if (XCharUppercase(code) != towupper_l(code, locale)) differentUpper.insert(code);
    EXPECT_EQ(XCharLowercase(code), towlower_l(code, locale)) << code;
    EXPECT_EQ(XCharTitlecase(code), XCharUppercase(code)) << code;
  }
  freelocale(locale);
  // The upper case of these two lies beyond the 256 codes.
  EXPECT_EQ(differentUpper, (std::set<int>{0xB5, 0xFF}));
}

TEST(XChar, Numbers) {
  const std::map<int, std::pair<int, int>> others = {{178, {2, 0}}, {179, {3, 0}}, {185, {1, 0}},
                                                     {188, {1, 4}}, {189, {1, 2}}, {190, {3, 4}}};
  for (int code = 0; code < 256; ++code) {
    std::pair<int, int> expected;
    const int category = XCharCategory(code);
    if (category == XCharCategoryNd) expected = {code - '0', 0};
    if (category == XCharCategoryNo) expected = others.at(code);
    if (category <= XCharCategoryLo) expected = {XCharUppercase(code), XCharLowercase(code)};
    short numerator = -1;
    short denominator = -1;
    XCharNumericData(code, &numerator, &denominator);
    EXPECT_EQ(std::pair(int{numerator}, int{denominator}), expected) << code;
  }
}

TEST(XChar, CollationOrdersLettersByBaseThenCase) {
  std::string order(256, '\0');
  std::set<long> positions;
  for (int code = 0; code < 256; ++code) {
    const long position = XCharCollate(code);
    ASSERT_TRUE(positions.insert(position).second && position >= 0 && position < 256) << code;
    order[position] = static_cast<char>(code);
    EXPECT_EQ(XCharInverseCollate(position), code);
    EXPECT_EQ(XCharCaseInsensitiveCollate(code), XCharCollate(XCharUppercase(code)));
    EXPECT_EQ(XCharIdentity(code), code);
  }
  const std::string letters =
      "A\300\301\302\303\304\305a\252\340\341\342\343\344\345BbC\307c\347Dd"
      "E\310\311\312\313e\350\351\352\353FfGgHhI\314\315\316\317i\354\355\356\357JjKkLlMm"
      "N\321n\361O\322\323\324\325\326o\272\362\363\364\365\366PpQqRrSsTt"
      "U\331\332\333\334u\371\372\373\374VvWwXxY\335y\375\377Zz";
  EXPECT_EQ(order.substr(65, letters.size()), letters);
  EXPECT_EQ(order.substr(241),
            std::string("\xBC\xBD\xBE\xBF\xC6\xE6\xD0\xF0\xD7\xD8\xF8\xDE\xFE\xDF\xF7"));
  std::string rest =
      order.substr(0, 65) + order.substr(65 + letters.size(), 240 - 64 - letters.size());
  const auto byCode = [](char a, char b) {
    return static_cast<unsigned char>(a) < static_cast<unsigned char>(b);
  };
  EXPECT_TRUE(std::is_sorted(rest.begin(), rest.end(), byCode));
}

TEST(XChar, CodesBeyondTheTables) {
  for (const int code : {256, 300, 0x8000, 0xFFFF}) {
    EXPECT_EQ(XCharCategory(code), 30);
    EXPECT_EQ(XCharCollate(code), code + 65536);
    EXPECT_EQ(XCharInverseCollate(code + 65536), code);
    EXPECT_EQ(XCharUppercase(code), code);
    EXPECT_EQ(XCharLowercase(code), code);
    EXPECT_EQ(XCharIdentity(code), code);
    short numerator = -1;
    short denominator = -1;
    XCharNumericData(code, &numerator, &denominator);
    EXPECT_EQ(numerator | denominator, 0);
  }
  for (const long value : {256L, 65536L, -1L, -65537L}) EXPECT_EQ(XCharInverseCollate(value), 0);
}

// A table in memory of the module's, as XCharSetTables wants it.
template <typename Entry>
Entry* tableOf(const std::vector<Entry>& entries) {
  auto* table = static_cast<Entry*>(UtlMalloc(entries.size() * sizeof(Entry), "test"));
  std::copy(entries.begin(), entries.end(), table);
  return table;
}

class XCharInstalled : public testing::Test {
 protected:
  // Codes 0 to 5 at the positions 3, 0, 1, 2, 9 (outside of the four) and 0.
  void SetUp() override {
    XCharSetTables(6, 4, 2, tableOf<unsigned short>({3, 0, 1, 2, 9, 0}),
                   tableOf<unsigned short>({5, 2, 3, 0}), tableOf<ByteType>({9, 1, 2, 6}),
                   tableOf<XCharEntrySType>({{7, 8}, {0, 452}, {452, 0}, {40, 41}}),
                   tableOf<XCharTitleCaseEntrySType>({{452, 453}, {452, 1}}));
  }
  void TearDown() override {
    XCharResetTables();
    EXPECT_EQ(XCharGetTableSize(), 256);
    EXPECT_EQ(XCharTitlecase('a'), 'A');
  }
};

TEST_F(XCharInstalled, AnswersFromTheNewTables) {
  EXPECT_EQ(XCharGetTableSize(), 4);
  EXPECT_EQ(XCharCollate(0), 3);
  EXPECT_EQ(XCharCollate(1), 1 + 65536);  // position 0 is for code 0 alone
  EXPECT_EQ(XCharCollate(2), 1);
  EXPECT_EQ(XCharInverseCollate(0), 5);
  EXPECT_EQ(XCharInverseCollate(4), 0);
  EXPECT_EQ(XCharUppercase(2), 2);  // 0 means unchanged
  EXPECT_EQ(XCharLowercase(2), 452);
  EXPECT_EQ(XCharUppercase(0), 0);  // no letter
  EXPECT_EQ(XCharTitlecase(3), 453);
  EXPECT_EQ(XCharTitlecase(452), 453);
  EXPECT_EQ(XCharTitlecase(2), 2);
  EXPECT_EQ(XCharCaseInsensitiveCollate(3), 452 + 65536);
  short numerator = 0;
  short denominator = 0;
  XCharNumericData(6, &numerator, &denominator);
  EXPECT_EQ(numerator * 100 + denominator, 708);
}

TEST_F(XCharInstalled, PositionsOutsideOfTheMainTablesHaveNoEntry) {
  EXPECT_EQ(XCharCollate(4), 9);
  EXPECT_EQ(XCharCategory(4), XCharCategoryCn);
  EXPECT_EQ(XCharUppercase(4), 4);
}

TEST_F(XCharInstalled, DumpShowsThem) {
  testing::internal::CaptureStdout();
  XCharDumpTables();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\n\nDumping XChar Tables\n\nDispatch Table:  size = 6\n\n"
            "  0:   3  0  1  2  9  0"
            "\n\nMain table:  size = 4\n\n"
            "  0/5:  9  7  8\n  1/2:  1  0  452\n  2/3:  2  452  0\n  3/0:  6  40  41\n"
            "\n\nTitleCase Table:  size = 2\n\n"
            "  452:  453\n  452:  1\n\n\n");
}

TEST(XChar, DumpBreaksRowsAfterTen) {
  testing::internal::CaptureStdout();
  XCharDumpTables();
  const std::string dump = testing::internal::GetCapturedStdout();
  EXPECT_NE(dump.find("\n\n  0:   0  1  2  3  4  5  6  7  8  9\n  10:   10  11"), dump.npos);
  EXPECT_NE(dump.find("\n  250:   156  157  158  168  253  169\n\nMain table:  size = 256\n\n"
                      "  0/0:  26  0  0\n"),
            dump.npos);
  EXPECT_NE(dump.find("\n  72/97:  2  65  97\n"), dump.npos);
  EXPECT_NE(dump.find("\n\n\nTitleCase Table:  size = 0\n\n\n\n"), dump.npos);
}

// Code 0 is a letter here, whose upper case others share.
TEST(XChar, NoTableHidesTheEndOfAString) {
  XCharSetTables(3, 3, 0, tableOf<unsigned short>({0, 1, 2}), tableOf<unsigned short>({0, 1, 2}),
                 tableOf<ByteType>({1, 1, 1}), tableOf<XCharEntrySType>({{7, 0}, {7, 0}, {7, 0}}),
                 nullptr);
  EXPECT_EQ(UtlPartialStrCmp("\1\1", "\2\2"), 0);
  EXPECT_EQ(UtlPartialStrCmp("\1\1", "\2"), 1);
  EXPECT_EQ(UtlPartialStrCmp("\1", "\2\2"), -1);
  XCharResetTables();
}

TEST(XChar, EmptyTablesAnswerForNothing) {
  XCharSetTables(0, 0, 0, tableOf<unsigned short>({0}), tableOf<unsigned short>({0}),
                 tableOf<ByteType>({0}), tableOf<XCharEntrySType>({{1, 1}}), nullptr);
  short numerator = -1;
  short denominator = -1;
  XCharNumericData('1', &numerator, &denominator);
  EXPECT_EQ(numerator | denominator, 0);
  EXPECT_EQ(XCharCollate(0), 65536);
  EXPECT_EQ(XCharUppercase('a'), 'a');
  XCharResetTables();
}

TEST(XChar, ResetKeepsBuiltInTables) {
  noHalt = 1;
  testing::internal::CaptureStdout();
  for (int i = 0; i < 2; ++i) XCharResetTables();
  long sizes[3];
  const unsigned short* dispatch = nullptr;
  const unsigned short* index = nullptr;
  const ByteType* category = nullptr;
  const XCharEntrySType* entry = nullptr;
  const XCharTitleCaseEntrySType* titleCase = nullptr;
  XCharGetTables(&sizes[0], &sizes[1], &sizes[2], &dispatch, &index, &category, &entry, &titleCase);
  EXPECT_EQ(std::vector(sizes, sizes + 3), (std::vector<long>{256, 256, 0}));
  EXPECT_EQ(index[dispatch[97]], 'a');
  EXPECT_EQ(category[dispatch[97]], 2);
  EXPECT_EQ(entry[dispatch[97]].field1, 'A');
  // A program may keep built-in tables beside its own.
  XCharSetTables(1, 256, 0, tableOf<unsigned short>({0}), index, category, entry, titleCase);
  XCharResetTables();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  noHalt = 0;
  EXPECT_EQ(XCharUppercase('a'), 'A');
}

TEST(XChar, SpecialCollation) {
  EXPECT_EQ(XCharSpecialCollate('a'), 0);
  ByteType bytes[] = {9, 200, 7};
  XCharSetupSpecialCollate(bytes, 2, 0);
  EXPECT_EQ(XCharSpecialCollate(1), 200);
  EXPECT_EQ(XCharSpecialCollate(2), 7);
  EXPECT_EQ(XCharSpecialCollate(3), 3);
  // 16-bit entries, at an odd address.
  ByteType words[] = {0, 0x34, 0x12, 0xFF, 0xFF};
  XCharSetupSpecialCollate(words + 1, 1, 1);
  EXPECT_EQ(XCharSpecialCollate(0), 0x1234);
  EXPECT_EQ(XCharSpecialCollate(1), 0xFFFF);
  EXPECT_EQ(XCharSpecialCollate(2), 2);
  XCharSetupSpecialCollate(bytes, -1, 0);
  EXPECT_EQ(XCharSpecialCollate(0), 0);
  EXPECT_EQ(XCharSpecialCollate(4), 4);
  XCharSetupSpecialCollate(nullptr, 2, 0);
  EXPECT_EQ(XCharSpecialCollate('a'), 0);
}

}  // namespace
