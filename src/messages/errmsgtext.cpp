#include "internal.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "basics/internal.h"

namespace {

constexpr std::size_t longestText = 2047;
constexpr std::size_t longestPiece = 2048;
constexpr std::size_t longestNumber = 31;
constexpr char noArgument[] = "[null]";

// A caller's buffer that is filled piece by piece and always ends in a zero byte.
struct Output {
  char* text;
  std::size_t room;
  std::size_t length = 0;

  Output(char* buffer, std::size_t characters) : text(buffer), room(characters) { text[0] = '\0'; }

  bool full() const { return length >= room; }

  void put(char c) {
    if (full()) return;
    text[length++] = c;
    text[length] = '\0';
  }

  // Appends what fits; returns whether that was all.
  bool addstr(const char* piece, std::size_t size) {
    const std::size_t left = room - length;
    const std::size_t taken = size < left ? size : left;
    std::memcpy(text + length, piece, taken);
    length += taken;
    text[length] = '\0';
    return taken == size;
  }

  bool addstr(const char* piece) { return addstr(piece, std::strlen(piece)); }
};

// A number in the form that its kind has when no directive says otherwise.
struct NumberText {
  char text[longestNumber + 1];

  NumberText(const ErrMsgArg& arg, const char* hexadecimal) {
    const long value = arg.number;
    switch (arg.kind) {
      case 'o':
        if ((value & 3) == 3) {
          std::snprintf(text, sizeof text, "SmallInteger(%ld)", value >> 2);
        } else {
          std::snprintf(text, sizeof text, "Oop(%lu)", static_cast<unsigned long>(value));
        }
        break;
      case 'x':
        std::snprintf(text, sizeof text, hexadecimal, static_cast<unsigned long>(value));
        break;
      case 'g':
        std::snprintf(text, sizeof text, "%g", arg.real);
        break;
      default:
        *std::to_chars(text, text + longestNumber, value).ptr = '\0';
    }
  }
};

bool isOneOf(char c, const char* characters) {
  return c != '\0' && std::strchr(characters, c) != nullptr;
}

bool isKnownKind(char kind) {
  return isOneOf(kind, "dnosxg");
}

enum class Base { none, integer, floating, string };

Base baseOf(char conversion) {
  switch (conversion) {
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X':
    case 'c':
    case 'n':
    case 'P':
      return Base::integer;
    case 'e':
    case 'E':
    case 'f':
    case 'g':
    case 'G':
      return Base::floating;
    case 's':
      return Base::string;
    default:
      return Base::none;
  }
}

// A template's directive: from its '%' to its conversion character, or to the template's end.
struct Directive {
  const char* text;
  std::size_t length;
  Base base;

  explicit Directive(const char* percent) : text(percent), length(1), base(Base::none) {
    while (base == Base::none && text[length] != '\0') base = baseOf(text[length++]);
  }

  bool is(const char* other) const {
    return std::strlen(other) == length && std::memcmp(text, other, length) == 0;
  }
};

// A directive as printf may have it. Message files are not trusted: a format that makes printf
// take arguments of another size or number than the one there is, or write through it, must not
// get there. Lengths are therefore chosen here; widths and precisions are limited to what can
// change the part of the result that is kept.
class PrintfFormat {
 public:
  // Whether the directive, used with an argument of that base, is one conversion that takes it.
  // The numbers count the characters of a `text` that has wider ones than bytes.
  bool take(const Directive& directive, Base argument, const char* text = nullptr) {
    const char* at = takeFlags(directive.text + 1);
    int width = 0;
    int precision = 0;
    at = readNumber(at, width);
    const bool isPrecise = *at == '.';
    if (isPrecise) at = readNumber(at + 1, precision);
    if (text != nullptr) countBytes(text, isPrecise, width, precision);
    if (width > 0) putNumber(width);
    if (isPrecise) {
      put('.');
      putNumber(precision);
    }
    const char* lengthStart = at;
    at += std::strspn(at, "hlLqjztZ");
    const char* const end = directive.text + directive.length;
    if (at >= end) return false;
    const char conversion = *at++;
    rest_ = at;
    restLength_ = static_cast<std::size_t>(end - at);
    if (std::memchr(rest_, '%', restLength_) != nullptr) return false;
    if (!takesArgument(conversion, argument)) return false;
    if (argument == Base::integer) putLength(lengthStart, conversion);
    put(conversion);
    put('\0');
    return true;
  }

  template <typename Value>
  void write(Value value, Output* out) const {
    char piece[longestPiece + 1];
    const int size = std::snprintf(piece, sizeof piece, format_, value);
    if (size < 0) return;
    out->addstr(piece);
    if (static_cast<std::size_t>(size) >= longestPiece) return;
    const std::size_t left = longestPiece - static_cast<std::size_t>(size);
    out->addstr(rest_, restLength_ < left ? restLength_ : left);
  }

 private:
  static constexpr int largestNumber = 2 * longestPiece;
  static constexpr char allFlags[] = "-+ #0'I";

  char format_[32] = "%";  // every flag once, two numbers, a length of two, the conversion
  std::size_t size_ = 1;
  const char* rest_ = nullptr;  // copied behind the conversion
  std::size_t restLength_ = 0;

  void put(char c) { format_[size_++] = c; }

  const char* takeFlags(const char* at) {
    const std::size_t count = std::strspn(at, allFlags);
    for (const char flag : allFlags) {
      if (flag != '\0' && std::memchr(at, flag, count) != nullptr) put(flag);
    }
    return at + count;
  }

  static const char* readNumber(const char* at, int& value) {
    for (; *at >= '0' && *at <= '9'; ++at) {
      if (value < largestNumber) value = 10 * value + (*at - '0');
    }
    if (value > largestNumber) value = largestNumber;
    return at;
  }

  void putNumber(int value) {
    size_ = static_cast<std::size_t>(
        std::to_chars(format_ + size_, format_ + sizeof format_, value).ptr - format_);
  }

  static void countBytes(const char* text, bool isPrecise, int& width, int& precision) {
    std::size_t length = std::strlen(text);
    if (!utlIsWide(text, length)) return;
    if (isPrecise) {
      length = utlWideBytes(text, length, static_cast<std::size_t>(precision));
      precision = static_cast<int>(length);
    }
    if (width > 0) width += static_cast<int>(length - utlWideColumns(text, length));
  }

  static bool takesArgument(char conversion, Base argument) {
    switch (argument) {
      case Base::integer:
        return isOneOf(conversion, "dioxXucpP");
      case Base::floating:
        return isOneOf(conversion, "eEfFgGaA");
      default:
        return conversion == 's';
    }
  }

  // The argument is a long: no length may widen it.
  void putLength(const char* lengths, char conversion) {
    const bool isShort = lengths[0] == 'h';
    if (conversion == 'p' || conversion == 'P') return;
    if (conversion == 'c') {
      if (lengths[0] == 'l') put('l');
      return;
    }
    put(isShort ? 'h' : 'l');
    if (isShort && lengths[1] == 'h') put('h');
  }
};

void renderString(const Directive& directive, const char* string, Output* out) {
  const std::size_t length = strnlen(string, longestPiece + 1);
  if (length > longestPiece) {
    out->addstr(string, longestPiece);
    return;
  }
  PrintfFormat format;
  if (directive.base == Base::string && !directive.is("%s") &&
      format.take(directive, Base::string, string)) {
    format.write(string, out);
    return;
  }
  out->addstr(string, length);
}

void renderArgument(const Directive& directive, const ErrMsgArg& arg, Output* out) {
  PrintfFormat format;
  if (arg.kind == 's') {
    renderString(directive, arg.string, out);
  } else if (arg.kind == 'd' && directive.base == Base::integer && !directive.is("%d") &&
             !directive.is("%ld") && format.take(directive, Base::integer)) {
    format.write(arg.number, out);
  } else if (arg.kind == 'g' && directive.base == Base::floating &&
             format.take(directive, Base::floating)) {
    format.write(arg.real, out);
  } else {
    if (!isKnownKind(arg.kind)) {
      errUtlSay("mySprintf: Illegal argument %c read\n", arg.kind);
    }
    out->addstr(NumberText(arg, "%lx").text);
  }
}

// The argument of the entry's directive number `index`.
ErrMsgArg garg(const ErrUtlEntrySType& entry, const ErrMsgArgs& args, int index) {
  const int numeral = entry.argOrder[index];
  if (numeral >= 1 && static_cast<std::size_t>(numeral) <= args.held) return args.arg[numeral - 1];
  ErrMsgArg missing{};
  missing.kind = 's';
  missing.string = noArgument;
  return missing;
}

bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

// Writes the character that the escape at `at`, behind its backslash, stands for. Returns what
// follows the escape.
const char* expandEscape(const char* at, Output* out) {
  static constexpr char letters[] = "ntrfvb";
  static constexpr char meanings[] = "\n\t\r\f\v\b";
  if (*at == '\0') return at;
  if (isOctal(*at)) {
    unsigned value = 0;
    for (; isOctal(*at); ++at) value = 8 * value + static_cast<unsigned>(*at - '0');
    out->put(static_cast<char>(value & 0xFF));
    return at;
  }
  const char* letter = std::strchr(letters, *at);
  out->put(letter != nullptr ? meanings[letter - letters] : *at);
  return at + 1;
}

}  // namespace

void ErrMsgArgs::collect(const char* kinds, va_list& arguments) {
  if (kinds == nullptr) return;
  count = std::strlen(kinds);
  for (; *kinds != '\0' && held < ErrUtlMaxArgs; ++kinds, ++held) {
    ErrMsgArg& next = arg[held];
    next.kind = *kinds;
    if (next.kind == 'g') {
      next.real = va_arg(arguments, double);
      continue;
    }
    if (!isKnownKind(next.kind)) errUtlSay("Unknown argkind in errmsg|buildString\n");
    next.number = va_arg(arguments, long);
    if (next.kind == 's' && next.string == nullptr) next.string = noArgument;
  }
}

void mySprintf(const ErrUtlEntrySType& entry, const ErrMsgArgs& args, ErrMsgStrType& out) {
  Output output(out, longestText);
  int directivesUsed = 0;
  for (const char* at = entry.buf; *at != '\0' && !output.full();) {
    if (*at == '\\') {
      at = expandEscape(at + 1, &output);
    } else if (*at != '%') {
      const std::size_t plain = std::strcspn(at, "%\\");
      output.addstr(at, plain);
      at += plain;
    } else if (at[1] == '%') {
      output.put('%');
      at += 2;
    } else {
      const Directive directive(at);
      at += directive.length;
      // One that the template's end cuts off has no conversion: it stays as written, too.
      if (directive.base == Base::none || directivesUsed >= entry.argListSize) {
        output.addstr(directive.text, directive.length);
      } else {
        renderArgument(directive, garg(entry, args, directivesUsed++), &output);
      }
    }
  }
}

void desperateErr(const char* symbol, const char* rawTemplate, char* buffer, std::size_t size,
                  const ErrMsgArgs& args) {
  Output out(buffer, size - 1);
  if (!out.addstr("[")) return;
  if (rawTemplate != nullptr) {
    if (!out.addstr("\"") || !out.addstr(rawTemplate) || !out.addstr("\" ")) return;
  }
  if (!out.addstr(symbol)) return;
  for (std::size_t i = 0; i < args.held; ++i) {
    const ErrMsgArg& arg = args.arg[i];
    if (!out.addstr(" ")) return;
    if (!isKnownKind(arg.kind)) {
      errUtlSay("desperateErr: Illegal argument %c read\n", arg.kind);
    }
    if (!out.addstr(arg.kind == 's' ? arg.string : NumberText(arg, "0x%lx").text)) return;
  }
  out.addstr("]");
}
