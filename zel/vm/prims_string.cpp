// Strings of both widths, symbols, characters and date-times.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <functional>

#include "lang/lexer.h"
#include "objmem/classes.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"
#include "session/changes.h"

namespace zel {

namespace {

// The text of an argument that is a string of either width, as UTF-8.
std::string textOf(OopType oop) {
  if (isDoubleByteString(oop)) return encodeUtf8(unitsOf(oop));
  return std::string(stringArgument(oop));
}

OopType likeReceiver(OopType receiver, std::string_view text) {
  return isDoubleByteString(receiver) ? doubleByteStringOop(decodeUtf8(text)) : stringOop(text);
}

// A string with a double-byte one gives a double-byte one.
OopType concatenate(Machine&, OopType receiver, const OopType* args) {
  if (isString(receiver) && isString(args[0])) {
    std::string text(bytesOf(receiver));
    text += bytesOf(args[0]);
    return stringOop(text);
  }
  const auto units = [](OopType oop) {
    return isDoubleByteString(oop) ? unitsOf(oop) : decodeUtf8(stringArgument(oop));
  };
  return doubleByteStringOop(units(receiver) + units(args[0]));
}

int order(OopType receiver, OopType argument) {
  if (isDoubleByteString(receiver) && isDoubleByteString(argument)) {
    return unitsOf(receiver).compare(unitsOf(argument));
  }
  return textOf(receiver).compare(textOf(argument));
}

template <typename Comparison>
OopType compare(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(Comparison()(order(receiver, args[0]), 0));
}

template <int (*function)(int)>
OopType mapCase(Machine&, OopType receiver, const OopType*) {
  // ASCII letters only, so that UTF-8 sequences stay whole.
  std::string text = textOf(receiver);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 128) c = static_cast<char>(function(c));
  }
  return likeReceiver(receiver, text);
}

OopType reversed(Machine&, OopType receiver, const OopType*) {
  if (isDoubleByteString(receiver)) {
    std::u16string units = unitsOf(receiver);
    std::reverse(units.begin(), units.end());
    return doubleByteStringOop(units);
  }
  std::string text(bytesOf(receiver));
  std::reverse(text.begin(), text.end());
  return stringOop(text);
}

OopType indexOfString(Machine&, OopType receiver, const OopType* args) {
  const std::size_t at = isDoubleByteString(receiver)
                             ? unitsOf(receiver).find(decodeUtf8(textOf(args[0])))
                             : bytesOf(receiver).find(textOf(args[0]));
  return smallIntOop(at == std::string_view::npos ? 0 : static_cast<std::int32_t>(at) + 1);
}

OopType trimmed(Machine&, OopType receiver, const OopType*) {
  const std::string text = textOf(receiver);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return likeReceiver(receiver, "");
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  return likeReceiver(receiver, std::string_view(text).substr(first, last - first + 1));
}

OopType subStrings(Machine&, OopType receiver, const OopType* args) {
  const std::string text = textOf(receiver);
  const std::string separators = textOf(args[0]);
  std::vector<OopType> parts;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(separators, at)) != std::string::npos) {
    const std::size_t end = std::min(text.find_first_of(separators, at), text.size());
    parts.push_back(likeReceiver(receiver, std::string_view(text).substr(at, end - at)));
    at = end;
  }
  return arrayOop(parts);
}

OopType replaceAll(Machine&, OopType receiver, const OopType* args) {
  std::string text = textOf(receiver);
  const std::string from = textOf(args[0]);
  const std::string to = textOf(args[1]);
  if (from.empty()) throw Failure(ErrBadArgumentKind, "the text to replace is empty", {args[0]});
  std::string result;
  std::size_t at = 0;
  for (std::size_t found = 0; (found = text.find(from, at)) != std::string::npos;) {
    result.append(text, at, found - at).append(to);
    at = found + from.size();
    if (result.size() > largestObjectBytes) throw Failure(ErrNoMemory, "the result is too large");
  }
  result.append(text, at, std::string::npos);
  return likeReceiver(receiver, result);
}

OopType asSymbol(Machine&, OopType receiver, const OopType*) {
  return symbolOop(textOf(receiver));
}
OopType asString(Machine&, OopType receiver, const OopType*) {
  if (classOf(receiver) == StringClassOop) return receiver;
  return stringOop(textOf(receiver));
}
OopType asDoubleByteString(Machine&, OopType receiver, const OopType*) {
  if (isDoubleByteString(receiver)) return receiver;
  return doubleByteStringOop(decodeUtf8(bytesOf(receiver)));
}

OopType asNumber(Machine&, OopType receiver, const OopType*) {
  const std::string text = textOf(receiver);
  try {
    Lexer lexer(text);
    const OopType number = lexer.token == Token::integer    ? integerOop(lexer.integerValue)
                           : lexer.token == Token::floating ? floatOop(lexer.floatValue)
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

OopType characterValue(Machine&, OopType receiver, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(characterCode(receiver)));
}
OopType characterWithValue(Machine&, OopType, const OopType* args) {
  return characterOop(static_cast<std::uint32_t>(integerArgument(args[0], 0, 0xFFFF)));
}
template <typename Comparison>
OopType characterCompare(Machine&, OopType receiver, const OopType* args) {
  if (!isCharacter(args[0])) {
    throw Failure(ErrNotCharacter, "a character is expected, not " + describe(args[0]), {args[0]});
  }
  return booleanOop(Comparison()(receiver, args[0]));
}
template <int (*function)(int)>
OopType characterTest(Machine&, OopType receiver, const OopType*) {
  return booleanOop(characterCode(receiver) < 128 &&
                    function(static_cast<int>(characterCode(receiver))) != 0);
}
template <int (*function)(int)>
OopType characterMap(Machine&, OopType receiver, const OopType*) {
  if (characterCode(receiver) >= 128) return receiver;
  return characterOop(
      static_cast<std::uint32_t>(function(static_cast<int>(characterCode(receiver)))));
}

template <std::size_t slot>
OopType dateTimePart(Machine&, OopType receiver, const OopType*) {
  return findObject(receiver)->slots[slot];
}

OopType dateTimeNew(Machine&, OopType receiver, const OopType* args) {
  ZelDateTimeSType time{};
  time.year = static_cast<std::int32_t>(integerArgument(args[0], INT32_MIN, INT32_MAX));
  time.dayOfYear = static_cast<std::int32_t>(integerArgument(args[1], INT32_MIN, INT32_MAX));
  time.milliseconds = static_cast<std::int32_t>(integerArgument(args[2], INT32_MIN, INT32_MAX));
  time.timeZone = NilOop;
  return dateTimeOop(receiver, time);
}

OopType dateTimeNow(Machine&, OopType receiver, const OopType*) {
  using namespace std::chrono;
  const auto now = floor<milliseconds>(system_clock::now());
  const auto today = floor<days>(now);
  const year_month_day date(today);
  const auto newYear = sys_days(date.year() / 1 / 1);
  return dateTimeOop(receiver,
                     {int{date.year()}, static_cast<std::int32_t>((today - newYear).count()) + 1,
                      static_cast<std::int32_t>((now - today).count()), NilOop});
}

std::int64_t instant(OopType oop) {
  if (!isKindOf(oop, DateTimeClassOop)) {
    throw Failure(ErrBadArgumentKind, "a date-time is expected, not " + describe(oop), {oop});
  }
  const ZelDateTimeSType time = dateTimeValue(oop);
  const std::int64_t day = std::int64_t{time.year} * 366 + time.dayOfYear;
  return day * 86'400'000 + time.milliseconds;
}
OopType dateTimeLess(Machine&, OopType receiver, const OopType* args) {
  return booleanOop(instant(receiver) < instant(args[0]));
}

constexpr Primitive stringMessages[] = {
    {",", concatenate},
    {"<", compare<std::less<>>},
    {">", compare<std::greater<>>},
    {"<=", compare<std::less_equal<>>},
    {">=", compare<std::greater_equal<>>},
    {"asUppercase", mapCase<std::toupper>},
    {"asLowercase", mapCase<std::tolower>},
    {"reversed", reversed},
    {"indexOfString:", indexOfString},
    {"trimmed", trimmed},
    {"subStrings:", subStrings},
    {"copyReplaceAll:with:", replaceAll},
    {"asSymbol", asSymbol},
    {"asString", asString},
    {"asDoubleByteString", asDoubleByteString},
    {"asNumber", asNumber},
};
constexpr Primitive characterMessages[] = {
    {"asInteger", characterValue},
    {"value", characterValue},
    {"<", characterCompare<std::less<>>},
    {">", characterCompare<std::greater<>>},
    {"isLetter", characterTest<std::isalpha>},
    {"isDigit", characterTest<std::isdigit>},
    {"isSeparator", characterTest<std::isspace>},
    {"asUppercase", characterMap<std::toupper>},
    {"asLowercase", characterMap<std::tolower>},
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
    {CharacterClass, characterMessages, characterClassMessages},
    {DateTimeClassOop, dateTimeMessages, dateTimeClassMessages},
};

}  // namespace

constinit const PrimitiveTable stringPrimitives = families;

}  // namespace zel
