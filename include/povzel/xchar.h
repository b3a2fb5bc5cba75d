// Character tables: category, collation, case, numeric value of 8-bit and 16-bit characters.
//
//   XCharUppercase(0xE0);             // 0xC0
//   XCharCollate('a') < XCharCollate('B');
//
// The built-in tables cover the 256 codes of ISO 8859-1. A program may install larger ones, for the
// whole process and before it starts threads that use them: nothing here locks.
//
// The dispatch table gives each code its position, which is its place in the collation order and
// its index into the main tables (index, category and entry table). Codes beyond the dispatch table
// are no letters and no numbers and sort after all others, in code order. A position beyond the
// main tables counts as no entry: its code is unassigned.
#pragma once

#include <povzel/povzeltypes.h>

// The general categories of Unicode, in the standard's order.
POVZEL_ENUM_TYPE(XCharCategoryEType, ByteType);
enum POVZEL_ENUM(XCharCategoryEType, ByteType) {
  XCharCategoryLu = 1,
  XCharCategoryLl,
  XCharCategoryLt,
  XCharCategoryLm,
  XCharCategoryLo,  // the last letter
  XCharCategoryMn,
  XCharCategoryMc,
  XCharCategoryMe,
  XCharCategoryNd,
  XCharCategoryNl,
  XCharCategoryNo,
  XCharCategoryPc,
  XCharCategoryPd,
  XCharCategoryPs,
  XCharCategoryPe,
  XCharCategoryPi,
  XCharCategoryPf,
  XCharCategoryPo,
  XCharCategorySm,
  XCharCategorySc,
  XCharCategorySk,
  XCharCategorySo,
  XCharCategoryZs,
  XCharCategoryZl,
  XCharCategoryZp,
  XCharCategoryCc,
  XCharCategoryCf,
  XCharCategoryCs,
  XCharCategoryCo,
  XCharCategoryCn,  // 30, unassigned
};

// What belongs to a letter or a number; 0 and 0 for others.
typedef struct XCharEntrySType {
  uint16_t field1;  // letters: the upper-case code, 0 for no change; numbers: the numerator
  uint16_t field2;  // letters: the lower-case code, 0 for no change; numbers: the denominator, 0
                    // for a whole number
} XCharEntrySType;
POVZEL_STATIC_ASSERT(sizeof(XCharEntrySType) == 4, "the layout of XCharEntrySType has changed");

// The title case of an upper-case code, where the two differ.
typedef struct XCharTitleCaseEntrySType {
  DbChar index;      // the upper-case code
  DbChar titleCase;  // its title case
} XCharTitleCaseEntrySType;
POVZEL_STATIC_ASSERT(sizeof(XCharTitleCaseEntrySType) == 4,
                     "the layout of XCharTitleCaseEntrySType has changed");

POVZEL_BEGIN_C

// Returns the category of `code` (an XCharCategoryEType).
POVZEL_EXPORT ByteType XCharCategory(DbChar code);

// Returns the position of `code`, or its code + 65536 when it has none. Position 0 is for code 0
// alone.
POVZEL_EXPORT long XCharCollate(DbChar code);

// Returns the code that XCharCollate gives `value` for; 0 if there is none.
POVZEL_EXPORT DbChar XCharInverseCollate(long value);

// Returns `code`.
POVZEL_EXPORT long XCharIdentity(DbChar code);

// Return the case mappings of `code`, which is itself where it has none. Title case is looked up
// for the upper-case code.
POVZEL_EXPORT DbChar XCharUppercase(DbChar code);
POVZEL_EXPORT DbChar XCharLowercase(DbChar code);
POVZEL_EXPORT DbChar XCharTitlecase(DbChar code);

// Returns XCharCollate of XCharUppercase of `code`.
POVZEL_EXPORT long XCharCaseInsensitiveCollate(DbChar code);

// Stores the two fields of the code's entry: the numeric value of a number. A code without an entry
// gets those of position 0.
POVZEL_EXPORT void XCharNumericData(DbChar code, short* numerator, short* denominator);

// Sets the buffer that XCharSpecialCollate looks up: `size` + 1 entries, for the codes 0 to `size`,
// of 16 bits if `isDbChar` is non-zero, else of 8. The caller keeps the buffer and may not free it
// while it is set; null unsets it.
POVZEL_EXPORT void XCharSetupSpecialCollate(const ByteType* buffer, int size, BoolType isDbChar);

// Returns the special buffer's entry for `code`, `code` itself above the buffer's size, 0 without
// a buffer.
POVZEL_EXPORT long XCharSpecialCollate(DbChar code);

// Installs tables and sizes as they are: `dispatchTable` with `dispatchTableSize` entries,
// `indexTable`, `categoryTable` and `entryTable` with `mainTableSize` each, `titleCaseTable` (may
// be null) with `titleCaseTableSize`. The tables come from UtlMalloc and now belong to the module.
// Those in force before are not freed: XCharResetTables first does that.
POVZEL_EXPORT void XCharSetTables(long dispatchTableSize, long mainTableSize,
                                  long titleCaseTableSize, const unsigned short* dispatchTable,
                                  const unsigned short* indexTable, const ByteType* categoryTable,
                                  const XCharEntrySType* entryTable,
                                  const XCharTitleCaseEntrySType* titleCaseTable);

// Stores the sizes and tables in force, which stay the module's.
POVZEL_EXPORT void XCharGetTables(long* dispatchTableSize, long* mainTableSize,
                                  long* titleCaseTableSize, const unsigned short** dispatchTable,
                                  const unsigned short** indexTable, const ByteType** categoryTable,
                                  const XCharEntrySType** entryTable,
                                  const XCharTitleCaseEntrySType** titleCaseTable);

// Goes back to the built-in tables and frees the installed ones with UtlFree, the title-case table
// only when it is not null. With the built-in dispatch table in force nothing is freed, and
// a built-in table among installed ones never is.
POVZEL_EXPORT void XCharResetTables(void);

// Returns the size of the main tables.
POVZEL_EXPORT long XCharGetTableSize(void);

// Prints all tables on standard output and flushes it.
POVZEL_EXPORT void XCharDumpTables(void);

POVZEL_END_C
