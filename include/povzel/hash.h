// String hashes, and an open hash table of pointers.
//
//   HashTableSType table;
//   HashTableInit(&table, 0, 0, HashCStrHash, HashCStrCompare);   // records are C strings
//   VoidPtrType* slot = HashTableLookup(&table, "nil");
//   if (slot != NULL && *slot == NULL) HashTableInsert(&table, slot, name);
//
//   for (VoidPtrType* at = NULL; HashTableEnumerate(&table, &at), at != NULL;) use(*at);
//
// The table knows records only through the caller's two functions. It holds pointers to them, or
// copies of its own, and keeps their hashes: while a record is stored, it stays equal to itself. It
// prints nothing. Nothing here locks, and a look-up writes to the table too.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

// A record, as the table holds it.
typedef void* VoidPtrType;

POVZEL_BEGIN_C

// The hash of a record; equal records have equal hashes.
typedef unsigned int HashFType(const void* record);
// Returns non-zero when the record that is looked for (first) equals a stored one (second).
typedef BoolType HashCompareFType(const void* probe, const void* stored);

// The caller owns this record and may read it; only the functions below change it.
typedef struct HashTableSType {
  long indexOfPrime;              // which size of the series the table has
  BoolType copyKeys;              // the table owns copies of the records
  long keySize;                   // bytes of such a copy
  long tableSize;                 // slots
  long halfTableSize;             // the table grows when it holds this many records
  long quarterTableSize;          // a quarter of the slots
  long numEntries;                // occupied slots
  HashFType* hashFunc;            // of the records
  HashCompareFType* compareFunc;  // of a record and a stored one
  VoidPtrType* table;             // the slots: a record each, or null; null while there are none
  VoidPtrType* endPtr;            // one past the last slot
} HashTableSType;
POVZEL_STATIC_ASSERT(sizeof(HashTableSType) == 44 && offsetof(HashTableSType, hashFunc) == 28 &&
                         offsetof(HashTableSType, endPtr) == 40,
                     "the layout of HashTableSType has changed");

// Three Pearson hashes of the `count` bytes, side by side: 0 to 2^24 - 1, and 0 for no bytes.
// With `caseSensitive` 0 every byte counts as its upper case in the C library's locale.
POVZEL_EXPORT long HashStrHash(const ByteType* bytes, size_t count, BoolType caseSensitive);

// The same of 16-bit characters, high byte first, each taken modulo 255; upper case counts for
// codes up to 255. `sizeBytes` is even: an odd last byte is ignored.
POVZEL_EXPORT long HashDbStrHash(const ByteType* bytes, size_t sizeBytes, BoolType caseSensitive);

// HashStrHash of a C string, case-sensitive, and equality of two C strings, byte for byte: the
// pair for tables of C strings.
POVZEL_EXPORT unsigned int HashCStrHash(const void* string);
POVZEL_EXPORT BoolType HashCStrCompare(const void* string1, const void* string2);

// Makes *table an empty table of 37 slots; whatever it held is not freed. With `copyKeys` the
// table keeps private copies of the `keySize` bytes of each record, else the pointers that it is
// given. When memory is short the table has no slots: lookups give null, and an insert tries again.
POVZEL_EXPORT void HashTableInit(HashTableSType* table, BoolType copyKeys, unsigned int keySize,
                                 HashFType* hashFunc, HashCompareFType* compareFunc);

// Moves the records to a new array of the size that indexOfPrime names, or of 37 slots for less
// than 5; inserts do it when it is time. It looks at no record. Returns 1, or 0 and the table as it
// was when memory is short, the records would not fit or indexOfPrime exceeds 16.
POVZEL_EXPORT BoolType rehash(HashTableSType* table);

// Returns the slot of the stored record that equals `record`; if there is none, the empty slot
// where it would go. Null if the table has no slots, or is full and the record not in it. A slot
// is valid until the next insert or clear.
POVZEL_EXPORT VoidPtrType* HashTableLookup(HashTableSType* table, const void* record);

// Stores `record` in the empty slot that HashTableLookup has just returned for it, or for a record
// that is equal to it. A table that is half full first grows to the next of 67, 131, 257, ... up to
// 65537 slots, which moves records; the largest size then fills up. When removals have left too
// much to pass over in searches, an insert first moves the records as well, unless memory is short
// for it. The hash that the look-up took is not taken again for the same record. Returns 1, or 0
// and nothing stored when memory is short, the record is null, or the slot is null (in a table that
// cannot grow) or not empty.
POVZEL_EXPORT BoolType HashTableInsert(HashTableSType* table, VoidPtrType* slot,
                                       VoidPtrType record);

// Empties the slot, freeing the table's copy; records are not looked at. No other record moves, and
// all stay findable, so an enumeration can remove what it visits and go on. It takes about the same
// time whatever the table holds. Returns 0 if the slot was empty (or null), else 1.
POVZEL_EXPORT BoolType HashTableRemove(HashTableSType* table, VoidPtrType* slot);

// Removes every record and goes back to 37 slots.
POVZEL_EXPORT void HashTableClear(HashTableSType* table);

// Moves *cursor to the next occupied slot, from null to the first, and after the last to null.
// Records come in slot order. Removals leave an enumeration as it is; an insert, which may move all
// records, and clearing the table end it.
POVZEL_EXPORT void HashTableEnumerate(HashTableSType* table, VoidPtrType** cursor);

POVZEL_END_C
