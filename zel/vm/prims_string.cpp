// Strings of both widths, symbols, characters and date-times.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>

#include "lang/lexer.h"
#include "letters.h"
#include "objmem/changes.h"
#include "objmem/classes.h"
#include "objmem/integers.h"
#include "objmem/text.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

// A new string of the receiver's kind from a part of it, or from what was made of it.
OopType likeReceiver(Memory& memory, OopType receiver, std::string_view bytes) {
  memory.meter.chargeCopy(bytes.size());
  return textOop(memory, {bytes, textOf(memory, receiver).doubleByte});
}

std::string inForm(Memory& memory, const Text& text, bool doubleByte) {
  std::string bytes;
  memory.meter.chargeCopy(text.bytes.size());
  if (text.doubleByte == doubleByte) return bytes.assign(text.bytes);
  bytes.reserve(text.bytes.size());
  for (Reader reader(text, &memory.meter); !reader.atEnd();) {
    append(bytes, reader.next(), doubleByte);
  }
  return bytes;
}

// A string with a double-byte one gives a double-byte one.
OopType concatenate(Memory& memory, OopType receiver, const OopType* args) {
  const Text left = textOf(memory, receiver);
  const Text right = textArgument(memory, args[0]);
  const Object& object = memory.at(receiver);
  const bool wholeUnits = left.bytes.size() == object.size;
  if (left.doubleByte < right.doubleByte || !wholeUnits) {
    return doubleByteStringOop(memory, inForm(memory, left, true) + inForm(memory, right, true));
  }
  if (!left.doubleByte && meetAsPair(left.bytes, right.bytes)) {
    return stringOop(memory, withPairsJoined(std::string(left.bytes) + std::string(right.bytes)));
  }
  std::string converted;
  if (left.doubleByte != right.doubleByte) converted = inForm(memory, right, true);
  const std::string_view added = left.doubleByte != right.doubleByte ? converted : right.bytes;
  const OopType both = memory.allocateJoined(
      receiver, added, left.doubleByte ? DoubleByteStringClassOop : StringClassOop);
  if (object.width != Width::unknown) continueText(memory, receiver, both);
  return both;
}

template <typename Comparison>
OopType compare(Memory& memory, OopType receiver, const OopType* args) {
  const Text argument = textArgument(memory, args[0]);
  return booleanOop(Comparison()(compareTexts(memory, textOf(memory, receiver), argument), 0));
}

template <std::uint32_t (*function)(std::uint32_t)>
OopType mapCase(Memory& memory, OopType receiver, const OopType*) {
  const Text text = textOf(memory, receiver);
  std::string mapped;
  mapped.reserve(text.bytes.size());
  for (Reader reader(text, &memory.meter); !reader.atEnd();) {
    const std::size_t begin = reader.offset;
    const std::string_view ascii = reader.nextAscii();
    if (!ascii.empty()) {
      mapped += ascii;
      std::transform(
          ascii.begin(), ascii.end(), mapped.data() + mapped.size() - ascii.size(),
          [](char c) { return static_cast<char>(function(static_cast<unsigned char>(c))); });
      continue;
    }
    const std::uint32_t code = reader.next();
    const std::uint32_t other = function(code);
    if (other == code) {
      mapped += text.bytes.substr(begin, reader.offset - begin);
    } else {
      append(mapped, other, text.doubleByte);
    }
  }
  return likeReceiver(memory, receiver, mapped);
}

OopType reversed(Memory& memory, OopType receiver, const OopType*) {
  const Text text = textOf(memory, receiver);
  std::string bytes(text.bytes.size(), '\0');
  for (Reader reader(text, &memory.meter); !reader.atEnd();) {
    const std::size_t begin = reader.offset;
    const std::string_view ascii = reader.nextAscii();
    if (ascii.empty()) reader.next();
    char* place = bytes.data() + bytes.size() - reader.offset;
    if (ascii.empty()) {
      text.bytes.copy(place, reader.offset - begin, begin);
    } else {
      std::reverse_copy(ascii.begin(), ascii.end(), place);
    }
  }
  if (!text.doubleByte) bytes = withPairsJoined(std::move(bytes));
  return likeReceiver(memory, receiver, bytes);
}

// Finds a part of a text, which is not empty, in linear time, in whatever forms they are.
class Search {
 public:
  Search(const Text& text, const Text& part, Meter& meter) : text_(text), meter_(meter) {
    const bool singleBytes = !text.doubleByte && !part.doubleByte;
    if (singleBytes && isAscii(part.bytes) && part.bytes.find('\0') == std::string_view::npos) {
      ascii_ = part.bytes;
      return;
    }
    for (Reader reader(part, &meter); !reader.atEnd();) codes_.push_back(reader.next());
    fallbacks_.resize(codes_.size());
    for (std::size_t at = 1, matched = 0; at < codes_.size(); ++at) {
      matched = advance(matched, codes_[at]);
      fallbacks_[at] = matched;
    }
    beginnings_.resize(codes_.size());
  }

  // Moves the reader behind the next occurrence and answers where that begins, or to the end.
  std::size_t find(Reader& reader) {
    if (!ascii_.empty()) return findBytes(reader);
    for (std::size_t matched = 0; !reader.atEnd();) {
      beginnings_[reader.character % codes_.size()] = reader.offset;
      matched = advance(matched, reader.next());
      if (matched == codes_.size()) return beginnings_[reader.character % codes_.size()];
    }
    return std::string_view::npos;
  }

 private:
  // How many characters match when so many did before the next one.
  std::size_t advance(std::size_t matched, std::uint32_t code) const {
    while (matched > 0 && (matched == codes_.size() || codes_[matched] != code)) {
      matched = fallbacks_[matched - 1];
    }
    return codes_[matched] == code ? matched + 1 : matched;
  }

  std::size_t findBytes(Reader& reader) const {
    const char* from = text_.bytes.data() + reader.offset;
    const void* found =
        memmem(from, text_.bytes.size() - reader.offset, ascii_.data(), ascii_.size());
    const auto end = found != nullptr ? static_cast<const char*>(found)
                                      : from + text_.bytes.size() - reader.offset;
    meter_.chargeCopy(static_cast<std::size_t>(end - from));
    reader.offset = text_.bytes.size();
    if (found == nullptr) return std::string_view::npos;
    const auto begin =
        static_cast<std::size_t>(static_cast<const char*>(found) - text_.bytes.data());
    reader.offset = begin + ascii_.size();
    return begin;
  }

  Text text_;
  Meter& meter_;
  std::string_view ascii_;  // the part, if in the text it is these bytes and nothing else is
  std::vector<std::uint32_t> codes_;
  std::vector<std::size_t> fallbacks_;   // how much of the part its own end repeats, at each place
  std::vector<std::size_t> beginnings_;  // of the characters read last
};

OopType indexOfString(Memory& memory, OopType receiver, const OopType* args) {
  const Text text = textOf(memory, receiver);
  const Text part = textArgument(memory, args[0]);
  if (part.bytes.empty()) return smallIntOop(1);
  Reader reader(text, &memory.meter);
  const std::size_t begin = Search(text, part, memory.meter).find(reader);
  if (begin == std::string_view::npos) return smallIntOop(0);
  Reader before({text.bytes.substr(0, begin), text.doubleByte}, &memory.meter);
  while (!before.atEnd()) {
    if (before.nextAscii().empty()) before.next();
  }
  return smallIntOop(static_cast<std::int32_t>(before.character) + 1);
}

bool isSeparator(std::uint32_t code) {
  return code == ' ' || (code >= '\t' && code <= '\r');
}

// Where the characters lie that `separates` does not hold for, one stretch after another.
template <typename Separates, typename Each>
void eachPart(Memory& memory, const Text& text, Separates separates, Each each) {
  std::size_t begin = 0;
  Reader reader(text, &memory.meter);
  while (!reader.atEnd()) {
    const std::size_t here = reader.offset;
    if (!separates(reader.next())) continue;
    if (here > begin) each(text.bytes.substr(begin, here - begin));
    begin = reader.offset;
  }
  if (text.bytes.size() > begin) each(text.bytes.substr(begin));
}

OopType trimmed(Memory& memory, OopType receiver, const OopType*) {
  const Text text = textOf(memory, receiver);
  const char* first = nullptr;
  const char* last = nullptr;
  eachPart(memory, text, isSeparator, [&](std::string_view part) {
    if (first == nullptr) first = part.data();
    last = part.data() + part.size();
  });
  return likeReceiver(memory, receiver, first != nullptr ? std::string_view(first, last) : "");
}

OopType subStrings(Memory& memory, OopType receiver, const OopType* args) {
  std::vector<std::uint32_t> separators;
  for (Reader reader(textArgument(memory, args[0]), &memory.meter); !reader.atEnd();) {
    separators.push_back(reader.next());
  }
  std::sort(separators.begin(), separators.end());
  const auto separates = [&](std::uint32_t code) {
    return std::binary_search(separators.begin(), separators.end(), code);
  };
  std::vector<OopType> parts;
  eachPart(memory, textOf(memory, receiver), separates,
           [&](std::string_view part) { parts.push_back(likeReceiver(memory, receiver, part)); });
  return arrayOop(memory, parts);
}

OopType replaceAll(Memory& memory, OopType receiver, const OopType* args) {
  const Text text = textOf(memory, receiver);
  const Text from = textArgument(memory, args[0]);
  const std::string to = inForm(memory, textArgument(memory, args[1]), text.doubleByte);
  if (from.bytes.empty()) {
    throw Failure(ErrBadArgumentKind, "the text to replace is empty", {args[0]});
  }
  std::string result;
  Search search(text, from, memory.meter);
  Reader reader(text, &memory.meter);
  std::size_t at = 0;
  for (std::size_t begin = 0; (begin = search.find(reader)) != std::string_view::npos;) {
    memory.meter.charge(1);
    result.append(text.bytes.substr(at, begin - at)).append(to);
    at = reader.offset;
    if (result.size() > largestObjectBytes) throw Failure(ErrNoMemory, "the result is too large");
  }
  result.append(text.bytes.substr(at));
  if (!text.doubleByte) result = withPairsJoined(std::move(result));
  return likeReceiver(memory, receiver, result);
}

OopType asSymbol(Memory& memory, OopType receiver, const OopType*) {
  return symbolOop(memory, utf8Argument(memory, receiver));
}
OopType asString(Memory& memory, OopType receiver, const OopType*) {
  if (classOf(memory, receiver) == StringClassOop) return receiver;
  return stringOop(memory, utf8Argument(memory, receiver));
}
OopType asDoubleByteString(Memory& memory, OopType receiver, const OopType*) {
  if (isDoubleByteString(memory, receiver)) return receiver;
  return doubleByteStringOop(memory, inForm(memory, textOf(memory, receiver), true));
}

OopType byteSize(Memory& memory, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(memory.at(receiver).size));
}
// In proper UTF-8, but for bytes that are none.
OopType asByteArray(Memory& memory, OopType receiver, const OopType*) {
  const Text text = textOf(memory, receiver);
  std::string bytes;
  for (Reader reader(text, &memory.meter); !reader.atEnd();) {
    const std::size_t begin = reader.offset;
    const std::uint32_t code = reader.next();
    if (!text.doubleByte && reader.offset == begin + 1) {
      bytes += text.bytes[begin];
    } else {
      append(bytes, code, false);
    }
  }
  const OopType array = newInstance(memory, ByteArrayClass, bytes.size());
  std::copy(bytes.begin(), bytes.end(), memory.at(array).bytes);
  return array;
}
OopType byteArrayAsString(Memory& memory, OopType receiver, const OopType*) {
  memory.meter.chargeCopy(memory.at(receiver).size);
  return stringOop(memory, bytesOf(memory, receiver));
}

OopType largeNumber(Memory& memory, const Lexer& lexer) {
  const OopType oop = parseInteger(memory, lexer.text, lexer.radix);
  if (oop == 0) throw Failure(ErrOverflow, integerTooLarge);
  return oop;
}

OopType asNumber(Memory& memory, OopType receiver, const OopType*) {
  const std::string text = utf8Argument(memory, receiver);
  try {
    const bool hasComment = text.find('"') != std::string::npos;
    Lexer lexer(hasComment ? std::string_view() : text, memory.meter);
    const OopType number = lexer.token == Token::integer    ? integerOop(memory, lexer.integerValue)
                           : lexer.token == Token::floating ? floatOop(memory, lexer.floatValue)
                           : lexer.token == Token::largeInteger ? largeNumber(memory, lexer)
                                                                : NilOop;
    if (number != NilOop) {
      lexer.next();
      if (lexer.token == Token::end) return number;
    }
  } catch (const Failure& failure) {
    if (failure.number != ErrCompile) throw;
  }
  throw Failure(ErrBadArgumentKind, "'" + text + "' is no number", {receiver});
}

OopType characterValue(Memory&, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(characterCode(receiver)));
}
OopType characterWithValue(Memory& memory, OopType, const OopType* args) {
  return characterOop(
      static_cast<std::uint32_t>(integerArgument(memory, args[0], 0, largestCharacter)));
}
template <typename Comparison>
OopType characterCompare(Memory& memory, OopType receiver, const OopType* args) {
  if (!isCharacter(args[0])) {
    throw Failure(ErrNotCharacter, "a character is expected, not " + describe(memory, args[0]),
                  {args[0]});
  }
  return booleanOop(Comparison()(receiver, args[0]));
}
template <bool (*function)(std::uint32_t)>
OopType characterTest(Memory&, OopType receiver, const OopType*) {
  return booleanOop(function(characterCode(receiver)));
}
template <std::uint32_t (*function)(std::uint32_t)>
OopType characterMap(Memory&, OopType receiver, const OopType*) {
  return characterOop(function(characterCode(receiver)));
}

template <std::size_t slot>
OopType dateTimePart(Memory& memory, OopType receiver, const OopType*) {
  return memory.find(receiver)->slots[slot];
}

OopType dateTimeNew(Memory& memory, OopType receiver, const OopType* args) {
  ZelDateTimeSType time{};
  time.year = static_cast<std::int32_t>(integerArgument(memory, args[0], INT32_MIN, INT32_MAX));
  time.dayOfYear =
      static_cast<std::int32_t>(integerArgument(memory, args[1], INT32_MIN, INT32_MAX));
  time.milliseconds =
      static_cast<std::int32_t>(integerArgument(memory, args[2], INT32_MIN, INT32_MAX));
  time.timeZone = NilOop;
  return dateTimeOop(memory, receiver, time);
}

OopType dateTimeNow(Memory& memory, OopType receiver, const OopType*) {
  using namespace std::chrono;
  const auto now = floor<milliseconds>(system_clock::now());
  const auto today = floor<days>(now);
  const year_month_day date(today);
  const auto newYear = sys_days(date.year() / 1 / 1);
  return dateTimeOop(memory, receiver,
                     {int{date.year()}, static_cast<std::int32_t>((today - newYear).count()) + 1,
                      static_cast<std::int32_t>((now - today).count()), NilOop});
}

std::int64_t instant(Memory& memory, OopType oop) {
  if (!isKindOf(memory, oop, DateTimeClassOop)) {
    throw Failure(ErrBadArgumentKind, "a date-time is expected, not " + describe(memory, oop),
                  {oop});
  }
  const ZelDateTimeSType time = dateTimeValue(memory, oop);
  const std::int64_t day = std::int64_t{time.year} * 366 + time.dayOfYear;
  return day * 86'400'000 + time.milliseconds;
}
OopType dateTimeLess(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(instant(memory, receiver) < instant(memory, args[0]));
}

constexpr Primitive stringMessages[] = {
    {",", concatenate},
    {"<", compare<std::less<>>},
    {">", compare<std::greater<>>},
    {"<=", compare<std::less_equal<>>},
    {">=", compare<std::greater_equal<>>},
    {"asUppercase", mapCase<upperCase>},
    {"asLowercase", mapCase<lowerCase>},
    {"reversed", reversed},
    {"indexOfString:", indexOfString},
    {"trimmed", trimmed},
    {"subStrings:", subStrings},
    {"copyReplaceAll:with:", replaceAll},
    {"asSymbol", asSymbol},
    {"asString", asString},
    {"asDoubleByteString", asDoubleByteString},
    {"asNumber", asNumber},
    {"byteSize", byteSize},
    {"asByteArray", asByteArray},
};
constexpr Primitive byteArrayMessages[] = {
    {"asString", byteArrayAsString},
};
constexpr Primitive characterMessages[] = {
    {"asInteger", characterValue},
    {"value", characterValue},
    {"<", characterCompare<std::less<>>},
    {">", characterCompare<std::greater<>>},
    {"isLetter", characterTest<isLetterCode>},
    {"isDigit", characterTest<isDigitCode>},
    {"isSeparator", characterTest<isSeparator>},
    {"asUppercase", characterMap<upperCase>},
    {"asLowercase", characterMap<lowerCase>},
};
constexpr Primitive characterClassMessages[] = {
    {"value:", characterWithValue},
};
constexpr Primitive dateTimeMessages[] = {
    {"year", dateTimePart<0>},
    {"dayOfYear", dateTimePart<1>},
    {"milliseconds", dateTimePart<2>},
    {"<", dateTimeLess},
};
constexpr Primitive dateTimeClassMessages[] = {
    {"now", dateTimeNow},
    {"year:dayOfYear:milliseconds:", dateTimeNew},
};
constexpr ClassPrimitives families[] = {
    {StringKindClassOop, stringMessages},
    {ByteArrayClass, byteArrayMessages},
    {CharacterClass, characterMessages, characterClassMessages},
    {DateTimeClassOop, dateTimeMessages, dateTimeClassMessages},
};

}  // namespace

constinit const PrimitiveTable stringPrimitives = families;

}  // namespace zel
