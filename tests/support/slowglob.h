// Pattern matching done the slow and plain way: the pattern becomes a list of character sets and
// stars, and a table says which beginnings of both match.
#pragma once

#include <bitset>
#include <string>
#include <vector>

inline bool slowGlob(const std::string& pattern, const std::string& text) {
  struct Element {
    bool star = false;
    std::bitset<256> accepted{};
  };
  const auto codeOf = [](char c) {
    const int code = static_cast<unsigned char>(c);
    return code < 128 ? code : code - 256;
  };
  std::vector<Element> elements;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    Element element;
    char c = pattern[i];
    if (c == '*') {
      element.star = true;
    } else if (c == '?') {
      element.accepted.set();
    } else if (c == '[') {
      const bool negated = i + 1 < pattern.size() && pattern[i + 1] == '^';
      if (negated) ++i;
      for (++i;; ++i) {
        if (i >= pattern.size()) return false;
        if (pattern[i] == ']') break;
        int from = codeOf(pattern[i]);
        int to = from;
        bool ends = false;
        if (i + 1 < pattern.size() && pattern[i + 1] == '-') {
          if (i + 2 >= pattern.size()) return false;
          ends = pattern[i + 2] == ']';
          to = ends ? 127 : codeOf(pattern[i + 2]);
          i += 2;
        }
        for (; from <= to; ++from) element.accepted.set(from & 0xFF);
        if (ends) break;
      }
      if (negated) element.accepted.flip();
    } else {
      if (c == '\\' && i + 1 < pattern.size()) c = pattern[++i];
      element.accepted.set(static_cast<unsigned char>(c));
    }
    elements.push_back(element);
  }

  std::vector<bool> matches(text.size() + 1);  // the elements so far match text[0, i)
  matches[0] = true;
  for (const Element& element : elements) {
    std::vector<bool> next(text.size() + 1);
    for (std::size_t i = 0; i <= text.size(); ++i) {
      if (element.star) {
        next[i] = matches[i] || (i > 0 && next[i - 1]);
      } else if (i > 0) {
        next[i] = matches[i - 1] && element.accepted[static_cast<unsigned char>(text[i - 1])];
      }
    }
    matches = next;
  }
  return matches[text.size()];
}
