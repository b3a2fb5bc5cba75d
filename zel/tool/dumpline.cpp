#include "tool/dumpline.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include "objmem/classes.h"
#include "objmem/integers.h"
#include "objmem/names.h"
#include "objmem/text.h"
#include "session/recordformat.h"
#include "session/users.h"
#include "tool/decimal.h"

namespace zel {

namespace {

constexpr ObjectId endOfIds = ObjectId{1} << 62;
constexpr std::size_t mostDigits = mostIntegerBits * 30103ULL / 100000 + 2;  // with the sign
constexpr std::size_t mostIntegerBytes = mostIntegerBits / 8 + 4;
constexpr std::string_view hexDigits = "0123456789ABCDEF";
constexpr std::string_view rawWord = "raw";
constexpr std::string_view userWord = "user";
constexpr std::string_view askedWord = "asked";
constexpr std::string_view classSideMark = ".class";
constexpr std::string_view methodMark = ">>";

struct FormWord {
  std::string_view word;
  std::uint8_t mask;
  std::uint8_t bits;
};
constexpr FormWord formWords[] = {
    {"bytes", FormImpl, static_cast<std::uint8_t>(Impl::bytes)},
    {"set", FormImpl, static_cast<std::uint8_t>(Impl::set)},
    {"special", FormImpl, static_cast<std::uint8_t>(Impl::special)},
    {"indexable", FormIndexable, FormIndexable},
    {"fixed", FormFixedSize, FormFixedSize},
    {"invariant", FormInvariant, FormInvariant},
    {"hashed", FormHashed, FormHashed},
    {"classSide", FormClassSide, FormClassSide},
};
constexpr std::string_view hashWord = "hash=";
constexpr std::string_view namedWord = "named=";

struct Constant {
  std::string_view word;
  Tag tag;
};
constexpr Constant constants[] = {
    {"nil", Tag::nil}, {"false", Tag::falseValue}, {"true", Tag::trueValue}};

struct FloatWord {
  std::string_view word;
  std::uint64_t bits;
};
constexpr FloatWord floatWords[] = {{"inf", 0x7FF0000000000000},
                                    {"-inf", 0xFFF0000000000000},
                                    {"nan", 0x7FF8000000000000},
                                    {"-nan", 0xFFF8000000000000}};
constexpr std::string_view otherNan = "nan=";  // and its bits

constexpr bool isSelectorPart(char c) {
  return isWordCharacter(c) || c == ':';
}
// Whether a symbol needs no quotes.
bool isPlain(std::string_view symbol) {
  return consistsOf(isSelectorPart, symbol) || isBinarySelector(symbol);
}

// Whether a character shows what it is. Others could also change how the rest of a line looks.
constexpr bool isShown(std::uint32_t code) {
  const bool isControl = code <= ' ' || (code >= 0x7F && code <= 0xA0) || code == 0xAD;
  const bool isFormat = (code >= 0x2000 && code <= 0x206F) || (code >= 0xE0000 && code <= 0xE0FFF);
  return !isControl && !isFormat && code != 0xFEFF && !isSurrogate(code) &&
         code <= largestCharacter;
}

// The two surrogates that stand for a character beyond the basic plane, of three bytes each.
std::string inSurrogates(std::uint32_t code) {
  std::string bytes;
  append(bytes, 0xD800 + ((code - 0x10000) >> 10), false);
  append(bytes, 0xDC00 + ((code - 0x10000) & 0x3FF), false);
  return bytes;
}

// What stands behind a backslash for a character.
constexpr std::string_view escaped = "\"\\\n\r\t";
constexpr std::string_view escapes = "\"\\nrt";

// Writing

class LineWriter {
 public:
  std::string line;

  void hex(std::string_view bytes) {
    line += "#[";
    for (const char byte : bytes) hexByte(byte);
    line += ']';
  }

  void quoted(std::string_view text) {
    line += '"';
    for (std::size_t at = 0; at < text.size();) at += character(text, at);
    line += '"';
  }

  void classId(ObjectId id) {
    const bool isFixed = id > 0 && id < firstFreeIndex;
    const std::string_view name =
        isFixed ? kernelClassName(fixedOop(static_cast<std::uint32_t>(id))) : "";
    line += name.empty() ? "@" + std::to_string(id) : std::string(name);
  }

  void values(RowReader& reader) {
    while (!reader.atEnd()) {
      line += ' ';
      value(reader);
    }
  }

 private:
  void hexByte(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    line += hexDigits[value >> 4];
    line += hexDigits[value & 15];
  }

  // Appends the character at the place; answers how many bytes it has.
  std::size_t character(std::string_view text, std::size_t at) {
    if (const std::size_t found = escaped.find(text[at]); found != std::string_view::npos) {
      line += '\\';
      line += escapes[found];
      return 1;
    }
    const Character read = decode({text}, at);
    const std::string_view bytes = text.substr(at, read.length);
    std::string proper;
    append(proper, read.code, false);
    if (read.code == ' ' || (isShown(read.code) && proper == bytes)) {
      line += bytes;
      return bytes.size();
    }
    // As the JVM writes them.
    if (isShown(read.code) && proper.size() == 4 && bytes == inSurrogates(read.code)) {
      line += "\\s" + proper;
      return bytes.size();
    }
    for (const char byte : bytes) {
      line += "\\x";
      hexByte(byte);
    }
    return bytes.size();
  }

  void symbol(std::string_view name) {
    line += '#';
    if (isPlain(name)) {
      line += name;
    } else {
      quoted(name);
    }
  }

  void characterValue(std::uint64_t code) {
    line += '$';
    if (code <= largestCharacter && isShown(static_cast<std::uint32_t>(code)) && code != '\\') {
      return append(line, static_cast<std::uint32_t>(code), false);
    }
    std::array<char, 16> digits;
    const auto end = std::to_chars(digits.begin(), digits.end(), code, 16).ptr;
    line += "\\u" + std::string(digits.begin(), end);
  }

  void floatValue(std::string_view bytes) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, bytes.data(), sizeof bits);
    for (const FloatWord& each : floatWords) {
      if (each.bits == bits) {
        line += each.word;
        return;
      }
    }
    const auto number = std::bit_cast<double>(bits);
    std::array<char, 32> digits;
    if (std::isnan(number)) {
      const auto end = std::to_chars(digits.begin(), digits.end(), bits, 16).ptr;
      line += otherNan;
      line.append(digits.begin(), end);
      return;
    }
    const std::string text(digits.begin(), std::to_chars(digits.begin(), digits.end(), number).ptr);
    line += text;
    if (text.find_first_of(".e") == std::string::npos) line += ".0";
  }

  void largeInteger(RowReader& reader) {
    const std::string_view bytes = reader.sizedText();
    if (bytes.empty() || bytes.size() > mostIntegerBytes) reader.damaged();
    line += decimalOf(bytes);
  }

  void value(RowReader& reader) {
    const Tag tag{reader.byte()};
    switch (tag) {
      case Tag::nil:
      case Tag::falseValue:
      case Tag::trueValue:
        line += constants[static_cast<std::size_t>(tag)].word;
        return;
      case Tag::smallInteger:
        line += std::to_string(fromZigzag(static_cast<std::uint32_t>(reader.number())));
        return;
      case Tag::character:
        return characterValue(reader.number());
      case Tag::floatNumber:
        return floatValue(reader.text(sizeof(double)));
      case Tag::largeInteger:
        return largeInteger(reader);
      case Tag::symbol:
        return symbol(reader.sizedText());
      case Tag::reference:
        return classId(reader.number());
      case Tag::kernelMethod:
        classId(reader.number());
        if (reader.byte() != 0) line += classSideMark;
        line += methodMark;
        return symbol(reader.sizedText());
    }
    reader.damaged();
  }
};
static_assert(constants[0].tag == Tag{0} && constants[1].tag == Tag{1} &&
              constants[2].tag == Tag{2});

void writePlace(LineWriter& writer, const Row& row) {
  writer.line += "@" + std::to_string(row.place.id);
  if (row.place.part == Place::itself) {
    writer.line += ' ';
    writer.classId(row.classId);
  } else {
    writer.line += "/" + std::to_string(row.place.part - Place::ofHash(0));
  }
}

// Whether the object's bytes are worth to be read as a text.
bool isText(const Row& row, std::string_view bytes) {
  if (row.classId == ByteArrayClass >> 2) return false;
  if (row.classId == DoubleByteStringClassOop >> 2) return false;
  std::size_t odd = 0;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    odd += value < ' ' && byte != '\n' && byte != '\t' && byte != '\r' ? 1 : 0;
  }
  return odd <= bytes.size() / 4;
}

std::string objectLine(const Row& row) {
  RowReader reader(row);
  LineWriter writer;
  writePlace(writer, row);
  const std::uint8_t form = reader.byte();
  for (const FormWord& each : formWords) {
    if ((form & each.mask) == each.bits) writer.line += ' ' + std::string(each.word);
  }
  const std::uint64_t hash = reader.number();
  const std::uint64_t named = reader.number();
  const std::uint64_t size = reader.number();
  if (hash != 0) writer.line += ' ' + std::string(hashWord) + std::to_string(hash);
  if (named != 0) writer.line += ' ' + std::string(namedWord) + std::to_string(named);
  writer.line += ':';
  if (static_cast<Impl>(form & FormImpl) != Impl::bytes) {
    writer.values(reader);
    return std::move(writer.line);
  }
  writer.line += ' ';
  const std::string_view bytes = reader.text(size);
  if (isText(row, bytes)) {
    writer.quoted(bytes);
  } else {
    writer.hex(bytes);
  }
  return std::move(writer.line);
}

std::string userLine(const Row& row) {
  LineWriter writer;
  writePlace(writer, row);
  writer.line += ' ' + std::string(userWord) + ':';
  for (std::size_t at = 1; at < row.bytes.size();) {
    const std::size_t end = std::min(row.bytes.find('\0', at), row.bytes.size());
    writer.line += ' ';
    writer.quoted(std::string_view(row.bytes).substr(at, end - at));
    at = end + 1;
  }
  return std::move(writer.line);
}

std::string elementsLine(const Row& row) {
  if (row.place.id == usersId) return userLine(row);
  RowReader reader(row);
  LineWriter writer;
  writePlace(writer, row);
  if (reader.byte() != 0) writer.line += ' ' + std::string(askedWord);
  writer.line += ':';
  writer.values(reader);
  return std::move(writer.line);
}

std::string rawLine(const Row& row) {
  LineWriter writer;
  writePlace(writer, row);
  writer.line += ' ' + std::string(rawWord) + ": ";
  writer.hex(row.bytes);
  return std::move(writer.line);
}

// Reading

class LineParser {
 public:
  explicit LineParser(std::string_view line) : line_(line) {}

  Row row() {
    Row row;
    expect("@", "'@' and the number of an object");
    row.place.id = id(1);
    if (take("/")) {
      row.place.part = Place::ofHash(number(Place::any - 2, "a hash"));
    } else {
      expect(" ", "' ' and a class");
      row.classId = reference(0, "a class");
    }
    row.bytes = row.place.part == Place::itself ? object() : elements();
    if (!atEnd()) fail("the end of the line");
    return row;
  }

 private:
  [[noreturn]] void fail(std::string_view expected) const {
    throw LineFault{at_ + 1, std::string(expected)};
  }
  bool atEnd() const { return at_ == line_.size(); }
  std::string_view rest() const { return line_.substr(at_); }
  char next() const { return atEnd() ? '\0' : line_[at_]; }
  bool take(std::string_view text) {
    if (!rest().starts_with(text)) return false;
    at_ += text.size();
    return true;
  }
  void expect(std::string_view text, std::string_view expected) {
    if (!take(text)) fail(expected);
  }
  std::string_view takeWhile(bool (*belongs)(char)) {
    const std::size_t start = at_;
    while (!atEnd() && belongs(line_[at_])) ++at_;
    return line_.substr(start, at_ - start);
  }

  template <typename Number>
  Number number(Number most, std::string_view expected, int radix = 10) {
    Number value = 0;
    const auto [end, error] =
        std::from_chars(line_.data() + at_, line_.data() + line_.size(), value, radix);
    if (error != std::errc() || value > most) fail(expected);
    at_ = static_cast<std::size_t>(end - line_.data());
    return value;
  }
  ObjectId id(ObjectId least) {
    const std::size_t start = at_;
    const ObjectId value = number(endOfIds, "the number of an object");
    if (value >= least) return value;
    at_ = start;
    fail("the number of an object");
  }
  ObjectId reference(ObjectId least, std::string_view expected) {
    if (take("@")) return id(least);
    const std::size_t start = at_;
    const OopType classOop = kernelClassNamed(takeWhile(isWordCharacter));
    if (classOop != 0) return classOop >> 2;
    at_ = start;
    fail(expected);
  }

  // Rows

  std::string rawBytes() {
    expect(rawWord, "'raw'");
    expect(": ", "': ' and bytes");
    return hex();
  }

  std::string object() {
    if (rest().starts_with(" raw:")) {
      take(" ");
      return rawBytes();
    }
    std::uint8_t form = 0;
    std::uint32_t hash = 0;
    std::uint32_t named = 0;
    while (take(" ")) {
      if (take(hashWord)) {
        hash = number(std::numeric_limits<std::uint32_t>::max(), "a hash");
      } else if (take(namedWord)) {
        named = number(std::uint32_t{UINT16_MAX}, "a number of variables below 65536");
      } else {
        formWord(form);
      }
    }
    expect(":", "':', or a word about the object's form");
    std::string head(1, static_cast<char>(form));
    appendNumber(head, hash);
    appendNumber(head, named);
    if (static_cast<Impl>(form & FormImpl) == Impl::bytes) {
      expect(" ", "' ' and bytes");
      const std::string bytes = next() == '"' ? quoted() : hex();
      appendNumber(head, bytes.size());
      return head + bytes;
    }
    const auto [count, bytes] = values();
    if (named > count) fail("a value for each named variable");
    appendNumber(head, count);
    return head + bytes;
  }

  void formWord(std::uint8_t& form) {
    const std::size_t start = at_;
    const std::string_view word = takeWhile(isWordCharacter);
    for (const FormWord& each : formWords) {
      if (each.word != word || (form & each.mask) != 0) continue;
      form |= each.bits;
      return;
    }
    at_ = start;
    fail("a word about the object's form");
  }

  std::string elements() {
    const bool isRaw = rest().starts_with(" raw:");
    const bool isUser = rest().starts_with(" user:");
    if (isRaw || isUser) take(" ");
    if (isRaw) return rawBytes();
    if (isUser) return users();
    std::string bytes(1, '\0');
    if (take(" ")) {
      expect(askedWord, "'asked'");
      bytes[0] = '\1';
    }
    expect(":", "':'");
    return bytes + values().bytes;
  }

  std::string users() {
    expect(userWord, "'user'");
    expect(":", "':'");
    std::string bytes(1, '\0');
    while (take(" ")) bytes += quoted() + '\0';
    return bytes;
  }

  // Values

  struct Values {
    std::size_t count;
    std::string bytes;
  };
  Values values() {
    std::size_t count = 0;
    std::string bytes;
    for (; take(" "); ++count) value(bytes);
    return {count, std::move(bytes)};
  }

  static void tag(std::string& bytes, Tag tag) { bytes += static_cast<char>(tag); }

  void value(std::string& bytes) {
    switch (next()) {
      case '#':
        tag(bytes, Tag::symbol);
        return symbol(bytes);
      case '$':
        return character(bytes);
      case '@':
        return referenceOrMethod(bytes);
      default:
        break;
    }
    if (isUppercase(next())) return referenceOrMethod(bytes);
    if (isLetter(next()) || rest().starts_with("-inf") || rest().starts_with("-nan"))
      return word(bytes);
    if (isDigit(next()) || next() == '-') return numeral(bytes);
    fail("a value");
  }

  void word(std::string& bytes) {
    if (take(otherNan)) {
      return floatValue(bytes,
                        number(std::numeric_limits<std::uint64_t>::max(), "bits of a float", 16));
    }
    for (const Constant& each : constants) {
      if (take(each.word)) return tag(bytes, each.tag);
    }
    for (const FloatWord& each : floatWords) {
      if (take(each.word)) return floatValue(bytes, each.bits);
    }
    fail("a value");
  }

  static void floatValue(std::string& bytes, std::uint64_t bits) {
    tag(bytes, Tag::floatNumber);
    bytes.append(reinterpret_cast<const char*>(&bits), sizeof bits);
  }

  void numeral(std::string& bytes) {
    const std::size_t start = at_;
    const std::string_view digits = takeWhile(
        [](char c) { return isDigit(c) || c == '-' || c == '+' || c == '.' || c == 'e'; });
    if (digits.find_first_of(".e") != std::string_view::npos) {
      double value = 0;
      const char* const end = digits.data() + digits.size();
      const auto [used, error] = std::from_chars(digits.data(), end, value);
      if (error == std::errc() && used == end)
        return floatValue(bytes, std::bit_cast<std::uint64_t>(value));
    } else if (integer(bytes, digits)) {
      return;
    }
    at_ = start;
    fail("a number");
  }

  static bool integer(std::string& bytes, std::string_view digits) {
    const std::string_view magnitude = digits.substr(digits.starts_with('-') ? 1 : 0);
    const bool isOne = consistsOf(isDigit, magnitude) && digits.size() <= mostDigits &&
                       (magnitude[0] != '0' || digits == "0");
    if (!isOne) return false;
    std::int32_t small = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), small);
    if (error == std::errc() && fitsSmallInt(small)) {
      tag(bytes, Tag::smallInteger);
      appendNumber(bytes, zigzag(small));
      return true;
    }
    const std::string large = bytesOfDecimal(digits);
    tag(bytes, Tag::largeInteger);
    appendNumber(bytes, large.size());
    bytes += large;
    return true;
  }

  void symbol(std::string& bytes) {
    expect("#", "a symbol");
    std::string name;
    if (next() == '"') {
      name = quoted();
    } else {
      name = takeWhile(isBinary(next()) ? isBinary : isSelectorPart);
      if (name.empty()) fail("a symbol");
    }
    appendNumber(bytes, name.size());
    bytes += name;
  }

  void character(std::string& bytes) {
    take("$");
    tag(bytes, Tag::character);
    if (take("\\u"))
      return appendNumber(bytes, number(largestCharacter, "the code of a character", 16));
    if (atEnd()) fail("a character");
    const Character read = decode({line_}, at_);
    at_ += read.length;
    appendNumber(bytes, read.code);
  }

  void referenceOrMethod(std::string& bytes) {
    const ObjectId id = reference(1, "a value");
    const bool classSide = take(classSideMark);
    if (!classSide && !rest().starts_with(methodMark)) {
      tag(bytes, Tag::reference);
      return appendNumber(bytes, id);
    }
    expect(methodMark, "'>>' and a selector");
    tag(bytes, Tag::kernelMethod);
    appendNumber(bytes, id);
    bytes += classSide ? '\1' : '\0';
    symbol(bytes);
  }

  // Bytes

  char hexByte() {
    const auto digit = [this] {
      const std::size_t value = hexDigits.find(next());
      if (value == std::string_view::npos) fail("two digits from 0 to F");
      ++at_;
      return value;
    };
    const std::size_t high = digit();
    return static_cast<char>(high << 4 | digit());
  }

  std::string hex() {
    std::string bytes;
    expect("#[", "a text in \"quotes\", or bytes in #[...]");
    while (!take("]")) bytes += hexByte();
    return bytes;
  }

  std::string quoted() {
    std::string text;
    expect("\"", "a text in \"quotes\"");
    while (!take("\"")) {
      if (atEnd()) fail("'\"' at the end of a text");
      if (take("\\")) {
        escape(text);
      } else {
        text += line_[at_++];
      }
    }
    return text;
  }

  void escape(std::string& text) {
    if (take("x")) {
      text += hexByte();
      return;
    }
    if (take("s")) {
      const Character read = atEnd() ? Character{} : decode({line_}, at_);
      if (read.code < 0x10000) fail("a character beyond the basic plane");
      at_ += read.length;
      text += inSurrogates(read.code);
      return;
    }
    const std::size_t letter = escapes.find(next());
    if (letter == std::string_view::npos) fail("one of \"\\nrtxs behind '\\'");
    text += escaped[letter];
    ++at_;
  }

  std::string_view line_;
  std::size_t at_ = 0;
};

bool isSame(const Row& a, const Row& b) {
  return a.place == b.place && a.classId == b.classId && a.bytes == b.bytes;
}

// The line that tells the row's meaning, if it tells all of it.
std::optional<std::string> readableLine(const Row& row) {
  try {
    std::string line = row.place.part == Place::itself ? objectLine(row) : elementsLine(row);
    if (isSame(rowOf(line), row)) return line;
  } catch (const Failure& failure) {
    if (failure.number != ErrDamaged) throw;
  } catch (const LineFault&) {
  }
  return std::nullopt;
}

}  // namespace

std::string lineOf(const Row& row) {
  std::optional<std::string> line = readableLine(row);
  return line ? *std::move(line) : rawLine(row);
}

Row rowOf(std::string_view line) {
  return LineParser(line).row();
}

}  // namespace zel
