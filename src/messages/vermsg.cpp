#include <povzel/vermsg.h>

#include <cstdio>
#include <cstring>

#include "basics/internal.h"

namespace {

constexpr std::size_t lineWidth = 75;        // columns of text between the edges
constexpr std::size_t breakAfter = 74;       // from here on a blank ends the line
constexpr std::size_t centeredWidth = 74;    // a longer text is not centred
constexpr std::size_t longestCharacter = 4;  // bytes

// What follows a text, from the column that it has come to.
constexpr char rightEdge[] =
    "                                                                            |\n";
static_assert(sizeof rightEdge - 1 == lineWidth + 3);

constexpr char underscores[] =
    "_____________________________________________________________________________";
constexpr char dashes[] =
    "-----------------------------------------------------------------------------";
static_assert(sizeof underscores - 1 == 77 && sizeof dashes - 1 == 77);

void framedLine(FILE* f, const char* text, std::size_t length, std::size_t columns) {
  fwrite_unlocked("| ", 1, 2, f);
  fwrite_unlocked(text, 1, length, f);
  // A text that is one column too long takes the blank of the edge, a longer one all of it.
  const std::size_t begin = columns < lineWidth + 2 ? columns : lineWidth + 2;
  fwrite_unlocked(rightEdge + begin, 1, sizeof rightEdge - 1 - begin, f);
}

// The first `c` from `text` to before `end`, or `end`.
const char* find(const char* text, char c, const char* end) {
  if (text == end) return end;
  const void* found = std::memchr(text, c, static_cast<std::size_t>(end - text));
  return found != nullptr ? static_cast<const char*>(found) : end;
}

}  // namespace

void VerLeadingEdge(FILE* f) {
  std::fprintf(f, " %s\n", underscores);
}

void VerEndEdge(FILE* f) {
  std::fprintf(f, "|%s|\n", underscores);
  std::fflush(f);
}

void VerDividerLine(FILE* f) {
  std::fprintf(f, "+%s+\n", dashes);
}

void VerMessage(FILE* f, const char* text) {
  const std::size_t size = std::strlen(text);
  const bool isWide = utlIsWide(text, size);
  const char* const end = text + size;
  const char* newLine = find(text, '\n', end);
  flockfile(f);
  for (;;) {
    const auto left = static_cast<std::size_t>(newLine - text);
    const std::size_t kept = utlBytes(text, left, breakAfter, isWide);
    const char* const lineEnd = find(text + kept, ' ', newLine);
    const auto length = static_cast<std::size_t>(lineEnd - text);
    framedLine(f, text, length, utlColumns(text, length, isWide));
    if (lineEnd == end) break;
    text = lineEnd + 1;
    if (lineEnd == newLine) newLine = find(text, '\n', end);
  }
  funlockfile(f);
}

void VerCenteredMessage(FILE* f, const char* text) {
  const std::size_t length = std::strlen(text);
  const std::size_t columns = utlColumns(text, length, utlIsWide(text, length));
  if (columns > centeredWidth) {
    VerMessage(f, text);
    return;
  }
  char centered[lineWidth * longestCharacter + 1];
  std::snprintf(centered, sizeof centered, "%*s%s", static_cast<int>((lineWidth - columns) / 2), "",
                text);
  VerMessage(f, centered);
}
