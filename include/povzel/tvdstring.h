// A growable string in a record of the caller's: up to 199 characters need no allocation.
//
//   TvDString text;
//   TvDStringInit(&text);
//   TvDStringAppend(&text, "page ", -1);
//   TvDStringAppend(&text, digits, count);
//   puts(text.string);
//   TvDStringFree(&text);
//
// A record belongs to one thread at a time and must not be moved or copied: its text may be
// inside it. When memory is short (or a size exceeds 32 bits) UtlMalloc reports it, naming
// "tvdstring"; should that return, the record is as it was before the call.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Read `string` and `length` freely; only the functions below change the record.
typedef struct TvDString {
  char* string;   // the text, always ended by NUL: in staticSpace, or in a block of the record's
  long length;    // characters, without the NUL
  long spaceAvl;  // bytes at `string`, always more than `length`
  char staticSpace[200];  // for texts of up to 199 characters
} TvDString;
POVZEL_STATIC_ASSERT(sizeof(TvDString) == 212 && offsetof(TvDString, staticSpace) == 12,
                     "the layout of TvDString has changed");

// Makes the record an empty string. What it held is not freed.
POVZEL_EXPORT void TvDStringInit(TvDString* ds);

// Appends `length` bytes of `text`, NUL bytes included, or with a negative `length` the text up
// to its NUL. The text may be part of the record's own; null appends nothing. A text that does
// not fit moves to a block of twice the needed size. Returns the record's text, or null when
// memory is short.
POVZEL_EXPORT char* TvDStringAppend(TvDString* ds, const char* text, long length);

// Makes the text `length` characters long (a negative length counts as 0) and ends it there. What
// it gains is not initialized; a text that does not fit moves to a block of length + 1 bytes. It
// never gives memory back.
POVZEL_EXPORT void TvDStringSetLength(TvDString* ds, long length);

// Frees the record's block, if it has one, and makes it an empty string again.
POVZEL_EXPORT void TvDStringFree(TvDString* ds);

POVZEL_END_C
