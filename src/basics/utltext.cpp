#include <povzel/utltext.h>

#include <algorithm>
#include <cstring>

#include <povzel/xchar.h>
#include "internal.h"

namespace {

constexpr std::size_t longestRendering = 3;

// Writes the rendering of `byte` to `out` and returns the place behind it.
char* putVisible(unsigned char byte, char* out) {
  if (byte >= 128) {
    *out++ = '!';
    byte -= 128;
  }
  if (byte == 127) {
    *out++ = '^';
    byte = '?';
  } else if (byte < 32 && byte != '\t' && byte != '\n') {
    *out++ = '^';
    byte += 64;
  }
  *out++ = static_cast<char>(byte);
  return out;
}

// Bytes of 128 and above would index no built-in table: as plain characters they are negative. The
// end of a string stays its end, whatever the tables hold for code 0.
int upperCase(char c) {
  return c <= 0 ? c : UtlToUpper(c);
}

void copyCut(char* buffer, std::size_t length, const char* text) {
  const std::size_t used = std::min(std::strlen(text), length - 1);
  std::memcpy(buffer, text, used);
  buffer[used] = '\0';
}

}  // namespace

void UtlPrintVisible(std::FILE* stream, const char* string) {
  char piece[256];
  char* out = piece;
  for (; *string != '\0'; ++string) {
    out = putVisible(static_cast<unsigned char>(*string), out);
    if (out > piece + sizeof piece - longestRendering) {
      std::fwrite(piece, 1, out - piece, stream);
      out = piece;
    }
  }
  std::fwrite(piece, 1, out - piece, stream);
}

void UtlPrintStr(const char* string) {
  std::fputs(string, stdout);
}

int UtlToUpper(int c) {
  return XCharUppercase(static_cast<DbChar>(c));
}

int UtlToLower(int c) {
  return XCharLowercase(static_cast<DbChar>(c));
}

int UtlPartialStrCmp(const char* a, const char* b) {
  if (*a == '\0' || *b == '\0') return 1;
  while (*a != '\0' && upperCase(*a) == upperCase(*b)) {
    ++a;
    ++b;
  }
  if (*a != '\0') return 1;
  return *b != '\0' ? -1 : 0;
}

void UtlStrerror(int number, char* buffer, std::size_t length) {
  if (length == 0) return;
  const ErrnoKeeper keeper;
  const char* text = strerror_r(number, buffer, length);
  char fallback[64];
  if (text == nullptr || text == buffer) {
    std::snprintf(fallback, sizeof fallback, "(no message from strerror for %d)", number);
    text = fallback;
  }
  copyCut(buffer, length, text);
}
