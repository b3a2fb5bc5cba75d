#include <povzel/xchar.h>

#include <cstdio>
#include <cstring>

#include <povzel/utlheap.h>
#include "internal.h"

namespace {

constexpr long noPosition = -1;
constexpr long beyondTables = 65536;

const unsigned short* XCharDispatchTable = defaultDispatchTable.data();
const unsigned short* XCharIndexTable = defaultIndexTable.data();
const ByteType* XCharCategoryTable = defaultCategoryTable.data();
const XCharEntrySType* XCharEntryTable = defaultEntryTable.data();
const XCharTitleCaseEntrySType* XCharTitleCaseTable = defaultTitleCaseTable.data();
long XCharDispatchTableSize = xcharBuiltInSize;
long XCharTableSize = xcharBuiltInSize;
long XCharTitleCaseTableSize = 0;

const ByteType* specialCollateBuffer = nullptr;
int specialCollateBufferSize = 0;
BoolType specialCollateBufferIsDbChar = 0;

// The index of `code` into the main tables.
long positionOf(DbChar code) {
  if (code >= XCharDispatchTableSize) return noPosition;
  const long position = XCharDispatchTable[code];
  return position < XCharTableSize ? position : noPosition;
}

// The entry of `code` if it is a letter, else null.
const XCharEntrySType* letterEntry(DbChar code) {
  const long position = positionOf(code);
  if (position == noPosition || XCharCategoryTable[position] > XCharCategoryLo) return nullptr;
  return XCharEntryTable + position;
}

void dumpDispatchTable() {
  constexpr long perRow = 10;
  std::printf("Dispatch Table:  size = %ld\n\n", XCharDispatchTableSize);
  for (long code = 0; code < XCharDispatchTableSize; ++code) {
    if (code % perRow == 0) std::printf("  %ld: ", code);
    std::printf("  %d", XCharDispatchTable[code]);
    if (code % perRow == perRow - 1) std::putchar('\n');
  }
}

void dumpMainTable() {
  std::printf("\n\nMain table:  size = %ld\n\n", XCharTableSize);
  for (long i = 0; i < XCharTableSize; ++i) {
    std::printf("  %ld/%d:  %d  %d  %d\n", i, XCharIndexTable[i], XCharCategoryTable[i],
                XCharEntryTable[i].field1, XCharEntryTable[i].field2);
  }
}

void dumpTitleCaseTable() {
  std::printf("\n\nTitleCase Table:  size = %ld\n\n", XCharTitleCaseTableSize);
  for (long i = 0; i < XCharTitleCaseTableSize; ++i) {
    const XCharTitleCaseEntrySType& pair = XCharTitleCaseTable[i];
    std::printf("  %d:  %d\n", pair.index, pair.titleCase);
  }
}

template <typename Entry>
void freeUnless(const Entry* table, const Entry* builtIn) {
  if (table != builtIn) UtlFree(table);
}

void freeInstalledTables() {
  if (XCharDispatchTable == defaultDispatchTable.data()) return;
  UtlFree(XCharDispatchTable);
  freeUnless(XCharIndexTable, defaultIndexTable.data());
  freeUnless(XCharCategoryTable, defaultCategoryTable.data());
  freeUnless(XCharEntryTable, defaultEntryTable.data());
  if (XCharTitleCaseTable != nullptr) {
    freeUnless(XCharTitleCaseTable, defaultTitleCaseTable.data());
  }
}

}  // namespace

ByteType XCharCategory(DbChar code) {
  const long position = positionOf(code);
  return position != noPosition ? XCharCategoryTable[position] : ByteType{XCharCategoryCn};
}

long XCharCollate(DbChar code) {
  if (code >= XCharDispatchTableSize) return code + beyondTables;
  const long position = XCharDispatchTable[code];
  return position != 0 || code == 0 ? position : code + beyondTables;
}

DbChar XCharInverseCollate(long value) {
  if (value > beyondTables) return static_cast<DbChar>(value);
  return value >= 0 && value < XCharTableSize ? XCharIndexTable[value] : DbChar{0};
}

long XCharIdentity(DbChar code) {
  return code;
}

DbChar XCharUppercase(DbChar code) {
  const XCharEntrySType* entry = letterEntry(code);
  return entry != nullptr && entry->field1 != 0 ? entry->field1 : code;
}

DbChar XCharLowercase(DbChar code) {
  const XCharEntrySType* entry = letterEntry(code);
  return entry != nullptr && entry->field2 != 0 ? entry->field2 : code;
}

DbChar XCharTitlecase(DbChar code) {
  const DbChar upper = XCharUppercase(code);
  for (long i = 0; i < XCharTitleCaseTableSize; ++i) {
    if (XCharTitleCaseTable[i].index == upper) return XCharTitleCaseTable[i].titleCase;
  }
  return upper;
}

long XCharCaseInsensitiveCollate(DbChar code) {
  return XCharCollate(XCharUppercase(code));
}

void XCharNumericData(DbChar code, short* numerator, short* denominator) {
  const long position = positionOf(code);
  XCharEntrySType entry{};
  if (XCharTableSize > 0) entry = XCharEntryTable[position != noPosition ? position : 0];
  *numerator = static_cast<short>(entry.field1);
  *denominator = static_cast<short>(entry.field2);
}

void XCharSetupSpecialCollate(const ByteType* buffer, int size, BoolType isDbChar) {
  specialCollateBuffer = buffer;
  specialCollateBufferSize = size;
  specialCollateBufferIsDbChar = isDbChar;
}

long XCharSpecialCollate(DbChar code) {
  if (specialCollateBuffer == nullptr) return 0;
  if (code > specialCollateBufferSize) return code;
  if (specialCollateBufferIsDbChar == 0) return specialCollateBuffer[code];
  DbChar entry;
  std::memcpy(&entry, specialCollateBuffer + code * sizeof entry, sizeof entry);
  return entry;
}

void XCharSetTables(long dispatchTableSize, long mainTableSize, long titleCaseTableSize,
                    const unsigned short* dispatchTable, const unsigned short* indexTable,
                    const ByteType* categoryTable, const XCharEntrySType* entryTable,
                    const XCharTitleCaseEntrySType* titleCaseTable) {
  XCharDispatchTableSize = dispatchTableSize;
  XCharTableSize = mainTableSize;
  XCharTitleCaseTableSize = titleCaseTableSize;
  XCharDispatchTable = dispatchTable;
  XCharIndexTable = indexTable;
  XCharCategoryTable = categoryTable;
  XCharEntryTable = entryTable;
  XCharTitleCaseTable = titleCaseTable;
}

void XCharGetTables(long* dispatchTableSize, long* mainTableSize, long* titleCaseTableSize,
                    const unsigned short** dispatchTable, const unsigned short** indexTable,
                    const ByteType** categoryTable, const XCharEntrySType** entryTable,
                    const XCharTitleCaseEntrySType** titleCaseTable) {
  *dispatchTableSize = XCharDispatchTableSize;
  *mainTableSize = XCharTableSize;
  *titleCaseTableSize = XCharTitleCaseTableSize;
  *dispatchTable = XCharDispatchTable;
  *indexTable = XCharIndexTable;
  *categoryTable = XCharCategoryTable;
  *entryTable = XCharEntryTable;
  *titleCaseTable = XCharTitleCaseTable;
}

void XCharResetTables() {
  freeInstalledTables();
  XCharDispatchTable = defaultDispatchTable.data();
  XCharIndexTable = defaultIndexTable.data();
  XCharCategoryTable = defaultCategoryTable.data();
  XCharEntryTable = defaultEntryTable.data();
  XCharTitleCaseTable = defaultTitleCaseTable.data();
  XCharDispatchTableSize = xcharBuiltInSize;
  XCharTableSize = xcharBuiltInSize;
  XCharTitleCaseTableSize = 0;
}

long XCharGetTableSize() {
  return XCharTableSize;
}

void XCharDumpTables() {
  std::printf("\n\nDumping XChar Tables\n\n");
  dumpDispatchTable();
  dumpMainTable();
  dumpTitleCaseTable();
  std::printf("\n\n");
  std::fflush(stdout);
}
