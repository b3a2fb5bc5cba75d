#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include <povzel/errutl.h>
#include <povzel/hostfiles.h>
#include <povzel/unixio.h>
#include "internal.h"

namespace {

constexpr std::size_t longestLine = 2047;
constexpr std::size_t symbolLimit = 255;

struct Line {
  char text[longestLine + 1];
  unsigned long physicalLines;
  bool begun;  // at the end of the file: there was something before it
};

// Where lines come from: a stream...
struct StreamInput {
  FILE* stream;

  int get() const { return UnixIoFgetc(stream); }
  void tell(long* position) const { Hostftell(stream, position); }
  static bool takeWholeLine(Line*) { return false; }
};

// ...or bytes in memory, for look-ups, which no handler may take a stream for.
struct BytesInput {
  const unsigned char* next;
  const unsigned char* end;

  int get() { return next < end ? *next++ : EOF; }
  static void tell(long*) {}

  // Takes a line that is one physical line and fits, as nearly all do.
  bool takeWholeLine(Line* line) {
    if (next == end) return false;
    const auto left = static_cast<std::size_t>(end - next);
    const void* newline = std::memchr(next, '\n', left);
    if (newline == nullptr) return false;
    const auto length = static_cast<std::size_t>(static_cast<const unsigned char*>(newline) - next);
    if (length > longestLine || (length > 0 && next[length - 1] == '\\')) return false;
    std::memcpy(line->text, next, length);
    line->text[length] = '\0';
    line->physicalLines = 1;
    next += length + 1;
    return true;
  }
};

// Reads one logical line: physical lines joined where a backslash ends them, cut to the longest
// line. Returns false at the end of the file, also when that comes before the line's end.
template <typename Input>
bool readLine(Input* input, Line* line) {
  if (input->takeWholeLine(line)) return true;
  std::size_t length = 0;
  bool kept = false;  // the last character went into the text
  int last = '\n';
  line->physicalLines = 0;
  line->begun = false;
  for (int c; (c = input->get()) != EOF;) {
    line->begun = true;
    if (c != '\n') {
      kept = length < longestLine;
      if (kept) line->text[length++] = static_cast<char>(c);
      last = c;
      continue;
    }
    ++line->physicalLines;
    if (last != '\\') {
      line->text[length] = '\0';
      return true;
    }
    if (kept) --length;
    last = '\n';
  }
  if (last != '\n') ++line->physicalLines;
  return false;
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\f';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

const char* skipBlanks(const char* at) {
  while (isBlank(*at)) ++at;
  return at;
}

// Says what is wrong with a line.
struct Complaint {
  const char* fname;
  unsigned long lineNum;
  std::atomic<bool>* isTold;  // that the file is damaged; null where every fault is to be told

  __attribute__((format(printf, 2, 3))) const char* say(const char* format, ...) const {
    if (isTold != nullptr && isTold->exchange(true)) return nullptr;
    va_list arguments;
    va_start(arguments, format);
    errUtlSayList(format, arguments);
    va_end(arguments);
    return nullptr;
  }

  const char* because(const char* what) const {
    return say("%s near line %lu: %s\n", fname, lineNum, what);
  }

  const char* outOfRange(int numeral) const {
    return say("%s near line %lu: numeral (%d) out of range\n", fname, lineNum, numeral);
  }

  void ofNoEntry(char first) const {
    say(first == '\0' ? "%s: why is line %lu empty?\n"
                      : "%s:  line %lu, why am I reading a comment?\n",
        fname, lineNum);
  }
};

// The parsers of an entry's pieces return what follows the piece, or null after a complaint.

const char* parseSymbol(const char* at, ErrUtlEntrySType* entry, const Complaint& complain) {
  const std::size_t length = std::strcspn(at, "\t :(");
  if (length == 0 || at[length] == '\0') return complain.because("symbol missing");
  if (length >= symbolLimit) return complain.because("symbol too long");
  std::memcpy(entry->sym, at, length);
  entry->sym[length] = '\0';
  return at + length;
}

const char* parseNumeral(const char* at, ErrUtlEntrySType* entry, const Complaint& complain) {
  int value = 0;
  for (; isDigit(*at); ++at) {
    value = 10 * value + (*at - '0');
    if (value > ErrUtlMaxArgs) return complain.outOfRange(value);
  }
  if (entry->argListSize == ErrUtlMaxArgs) return complain.because("too many arguments");
  entry->argOrder[entry->argListSize++] = value;
  if (value > entry->expectedArgCount) entry->expectedArgCount = value;
  return at;
}

const char* parseOrderList(const char* at, ErrUtlEntrySType* entry, const Complaint& complain) {
  entry->expectedArgCount = 0;
  entry->argListSize = 0;
  std::memset(entry->argOrder, 0, sizeof entry->argOrder);
  if (*at != '(') return at;
  at = skipBlanks(at + 1);
  if (*at == '\0') return complain.because("\")\" missing");
  while (*at != ')') {
    if (!isDigit(*at)) return complain.because("\")\" expected");
    at = parseNumeral(at, entry, complain);
    if (at == nullptr) return nullptr;
    at = skipBlanks(at);
  }
  return skipBlanks(at + 1);
}

bool parseEntry(const char* at, ErrUtlEntrySType* entry, const Complaint& complain) {
  at = parseSymbol(at, entry, complain);
  if (at == nullptr) return false;
  at = parseOrderList(skipBlanks(at), entry, complain);
  if (at == nullptr) return false;
  if (*at != ':') {
    complain.because("\":\" expected");
    return false;
  }
  std::memcpy(entry->buf, at + 1, std::strlen(at + 1) + 1);
  return true;
}

template <typename Input>
BoolType nextSym(Input* input, const char* fname, unsigned long* lineNum,
                 ErrUtlEntrySType* theEntry, bool buildingTable, BoolType* syntaxErr,
                 std::atomic<bool>* isTold) {
  *syntaxErr = 0;
  do {
    if (buildingTable) input->tell(&theEntry->loc);
    Line line;
    const bool complete = readLine(input, &line);
    if (buildingTable) *lineNum += line.physicalLines;
    const Complaint complain{fname, *lineNum, isTold};
    if (!complete) {
      if (!buildingTable) complain.say("%s: unexpected eof\n", fname);
      if (line.begun) *syntaxErr = 1;
      return 0;
    }
    const char* start = skipBlanks(line.text);
    if (*start == '\0' || *start == '#') {
      if (buildingTable) continue;
      complain.ofNoEntry(*start);
    } else if (parseEntry(start, theEntry, complain)) {
      return 1;
    }
    *syntaxErr = 1;
  } while (std::is_same_v<Input, StreamInput>);
  return 0;
}

}  // namespace

BoolType ErrUtlNextSym(FILE* f, const char* fname, unsigned long* lineNum,
                       ErrUtlEntrySType* theEntry, BoolType buildingTable, BoolType* syntaxErr) {
  StreamInput input{f};
  return nextSym(&input, fname, lineNum, theEntry, buildingTable != 0, syntaxErr, nullptr);
}

bool errUtlEntryAt(const ErrUtlBytes& contents, std::uint32_t offset, ErrUtlEntrySType* entry,
                   BoolType* syntaxErr, std::atomic<bool>* isTold) {
  if (offset > contents.size) offset = static_cast<std::uint32_t>(contents.size);
  BytesInput input{contents.data + offset, contents.data + contents.size};
  unsigned long lineNum = 0;
  return nextSym(&input, contents.name, &lineNum, entry, false, syntaxErr, isTold) != 0;
}

bool errUtlSlotAt(const ErrUtlBytes& file, const ErrUtlHdrSType& header, std::uint32_t index,
                  ErrUtlHashSType& slot) {
  static constexpr unsigned char hostTransform[] = {0, 1, 2, 3};
  const std::uint64_t at = sizeof header + std::uint64_t{sizeof slot} * index;
  if (!file.holds(at, sizeof slot)) return false;
  const unsigned char* const bytes = file.data + at;
  if (std::memcmp(header.transform, hostTransform, sizeof hostTransform) == 0) {
    std::memcpy(&slot, bytes, sizeof slot);
  } else {
    const auto decoded = [&](int place) { return errUtlDecode(bytes + place, header.transform); };
    slot = {decoded(0), decoded(4), decoded(8)};
  }
  return true;
}

ErrUtlSearch errUtlSearch(const ErrUtlBytes& file, const ErrUtlHdrSType& header, const char* symbol,
                          std::size_t length, std::uint32_t hash, std::uint32_t& index,
                          ErrUtlHashSType& slot) {
  if (header.tabSize == 0) return ErrUtlSearch::absent;
  const std::uint32_t home = hash % header.tabSize;
  index = home;
  do {
    if (!errUtlSlotAt(file, header, index, slot)) return ErrUtlSearch::slotIsCut;
    if (slot.valLoc == 0) return ErrUtlSearch::absent;
    if (slot.hash == hash) {
      if (slot.keyLoc == 0) return ErrUtlSearch::found;
      if (!file.holds(slot.keyLoc, length + 1)) return ErrUtlSearch::keyIsCut;
      if (std::memcmp(file.data + slot.keyLoc, symbol, length + 1) == 0) {
        return ErrUtlSearch::found;
      }
    }
    index = index + 1 == header.tabSize ? 0 : index + 1;
  } while (index != home);
  return ErrUtlSearch::absent;
}
