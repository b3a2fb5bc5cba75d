#include <povzel/xchar.h>

#include <povzel/utlchecksum.h>
#include <povzel/utlheap.h>
#include <povzel/utltext.h>
#include "tests.h"

namespace {

using Values = std::vector<long>;

// What `function` makes of each of the codes.
template <typename Result>
Values each(Result (*function)(DbChar), const Values& codes) {
  Values values;
  for (const long code : codes) values.push_back(function(static_cast<DbChar>(code)));
  return values;
}

// Numerator and denominator of each of the codes.
Values numericData(const Values& codes) {
  Values values;
  for (const long code : codes) {
    short numerator = -1, denominator = -1;
    XCharNumericData(static_cast<DbChar>(code), &numerator, &denominator);
    values.insert(values.end(), {numerator, denominator});
  }
  return values;
}

std::string dumpOfTables() {
  testing::internal::CaptureStdout();
  XCharDumpTables();
  return testing::internal::GetCapturedStdout();
}

// The dump shows all that the built-in tables hold: general categories as Unicode has them, but for
// the section and paragraph signs, which are symbols here, and the ordinal indicators, which are
// lower-case letters.
bool tablesAreBuiltIn() {
  const std::string dump = dumpOfTables();
  const auto* bytes = reinterpret_cast<const unsigned char*>(dump.data());
  return UtlChecksum(bytes, dump.size()) == 0x6900FBFFU;
}

TEST(XChar, BuiltInTablesNeverChange) {
  EXPECT_TRUE(tablesAreBuiltIn());
  EXPECT_EQ(each(XCharCategory, {'A', 'a', '7', '_', '+', 0xA7, 0xBA}),
            (Values{XCharCategoryLu, XCharCategoryLl, XCharCategoryNd, XCharCategoryPc,
                    XCharCategorySm, XCharCategorySo, XCharCategoryLl}));
  // The upper case of 0xB5 and of 0xFF lies beyond the 256 codes.
  const Values letters = {'a', 'A', '7', 0xB5, 0xDE, 0xE0, 0xFF};
  EXPECT_EQ(each(XCharUppercase, letters), (Values{'A', 'A', '7', 0xB5, 0xDE, 0xC0, 0xFF}));
  EXPECT_EQ(each(XCharLowercase, letters), (Values{'a', 'a', '7', 0xB5, 0xFE, 0xE0, 0xFF}));
  EXPECT_EQ(numericData({'7', 185, 190, 'a', '-'}), (Values{7, 0, 1, 0, 3, 4, 'A', 'a', 0, 0}));
}

TEST(XChar, CollationOrdersLettersByBaseThenCase) {
  std::string order(256, '\0');
  for (int code = 0; code < 256; ++code) {
    const long position = XCharCollate(code);
    order.at(static_cast<std::size_t>(position)) = static_cast<char>(code);
    EXPECT_EQ(XCharInverseCollate(position), code);
    EXPECT_EQ(XCharCaseInsensitiveCollate(code), XCharCollate(XCharUppercase(code)));
  }
  EXPECT_EQ(order.substr(65, 107),
            "A\300\301\302\303\304\305a\252\340\341\342\343\344\345BbC\307c\347Dd"
            "E\310\311\312\313e\350\351\352\353FfGgHhI\314\315\316\317i\354\355\356\357JjKkLlMm"
            "N\321n\361O\322\323\324\325\326o\272\362\363\364\365\366PpQqRrSsTt"
            "U\331\332\333\334u\371\372\373\374VvWwXxY\335y\375\377Zz");
}

TEST(XChar, CodesBeyondTheTables) {
  const Values codes = {256, 300, 0x8000, 0xFFFF};
  EXPECT_EQ(each(XCharCategory, codes), Values(4, XCharCategoryCn));
  for (auto* same : {XCharUppercase, XCharLowercase, XCharTitlecase})
    EXPECT_EQ(each(same, codes), codes);
  EXPECT_EQ(each(XCharIdentity, codes), codes);
  EXPECT_EQ(each(XCharCollate, codes), (Values{65792, 65836, 98304, 131071}));
  EXPECT_EQ(numericData({300}), (Values{0, 0}));
  Values inverse;
  for (const long value : {65792L, 131071L, 256L, 65536L, -1L, -65537L})
    inverse.push_back(XCharInverseCollate(value));
  EXPECT_EQ(inverse, (Values{256, 65535, 0, 0, 0, 0}));
}

// A table in memory of the module's, as XCharSetTables wants it.
template <typename Entry>
Entry* tableOf(const std::vector<Entry>& entries) {
  auto* table = static_cast<Entry*>(UtlMalloc(entries.size() * sizeof(Entry), "test"));
  std::copy(entries.begin(), entries.end(), table);
  return table;
}

void install(const std::vector<unsigned short>& dispatch, const std::vector<unsigned short>& index,
             const std::vector<ByteType>& categories, const std::vector<XCharEntrySType>& entries,
             const std::vector<XCharTitleCaseEntrySType>& titles = {}) {
  XCharSetTables(static_cast<long>(dispatch.size()), static_cast<long>(index.size()),
                 static_cast<long>(titles.size()), tableOf(dispatch), tableOf(index),
                 tableOf(categories), tableOf(entries), titles.empty() ? nullptr : tableOf(titles));
}

// Codes 0 to 5 are at the positions 3, 0, 1, 2, 9 (which has no entry) and 0.
TEST(XChar, InstalledTablesAnswer) {
  install({3, 0, 1, 2, 9, 0}, {5, 2, 3, 0}, {9, 1, 2, 6}, {{7, 8}, {0, 452}, {452, 0}, {40, 41}},
          {{452, 453}, {452, 1}});
  // Position 0 is for code 0 alone; 0 in an entry means unchanged.
  EXPECT_EQ(each(XCharCollate, {0, 1, 2, 4}), (Values{3, 65537, 1, 9}));
  EXPECT_EQ(each(XCharUppercase, {0, 2, 4}), (Values{0, 2, 4}));
  EXPECT_EQ(each(XCharLowercase, {2, 3}), (Values{452, 3}));
  EXPECT_EQ(each(XCharTitlecase, {2, 3, 452}), (Values{2, 453, 453}));
  EXPECT_EQ(each(XCharCaseInsensitiveCollate, {3}), (Values{65988}));
  EXPECT_EQ(each(XCharCategory, {4}), (Values{XCharCategoryCn}));
  EXPECT_EQ(XCharInverseCollate(0), 5);
  EXPECT_EQ(XCharInverseCollate(XCharGetTableSize()), 0);
  EXPECT_EQ(numericData({6}), (Values{7, 8}));
  EXPECT_EQ(dumpOfTables(),
            "\n\nDumping XChar Tables\n\nDispatch Table:  size = 6\n\n"
            "  0:   3  0  1  2  9  0\n\nMain table:  size = 4\n\n"
            "  0/5:  9  7  8\n  1/2:  1  0  452\n  2/3:  2  452  0\n  3/0:  6  40  41\n"
            "\n\nTitleCase Table:  size = 2\n\n  452:  453\n  452:  1\n\n\n");
  // Code 0 is a letter here, whose upper case others share; it ends a string all the same.
  XCharResetTables();
  install({0, 1, 2}, {0, 1, 2}, {1, 1, 1}, {{7, 0}, {7, 0}, {7, 0}});
  EXPECT_EQ(UtlPartialStrCmp("\1\1", "\2\2"), 0);
  EXPECT_EQ(UtlPartialStrCmp("\1\1", "\2"), 1);
  EXPECT_EQ(UtlPartialStrCmp("\1", "\2\2"), -1);
  // Empty tables answer for nothing.
  XCharResetTables();
  install({}, {}, {}, {{1, 1}});
  EXPECT_EQ(numericData({'1'}), (Values{0, 0}));
  EXPECT_EQ(XCharCollate(0), 65536);
  EXPECT_EQ(XCharUppercase('a'), 'a');
  XCharResetTables();
}

TEST(XChar, ResetKeepsBuiltInTables) {
  for (int i = 0; i < 2; ++i) XCharResetTables();
  Values sizes(3);
  const unsigned short *dispatch, *index;
  const ByteType* category;
  const XCharEntrySType* entry;
  const XCharTitleCaseEntrySType* titleCase;
  XCharGetTables(&sizes[0], &sizes[1], &sizes[2], &dispatch, &index, &category, &entry, &titleCase);
  EXPECT_EQ(sizes, (Values{256, 256, 0}));
  // A program may keep built-in tables beside its own.
  XCharSetTables(1, 256, 0, tableOf(std::vector{dispatch['a']}), index, category, entry, titleCase);
  EXPECT_EQ((Values{XCharUppercase(0), XCharCategory(0), XCharInverseCollate(XCharCollate(0))}),
            (Values{'A', XCharCategoryLl, 'a'}));
  XCharResetTables();
  EXPECT_TRUE(tablesAreBuiltIn());
}

TEST(XChar, SpecialCollation) {
  EXPECT_EQ(XCharSpecialCollate('a'), 0);
  ByteType bytes[] = {9, 200, 7};
  XCharSetupSpecialCollate(bytes, 2, 0);
  EXPECT_EQ(each(XCharSpecialCollate, {1, 2, 3}), (Values{200, 7, 3}));
  ByteType words[] = {0, 0x34, 0x12, 0xFF, 0xFF};  // 16-bit entries, at an odd address
  XCharSetupSpecialCollate(words + 1, 1, 1);
  EXPECT_EQ(each(XCharSpecialCollate, {0, 1, 2}), (Values{0x1234, 0xFFFF, 2}));
  XCharSetupSpecialCollate(bytes, -1, 0);
  EXPECT_EQ(XCharSpecialCollate(4), 4);
  XCharSetupSpecialCollate(nullptr, 2, 0);
  EXPECT_EQ(XCharSpecialCollate('a'), 0);
}

}  // namespace
