#include "text.h"

#include <algorithm>
#include <cstring>

#include "classes.h"
#include "errors/failure.h"
#include "values.h"

namespace zel {

namespace {

constexpr std::size_t stride = 32;         // characters from one offset in the index to the next
constexpr std::size_t leastIndexed = 128;  // bytes of a text that is worth an index
constexpr std::size_t mostCharacterBytes = 6;  // bytes: two surrogates
constexpr std::size_t pieceCharacters = 64;
constexpr std::size_t bytesPerStep = 4096;  // of what goes through a plain loop

bool isHighSurrogate(std::uint32_t code) {
  return (code & ~0x3FFU) == 0xD800;
}
bool isLowSurrogate(std::uint32_t code) {
  return (code & ~0x3FFU) == 0xDC00;
}
std::uint32_t joinedPair(std::uint32_t high, std::uint32_t low) {
  return ((high - 0xD7C0) << 10) + (low & 0x3FF);
}

std::uint32_t byteAt(std::string_view bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}
std::uint32_t unitAt(std::string_view bytes, std::size_t at) {
  return byteAt(bytes, at) | byteAt(bytes, at + 1) << 8;
}

// One sequence of UTF-8, else one byte.
Character sequenceAt(std::string_view bytes, std::size_t at) {
  constexpr std::uint32_t leastCodes[] = {0, 0, 0x80, 0x800, 0x10000};
  const std::uint32_t first = byteAt(bytes, at);
  const Character alone{first, 1};
  const std::uint32_t length = first < 0xC0 || first >= 0xF8 ? 1
                               : first < 0xE0                ? 2
                               : first < 0xF0                ? 3
                                                             : 4;
  if (length == 1 || length > bytes.size() - at) return alone;
  std::uint32_t code = first & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const std::uint32_t byte = byteAt(bytes, at + i);
    if ((byte & 0xC0) != 0x80) return alone;
    code = code << 6 | (byte & 0x3F);
  }
  const bool isNul = length == 2 && code == 0;
  if (code > largestCharacter || (code < leastCodes[length] && !isNul)) return alone;
  return {code, length};
}

// How the bytes of one character are written.
struct Encoded {
  char bytes[4];
  std::uint32_t length = 0;

  Encoded(std::uint32_t code, bool doubleByte) {
    if (doubleByte) {
      if (code >= 0x10000) {
        putUnit(0xD7C0 + (code >> 10));
        putUnit(0xDC00 | (code & 0x3FF));
      } else {
        putUnit(code);
      }
    } else if (code < 0x80) {
      put(code);
    } else if (code < 0x800) {
      put(0xC0 | code >> 6);
      put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      put(0xE0 | code >> 12);
      put(0x80 | (code >> 6 & 0x3F));
      put(0x80 | (code & 0x3F));
    } else {
      put(0xF0 | code >> 18);
      put(0x80 | (code >> 12 & 0x3F));
      put(0x80 | (code >> 6 & 0x3F));
      put(0x80 | (code & 0x3F));
    }
  }

 private:
  void put(std::uint32_t byte) { bytes[length++] = static_cast<char>(byte); }
  void putUnit(std::uint32_t unit) {
    put(unit & 0xFF);
    put(unit >> 8);
  }
};

// Whether the character takes one unit and joins no other.
bool isPlain(std::uint32_t code, bool doubleByte) {
  return doubleByte ? code < 0x10000 && !isSurrogate(code) : code < 0x80;
}
bool arePlain(std::string_view bytes, bool doubleByte) {
  if (!doubleByte) return isAscii(bytes);
  for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
    if (isSurrogate(unitAt(bytes, at))) return false;
  }
  return true;
}

template <std::size_t words>
bool areAscii(const char* bytes) {
  std::uint32_t read[words];
  std::memcpy(read, bytes, sizeof read);
  std::uint32_t all = 0;
  for (const std::uint32_t word : read) all |= word;
  return (all & 0x80808080U) == 0;
}
// How many ASCII characters the bytes begin with.
std::size_t asciiLength(std::string_view bytes) {
  std::size_t length = 0;
  while (bytes.size() - length >= 16 && areAscii<4>(bytes.data() + length)) length += 16;
  while (bytes.size() - length >= 4 && areAscii<1>(bytes.data() + length)) length += 4;
  while (length < bytes.size() && byteAt(bytes, length) < 0x80) ++length;
  return length;
}

// The surrogate of three bytes that begins there; 0 where there is none.
std::uint32_t surrogateAt(std::string_view bytes, std::size_t at) {
  if (at > bytes.size() || bytes.size() - at < 3 || byteAt(bytes, at) != 0xED) return 0;
  const std::uint32_t code = sequenceAt(bytes, at).code;
  return isSurrogate(code) ? code : 0;
}

// The last place up to the offset at which a character begins whatever comes before it.
std::size_t beginningBefore(const Text& text, std::size_t at) {
  if (!text.doubleByte) {
    while (at > 0 && byteAt(text.bytes, at - 1) >= 0x80) --at;
    return at;
  }
  at -= at % 2;
  while (at > 0 && isSurrogate(unitAt(text.bytes, at - 2))) at -= 2;
  return at;
}

TextIndex* indexIn(const Object& object) {
  return object.extra != nullptr ? object.extra->text.get() : nullptr;
}

void setWidth(Memory& memory, OopType oop, Width width) {
  Object& object = memory.at(oop);
  TextIndex* index = indexIn(object);
  // What it says is of the time before.
  if (object.width != Width::mixed && width == Width::mixed && index != nullptr) {
    *index = TextIndex();
    memory.recount(oop);
  }
  object.width = width;
}

bool isUniform(Memory& memory, OopType oop) {
  constexpr std::size_t block = 16 * bytesPerStep;
  if (memory.at(oop).width == Width::unknown) {
    const Text text = textOf(memory, oop);
    bool uniform = true;
    for (std::size_t at = 0; uniform && at < text.bytes.size(); at += block) {
      const std::string_view bytes = text.bytes.substr(at, block);
      memory.meter.charge(bytes.size() / bytesPerStep);
      uniform = arePlain(bytes, text.doubleByte);
    }
    setWidth(memory, oop, uniform ? Width::uniform : Width::mixed);
  }
  return memory.at(oop).width == Width::uniform;
}

TextIndex& indexOf(Memory& memory, OopType oop) {
  if (indexIn(memory.at(oop)) == nullptr) {
    memory.reserve(sizeof(Extra) + sizeof(TextIndex));
    memory.extraOf(oop).text = std::make_unique<TextIndex>();
    memory.recount(oop);
  }
  return *memory.at(oop).extra->text;
}

void remember(Memory& memory, OopType oop, TextIndex& index, std::size_t offset) {
  if (index.offsets.size() == index.offsets.capacity()) {
    const std::size_t room = std::max<std::size_t>(8, 2 * index.offsets.size());
    memory.reserve(room * sizeof(std::uint32_t));
    index.offsets.reserve(room);
    memory.recount(oop);
  }
  index.offsets.push_back(static_cast<std::uint32_t>(offset));
}

// Forgets the offsets that a change of the bytes from `offset` on may have moved.
void forgetFrom(TextIndex& index, std::size_t offset) {
  while (!index.offsets.empty() && index.offsets.back() + mostCharacterBytes > offset) {
    index.offsets.pop_back();
  }
}

// A reader before the character with the index, or at the end of a text that has fewer.
Reader readerAt(Memory& memory, OopType oop, std::size_t character) {
  const Text text = textOf(memory, oop);
  Reader reader(text, &memory.meter);
  TextIndex* index = text.bytes.size() < leastIndexed ? nullptr : &indexOf(memory, oop);
  if (index != nullptr) {
    const std::size_t known = std::min(character / stride, index->offsets.size());
    reader.character = known * stride;
    if (known != 0) reader.offset = index->offsets[known - 1];
  }
  while (reader.character < character && !reader.atEnd()) {
    reader.next();
    if (index == nullptr || reader.character != (index->offsets.size() + 1) * stride) continue;
    remember(memory, oop, *index, reader.offset);
  }
  if (index != nullptr && reader.atEnd()) {
    index->characters = static_cast<std::uint32_t>(reader.character);
  }
  return reader;
}

}  // namespace

Character decodeWide(const Text& text, std::size_t at) {
  if (text.doubleByte) {
    const std::uint32_t unit = unitAt(text.bytes, at);
    if (!isHighSurrogate(unit) || at + 3 >= text.bytes.size()) return {unit, 2};
    const std::uint32_t next = unitAt(text.bytes, at + 2);
    return isLowSurrogate(next) ? Character{joinedPair(unit, next), 4} : Character{unit, 2};
  }
  const Character one = sequenceAt(text.bytes, at);
  if (!isHighSurrogate(one.code) || at + 3 >= text.bytes.size()) return one;
  const Character next = sequenceAt(text.bytes, at + 3);
  return isLowSurrogate(next.code) ? Character{joinedPair(one.code, next.code), 6} : one;
}

void append(std::string& bytes, std::uint32_t code, bool doubleByte) {
  const Encoded encoded(code, doubleByte);
  bytes.append(encoded.bytes, encoded.length);
}

bool meetAsPair(std::string_view left, std::string_view right) {
  return left.size() >= 3 && isHighSurrogate(surrogateAt(left, left.size() - 3)) &&
         isLowSurrogate(surrogateAt(right, 0));
}

std::string withPairsJoined(std::string bytes) {
  std::string joined;
  std::size_t copied = 0;
  for (std::size_t at = 0; (at = bytes.find('\xED', at)) != std::string::npos; ++at) {
    const std::uint32_t high = surrogateAt(bytes, at);
    const std::uint32_t low = surrogateAt(bytes, at + 3);
    if (!isHighSurrogate(high) || !isLowSurrogate(low)) continue;
    joined.append(bytes, copied, at - copied);
    append(joined, joinedPair(high, low), false);
    copied = at + 6;
    at += 5;
  }
  if (copied == 0) return bytes;
  return joined.append(bytes, copied);
}

bool isAscii(std::string_view bytes) {
  return asciiLength(bytes) == bytes.size();
}

std::string_view Reader::nextAscii() {
  if (text_.doubleByte) return {};
  std::string_view ascii = text_.bytes.substr(offset, bytesPerStep);
  ascii = ascii.substr(0, asciiLength(ascii));
  const std::size_t stepsBefore = character / charactersPerStep;
  offset += ascii.size();
  character += ascii.size();
  if (meter_ != nullptr) meter_->charge(character / charactersPerStep - stepsBefore);
  return ascii;
}

bool isOtherText(const Memory& memory, const Object& object) {
  return object.holdsBytes() && inheritsFrom(memory, object.classOop, StringKindClassOop);
}

Text otherTextOf(const Memory& memory, OopType oop) {
  const Object& object = memory.at(oop);
  if (!isDoubleByteString(memory, oop)) return {object.text()};
  return {object.text().substr(0, object.size & ~1U), true};
}

Text textArgument(const Memory& memory, OopType oop) {
  if (!isText(memory, oop)) wrongKind(memory, "a string", oop);
  return textOf(memory, oop);
}

std::string utf8(const Text& text, Meter* meter) {
  return text.doubleByte ? canonicalUtf8(text, meter) : std::string(text.bytes);
}

std::string canonicalUtf8(const Text& text, Meter* meter) {
  if (!text.doubleByte && isAscii(text.bytes)) return std::string(text.bytes);
  std::string result;
  result.reserve(text.bytes.size());
  for (Reader reader(text, meter); !reader.atEnd();) append(result, reader.next(), false);
  return result;
}

OopType textOop(Memory& memory, const Text& text) {
  return text.doubleByte ? doubleByteStringOop(memory, text.bytes) : stringOop(memory, text.bytes);
}

int compareTexts(Memory& memory, const Text& a, const Text& b) {
  std::size_t begin = 0;
  if (a.doubleByte == b.doubleByte) {
    const std::size_t size = std::min(a.bytes.size(), b.bytes.size());
    memory.meter.charge(size / bytesPerStep);
    const auto differs = std::mismatch(a.bytes.begin(), a.bytes.begin() + size, b.bytes.begin());
    const auto common = static_cast<std::size_t>(differs.first - a.bytes.begin());
    if (common == a.bytes.size() && common == b.bytes.size()) return 0;
    if (common < size && !a.doubleByte) {
      const std::uint32_t one = byteAt(a.bytes, common);
      const std::uint32_t other = byteAt(b.bytes, common);
      if (one < 0x80 && other < 0x80) return one < other ? -1 : 1;
    }
    begin = beginningBefore(a, common);
  }
  Reader left(a, &memory.meter);
  Reader right(b);
  left.offset = right.offset = begin;
  while (!left.atEnd() && !right.atEnd()) {
    const std::uint32_t one = left.next();
    const std::uint32_t other = right.next();
    if (one != other) return one < other ? -1 : 1;
  }
  if (left.atEnd()) return right.atEnd() ? 0 : -1;
  return 1;
}

std::uint32_t hashText(Meter& meter, const Text& text, std::size_t mostPieces) {
  const bool isPiece = !text.bytes.empty() && text.bytes.size() <= pieceCharacters;
  if (isPiece && !text.doubleByte && isAscii(text.bytes)) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(text.bytes));
  }
  constexpr std::size_t piecesPerCharge = 32;
  std::size_t hash = 0;
  char encoded[pieceCharacters * sizeof Encoded::bytes];
  Reader reader(text);
  for (; mostPieces > 0 && !reader.atEnd(); --mostPieces) {
    if (mostPieces % piecesPerCharge == 0) meter.chargeRead(piecesPerCharge * pieceCharacters);
    std::string_view piece = text.bytes.substr(reader.offset, pieceCharacters);
    if (!text.doubleByte && isAscii(piece)) {
      reader.offset += piece.size();
    } else {
      char* end = encoded;
      for (std::size_t i = 0; i < pieceCharacters && !reader.atEnd(); ++i) {
        const Encoded one(reader.next(), false);
        end = std::copy_n(one.bytes, one.length, end);
      }
      piece = {encoded, end};
    }
    hash = hash * 31 + std::hash<std::string_view>{}(piece);
  }
  return static_cast<std::uint32_t>(hash);
}

std::size_t characterCount(Memory& memory, OopType string) {
  const Text text = textOf(memory, string);
  if (isUniform(memory, string)) return text.bytes.size() / text.unit();
  const TextIndex* index = indexIn(memory.at(string));
  if (index != nullptr && index->characters != TextIndex::notCounted) return index->characters;
  return readerAt(memory, string, SIZE_MAX).character;
}

std::size_t offsetOf(Memory& memory, OopType string, std::size_t index) {
  if (isUniform(memory, string)) {
    const Text text = textOf(memory, string);
    const std::size_t units = text.bytes.size() / text.unit();
    return index <= units ? index * text.unit() : noOffset;
  }
  const Reader reader = readerAt(memory, string, index);
  return reader.character == index ? reader.offset : noOffset;
}

void replaceCharacter(Memory& memory, OopType string, std::size_t offset, std::uint32_t code) {
  const Text text = textOf(memory, string);
  std::size_t replaced = decode(text, offset).length;
  const bool isHalf = isSurrogate(code);
  if (!text.doubleByte && isHalf) {
    const std::uint32_t next = surrogateAt(text.bytes, offset + replaced);
    const std::uint32_t former = offset >= 3 ? surrogateAt(text.bytes, offset - 3) : 0;
    if (isHighSurrogate(code) && isLowSurrogate(next)) {
      code = joinedPair(code, next);
      replaced += 3;
    } else if (isLowSurrogate(code) && isHighSurrogate(former)) {
      code = joinedPair(former, code);
      offset -= 3;
      replaced += 3;
    }
  }
  const Encoded encoded(code, text.doubleByte);
  const std::size_t size = memory.at(string).size;
  const std::size_t tail = size - offset - replaced;
  const Width before = memory.at(string).width;
  if (encoded.length != replaced) {
    memory.meter.charge(tail / bytesPerStep);
    const auto moveTail = [&] {
      ByteType* place = memory.at(string).bytes + offset;
      std::memmove(place + encoded.length, place + replaced, tail);
    };
    if (encoded.length < replaced) moveTail();
    memory.resize(string, size + encoded.length - replaced);
    if (encoded.length > replaced) moveTail();
  }
  Object& object = memory.at(string);
  std::memcpy(object.bytes + offset, encoded.bytes, encoded.length);
  object.width = before;
  const bool plain = before == Width::uniform && isPlain(code, text.doubleByte);
  setWidth(memory, string, plain ? Width::uniform : Width::mixed);
  TextIndex* index = indexIn(object);
  if (plain || index == nullptr) return;
  if (encoded.length != replaced || isHalf) forgetFrom(*index, offset);
  if (isHalf) index->characters = TextIndex::notCounted;
}

void appendCharacter(Memory& memory, OopType string, std::uint32_t code) {
  const Text text = textOf(memory, string);
  if (!text.doubleByte && isLowSurrogate(code) && text.bytes.size() >= 3 &&
      isHighSurrogate(surrogateAt(text.bytes, text.bytes.size() - 3))) {
    replaceCharacter(memory, string, text.bytes.size() - 3,
                     joinedPair(surrogateAt(text.bytes, text.bytes.size() - 3), code));
    TextIndex* index = indexIn(memory.at(string));
    if (index != nullptr) index->characters = TextIndex::notCounted;
    return;
  }
  const Encoded encoded(code, text.doubleByte);
  const std::size_t size = text.bytes.size();
  const Width before = memory.at(string).width;
  Object& object = memory.resize(string, size + encoded.length);
  std::memcpy(object.bytes + size, encoded.bytes, encoded.length);
  object.width = before;
  if (before == Width::unknown) return;
  const bool plain = before == Width::uniform && isPlain(code, text.doubleByte);
  setWidth(memory, string, plain ? Width::uniform : Width::mixed);
  TextIndex* index = indexIn(object);
  if (plain || index == nullptr) return;
  forgetFrom(*index, size);
  index->characters = TextIndex::notCounted;
}

void continueText(Memory& memory, OopType string, OopType longer) {
  Object& first = memory.at(string);
  const std::size_t size = first.size;
  if (first.width == Width::uniform &&
      arePlain(memory.at(longer).text().substr(size), textOf(memory, string).doubleByte)) {
    memory.at(longer).width = Width::uniform;
  } else if (first.width == Width::mixed && indexIn(first) != nullptr) {
    std::unique_ptr<TextIndex>& index = memory.extraOf(longer).text;
    index = std::move(first.extra->text);
    forgetFrom(*index, size);
    index->characters = TextIndex::notCounted;
    memory.at(longer).width = Width::mixed;
    memory.recount(string);
    memory.recount(longer);
  }
}

}  // namespace zel
