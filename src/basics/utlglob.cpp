#include <povzel/utlglob.h>

#include <climits>
#include <cstring>

namespace {

// Matches `c` against the set whose text starts at `set`, behind the '['. Returns the pattern
// behind the set, or null.
const char* matchSet(const char* set, signed char c) {
  const bool negated = *set == '^';
  if (negated) ++set;
  bool found = false;
  while (*set != ']') {
    if (*set == '\0') return nullptr;
    const signed char low = *set++;
    signed char high = low;
    if (*set == '-') {
      ++set;
      if (*set == '\0') return nullptr;
      high = static_cast<signed char>(*set == ']' ? SCHAR_MAX : *set++);
    }
    if (low <= c && c <= high) found = true;
  }
  return found != negated ? set + 1 : nullptr;
}

// Matches the character `c` against the first element of `pattern`, which is neither its end nor
// a '*'. Returns the pattern behind that element, or null.
const char* matchOne(const char* pattern, char c) {
  if (*pattern == '?') return pattern + 1;
  if (*pattern == '[') return matchSet(pattern + 1, c);
  if (*pattern == '\\' && pattern[1] != '\0') ++pattern;
  return *pattern == c ? pattern + 1 : nullptr;
}

// The first place in `string` where `pattern` could match, or null.
const char* firstCandidate(const char* pattern, const char* string) {
  if (*pattern == '?' || *pattern == '[' || *pattern == '\\') return string;
  return std::strchr(string, *pattern);
}

}  // namespace

// Only the last '*' met needs another try: what stands before it has matched as early as it can,
// and an earlier '*' taking more would only leave less for the rest.
BoolType UtlGlob(const char* pattern, const char* string) {
  const char* afterStar = nullptr;
  const char* tried = nullptr;
  for (;;) {
    if (*pattern == '*') {
      while (*pattern == '*') ++pattern;
      if (*pattern == '\0') return 1;
      afterStar = pattern;
      tried = firstCandidate(pattern, string);
      if (tried == nullptr) return 0;
      string = tried;
      continue;
    }
    if (*string == '\0') return *pattern == '\0';
    const char* next = *pattern != '\0' ? matchOne(pattern, *string) : nullptr;
    if (next != nullptr) {
      pattern = next;
      ++string;
      continue;
    }
    if (afterStar == nullptr) return 0;
    pattern = afterStar;
    tried = firstCandidate(pattern, tried + 1);
    if (tried == nullptr) return 0;
    string = tried;
  }
}
