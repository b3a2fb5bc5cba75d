#include <povzel/vermsg.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t lineWidth = 75;        // columns of text between the edges
constexpr std::size_t breakAfter = 74;       // from here on a blank ends the line
constexpr std::size_t centeredWidth = 74;    // a longer text is not centred
constexpr std::size_t longestCharacter = 4;  // bytes

// What follows a text, from the column that it has come to.
constexpr char rightEdge[] =
    "                                                                            |\n";
static_assert(sizeof rightEdge - 1 == lineWidth + 3);

// A line of edges alone.
constexpr std::array<char, 80> edge(char left, char between, char right) {
  std::array<char, 80> line{};
  line.fill(between);
  line[0] = left;
  line[78] = right;
  line[79] = '\n';
  return line;
}
constexpr auto leadingEdge = edge(' ', '_', '\n');  // without its last character
constexpr auto endEdge = edge('|', '_', '|');
constexpr auto dividerLine = edge('+', '-', '+');

// Boxes go into a stream, which is this thread's while this lives.
class Stream {
 public:
  explicit Stream(FILE* f) : f_(f), lock_(f) {}

  void put(const char* text, std::size_t length) { fwrite_unlocked(text, 1, length, f_); }

 private:
  FILE* f_;
  const UtlStreamLock lock_;
};

// Or into a file past the streams, several lines in one go.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { utlSafeWrite(fd_, buffer_, size_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void put(const char* text, std::size_t length) {
    for (;;) {
      const std::size_t fits = std::min(length, sizeof buffer_ - size_);
      std::memcpy(buffer_ + size_, text, fits);
      size_ += fits;
      if (fits == length) return;
      utlSafeWrite(fd_, buffer_, size_);
      size_ = 0;
      text += fits;
      length -= fits;
    }
  }

 private:
  int fd_;
  std::size_t size_ = 0;
  char buffer_[1024];
};

template <typename Sink>
void putFramedLine(Sink& sink, const char* text, std::size_t length, std::size_t columns) {
  sink.put("| ", 2);
  sink.put(text, length);
  // A text that is one column too long takes the blank of the edge, a longer one all of it.
  const std::size_t begin = columns < lineWidth + 2 ? columns : lineWidth + 2;
  sink.put(rightEdge + begin, sizeof rightEdge - 1 - begin);
}

// The first `c` from `text` to before `end`, or `end`.
const char* find(const char* text, char c, const char* end) {
  if (text == end) return end;
  const void* found = std::memchr(text, c, static_cast<std::size_t>(end - text));
  return found != nullptr ? static_cast<const char*>(found) : end;
}

template <typename Sink>
void putMessage(Sink sink, const char* text) {
  const std::size_t size = std::strlen(text);
  const bool isWide = utlIsWide(text, size);
  const char* const end = text + size;
  const char* newLine = find(text, '\n', end);
  for (;;) {
    const auto left = static_cast<std::size_t>(newLine - text);
    const std::size_t kept = utlBytes(text, left, breakAfter, isWide);
    const char* const lineEnd = find(text + kept, ' ', newLine);
    const auto length = static_cast<std::size_t>(lineEnd - text);
    putFramedLine(sink, text, length, utlColumns(text, length, isWide));
    if (lineEnd == end) break;
    text = lineEnd + 1;
    if (lineEnd == newLine) newLine = find(text, '\n', end);
  }
}

// Keeps a text with the blanks that centre it, or just points to one that is too long for that.
class Centered {
 public:
  explicit Centered(const char* text) : text_(text) {
    const std::size_t length = std::strlen(text);
    const std::size_t columns = utlColumns(text, length, utlIsWide(text, length));
    if (columns > centeredWidth) return;
    const std::size_t blanks = (lineWidth - columns) / 2;
    std::memset(kept_, ' ', blanks);
    std::memcpy(kept_ + blanks, text, length + 1);
    text_ = kept_;
  }

  const char* text() const { return text_; }

 private:
  const char* text_;
  char kept_[lineWidth * longestCharacter + 1];
};

}  // namespace

void VerLeadingEdge(FILE* f) {
  Stream(f).put(leadingEdge.data(), leadingEdge.size() - 1);
}

void VerEndEdge(FILE* f) {
  Stream(f).put(endEdge.data(), endEdge.size());
  std::fflush(f);
}

void VerDividerLine(FILE* f) {
  Stream(f).put(dividerLine.data(), dividerLine.size());
}

void VerMessage(FILE* f, const char* text) {
  putMessage(Stream(f), text);
}

void VerCenteredMessage(FILE* f, const char* text) {
  putMessage(Stream(f), Centered(text).text());
}

void verSafeLeadingEdge(int fd) {
  Descriptor(fd).put(leadingEdge.data(), leadingEdge.size() - 1);
}

void verSafeEndEdge(int fd) {
  Descriptor(fd).put(endEdge.data(), endEdge.size());
}

void verSafeMessage(int fd, const char* text) {
  putMessage(Descriptor(fd), text);
}

void verSafeCenteredMessage(int fd, const char* text) {
  putMessage(Descriptor(fd), Centered(text).text());
}
