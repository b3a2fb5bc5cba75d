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

// Numerator and denominator.
Values numericData(DbChar code) {
  short numerator = -1, denominator = -1;
  XCharNumericData(code, &numerator, &denominator);
  return {numerator, denominator};
}

// The dump shows all that the built-in tables hold: general categories as Unicode has them, but for
// the section and paragraph signs, which are symbols here, and the ordinal indicators, which are
// lower-case letters.
bool tablesAreBuiltIn() {
  const std::string dump = printed(XCharDumpTables);
  const auto* bytes = reinterpret_cast<const unsigned char*>(dump.data());
  return UtlChecksum(bytes, dump.size()) == 0x6900FBFFU;
}

TEST(XChar, BuiltInTablesNeverChange) {
  EXPECT_TRUE(tablesAreBuiltIn());
  // The upper case of 0xB5 and of 0xFF lies beyond the 256 codes.
  const Values letters = {'a', 'A', '7', 0xB5, 0xDE, 0xE0, 0xFF};
  EXPECT_EQ(each(XCharUppercase, letters), (Values{'A', 'A', '7', 0xB5, 0xDE, 0xC0, 0xFF}));
  EXPECT_EQ(each(XCharLowercase, letters), (Values{'a', 'a', '7', 0xB5, 0xFE, 0xE0, 0xFF}));
  EXPECT_EQ(numericData(190), (Values{3, 4}));
  for (int code = 0; code < 256; ++code) {
    EXPECT_EQ(XCharInverseCollate(XCharCollate(code)), code);
    EXPECT_EQ(XCharCaseInsensitiveCollate(code), XCharCollate(XCharUppercase(code)));
  }
  // Codes beyond the tables
  for (auto* same : {XCharUppercase, XCharLowercase, XCharTitlecase}) EXPECT_EQ(same(256), 256);
  EXPECT_EQ(XCharCategory(256), XCharCategoryCn);
  EXPECT_EQ(XCharCollate(0xFFFF), 131071);
  EXPECT_EQ(XCharInverseCollate(131071), 65535);
  EXPECT_EQ(XCharInverseCollate(-65537) | XCharInverseCollate(65536), 0);
  EXPECT_EQ(numericData(300), (Values{0, 0}));
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
             const std::vector<XCharTitleCaseEntrySType>& titles) {
  XCharResetTables();
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
  EXPECT_EQ(each(XCharUppercase, {2, 4}), (Values{2, 4}));
  EXPECT_EQ(each(XCharTitlecase, {2, 3, 452}), (Values{2, 453, 453}));
  EXPECT_EQ(XCharInverseCollate(XCharGetTableSize()), 0);
  EXPECT_EQ(numericData(6), (Values{7, 8}));
  EXPECT_THAT(printed(XCharDumpTables), EndsWith("  452:  453\n  452:  1\n\n\n"));
  // Code 0 is a letter here, whose upper case others share; it ends a string all the same.
  install({0, 1, 2}, {0, 1, 2}, {1, 1, 1}, {{7, 0}, {7, 0}, {7, 0}}, {});
  EXPECT_EQ(UtlPartialStrCmp("\1\1", "\2"), 1);
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
  // A program may keep built-in tables beside its own.
  XCharSetTables(1, 256, 0, tableOf(std::vector{dispatch['a']}), index, category, entry, titleCase);
  EXPECT_EQ(XCharUppercase(0), 'A');
  XCharResetTables();
  EXPECT_TRUE(tablesAreBuiltIn());
}

TEST(XChar, SpecialCollation) {
  ByteType bytes[] = {9, 200, 7};
  XCharSetupSpecialCollate(bytes, 2, 0);
  EXPECT_EQ(each(XCharSpecialCollate, {1, 2, 3}), (Values{200, 7, 3}));
  ByteType words[] = {0, 0x34, 0x12, 0xFF, 0xFF};  // 16-bit entries, at an odd address
  XCharSetupSpecialCollate(words + 1, 1, 1);
  EXPECT_EQ(each(XCharSpecialCollate, {0, 1, 2}), (Values{0x1234, 0xFFFF, 2}));
  XCharSetupSpecialCollate(nullptr, 2, 0);
  EXPECT_EQ(XCharSpecialCollate('a'), 0);
}

}  // namespace
