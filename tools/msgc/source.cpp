// Reading and checking source files.

#include <regex.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "basics/internal.h"
#include "messages.h"

namespace {

constexpr std::size_t longestLine = 2047;

std::size_t logicalLength(const std::string& lines) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == '\\' && i + 1 < lines.size() && lines[i + 1] == '\n') {
      ++i;
    } else if (lines[i] != '\n') {
      ++length;
    }
  }
  return length;
}

// Whether printf would take exactly one argument for it: a long, a double or a string.
bool isPlainDirective(const std::string& directive) {
  static const regex_t plain = [] {
    regex_t compiled;
    regcomp(&compiled,
            "^%(-?[0-9]*(\\.[0-9]*)?s|-?[0-9]*c|"
            "[-+ #0']*[0-9]*(\\.[0-9]*)?((l|h|hh)?[diouxX]|[eEfgG]))$",
            REG_EXTENDED | REG_NOSUB);
    return compiled;
  }();
  return regexec(&plain, directive.c_str(), 0, nullptr, 0) == 0;
}

// The directives of a text as the library takes them: each up to the first conversion character.
std::vector<std::string> directivesOf(const std::string& text) {
  std::vector<std::string> directives;
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '\\' || text.compare(i, 2, "%%") == 0) {
      i += 2;
    } else if (text[i] != '%') {
      ++i;
    } else {
      const std::size_t end = text.find_first_of("dioxXucnPeEfgGs", i + 1);
      directives.push_back(text.substr(i, end == std::string::npos ? end : end - i + 1));
      i += directives.back().size();
    }
  }
  return directives;
}

void checkDirectives(const std::string& file, const Message& message, Faults* faults) {
  std::size_t count = 0;
  for (const std::string& directive : directivesOf(message.text)) {
    if (!isPlainDirective(directive)) {
      faults->add(file, message.line, "\"%s\" is no directive (a percent sign is written %%%%)",
                  directive.c_str());
    }
    if (++count == message.order.size() + 1) {
      faults->add(file, message.line, "the list in parentheses names no argument for \"%s\"",
                  directive.c_str());
    }
  }
  for (const int numeral : message.order) {
    if (numeral == 0) faults->add(file, message.line, "arguments are counted from 1");
  }
}

void checkEscapes(const std::string& file, const Message& message, Faults* faults) {
  const std::string& text = message.text;
  for (std::size_t at = 0; (at = text.find('\\', at)) != std::string::npos;) {
    const std::size_t end = std::max(at + 2, text.find_first_not_of("01234567", at + 1));
    const std::string escape = text.substr(at, end - at);
    const auto add = [&](const char* why) {
      faults->add(file, message.line, "\"%s\" %s", escape.c_str(), why);
    };
    at = std::min(end, text.size());
    if (escape.size() == 1 || std::strchr("ntrfvb", escape[1]) != nullptr) continue;
    if (escape[1] >= '0' && escape[1] <= '7') {
      const unsigned long value = std::strtoul(escape.c_str() + 1, nullptr, 8);
      if (value > 0377) add("is beyond \\377, the largest byte");
      if (value == 0) add("ends the text there");
    } else if (std::isalnum(static_cast<unsigned char>(escape[1])) != 0) {
      add("is no escape (a backslash is written \\\\)");
    }
  }
}

// The library cuts lines that are too long and ends them at a zero byte, without a word.
void checkLines(const std::string& file, const std::string& lines, unsigned long line,
                Faults* faults) {
  const std::size_t length = logicalLength(lines);
  if (length > longestLine) {
    faults->add(file, line, "line too long (%zu characters, at most %zu)", length, longestLine);
  }
  if (lines.find('\0') != std::string::npos) faults->add(file, line, "line holds a zero byte");
  if (!utlIsUtf8(lines.data(), lines.size())) faults->add(file, line, "line is not UTF-8");
}

void checkEnd(const std::string& file, const std::string& source, unsigned long line,
              Faults* faults) {
  if (source.back() != '\n') {
    faults->add(file, line, "the last line does not end");
  } else if (source.size() > 1 && source[source.size() - 2] == '\\') {
    faults->add(file, line, "nothing continues the last line");
  }
}

// Takes away what editors of other systems put in and the library would show or stumble over.
void removeForeign(const std::string& file, std::string* source, Faults* faults) {
  static constexpr char mark[] = "\xEF\xBB\xBF";
  if (source->compare(0, sizeof mark - 1, mark) == 0) {
    faults->add(file, 1, "the file starts with a byte order mark");
    source->erase(0, sizeof mark - 1);
  }
  unsigned long line = 1;
  unsigned long firstLine = 0;
  unsigned long count = 0;
  std::string kept;
  for (std::size_t i = 0; i < source->size(); ++i) {
    if (source->compare(i, 2, "\r\n") == 0) {
      if (count++ == 0) firstLine = line;
    } else {
      kept += (*source)[i];
      if (kept.back() == '\n') ++line;
    }
  }
  if (count == 0) return;
  *source = kept;
  faults->add(file, firstLine, "the line ends in a carriage return (as do %lu in all)", count);
}

// How the message shows each of its arguments, the first at 1: the directives' last letters, those
// of whole numbers as 'd' and those of real ones as 'e'.
std::array<std::string, ErrUtlMaxArgs + 1> shownArguments(const Message& message) {
  std::array<std::string, ErrUtlMaxArgs + 1> shown;
  const std::vector<std::string> directives = directivesOf(message.text);
  for (std::size_t i = 0; i < directives.size() && i < message.order.size(); ++i) {
    const char letter = directives[i].back();
    const bool isReal = std::strchr("eEfgG", letter) != nullptr;
    const bool isWhole = std::strchr("diouxX", letter) != nullptr;
    shown[static_cast<std::size_t>(message.order[i])] += isReal ? 'e' : isWhole ? 'd' : letter;
  }
  return shown;
}

// Reports which arguments the message drops or shows as what they are not. "%s" suits all.
void compareArguments(const Message& message, const std::string& file, const Message& model,
                      const std::string& modelFile, Faults* faults) {
  const auto shown = shownArguments(message);
  const auto wanted = shownArguments(model);
  for (std::size_t i = 1; i < wanted.size(); ++i) {
    if (wanted[i].empty()) continue;
    if (shown[i].empty()) {
      faults->add(file, message.line, "symbol %s does not show argument %zu, as %s does",
                  message.symbol.c_str(), i, modelFile.c_str());
    }
    const std::size_t other = shown[i].find_first_not_of(wanted[i] + 's');
    if (other == std::string::npos) continue;
    faults->add(file, message.line, "symbol %s shows argument %zu as %%%c, but %s as %%%c",
                message.symbol.c_str(), i, shown[i][other], modelFile.c_str(), wanted[i][0]);
  }
}

}  // namespace

void Faults::add(const std::string& file, unsigned long line, const char* format, ...) {
  ++count_;
  std::fprintf(stderr, line != 0 ? "%s near line %lu: " : "%s: ", file.c_str(), line);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
}

bool readSource(const std::string& file, std::vector<Message>* messages, Faults* faults) {
  std::string source;
  if (!readBytes(file, &source, faults)) return false;
  if (source.compare(0, sizeof magicArray, reinterpret_cast<const char*>(magicArray),
                     sizeof magicArray) == 0) {
    faults->add(file, 0, "is a compiled file, not a source (msgc --dump makes one of it)");
    return false;
  }
  if (source.compare(0, 2, "\xFF\xFE") == 0 || source.compare(0, 2, "\xFE\xFF") == 0) {
    faults->add(file, 0, "is in UTF-16: a source is a text in UTF-8");
    return false;
  }
  removeForeign(file, &source, faults);
  const Stream stream(&source);
  std::unordered_map<std::string, unsigned long> lineOf;
  ErrUtlEntrySType entry;
  unsigned long line = 0;
  BoolType syntaxErr = 0;
  while (ErrUtlNextSym(stream.file, file.c_str(), &line, &entry, 1, &syntaxErr)) {
    if (syntaxErr != 0) faults->addReported();
    const auto begin = static_cast<std::size_t>(entry.loc);
    const auto end = static_cast<std::size_t>(std::ftell(stream.file));
    checkLines(file, source.substr(begin, end - begin), line, faults);
    messages->push_back(messageOf(entry, line));
    checkDirectives(file, messages->back(), faults);
    checkEscapes(file, messages->back(), faults);
    const auto [other, isNew] = lineOf.emplace(entry.sym, line);
    if (!isNew) {
      faults->add(file, line, "symbol %s is there already, near line %lu", entry.sym,
                  other->second);
    }
  }
  if (syntaxErr != 0) faults->addReported();
  if (!source.empty()) checkEnd(file, source, line, faults);
  if (messages->empty()) faults->add(file, 0, "holds no message");
  return !messages->empty();
}

void compareWith(const std::vector<Message>& messages, const std::string& file,
                 const std::vector<Message>& model, const std::string& modelFile, Faults* faults) {
  std::unordered_map<std::string, const Message*> wanted;
  for (const Message& message : model) wanted.emplace(message.symbol, &message);
  for (const Message& message : messages) {
    const auto found = wanted.find(message.symbol);
    if (found == wanted.end()) {
      faults->add(file, message.line, "symbol %s is not in %s", message.symbol.c_str(),
                  modelFile.c_str());
      continue;
    }
    if (message.expectedArgs != found->second->expectedArgs) {
      faults->add(file, message.line, "symbol %s has %d arguments, but %d in %s",
                  message.symbol.c_str(), message.expectedArgs, found->second->expectedArgs,
                  modelFile.c_str());
    } else {
      compareArguments(message, file, *found->second, modelFile, faults);
    }
    wanted.erase(found);
  }
  for (const Message& message : model) {
    if (wanted.count(message.symbol) != 0) {
      faults->add(file, 0, "symbol %s is missing", message.symbol.c_str());
    }
  }
}
