// Small helpers on strings and bytes: visible printing, comparison, case, error texts.
//
// Nothing here fails or locks. Sources: utltext.cpp, utlmemcmp.cpp (UtlMemcmp).
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Writes `string` to `stream` with its control characters made visible. Tab and newline stay; other
// bytes below 32 become '^' and the byte + 64 (1 is "^A"), 127 "^?", and a byte of 128 or more '!'
// and the rendering of the byte - 128 (0x81 is "!^A").
POVZEL_EXPORT void UtlPrintVisible(FILE* stream, const char* string);

// Writes `string` to standard output unchanged.
POVZEL_EXPORT void UtlPrintStr(const char* string);

// Return the upper or lower case of the low 16 bits of `c`, by the character tables in force.
POVZEL_EXPORT int UtlToUpper(int c);
POVZEL_EXPORT int UtlToLower(int c);

// Compares two strings without regard to case; bytes of 128 and above have none. Returns 1 if
// either is empty, 0 if they are equal, -1 if `a` is the beginning of `b`, else 1.
POVZEL_EXPORT int UtlPartialStrCmp(const char* a, const char* b);

// Compares `length` unsigned bytes. Returns -1, 0 or 1 as `a` is less than, equal to or greater
// than `b`.
POVZEL_EXPORT int UtlMemcmp(const void* a, const void* b, size_t length);

// Stores the C library's text for the error `number` in `buffer`, cut to `length` bytes with its
// terminator; a number that the C library has no text for gives "(no message from strerror for
// %d)". Writes nothing when `length` is 0. errno stays as it was.
POVZEL_EXPORT void UtlStrerror(int number, char* buffer, size_t length);

POVZEL_END_C
