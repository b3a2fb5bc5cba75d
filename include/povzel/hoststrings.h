// Comparisons that ignore case or length. All return -1, 0 or 1. Any thread may call.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Compares two strings by the upper case of their characters, as signed characters; of two strings
// that are equal as far as the shorter one goes, that one is the smaller.
POVZEL_EXPORT int HostStrCmpi(const char* s1, const char* s2);

// Compares `count` bytes by their upper case, as unsigned bytes.
POVZEL_EXPORT int HostMemCmpi(const char* s1, const char* s2, size_t count);

// Compare two byte strings of the given lengths as unsigned bytes, the second one by their upper
// case; of two that are equal as far as the shorter one goes, that one is the smaller.
POVZEL_EXPORT long HostStrCompare(const ByteType* str1, const ByteType* str2, size_t length1,
                                  size_t length2);
POVZEL_EXPORT long HostStrCompareCaseInsen(const ByteType* str1, const ByteType* str2,
                                           size_t length1, size_t length2);

POVZEL_END_C
