// The report of an error record.

#include <cstring>

#include <povzel/errmsg.h>
#include "basics/internal.h"

namespace {

constexpr char dashes[] = "-----------------------------------------------------\n";
static_assert(sizeof dashes == 53 + 1 + 1);

constexpr long rtErrInternal = 2183;
constexpr long fatalErrInternal = 4126;
constexpr std::size_t firstColumnWidth = 24;
constexpr int lineColumns = 80;
constexpr int wordBreakColumns = 64;  // beyond these a blank ends the line
constexpr int longestCharacter = 4;   // bytes

// A line made of several texts.
struct ReportLine {
  ErrMsgStrType text;

  void pad() {
    std::size_t length = std::strlen(text);
    std::size_t columns = utlColumns(text, length, utlIsWide(text, length));
    for (; columns < firstColumnWidth; ++columns) text[length++] = ' ';
    text[length] = '\0';
  }

  char* end() { return text + std::strlen(text); }
  std::size_t room() { return sizeof text - std::strlen(text); }
};

bool takesTwoColumns(char c) {
  const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7F';
  return isControl && c != '\r' && c != '\t' && c != '\a';
}

// Prints the text in lines of at most 80 columns.
void writeErrStr(ErrMsgPrinterFuncType* printer, const char* text, std::size_t size) {
  char piece[lineColumns * longestCharacter + 1];
  std::size_t length = 0;
  int columns = 0;
  const auto printPiece = [&] {
    piece[length] = '\0';
    printer(piece);
    printer("\n");
    length = 0;
    columns = 0;
  };
  const char* const end = text + strnlen(text, size);
  const bool isWide = utlIsWide(text, static_cast<std::size_t>(end - text));
  for (; text < end; ++text) {
    if (isWide && !utlBeginsCharacter(*text)) {
      piece[length++] = *text;
      continue;
    }
    const bool isBreak = *text == '\n' || (*text == ' ' && columns > wordBreakColumns);
    if (isBreak || columns >= lineColumns) printPiece();
    if (isBreak) continue;
    piece[length++] = *text;
    columns += takesTwoColumns(*text) ? 2 : 1;
  }
  printPiece();
}

const char* categorySymbol(OopType category, long number) {
  if (category != SystemErrCategoryOop) return "errmsg.line3e";
  if (number == rtErrInternal) return "errmsg.line3b";
  if (number == fatalErrInternal) return "errmsg.line3c";
  return "errmsg.line3d";
}

void writeHeaderLine(ErrMsgPrinterFuncType* printer, const ZelErrSType& error, long number,
                     long errorsInProgress) {
  ReportLine line;
  if (errorsInProgress > 1) {
    ErrMsgSymToText("errmsg.line1", line.text, sizeof line.text, "dd", number, errorsInProgress);
  } else {
    ErrMsgSymToText("errmsg.line1a", line.text, sizeof line.text, nullptr);
  }
  line.pad();
  const char* severity = error.fatal != 0 ? "errmsg.line1b" : "errmsg.line1c";
  ErrMsgSymToText(severity, line.end(), line.room(), nullptr);
  printer(line.text);
  printer("\n");
}

void writeCategoryLine(ErrMsgPrinterFuncType* printer, const ZelErrSType& error, long number,
                       bool displayOops) {
  ErrMsgStrType category;
  ErrMsgSymToText(categorySymbol(error.category, number), category, sizeof category, nullptr);
  ReportLine line;
  if (displayOops) {
    ErrMsgSymToText("errmsg.line3f", line.text, sizeof line.text, "dsd",
                    static_cast<long>(error.category), category, number);
  } else {
    ErrMsgSymToText("errmsg.line3g", line.text, sizeof line.text, "sd", category, number);
  }
  line.pad();
  ErrMsgSymToText("errmsg.line3h", line.end(), line.room(), "d", static_cast<long>(error.argCount));
  if (displayOops) {
    ErrMsgSymToText("errmsg.line3i", line.end(), line.room(), "d",
                    static_cast<long>(error.context));
  }
  printer(line.text);
  printer("\n");
}

}  // namespace

void ErrMsgWriteError(ErrMsgPrinterFuncType* printer, ErrMsgObjPrinterFuncType* objectPrinter,
                      ZelErrSType* error, long number, BoolType displayOops,
                      long errorsInProgress) {
  printer(dashes);
  writeHeaderLine(printer, *error, number, errorsInProgress);
  writeErrStr(printer, error->message, sizeof error->message);
  writeCategoryLine(printer, *error, number, displayOops != 0);
  for (long i = 1; i <= error->argCount && i <= ZelMaxErrArgs; ++i) {
    ErrMsgStrType text;
    ErrMsgSymToText("errmsg.line4", text, sizeof text, "d", i);
    printer(text);
    objectPrinter(printer, error->args[i - 1]);
    printer("\n");
  }
}
