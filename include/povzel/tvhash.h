// Hash tables from keys (strings, words, or arrays of words) to one pointer each.
//
//   TvHashTable table;
//   TvInitHashTable(&table, 0);  // strings
//   long isNew;
//   TvHashEntry* entry = table.createProc(&table, "nil", &isNew);
//   if (isNew) entry->value = object;
//   entry = table.findProc(&table, "true");  // null: not there
//
//   TvHashSearch search;
//   for (entry = TvFirstHashEntry(&table, &search); entry; entry = TvNextHashEntry(&search)) ...
//   TvDeleteHashTable(&table);
//
// The caller owns the table record, which must not be moved, and the values; the table owns the
// entries, which never move. Growing by a factor of 4, it never shrinks. Misuse is reported on
// standard output and handed to HostCallDebugger. When memory is short (or a size exceeds 32
// bits) UtlMalloc reports it, naming "tvhash" or "tvHash"; should that return, the table is as it
// was before the call. Nothing here locks.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// An entry of a table, and a table.
typedef struct TvHashEntry TvHashEntry;
typedef struct TvHashTable TvHashTable;

// An entry. `value` is the caller's to read and write.
struct TvHashEntry {
  TvHashEntry* nextPtr;     // in the same bucket; null at its end
  TvHashTable* tablePtr;    // the table that it is in
  TvHashEntry** bucketPtr;  // the bucket that it is in
  void* value;              // null at first
  union {
    const void* oneWordValue;  // a word
    long words[1];             // goes on for the table's number of words
    char string[4];            // goes on to its NUL
  } key;                       // as the table's keyType has it
};
POVZEL_STATIC_ASSERT(sizeof(TvHashEntry) == 20 && offsetof(TvHashEntry, key) == 16,
                     "the layout of TvHashEntry has changed");

// `key` is the string, the word itself as a pointer, or the address of the words.
typedef TvHashEntry* TvHashFindFType(TvHashTable* table, const char* key);
typedef TvHashEntry* TvHashCreateFType(TvHashTable* table, const char* key, long* newPtr);

// A table. Its two functions are for the caller; all else is its own.
struct TvHashTable {
  TvHashEntry** buckets;          // staticBuckets, or a block of the table's own
  TvHashEntry* staticBuckets[4];  // the first buckets
  long numBuckets;                // a power of 4
  long numEntries;                // in all buckets together
  long rebuildSize;  // the table grows when it gets this many entries: 3 for each bucket
  long downShift;    // brings the high bits of a word's hash down to the bucket number
  long mask;         // numBuckets - 1
  long keyType;      // 0 strings, 1 words, else the number of words in a key

  // Returns the entry of `key`, or null. A null string or array is in no table.
  TvHashFindFType* findProc;

  // Returns the entry of `key`, made if need be; *newPtr says whether it was: 1 or 0. The key is
  // copied into it. Null with 0 in *newPtr when memory is short or a string or array is null.
  TvHashCreateFType* createProc;
};
POVZEL_STATIC_ASSERT(sizeof(TvHashTable) == 52 && offsetof(TvHashTable, numBuckets) == 20 &&
                         offsetof(TvHashTable, findProc) == 44,
                     "the layout of TvHashTable has changed");

// A place in an enumeration.
typedef struct TvHashSearch {
  TvHashTable* tablePtr;      // the table that is walked through
  long nextIndex;             // the next bucket to look at
  TvHashEntry* nextEntryPtr;  // the next entry of the current one, or null
} TvHashSearch;
POVZEL_STATIC_ASSERT(sizeof(TvHashSearch) == 12, "the layout of TvHashSearch has changed");

// Makes *table an empty table with 4 buckets; whatever it held is not freed. `keyType` is 0 for
// strings, 1 for words, n from 2 on for arrays of n words. In a table of a negative type, or one
// whose keys would not fit in memory, nothing is ever found and creating fails.
POVZEL_EXPORT void TvInitHashTable(TvHashTable* table, long keyType);

// Takes the entry out of its table and frees it. An entry that is not in its bucket is reported
// with "malformed bucket chain in TvDeleteHashEntry"; should that return, the entry is left alone,
// since nobody knows whose it is. Null is ignored.
POVZEL_EXPORT void TvDeleteHashEntry(TvHashEntry* entry);

// Frees all entries and the buckets. Until the table is initialized again it is empty, and its
// find and create only report "called TvFindHashEntry on deleted table" or "called
// TvCreateHashEntry on deleted table" and return null.
POVZEL_EXPORT void TvDeleteHashTable(TvHashTable* table);

// Start *search, and go on with it: the next entry, or null after the last. Entries come bucket by
// bucket, the newest of each first. The entry just returned may be deleted; creating entries
// during the enumeration can make it miss or repeat some.
POVZEL_EXPORT TvHashEntry* TvFirstHashEntry(TvHashTable* table, TvHashSearch* search);
POVZEL_EXPORT TvHashEntry* TvNextHashEntry(TvHashSearch* search);

// Returns a text on how the entries spread over the buckets, which the caller frees with UtlFree,
// or null when memory is short. The average search distance of an empty table is 0.0.
POVZEL_EXPORT char* TvHashStats(TvHashTable* table);

POVZEL_END_C
