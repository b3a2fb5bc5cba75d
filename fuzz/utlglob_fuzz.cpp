// The pattern stands before the first newline, the text behind it. The matcher must agree with one
// that tries everything.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include <povzel/utlglob.h>
#include "require.h"

namespace {

struct Matcher {
  std::string pattern;
  std::string text;
  std::set<std::pair<std::size_t, std::size_t>> triedStars{};

  // Whether the pattern from `p` on matches the text from `t` on.
  bool matches(std::size_t p, std::size_t t) {
    if (p == pattern.size()) return t == text.size();
    if (pattern[p] == '*') {
      return triedStars.emplace(p, t).second &&
             (matches(p + 1, t) || (t < text.size() && matches(p, t + 1)));
    }
    if (t == text.size()) return false;
    if (pattern[p] == '?') return matches(p + 1, t + 1);
    if (pattern[p] == '[') return setHas(++p, text[t]) && matches(p + 1, t + 1);
    if (pattern[p] == '\\' && p + 1 < pattern.size()) ++p;
    return pattern[p] == text[t] && matches(p + 1, t + 1);
  }

  // Whether the set at `p` has `c`; `p` is then at its ']'.
  bool setHas(std::size_t& p, signed char c) const {
    const bool negated = pattern[p] == '^';
    bool found = false;
    for (p += negated ? 1 : 0; p < pattern.size() && pattern[p] != ']'; ++p) {
      const signed char low = pattern[p];
      signed char high = low;
      if (pattern[p + 1] == '-') {
        const bool open = pattern[p + 2] == ']';
        high = open ? SCHAR_MAX : pattern[p + 2];
        p += open ? 1 : 2;
      }
      found = found || (low <= c && c <= high);
    }
    return p < pattern.size() && found != negated;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 400));
  std::erase(input, '\0');
  // Half of the inputs are brought to few letters, which match more often.
  if (size % 2 == 0) {
    constexpr std::string_view letters = "aabb**?[]^-\\\xF0\n";
    for (char& c : input) c = letters[static_cast<std::uint8_t>(c) % letters.size()];
  }
  const std::size_t newline = std::min(input.find('\n'), input.size());
  const std::string pattern = input.substr(0, newline);
  const std::string text = input.substr(std::min(newline + 1, input.size()));
  const bool expected = Matcher{pattern, text}.matches(0, 0);
  require((UtlGlob(pattern.c_str(), text.c_str()) != 0) == expected);
  return 0;
}
