#include "printing.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "objmem/changes.h"
#include "objmem/integers.h"
#include "objmem/names.h"
#include "objmem/text.h"
#include "objmem/values.h"

namespace zel {

namespace {

constexpr int deepestPrint = 8;
constexpr std::size_t longestPrint = 1U << 20;

std::string quoted(Meter& meter, std::string_view text) {
  std::string result = "'";
  for (std::size_t quote = 0; (quote = text.find('\'')) != std::string_view::npos;) {
    meter.charge(1);
    result.append(text.substr(0, quote + 1)) += '\'';
    text.remove_prefix(quote + 1);
  }
  return result.append(text) += '\'';
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

// The last character that is cut goes as a whole.
std::string_view cut(std::string_view text, std::size_t bytes) {
  while (bytes > 0 && bytes < text.size() && (text[bytes] & 0xC0) == 0x80) --bytes;
  return text.substr(0, bytes);
}

class Printer {
 public:
  Printer(Memory& memory, Printing printing, std::uint8_t asking, std::span<const OopType> texts,
          Printed& result)
      : text(result.text),
        toAsk(result.toAsk),
        memory_(memory),
        display_(printing == Printing::display),
        asking_(asking),
        texts_(texts),
        mostToAsk_(std::max<std::size_t>(texts.size(), 64)) {}
  std::string& text;
  std::vector<OopType>& toAsk;

  void print(OopType oop, int depth) {
    if (isFull()) return;
    if (isInteger(memory_, oop)) {
      text += printInteger(memory_, oop);
    } else if (isCharacter(oop)) {
      if (!display_) text += '$';
      append(text, characterCode(oop), false);
    } else if (oop == NilOop) {
      text += "nil";
    } else if (isBoolean(oop)) {
      text += oop == TrueOop ? "true" : "false";
    } else if (!memory_.exists(oop)) {
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
      const std::string characters = utf8Argument(memory_, oop);
      text += display_ ? characters : quoted(memory_.meter, characters);
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
      text +=
          isPlainSymbol(symbol) ? "#" + std::string(symbol) : "#" + quoted(memory_.meter, symbol);
    }
  }

  void printElement(OopType oop, int depth) {
    if (depth == 0) {
      text += "...";
    } else if ((classTraits(memory_, oop) & asking_) != 0) {
      printAsked(oop);
    } else {
      print(oop, depth - 1);
    }
  }

  void printAsked(OopType oop) {
    if (isFull()) return;
    if (texts_.empty()) {
      toAsk.push_back(oop);
      return;
    }
    const OopType answer = texts_.front();
    texts_ = texts_.subspan(1);
    if (!isString(memory_, answer) && !isDoubleByteString(memory_, answer)) {
      throw Failure(ErrBadArgumentKind,
                    "a string is expected as the text of " + describe(memory_, oop) + ", not " +
                        describe(memory_, answer),
                    {answer});
    }
    Printed inner;
    Printer(memory_, Printing::display, 0, {}, inner).print(answer, 0);
    const std::size_t room = longestPrint - text.size();
    text += cut(inner.text, room);
    if (inner.text.size() > room) text += " ...";
  }

  bool isFull() const { return text.size() > longestPrint || toAsk.size() >= mostToAsk_; }

  void printCollection(OopType oop, int depth) {
    noteElementsRead(memory_, oop);
    const Object& object = memory_.at(oop);
    text += withArticle(nameOf(memory_, object.classOop)) + "(";
    const bool dictionary = inheritsFrom(memory_, object.classOop, DictionaryClass);
    if (inheritsFrom(memory_, object.classOop, BagClass)) printOccurrences(object.slots[0], depth);
    for (std::uint32_t i = object.namedSize; i < object.size; ++i) {
      if (isFull()) {
        text += " ...";
        break;
      }
      memory_.meter.charge(1);
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

  // A bag's elements, each as often as its dictionary of counts says.
  void printOccurrences(OopType counts, int depth) {
    if (!inheritsFrom(memory_, classOf(memory_, counts), DictionaryClass)) return;
    noteElementsRead(memory_, counts);
    const Object& object = memory_.at(counts);
    for (std::uint32_t i = object.namedSize; i + 1 < object.size; i += 2) {
      const OopType count = object.slots[i + 1];
      for (std::int32_t n = isSmallInt(count) ? smallIntValue(count) : INT32_MAX; n > 0; --n) {
        if (isFull()) {
          text += " ...";
          return;
        }
        text += ' ';
        printElement(object.slots[i], depth);
      }
    }
  }

  Memory& memory_;
  bool display_;
  std::uint8_t asking_;  // the traits of classes that are asked
  std::span<const OopType> texts_;
  std::size_t mostToAsk_;
};

}  // namespace

Printed print(Memory& memory, OopType oop, Printing printing, std::span<const OopType> texts) {
  Printed result;
  const ClassTrait asking = printing == Printing::print ? AsksPrint : AsksDisplay;
  Printer(memory, printing, asking, texts, result).print(oop, deepestPrint);
  return result;
}

std::string printString(Memory& memory, OopType oop) {
  Printed result;
  Printer(memory, Printing::print, 0, {}, result).print(oop, deepestPrint);
  return std::move(result.text);
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
