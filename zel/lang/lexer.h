// Splits a text of the language into tokens. docs/language.md describes what they look like.
#pragma once

#include <string>
#include <string_view>

#include "errors/failure.h"
#include "objmem/meter.h"

namespace zel {

enum class Token {
  end,
  identifier,  // text: the name
  keyword,     // text: with its colon
  binary,      // text: the operator
  integer,     // integerValue
  // Of more than 64 bits. text: the digits, after a minus sign perhaps; radix
  largeInteger,
  floating,    // floatValue
  character,   // integerValue: the code
  string,      // text: the bytes, as they stand in the source
  symbol,      // text
  arrayStart,  // #(
  bytesStart,  // #[
  braceStart,
  assign,
  caret,
  period,
  semicolon,
  colon,
  bar,
  openParen,
  closeParen,
  openBracket,
  closeBracket,
  closeBrace,
};

class Lexer {
 public:
  // What it reads counts as steps.
  Lexer(std::string_view source, Meter& meter) : source_(source), meter_(meter) { next(); }

  Token token = Token::end;
  std::string text;
  std::int64_t integerValue = 0;
  int radix = 10;  // of largeInteger
  double floatValue = 0;
  Position position{1, 1};                        // where the token starts
  std::size_t start() const { return located_; }  // its first byte in the source
  int literalDepth = 0;  // inside literal arrays a minus sign always belongs to a number

  // Reads the next token. Throws Failure ErrCompile.
  void next();
  // Ends with the message, at the token's place.
  [[noreturn]] void fail(const std::string& message) const;

 private:
  char peek(std::size_t ahead = 0) const;
  // Moves on by a byte of a token or of what lies between two.
  void advance() {
    if (++at_ % bytesPerCharge == 0) meter_.chargeRead(bytesPerCharge);
  }
  void locate();
  void skipBlanks();
  void readWord();
  void readNumber();
  void readDigits(bool negative);
  void readFraction(std::size_t start);
  void readQuoted();
  void readHash();
  void readBinary();
  bool minusStartsNumber() const;

  static constexpr std::size_t bytesPerCharge = 4096;
  std::string_view source_;
  Meter& meter_;
  std::size_t at_ = 0;
  std::size_t located_ = 0;    // where in the source `position` is
  bool afterOperand_ = false;  // a minus sign here is a message, not a number's sign
};

}  // namespace zel
