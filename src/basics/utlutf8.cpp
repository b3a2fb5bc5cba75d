#include <cstring>

#include "internal.h"

namespace {

// The characters that begin with a byte from `first` to `last`: their bytes, and what the second
// of them may be. Longer forms than needed, halves of pairs and codes above 10FFFF have none.
struct Form {
  unsigned char first, last, length, lowest, highest;
};
constexpr Form forms[] = {{0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
                          {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F},
                          {0xEE, 0xEF, 3, 0x80, 0xBF}, {0xF0, 0xF0, 4, 0x90, 0xBF},
                          {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F}};

// The bytes of the character beyond ASCII that begins at `text`, 0 if it is none. They may be more
// than are left: then the text's end cuts it.
std::size_t wideLength(const char* text, std::size_t left) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (const Form& form : forms) {
    if (byte(0) < form.first || byte(0) > form.last) continue;
    if (left > 1 && (byte(1) < form.lowest || byte(1) > form.highest)) return 0;
    for (std::size_t i = 2; i < form.length && i < left; ++i) {
      if (utlBeginsCharacter(text[i])) return 0;
    }
    return form.length;
  }
  return 0;
}

// The end of the ASCII characters at `text`.
const char* skipAscii(const char* text, const char* end) {
  for (; end - text >= 8; text += 8) {
    std::uint32_t words[2];
    std::memcpy(words, text, sizeof words);
    if (((words[0] | words[1]) & 0x80808080U) != 0) break;
  }
  while (text < end && *text >= 0) ++text;
  return text;
}

bool isUtf8(const char* text, std::size_t length, bool mayBeCut) {
  const char* const end = text + length;
  for (text = skipAscii(text, end); text < end; text = skipAscii(text, end)) {
    const auto left = static_cast<std::size_t>(end - text);
    const std::size_t size = wideLength(text, left);
    if (size == 0) return false;
    if (size > left) return mayBeCut;
    text += size;
  }
  return true;
}

}  // namespace

bool utlIsUtf8(const char* text, std::size_t length) {
  return isUtf8(text, length, false);
}

bool utlIsWide(const char* text, std::size_t length) {
  const char* const wide = skipAscii(text, text + length);
  const auto left = static_cast<std::size_t>(text + length - wide);
  return left > 0 && isUtf8(wide, left, true);
}

std::size_t utlWideColumns(const char* text, std::size_t length) {
  std::size_t columns = 0;
  for (std::size_t i = 0; i < length; ++i) columns += utlBeginsCharacter(text[i]) ? 1 : 0;
  return columns;
}

std::size_t utlWideBytes(const char* text, std::size_t length, std::size_t columns) {
  std::size_t bytes = 0;
  while (bytes < length && (columns > 0 || !utlBeginsCharacter(text[bytes]))) {
    if (utlBeginsCharacter(text[bytes++])) --columns;
  }
  return bytes;
}
