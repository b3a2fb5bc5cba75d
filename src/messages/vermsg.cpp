#include <povzel/vermsg.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t lineWidth = 75;      // characters of text between the edges
constexpr std::size_t breakAfter = 74;     // from here on a blank ends the line
constexpr std::size_t centeredWidth = 74;  // a longer text is not centred

constexpr char blanks[] =
    "                                                                           ";
static_assert(sizeof blanks - 1 == lineWidth);

constexpr char underscores[] =
    "_____________________________________________________________________________";
constexpr char dashes[] =
    "-----------------------------------------------------------------------------";
static_assert(sizeof underscores - 1 == 77 && sizeof dashes - 1 == 77);

void framedLine(FILE* f, const char* text, std::size_t length) {
  fwrite_unlocked("| ", 1, 2, f);
  fwrite_unlocked(text, 1, length, f);
  if (length < lineWidth) fwrite_unlocked(blanks, 1, lineWidth - length, f);
  if (length <= lineWidth) {
    fwrite_unlocked(" |\n", 1, 3, f);
  } else if (length == lineWidth + 1) {
    fwrite_unlocked("|\n", 1, 2, f);
  } else {
    fwrite_unlocked("\n", 1, 1, f);
  }
}

// The first character of `line` that ends it: a new line, a blank late enough, or the terminator.
const char* endOfLine(const char* line) {
  for (const char* next = line;; ++next) {
    if (*next == '\0' || *next == '\n') return next;
    if (*next == ' ' && static_cast<std::size_t>(next - line) >= breakAfter) return next;
  }
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
  flockfile(f);
  for (const char* line = text;;) {
    const char* end = endOfLine(line);
    framedLine(f, line, static_cast<std::size_t>(end - line));
    if (*end == '\0') break;
    line = end + 1;
  }
  funlockfile(f);
}

void VerCenteredMessage(FILE* f, const char* text) {
  const std::size_t length = std::strlen(text);
  if (length > centeredWidth) {
    VerMessage(f, text);
    return;
  }
  char centered[lineWidth + 1];
  std::snprintf(centered, sizeof centered, "%*s%s", static_cast<int>((lineWidth - length) / 2), "",
                text);
  VerMessage(f, centered);
}
