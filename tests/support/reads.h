// A matcher for texts of which some parts vary.
#pragma once

#include <gmock/gmock.h>

#include <string>

// The text begins with what comes before the first "~" of `pattern` and then holds the parts
// between and behind the "~", one after the other. An empty pattern stands for an empty text.
MATCHER_P(Reads, pattern, "") {
  const std::string text = arg;
  const std::string parts = pattern;
  if (parts.empty() || text.rfind(parts.substr(0, parts.find('~')), 0) != 0) return text == parts;
  std::size_t from = 0;
  for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
    end = parts.find('~', start);
    const std::string part = parts.substr(start, end - start);
    const std::size_t found = text.find(part, from);
    if (found == std::string::npos) {
      *result_listener << "which lacks \"" << part << '"';
      return false;
    }
    from = found + part.size();
  }
  return true;
}
