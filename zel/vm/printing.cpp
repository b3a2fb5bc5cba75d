#include "printing.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "objmem/integers.h"
#include "objmem/names.h"
#include "objmem/text.h"
#include "objmem/values.h"

namespace zel {

namespace {

constexpr int deepestPrint = 8;
constexpr std::size_t longestPrint = 1U << 20;

std::string quoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) {
    result += c;
    if (c == '\'') result += c;
  }
  return result + "'";
}

bool isPlainSymbol(std::string_view text) {
  if (text.empty() || !isLetter(text[0])) return isBinarySelector(text);
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return isWordCharacter(c) || c == ':'; });
}

std::string printDateTime(const ZelDateTimeSType& time) {
  const int seconds = time.milliseconds / 1000;
  char text[64];
  std::snprintf(text, sizeof text, "%d-%03d %02d:%02d:%02d.%03d", time.year, time.dayOfYear,
                seconds / 3600, seconds / 60 % 60, seconds % 60, time.milliseconds % 1000);
  return text;
}

class Printer {
 public:
  Printer(const Memory& memory, bool display) : memory_(memory), display_(display) {}
  std::string text;

  void print(OopType oop, int depth) {
    if (text.size() > longestPrint) return;
    if (isInteger(memory_, oop)) {
      text += printInteger(memory_, oop);
    } else if (isCharacter(oop)) {
      if (!display_) text += '$';
      append(text, characterCode(oop), false);
    } else if (oop == NilOop) {
      text += "nil";
    } else if (isBoolean(oop)) {
      text += oop == TrueOop ? "true" : "false";
    } else if (memory_.find(oop) == nullptr) {
      text += "oop " + std::to_string(oop);
    } else {
      printObject(oop, depth);
    }
  }

 private:
  void printObject(OopType oop, int depth) {
    const OopType classOop = classOf(memory_, oop);
    if (isClass(memory_, oop)) {
      text += nameOf(memory_, oop);
    } else if (isFloat(memory_, oop)) {
      text += printFloat(floatValue(memory_, oop));
    } else if (isSymbol(memory_, oop)) {
      printSymbol(bytesOf(memory_, oop));
    } else if (isText(memory_, oop)) {
      const std::string characters = utf8(textOf(memory_, oop));
      text += display_ ? characters : quoted(characters);
    } else if (inheritsFrom(memory_, classOop, DateTimeClassOop)) {
      text += printDateTime(dateTimeValue(memory_, oop));
    } else if (inheritsFrom(memory_, classOop, AssociationClass)) {
      printElement(memory_.find(oop)->slots[0], depth);
      text += "->";
      printElement(memory_.find(oop)->slots[1], depth);
    } else if (classOop == MethodClass || !inheritsFrom(memory_, classOop, CollectionClass)) {
      text += withArticle(nameOf(memory_, classOop));
    } else {
      printCollection(oop, depth);
    }
  }

  void printSymbol(std::string_view symbol) {
    if (display_) {
      text += symbol;
    } else {
      text += isPlainSymbol(symbol) ? "#" + std::string(symbol) : "#" + quoted(symbol);
    }
  }

  void printElement(OopType oop, int depth) {
    if (depth == 0) {
      text += "...";
    } else {
      print(oop, depth - 1);
    }
  }

  void printCollection(OopType oop, int depth) {
    const Object& object = memory_.at(oop);
    text += withArticle(nameOf(memory_, object.classOop)) + "(";
    const bool dictionary = inheritsFrom(memory_, object.classOop, DictionaryClass);
    for (std::uint32_t i = object.namedSize; i < object.size; ++i) {
      if (text.size() > longestPrint) {
        text += " ...";
        break;
      }
      text += ' ';
      if (object.holdsBytes()) {
        text += std::to_string(object.bytes[i]);
        continue;
      }
      printElement(object.slots[i], depth);
      if (!dictionary || i + 1 >= object.size) continue;
      text += "->";
      printElement(object.slots[++i], depth);
    }
    text += " )";
  }

  const Memory& memory_;
  bool display_;
};

}  // namespace

std::string printString(const Memory& memory, OopType oop) {
  Printer printer(memory, false);
  printer.print(oop, deepestPrint);
  return std::move(printer.text);
}

std::string displayString(const Memory& memory, OopType oop) {
  Printer printer(memory, true);
  printer.print(oop, deepestPrint);
  return std::move(printer.text);
}

std::string printFloat(double value) {
  if (std::isnan(value)) return "Float nan";
  if (std::isinf(value)) return value > 0 ? "Float infinity" : "Float infinity negated";
  char digits[64];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  std::string text(digits, end);
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

}  // namespace zel
