// Strings of both widths, symbols, characters and date-times.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <functional>

#include "lang/lexer.h"
#include "objmem/changes.h"
#include "objmem/classes.h"
#include "objmem/integers.h"
#include "objmem/values.h"
#include "primitives.h"
#include "printing.h"

namespace zel {

namespace {

// The text of an argument that is a string of either width, as UTF-8.
std::string textOf(Memory& memory, OopType oop) {
  if (isDoubleByteString(memory, oop)) return encodeUtf8(unitsOf(memory, oop));
  return std::string(stringArgument(memory, oop));
}

OopType likeReceiver(Memory& memory, OopType receiver, std::string_view text) {
  return isDoubleByteString(memory, receiver) ? doubleByteStringOop(memory, decodeUtf8(text))
                                              : stringOop(memory, text);
}

// A string with a double-byte one gives a double-byte one.
OopType concatenate(Memory& memory, OopType receiver, const OopType* args) {
  if (isString(memory, receiver) && isString(memory, args[0])) {
    return memory.allocateJoined(receiver, bytesOf(memory, args[0]));
  }
  const auto units = [&](OopType oop) {
    return isDoubleByteString(memory, oop) ? unitsOf(memory, oop)
                                           : decodeUtf8(stringArgument(memory, oop));
  };
  return doubleByteStringOop(memory, units(receiver) + units(args[0]));
}

int order(Memory& memory, OopType receiver, OopType argument) {
  if (isString(memory, receiver) && isString(memory, argument)) {
    return bytesOf(memory, receiver).compare(bytesOf(memory, argument));
  }
  if (isDoubleByteString(memory, receiver) && isDoubleByteString(memory, argument)) {
    return unitsOf(memory, receiver).compare(unitsOf(memory, argument));
  }
  return textOf(memory, receiver).compare(textOf(memory, argument));
}

template <typename Comparison>
OopType compare(Memory& memory, OopType receiver, const OopType* args) {
  return booleanOop(Comparison()(order(memory, receiver, args[0]), 0));
}

template <int (*function)(int)>
OopType mapCase(Memory& memory, OopType receiver, const OopType*) {
  // ASCII letters only, so that UTF-8 sequences stay whole.
  std::string text = textOf(memory, receiver);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 128) c = static_cast<char>(function(c));
  }
  return likeReceiver(memory, receiver, text);
}

OopType reversed(Memory& memory, OopType receiver, const OopType*) {
  if (isDoubleByteString(memory, receiver)) {
    std::u16string units = unitsOf(memory, receiver);
    std::reverse(units.begin(), units.end());
    return doubleByteStringOop(memory, units);
  }
  std::string text(bytesOf(memory, receiver));
  std::reverse(text.begin(), text.end());
  return stringOop(memory, text);
}

// Where the part begins in the text, from `at` on; npos if nowhere. Linear, whatever the texts.
std::size_t findText(std::string_view text, std::string_view part, std::size_t at) {
  if (part.empty()) return at;
  const void* found = memmem(text.data() + at, text.size() - at, part.data(), part.size());
  if (found == nullptr) return std::string_view::npos;
  return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

OopType indexOfString(Memory& memory, OopType receiver, const OopType* args) {
  const bool wide = isDoubleByteString(memory, receiver);
  const std::size_t unit = wide ? 2 : 1;
  const std::u16string units = wide ? decodeUtf8(textOf(memory, args[0])) : std::u16string();
  const std::string bytes = wide ? std::string() : textOf(memory, args[0]);
  const std::string_view part =
      wide ? std::string_view(reinterpret_cast<const char*>(units.data()), units.size() * 2)
           : std::string_view(bytes);
  const std::string_view text = bytesOf(memory, receiver);
  std::size_t at = findText(text, part, 0);
  while (at != std::string_view::npos && at % unit != 0) at = findText(text, part, at + 1);
  return smallIntOop(at == std::string_view::npos ? 0 : static_cast<std::int32_t>(at / unit) + 1);
}

OopType trimmed(Memory& memory, OopType receiver, const OopType*) {
  const std::string text = textOf(memory, receiver);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return likeReceiver(memory, receiver, "");
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  return likeReceiver(memory, receiver, std::string_view(text).substr(first, last - first + 1));
}

OopType subStrings(Memory& memory, OopType receiver, const OopType* args) {
  const std::string text = textOf(memory, receiver);
  const std::string separators = textOf(memory, args[0]);
  std::vector<OopType> parts;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(separators, at)) != std::string::npos) {
    const std::size_t end = std::min(text.find_first_of(separators, at), text.size());
    parts.push_back(likeReceiver(memory, receiver, std::string_view(text).substr(at, end - at)));
    at = end;
  }
  return arrayOop(memory, parts);
}

OopType replaceAll(Memory& memory, OopType receiver, const OopType* args) {
  std::string text = textOf(memory, receiver);
  const std::string from = textOf(memory, args[0]);
  const std::string to = textOf(memory, args[1]);
  if (from.empty()) throw Failure(ErrBadArgumentKind, "the text to replace is empty", {args[0]});
  std::string result;
  std::size_t at = 0;
  for (std::size_t found = 0; (found = findText(text, from, at)) != std::string::npos;) {
    result.append(text, at, found - at).append(to);
    at = found + from.size();
    if (result.size() > largestObjectBytes) throw Failure(ErrNoMemory, "the result is too large");
  }
  result.append(text, at, std::string::npos);
  return likeReceiver(memory, receiver, result);
}

OopType asSymbol(Memory& memory, OopType receiver, const OopType*) {
  return symbolOop(memory, textOf(memory, receiver));
}
OopType asString(Memory& memory, OopType receiver, const OopType*) {
  if (classOf(memory, receiver) == StringClassOop) return receiver;
  return stringOop(memory, textOf(memory, receiver));
}
OopType asDoubleByteString(Memory& memory, OopType receiver, const OopType*) {
  if (isDoubleByteString(memory, receiver)) return receiver;
  return doubleByteStringOop(memory, decodeUtf8(bytesOf(memory, receiver)));
}

OopType largeNumber(Memory& memory, const Lexer& lexer) {
  const OopType oop = parseInteger(memory, lexer.text, lexer.radix);
  if (oop == 0) throw Failure(ErrOverflow, integerTooLarge);
  return oop;
}

OopType asNumber(Memory& memory, OopType receiver, const OopType*) {
  const std::string text = textOf(memory, receiver);
  try {
    Lexer lexer(text);
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
  return characterOop(static_cast<std::uint32_t>(integerArgument(memory, args[0], 0, 0xFFFF)));
}
template <typename Comparison>
OopType characterCompare(Memory& memory, OopType receiver, const OopType* args) {
  if (!isCharacter(args[0])) {
    throw Failure(ErrNotCharacter, "a character is expected, not " + describe(memory, args[0]),
                  {args[0]});
  }
  return booleanOop(Comparison()(receiver, args[0]));
}
template <int (*function)(int)>
OopType characterTest(Memory&, OopType receiver, const OopType*) {
  return booleanOop(characterCode(receiver) < 128 &&
                    function(static_cast<int>(characterCode(receiver))) != 0);
}
template <int (*function)(int)>
OopType characterMap(Memory&, OopType receiver, const OopType*) {
  if (characterCode(receiver) >= 128) return receiver;
  return characterOop(
      static_cast<std::uint32_t>(function(static_cast<int>(characterCode(receiver)))));
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
