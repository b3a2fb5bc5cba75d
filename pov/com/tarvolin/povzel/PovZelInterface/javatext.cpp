// Texts on their way to Java. Its form of UTF-8 has a character beyond U+FFFF as two halves of
// three bytes each and U+0000 as two bytes; what it makes of anything else is garbled and loses its
// end.
#include <algorithm>

#include "frame.h"

namespace bridge {
namespace {

struct Range {
  unsigned char first, last;
};
constexpr Range tail = {0x80, 0xBF};

// The bytes of a character.
struct Form {
  int length;
  Range bytes[6];
};
constexpr int beyondHalves = 4;  // the length of those that Java writes in halves
constexpr Form forms[] = {{1, {{0x01, 0x7F}}},
                          {2, {{0xC0, 0xC0}, {0x80, 0x80}}},  // U+0000
                          {2, {{0xC2, 0xDF}, tail}},
                          {3, {{0xE0, 0xE0}, {0xA0, 0xBF}, tail}},
                          {3, {{0xE1, 0xEC}, tail, tail}},
                          {3, {{0xED, 0xED}, {0x80, 0x9F}, tail}},
                          {3, {{0xEE, 0xEF}, tail, tail}},
                          {6, {{0xED, 0xED}, {0xA0, 0xAF}, tail, {0xED, 0xED}, {0xB0, 0xBF}, tail}},
                          {beyondHalves, {{0xF0, 0xF0}, {0x90, 0xBF}, tail, tail}},
                          {beyondHalves, {{0xF1, 0xF3}, tail, tail, tail}},
                          {beyondHalves, {{0xF4, 0xF4}, {0x80, 0x8F}, tail, tail}}};

// The character that a text begins with.
struct Character {
  int length;  // in bytes; 0 if there is none
  bool isCut;  // by the text's end
};

// The terminator fits nowhere.
Character firstOf(const unsigned char* text) {
  Character first{0, false};
  for (const Form& form : forms) {
    int fitting = 0;
    while (fitting < form.length && text[fitting] >= form.bytes[fitting].first &&
           text[fitting] <= form.bytes[fitting].last) {
      ++fitting;
    }
    if (fitting == form.length) return {fitting, false};
    if (fitting > 0 && text[fitting] == '\0') first.isCut = true;
  }
  return first;
}

char* putHalf(unsigned half, char* to) {
  *to++ = static_cast<char>(0xE0 | half >> 12);
  *to++ = static_cast<char>(0x80 | (half >> 6 & 0x3F));
  *to++ = static_cast<char>(0x80 | (half & 0x3F));
  return to;
}

char* putInHalves(const unsigned char* character, char* to) {
  const unsigned code = (character[0] & 0x07U) << 18 | (character[1] & 0x3FU) << 12 |
                        (character[2] & 0x3FU) << 6 | (character[3] & 0x3FU);
  to = putHalf(0xD800 + ((code - 0x10000) >> 10), to);
  return putHalf(0xDC00 + (code & 0x3FF), to);
}

}  // namespace

jstring newErrorText(const ErrorText& text) {
  char java[sizeof text / 2 * 3 + 1];
  char* end = java;
  const auto* from = reinterpret_cast<const unsigned char*>(text);
  for (Character next = firstOf(from); *from != '\0'; next = firstOf(from)) {
    if (next.isCut) break;
    if (next.length == beyondHalves) {
      end = putInHalves(from, end);
    } else if (next.length == 0) {
      *end++ = '?';
    } else {
      end = std::copy_n(from, next.length, end);
    }
    from += std::max(next.length, 1);
  }
  *end = '\0';
  return ENV->NewStringUTF(java);
}

}  // namespace bridge
