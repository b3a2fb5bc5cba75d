// Reading and checking source files.

#include <regex.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_map>

#include <povzel/errutl.h>
#include "messages.h"

namespace {

constexpr std::size_t longestLine = 2047;

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

std::string bytesBetween(FILE* file, long from, long to) {
  std::string bytes(static_cast<std::size_t>(to - from), '\0');
  std::fseek(file, from, SEEK_SET);
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
  return bytes;
}

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

// What the library takes for a directive: up to the first conversion character.
std::string directiveAt(const std::string& text, std::size_t percent) {
  const std::size_t end = text.find_first_of("dioxXucnPeEfgGs", percent + 1);
  return text.substr(percent, end == std::string::npos ? end : end - percent + 1);
}

void checkText(const std::string& file, const Message& message, Faults* faults) {
  std::size_t directives = 0;
  const std::string& text = message.text;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' || text.compare(i, 2, "%%") == 0) {
      ++i;
      continue;
    }
    if (text[i] != '%') continue;
    const std::string directive = directiveAt(text, i);
    if (!isPlainDirective(directive)) {
      faults->add(file, message.line, "\"%s\" is no directive (a percent sign is written %%%%)",
                  directive.c_str());
    }
    if (++directives == message.order.size() + 1) {
      faults->add(file, message.line, "the list in parentheses names no argument for \"%s\"",
                  directive.c_str());
    }
    i += directive.size() - 1;
  }
  for (const int numeral : message.order) {
    if (numeral == 0) faults->add(file, message.line, "arguments are counted from 1");
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
}

void checkEnd(const std::string& file, FILE* source, unsigned long line, Faults* faults) {
  std::fseek(source, 0, SEEK_END);
  const long size = std::ftell(source);
  const std::string end = bytesBetween(source, size < 2 ? 0 : size - 2, size);
  if (end.empty()) return;
  if (end.back() != '\n') {
    faults->add(file, line, "the last line does not end");
  } else if (end == "\\\n") {
    faults->add(file, line, "nothing continues the last line");
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

std::vector<Message> readSource(const std::string& file, Faults* faults) {
  std::vector<Message> messages;
  const File source(std::fopen(file.c_str(), "r"));
  if (source == nullptr) {
    faults->add(file, 0, "%s", std::strerror(errno));
    return messages;
  }
  std::unordered_map<std::string, unsigned long> lineOf;
  ErrUtlEntrySType entry;
  unsigned long line = 0;
  BoolType syntaxErr = 0;
  while (ErrUtlNextSym(source.get(), file.c_str(), &line, &entry, 1, &syntaxErr)) {
    if (syntaxErr != 0) faults->addReported();
    const long next = std::ftell(source.get());
    checkLines(file, bytesBetween(source.get(), entry.loc, next), line, faults);
    messages.push_back({entry.sym,
                        {entry.argOrder, entry.argOrder + entry.argListSize},
                        entry.buf,
                        line,
                        entry.expectedArgCount});
    checkText(file, messages.back(), faults);
    const auto [other, isNew] = lineOf.emplace(entry.sym, line);
    if (!isNew) {
      faults->add(file, line, "symbol %s is there already, near line %lu", entry.sym,
                  other->second);
    }
  }
  if (syntaxErr != 0) faults->addReported();
  if (std::ferror(source.get()) != 0) {
    faults->add(file, 0, "cannot be read: %s", std::strerror(errno));
    return messages;
  }
  checkEnd(file, source.get(), line, faults);
  return messages;
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
    }
    wanted.erase(found);
  }
  for (const Message& message : model) {
    if (wanted.count(message.symbol) != 0) {
      faults->add(file, 0, "symbol %s is missing", message.symbol.c_str());
    }
  }
}
