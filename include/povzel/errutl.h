// Message files: opens one, checks its header and parses its entries.
//
//   if (!ErrUtlInit(1, NULL)) return;   // the file that TARVOLIN_LANG names, or the English one
//   ErrUtlEntrySType entry;
//   BoolType bad;
//   unsigned long line = 0;
//   FILE* source = fopen("german.msg", "r");
//   while (ErrUtlNextSym(source, "german.msg", &line, &entry, 1, &bad)) use(entry.sym, entry.buf);
//
// A compiled message file is a header, a hash table and lines in the syntax of its source;
// docs/messages.md describes both. Failures are a false result and a line on standard error.
//
// ErrUtlReadHdr and ErrUtlNextSym may be called from any thread, each on a stream of its own. The
// module has one file open and no lock: ErrUtlInit, ErrUtlReset and ErrUtlShutdown, and those who
// read its variables, must be of one thread, and none may call ErrMsgInit, ErrMsgReset or
// ErrMsgShutdown meanwhile, which do the same for all threads (errmsg.h). A lock would not help:
// the variables are everybody's. Requests for texts may go on beside all of them.
//
// Sources: errutl.cpp, errutlparse.cpp (ErrUtlNextSym).
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// The 20 bytes at the start of a compiled file, integers decoded.
typedef struct ErrUtlHdrSType {
  unsigned char magic[4];      // as ErrUtlGetMagic has it
  unsigned char transform[4];  // significance, in bytes, of each byte of a stored integer
  uint32_t vers;               // 1
  uint32_t tabSize;            // hash slots, at least 1
  uint32_t textBegin;          // offset of the first entry line
} ErrUtlHdrSType;
POVZEL_STATIC_ASSERT(sizeof(ErrUtlHdrSType) == 20, "the layout of ErrUtlHdrSType has changed");

// One slot of the hash table, which follows the header.
typedef struct ErrUtlHashSType {
  uint32_t hash;    // HashStrHash of the symbol, case-sensitive
  uint32_t keyLoc;  // offset of the symbol as a C string; 0 when the hash is the symbol's alone
  uint32_t valLoc;  // offset of the symbol's entry; 0 when the slot is empty
} ErrUtlHashSType;
POVZEL_STATIC_ASSERT(sizeof(ErrUtlHashSType) == 12, "the layout of ErrUtlHashSType has changed");

enum { ErrUtlMaxArgs = 10 };  // arguments that a message may have

// One parsed entry.
typedef struct ErrUtlEntrySType {
  int expectedArgCount;         // largest numeral of the order list; 0 without one
  int argListSize;              // numerals in the list
  long loc;                     // offset of the entry's first line; set in table-building mode only
  int argOrder[ErrUtlMaxArgs];  // the numerals, as written
  ErrMsgStrType sym;            // at most 254 characters
  ErrMsgStrType buf;            // the text as written, escapes included
} ErrUtlEntrySType;
POVZEL_STATIC_ASSERT(offsetof(ErrUtlEntrySType, argOrder) == 12 &&
                         offsetof(ErrUtlEntrySType, sym) == 52,
                     "the layout of ErrUtlEntrySType has changed");

// The open file: its name (set before it is opened), its stream (null when there is none) and,
// if it is a compiled one, its header. Requests for texts use what was read when it was opened.
POVZEL_EXPORT_DATA extern HostFnameStrType ErrUtlErrFileName;
POVZEL_EXPORT_DATA extern FILE* ErrUtlErrFile;
POVZEL_EXPORT_DATA extern ErrUtlHdrSType ErrUtlFileHdr;

// The last ErrUtlInit succeeded.
POVZEL_EXPORT_DATA extern BoolType errutl_is_init;

// The bytes that a compiled file starts with, and their address.
POVZEL_EXPORT_DATA extern const unsigned char magicArray[4];
POVZEL_EXPORT const unsigned char* ErrUtlGetMagic(void);

// Returns 1 if the 4 bytes of `transform4` are 0 to 3 in some order and the 2 of `transform2` are
// 0 and 1, else 0.
POVZEL_EXPORT BoolType UtlValidateSwizzleTransforms(const unsigned char* transform4,
                                                    const unsigned char* transform2);

// Rewinds `f`, reads the header of a compiled file into *hdr and checks it. Returns 1, or 0 after
// a line that says what is wrong; *hdr then holds what was read.
POVZEL_EXPORT BoolType ErrUtlReadHdr(FILE* f, ErrUtlHdrSType* hdr);

// Closes the open file and opens ErrUtlErrFileName. With `isCompiled` its header is read into
// ErrUtlFileHdr; without, that stays as it is: for a source file, or for a fresh stream of a file
// whose header was read before. A compiled file must not be a pipe; a source may be one, which is
// waited for. Returns 0, with no file open, if that fails.
POVZEL_EXPORT BoolType ErrUtlReset(BoolType isCompiled);

// Finds and opens a message file: `fileName`, or when that is null the one that TARVOLIN_LANG
// names, or else "$TARVOLIN/sys/english67.err". For the latter two a file of that name goes first
// that is in the program's directory (UtlSetExeDir; while that is not set, in the current one), or
// in ../bin/ or ../sys/ from there. Without TARVOLIN a name that begins with it is one in the
// installation that this library lies in. Returns 0 if the file cannot be used; a name beyond 4095
// characters is refused with ENAMETOOLONG, and no other file is touched.
POVZEL_EXPORT BoolType ErrUtlInit(BoolType isCompiled, const char* fileName);

// Returns 1 if the last ErrUtlInit succeeded.
POVZEL_EXPORT BoolType ErrUtlIsUp(void);

// Closes the file. ErrUtlIsUp answers as before.
POVZEL_EXPORT void ErrUtlShutdown(void);

// Parses the next entry of `f` into *theEntry. Returns 1, or 0 at the end of the file.
//
// With `buildingTable` the whole file is being read: *lineNum counts its lines, theEntry->loc
// becomes the entry's offset, empty lines and comments are skipped. Without, one entry is looked
// up: *lineNum stays, and an empty line, a comment or the end of the file is reported.
//
// A line that is not an entry is reported with `fname` and *lineNum and skipped. *syntaxErr tells
// whether that happened, or whether the file ends inside a line. A zero byte ends the text of its
// line.
POVZEL_EXPORT BoolType ErrUtlNextSym(FILE* f, const char* fname, unsigned long* lineNum,
                                     ErrUtlEntrySType* theEntry, BoolType buildingTable,
                                     BoolType* syntaxErr);

POVZEL_END_C
