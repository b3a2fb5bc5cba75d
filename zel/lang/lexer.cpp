#include "lexer.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>

#include "errors/failure.h"
#include "objmem/names.h"
#include "objmem/text.h"

namespace zel {

namespace {

int digitValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

bool endsOperand(Token token) {
  switch (token) {
    case Token::identifier:
    case Token::integer:
    case Token::largeInteger:
    case Token::floating:
    case Token::character:
    case Token::string:
    case Token::symbol:
    case Token::closeParen:
    case Token::closeBracket:
    case Token::closeBrace:
      return true;
    default:
      return false;
  }
}

constexpr struct {
  char character;
  Token token;
} singles[] = {
    {'^', Token::caret},        {'.', Token::period},     {';', Token::semicolon},
    {'(', Token::openParen},    {')', Token::closeParen}, {'[', Token::openBracket},
    {']', Token::closeBracket}, {'{', Token::braceStart}, {'}', Token::closeBrace},
};

}  // namespace

char Lexer::peek(std::size_t ahead) const {
  return at_ + ahead < source_.size() ? source_[at_ + ahead] : '\0';
}

void Lexer::fail(const std::string& message) const {
  throw Failure(ErrCompile, message).in(position);
}

// Moves the position to the next byte to read. Bytes inside a character are none of their own, nor
// is the second half of a surrogate pair.
void Lexer::locate() {
  const auto byteAt = [&](std::size_t i) {
    return i < source_.size() ? static_cast<unsigned char>(source_[i]) : 0;
  };
  for (; located_ < at_; ++located_) {
    if (located_ % bytesPerCharge == 0) meter_.chargeRead(bytesPerCharge);
    const int byte = byteAt(located_);
    const bool isSecondHalf = byte == 0xED && byteAt(located_ + 1) >= 0xB0;
    if (byte == '\n') {
      position = {position.line + 1, 1};
    } else if ((byte & 0xC0) != 0x80 && !isSecondHalf) {
      ++position.column;
    }
  }
}

void Lexer::skipBlanks() {
  while (at_ < source_.size()) {
    const char c = source_[at_];
    if (c == '"') {
      locate();
      const std::size_t close = source_.find('"', at_ + 1);
      if (close == std::string_view::npos) fail("the comment is not closed");
      at_ = close + 1;
    } else if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      advance();
    } else {
      return;
    }
  }
}

bool Lexer::minusStartsNumber() const {
  return peek() == '-' && isDigit(peek(1)) && (literalDepth > 0 || !afterOperand_);
}

void Lexer::next() {
  afterOperand_ = endsOperand(token);
  skipBlanks();
  locate();
  if (at_ >= source_.size()) {
    token = Token::end;
    return;
  }
  const char c = peek();
  if (isLetter(c)) return readWord();
  if (isDigit(c) || minusStartsNumber()) return readNumber();
  if (c == '\'') {
    readQuoted();
    token = Token::string;
    return;
  }
  if (c == '#') return readHash();
  if (c == '$') {
    if (at_ + 1 >= source_.size()) fail("a character is missing after $");
    const Character character = decode({source_}, at_ + 1);
    integerValue = character.code;
    at_ += 1 + character.length;
    token = Token::character;
    return;
  }
  if (c == ':') {
    const bool assigns = peek(1) == '=';
    token = assigns ? Token::assign : Token::colon;
    at_ += assigns ? 2 : 1;
    return;
  }
  for (const auto& single : singles) {
    if (single.character != c) continue;
    token = single.token;
    ++at_;
    return;
  }
  if (isBinary(c)) return readBinary();
  fail("the character with code " + std::to_string(decode({source_}, at_).code) +
       " has no meaning here");
}

void Lexer::readWord() {
  const std::size_t start = at_;
  while (isWordCharacter(peek())) advance();
  token = Token::identifier;
  if (peek() == ':' && peek(1) != '=') {
    ++at_;
    token = Token::keyword;
  }
  text = source_.substr(start, at_ - start);
}

// Counts downwards, where there is one more.
void Lexer::readDigits(bool negative) {
  const std::size_t start = at_;
  token = Token::integer;
  integerValue = 0;
  for (; digitValue(peek()) < radix; advance()) {
    if (__builtin_mul_overflow(integerValue, radix, &integerValue) ||
        __builtin_sub_overflow(integerValue, digitValue(peek()), &integerValue)) {
      token = Token::largeInteger;
    }
  }
  if (at_ == start) fail("digits are missing");
  if (!negative && __builtin_sub_overflow(0, integerValue, &integerValue)) {
    token = Token::largeInteger;
  }
  if (token == Token::integer) return;
  text = negative ? "-" : "";
  text += source_.substr(start, at_ - start);
}

void Lexer::readFraction(std::size_t start) {
  ++at_;
  while (isDigit(peek())) advance();
  const std::size_t sign = peek(1) == '-' || peek(1) == '+' ? 1 : 0;
  if ((peek() == 'e' || peek() == 'E') && isDigit(peek(1 + sign))) {
    at_ += 1 + sign;
    while (isDigit(peek())) advance();
  }
  const std::string digits(source_.substr(start, at_ - start));
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), floatValue);
  if (result.ec != std::errc{}) fail("the float is out of range");
  token = Token::floating;
}

void Lexer::readNumber() {
  const bool negative = peek() == '-';
  if (negative) ++at_;
  const std::size_t start = at_;
  std::size_t ahead = 0;
  while (isDigit(peek(ahead))) {
    if (++ahead % bytesPerCharge == 0) meter_.chargeRead(bytesPerCharge);
  }
  const std::size_t sign = peek(ahead + 1) == '-' || peek(ahead + 1) == '+' ? 1 : 0;
  const bool hasFraction = peek(ahead) == '.' && isDigit(peek(ahead + 1));
  const bool hasExponent =
      (peek(ahead) == 'e' || peek(ahead) == 'E') && isDigit(peek(ahead + 1 + sign));
  if (hasFraction || hasExponent) {
    at_ += hasFraction ? ahead : ahead - 1;
    readFraction(start);
    if (negative) floatValue = -floatValue;
    return;
  }
  radix = 10;
  readDigits(negative);
  if (peek() == 'r') {
    const std::int64_t given = negative ? -integerValue : integerValue;
    if (token != Token::integer || given < 2 || given > 36) {
      fail("the radix is not between 2 and 36");
    }
    ++at_;
    radix = static_cast<int>(given);
    readDigits(negative);
  }
  if (isWordCharacter(peek())) fail("a letter follows the number");
}

void Lexer::readQuoted() {
  text.clear();
  for (++at_;; ++at_) {
    meter_.charge(1);
    const std::size_t quote = source_.find('\'', at_);
    if (quote == std::string_view::npos) fail("the string is not closed");
    text += source_.substr(at_, quote - at_);
    at_ = quote + 1;
    if (peek() != '\'') return;
    text += '\'';
  }
}

void Lexer::readHash() {
  ++at_;
  const char c = peek();
  if (c == '(' || c == '[') {
    ++at_;
    token = c == '(' ? Token::arrayStart : Token::bytesStart;
  } else if (c == '\'') {
    readQuoted();
    token = Token::symbol;
  } else if (isLetter(c)) {
    const std::size_t start = at_;
    while (isWordCharacter(peek()) || (peek() == ':' && peek(1) != '=')) advance();
    text = source_.substr(start, at_ - start);
    token = Token::symbol;
  } else if (isBinary(c)) {
    readBinary();
    token = Token::symbol;
  } else {
    fail("a symbol or an array is expected after #");
  }
}

void Lexer::readBinary() {
  const std::size_t start = at_;
  ++at_;
  // A minus sign before a digit belongs to the number: 3--4, x>-1.
  while (isBinary(peek()) && !(peek() == '-' && isDigit(peek(1)))) advance();
  text = source_.substr(start, at_ - start);
  token = text == "|" ? Token::bar : Token::binary;
}

}  // namespace zel
