#include "internal.h"

#include <initializer_list>

namespace {

using CodeTable = std::array<unsigned short, xcharBuiltInSize>;
using CategoryTable = std::array<ByteType, xcharBuiltInSize>;
using EntryTable = std::array<XCharEntrySType, xcharBuiltInSize>;

// Codes in collation order. Accented letters stand with their base letter, upper case before lower;
// letters without one come last.
constexpr CodeTable makeIndexTable() {
  constexpr unsigned char letters[] = {
      64,  65,  192, 193, 194, 195, 196, 197, 97,  170, 224, 225, 226, 227, 228, 229,  //
      66,  98,  67,  199, 99,  231, 68,  100, 69,  200, 201, 202, 203, 101, 232, 233,  //
      234, 235, 70,  102, 71,  103, 72,  104, 73,  204, 205, 206, 207, 105, 236, 237,  //
      238, 239, 74,  106, 75,  107, 76,  108, 77,  109, 78,  209, 110, 241, 79,  210,  //
      211, 212, 213, 214, 111, 186, 242, 243, 244, 245, 246, 80,  112, 81,  113, 82,   //
      114, 83,  115, 84,  116, 85,  217, 218, 219, 220, 117, 249, 250, 251, 252, 86,   //
      118, 87,  119, 88,  120, 89,  221, 121, 253, 255, 90,  122};
  constexpr unsigned char last[] = {187, 188, 189, 190, 191, 198, 230, 208,
                                    240, 215, 216, 248, 222, 254, 223, 247};
  CodeTable table{};
  std::size_t position = 0;
  const auto range = [&](unsigned short from, unsigned short to) {
    while (from <= to) table[position++] = from++;
  };
  range(0, 63);
  for (const unsigned char code : letters) table[position++] = code;
  range(91, 96);
  range(123, 169);
  range(171, 185);
  for (const unsigned char code : last) table[position++] = code;
  return table;
}

constexpr CodeTable inverseOf(const CodeTable& table) {
  CodeTable inverse{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    inverse[table[i]] = static_cast<unsigned short>(i);
  }
  return inverse;
}

constexpr bool isInverse(const CodeTable& table, const CodeTable& inverse) {
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (table[inverse[i]] != i || inverse[table[i]] != i) return false;
  }
  return true;
}

constexpr CategoryTable makeCategoriesByCode() {
  struct Range {
    int first;
    int last;
    XCharCategoryEType category;
  };
  // Later ranges override earlier ones.
  constexpr Range ranges[] = {
      {0, 31, XCharCategoryCc},    {32, 32, XCharCategoryZs},   {33, 126, XCharCategoryPo},
      {'$', '$', XCharCategorySc}, {'(', '(', XCharCategoryPs}, {')', ')', XCharCategoryPe},
      {'+', '+', XCharCategorySm}, {'-', '-', XCharCategoryPd}, {'0', '9', XCharCategoryNd},
      {'<', '>', XCharCategorySm}, {'A', 'Z', XCharCategoryLu}, {'[', '[', XCharCategoryPs},
      {']', ']', XCharCategoryPe}, {'^', '^', XCharCategorySk}, {'_', '_', XCharCategoryPc},
      {'`', '`', XCharCategorySk}, {'a', 'z', XCharCategoryLl}, {'{', '{', XCharCategoryPs},
      {'|', '|', XCharCategorySm}, {'}', '}', XCharCategoryPe}, {'~', '~', XCharCategorySm},
      {127, 159, XCharCategoryCc}, {160, 160, XCharCategoryZs}, {161, 161, XCharCategoryPo},
      {162, 165, XCharCategorySc}, {166, 167, XCharCategorySo}, {168, 168, XCharCategorySk},
      {169, 169, XCharCategorySo}, {170, 170, XCharCategoryLl}, {171, 171, XCharCategoryPi},
      {172, 172, XCharCategorySm}, {173, 173, XCharCategoryCf}, {174, 174, XCharCategorySo},
      {175, 175, XCharCategorySk}, {176, 176, XCharCategorySo}, {177, 177, XCharCategorySm},
      {178, 179, XCharCategoryNo}, {180, 180, XCharCategorySk}, {181, 181, XCharCategoryLl},
      {182, 182, XCharCategorySo}, {183, 183, XCharCategoryPo}, {184, 184, XCharCategorySk},
      {185, 185, XCharCategoryNo}, {186, 186, XCharCategoryLl}, {187, 187, XCharCategoryPf},
      {188, 190, XCharCategoryNo}, {191, 191, XCharCategoryPo}, {192, 222, XCharCategoryLu},
      {215, 215, XCharCategorySm}, {223, 255, XCharCategoryLl}, {247, 247, XCharCategorySm},
  };
  CategoryTable categories{};
  for (const Range& range : ranges) {
    for (int code = range.first; code <= range.last; ++code) categories[code] = range.category;
  }
  return categories;
}

constexpr bool isAmong(unsigned short code, std::initializer_list<unsigned short> codes) {
  for (const unsigned short one : codes) {
    if (one == code) return true;
  }
  return false;
}

// Both letters of a pair hold the same two codes. Five letters have no partner in the set.
constexpr XCharEntrySType letterEntry(unsigned short code) {
  constexpr unsigned short caseBit = 32;
  if (isAmong(code, {170, 181, 186, 223, 255})) return {code, code};
  return {static_cast<std::uint16_t>(code & ~caseBit), static_cast<std::uint16_t>(code | caseBit)};
}

constexpr XCharEntrySType numberEntry(unsigned short code) {
  switch (code) {
    case 178:
      return {2, 0};
    case 179:
      return {3, 0};
    case 185:
      return {1, 0};
    case 188:
      return {1, 4};
    case 189:
      return {1, 2};
    case 190:
      return {3, 4};
    default:
      return {static_cast<std::uint16_t>(code - '0'), 0};
  }
}

constexpr CategoryTable byCode = makeCategoriesByCode();

constexpr CategoryTable makeCategoryTable(const CodeTable& index) {
  CategoryTable table{};
  for (std::size_t i = 0; i < table.size(); ++i) table[i] = byCode[index[i]];
  return table;
}

constexpr EntryTable makeEntryTable(const CodeTable& index) {
  EntryTable table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    const unsigned short code = index[i];
    const ByteType category = byCode[code];
    if (category <= XCharCategoryLo) table[i] = letterEntry(code);
    if (category == XCharCategoryNd || category == XCharCategoryNo) table[i] = numberEntry(code);
  }
  return table;
}

}  // namespace

constexpr CodeTable defaultIndexTable = makeIndexTable();
constexpr CodeTable defaultDispatchTable = inverseOf(defaultIndexTable);
static_assert(isInverse(defaultIndexTable, defaultDispatchTable));
constexpr CategoryTable defaultCategoryTable = makeCategoryTable(defaultIndexTable);
constexpr EntryTable defaultEntryTable = makeEntryTable(defaultIndexTable);
constexpr std::array<XCharTitleCaseEntrySType, 1> defaultTitleCaseTable{};
