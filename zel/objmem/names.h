// The characters of names and selectors.
#pragma once

#include <string_view>

namespace zel {

constexpr std::string_view binaryCharacters = "+-*/\\<>=~,%&?@|!";

constexpr bool isUppercase(char c) {
  return c >= 'A' && c <= 'Z';
}
constexpr bool isLetter(char c) {
  return isUppercase(c) || (c >= 'a' && c <= 'z') || c == '_';
}
constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool isWordCharacter(char c) {
  return isLetter(c) || isDigit(c);
}
constexpr bool isBinary(char c) {
  return binaryCharacters.find(c) != std::string_view::npos;
}

// Whether the text has characters, and each is of the kind.
constexpr bool consistsOf(bool (*isOfKind)(char), std::string_view text) {
  for (const char c : text) {
    if (!isOfKind(c)) return false;
  }
  return !text.empty();
}

// A letter first, then letters and digits; _ is a letter.
constexpr bool isName(std::string_view text) {
  return consistsOf(isWordCharacter, text) && isLetter(text[0]);
}
// A name that means the same everywhere: nothing can be called so.
constexpr bool isReserved(std::string_view name) {
  return name == "self" || name == "super" || name == "nil" || name == "true" || name == "false";
}
// A selector such as + or <=.
constexpr bool isBinarySelector(std::string_view text) {
  return consistsOf(isBinary, text);
}

}  // namespace zel
