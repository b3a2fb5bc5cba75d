// Matching of names against patterns. Any thread may call; nothing is kept.
#pragma once

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns 1 if `pattern` matches the whole of `string`, else 0.
//
//   *      any run of characters, also none
//   ?      any one character
//   [...]  one character of the set: single characters and ranges "x-y" (from x to y, compared as
//          signed characters; "x-]" goes from x upward). "[^...]" is one character outside of it.
//          The first ']' ends the set, also right after the '['; a pattern that ends before matches
//          nothing. A backslash in a set stands for itself.
//   \c     the character c itself; a backslash at the very end matches a backslash
//
// Any other character matches itself. The time taken is at most proportional to the product of the
// two lengths, and to their sum for everyday patterns.
POVZEL_EXPORT BoolType UtlGlob(const char* pattern, const char* string);

POVZEL_END_C
