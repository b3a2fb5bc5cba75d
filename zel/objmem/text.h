// Texts: what strings, symbols and double-byte strings hold, as characters.
//
// A character is a Unicode code point. Single-byte strings hold UTF-8 as clients write it: what the
// JVM makes of it, a NUL of two bytes and surrogates of three bytes each, is read, too, and a byte
// that belongs to no sequence is a character of its own value. Double-byte strings hold UTF-16 in
// little-endian order. In both, two surrogates that make a pair are one character, and one without
// a partner is itself a character. Equal texts have the same characters, however they are held.
#pragma once

#include <string>
#include <string_view>

#include "memory.h"

namespace zel {

// The bytes of a string; valid until it is changed.
struct Text {
  std::string_view bytes;
  bool doubleByte = false;

  std::size_t unit() const { return doubleByte ? 2 : 1; }
};

struct Character {
  std::uint32_t code;
  std::uint32_t length;  // in bytes
};

// The character of more than one ASCII byte at the offset.
Character decodeWide(const Text& text, std::size_t at);
// The character that begins at the offset, which must lie within the text.
inline Character decode(const Text& text, std::size_t at) {
  const auto first = static_cast<unsigned char>(text.bytes[at]);
  return first < 0x80 && !text.doubleByte ? Character{first, 1} : decodeWide(text, at);
}
// Appends the character in the form of single-byte or double-byte strings.
void append(std::string& bytes, std::uint32_t code, bool doubleByte);

constexpr bool isSurrogate(std::uint32_t code) {
  return code >= 0xD800 && code <= 0xDFFF;
}
bool isAscii(std::string_view bytes);

// Reads the characters of a text one after another. With a meter they count as steps, so that a
// break can end it.
class Reader {
 public:
  explicit Reader(const Text& text, Meter* meter = nullptr) : text_(text), meter_(meter) {}

  std::size_t offset = 0;     // of the next character
  std::size_t character = 0;  // its index, from 0

  bool atEnd() const { return offset >= text_.bytes.size(); }
  std::uint32_t next() {
    const Character read = decode(text_, offset);
    offset += read.length;
    if (++character % charactersPerStep == 0 && meter_ != nullptr) meter_->charge(1);
    return read.code;
  }
  // The ASCII characters of a single-byte text from here on, as far as they go, but at most 4096;
  // none where another follows.
  std::string_view nextAscii();

 private:
  static constexpr std::size_t charactersPerStep = 32;
  Text text_;
  Meter* meter_;
};

// Single-byte texts that programs make hold a pair in four bytes. Whether one surrogate ends the
// first and its partner begins the second; the bytes with all pairs so.
bool meetAsPair(std::string_view left, std::string_view right);
std::string withPairsJoined(std::string bytes);

// Whether the object is of the classes of nearly all texts, which hold single bytes; the others are
// asked about more slowly.
inline bool isUsualText(const Object& object) {
  return object.classOop == StringClassOop || object.classOop == SymbolClass;
}
bool isOtherText(const Memory& memory, const Object& object);
// Whether the object is a string of either kind, or a symbol.
inline bool isText(const Memory& memory, OopType oop) {
  const Object* object = memory.find(oop);
  return object != nullptr && (isUsualText(*object) || isOtherText(memory, *object));
}
Text otherTextOf(const Memory& memory, OopType oop);
// What such an object holds.
inline Text textOf(const Memory& memory, OopType oop) {
  const Object& object = memory.at(oop);
  return isUsualText(object) ? Text{object.text()} : otherTextOf(memory, oop);
}
// The same for an argument: throws ErrBadArgumentKind if it is something else.
Text textArgument(const Memory& memory, OopType oop);
// The text in UTF-8; bytes of a single-byte string stay as they are.
std::string utf8(const Text& text, Meter* meter = nullptr);
inline std::string utf8Argument(const Memory& memory, OopType oop) {
  const Text text = textArgument(memory, oop);
  memory.meter.chargeRead(text.bytes.size());
  return utf8(text, &memory.meter);
}
// The text in the one form that equal texts share: proper UTF-8, surrogates without a partner in
// three bytes.
std::string canonicalUtf8(const Text& text, Meter* meter = nullptr);
// A new String, or DoubleByteString.
OopType textOop(Memory& memory, const Text& text);

// Below, at or above 0 as the first text is less than, equal to or greater than the second, in the
// order of code points. Counts steps.
int compareTexts(Memory& memory, const Text& a, const Text& b);
// A hash that equal texts share, of at most so many pieces of 64 characters. Counts steps.
std::uint32_t hashText(Meter& meter, const Text& text, std::size_t mostPieces);

constexpr std::size_t noOffset = SIZE_MAX;

// How many characters the string has, and at which byte the one with the index (from 0) begins: the
// end for the index behind the last, noOffset beyond. In constant time for strings whose characters
// all take one unit, else by way of an index that grows with what is looked at. Both count steps.
std::size_t characterCount(Memory& memory, OopType string);
std::size_t offsetOf(Memory& memory, OopType string, std::size_t index);

// Changes of a string that has been prepared for writing. The first replaces the character at the
// offset, which offsetOf has answered. Both throw MemoryFull and leave the string as it was.
void replaceCharacter(Memory& memory, OopType string, std::size_t offset, std::uint32_t code);
void appendCharacter(Memory& memory, OopType string, std::uint32_t code);
// Hands on what is known of a string's characters to the string that continues it.
void continueText(Memory& memory, OopType string, OopType longer);

}  // namespace zel
