#include "tracing.h"

#include <algorithm>

#include "objmem/classes.h"
#include "objmem/values.h"

namespace zel {

namespace {

constexpr std::uint32_t newestLines = 150;
constexpr std::uint32_t oldestLines = 50;
constexpr std::size_t longestName = 160;  // bytes

std::string placeText(Position position) {
  return "line " + std::to_string(position.line) + ", column " + std::to_string(position.column);
}

std::string shortened(std::string_view text, std::size_t most) {
  constexpr std::string_view mark = "...";
  if (text.size() <= most) return std::string(text);
  std::size_t end = most - mark.size();
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return std::string(text.substr(0, end)).append(mark);
}

// As clients can be told it: to them a NUL ends a text.
std::string printable(std::string_view text) {
  std::string result;
  for (const char c : text) c == '\0' ? result.append("\u2400") : result.append(1, c);
  return result;
}

// After a break the innermost activation begins the op in which it came again.
bool beginsOpAgain(const ProcessState& process, std::uint32_t depth) {
  return depth + 1 == process.depth && process.suspended && process.place == noPlace &&
         process.sendNext == 0;
}

std::size_t opOf(const ProcessState& process, std::uint32_t depth) {
  const Frame& frame = process.frames[depth];
  const Op* op = beginsOpAgain(process, depth) ? frame.pc : frame.pc - 1;
  return static_cast<std::size_t>(op - frame.code->ops.data());
}

// Empty for a text.
std::string methodOf(const Memory& memory, const Code& code) {
  const OopType selector = memory.at(code.method).slots[MethodSelector];
  if (selector == NilOop) return "";
  return methodName(memory, code.owner, code.classSide, bytesOf(memory, selector));
}

void appendLine(const Memory& memory, const ProcessState& process, std::uint32_t depth,
                std::string& text) {
  const Code& code = *process.frames[depth].code;
  const std::size_t op = opOf(process, depth);
  const bool inBlock = std::any_of(code.blocks.begin() + 1, code.blocks.end(),
                                   [&](const BlockCode& block) { return block.entry <= op; });
  const std::string method = methodOf(memory, code);
  text += inBlock ? "[] in " : "";
  text += method.empty() ? "text" : shortened(method, longestName);
  text += ", " + placeText(code.positions.of(op)) + "\n";
}

}  // namespace

std::string errorText(const Failure& failure, std::size_t most) {
  const std::string message = printable(std::string_view(failure.message).substr(0, most + 1));
  if (failure.position.line == 0) return shortened(message, most);
  std::string place = placeText(failure.position) + ")";
  if (!failure.method.empty()) place = shortened(failure.method, longestName) + ", " + place;
  place = " (" + place;
  return shortened(message, most - place.size()) + place;
}

void locate(const Memory& memory, const ProcessState& process, Failure& failure) noexcept {
  if (failure.position.line != 0) return;
  std::uint32_t found = process.depth;
  for (std::uint32_t depth = process.depth; depth-- > 0;) {
    const Code& code = *process.frames[depth].code;
    if (code.positions.empty() || (code.kernel && found != process.depth)) continue;
    found = depth;
    if (!code.kernel) break;
  }
  if (found == process.depth) return;
  const Code& code = *process.frames[found].code;
  try {
    failure.method = methodOf(memory, code);
    failure.position = code.positions.of(opOf(process, found));
  } catch (const std::bad_alloc&) {
    failure.method.clear();
  }
}

std::string stackText(const Memory& memory, const ProcessState& process) {
  if (process.depth == 0) return process.stackText;
  std::string text;
  for (std::uint32_t line = 0; line < process.depth; ++line) {
    const std::uint32_t skipped = process.depth - newestLines - oldestLines;
    if (line == newestLines && process.depth > newestLines + oldestLines) {
      text += "... " + std::to_string(skipped) + " more\n";
      line += skipped;
    }
    const std::uint32_t depth = process.depth - line - 1;
    // A message that a client sent stands nowhere.
    if (!process.frames[depth].code->positions.empty()) appendLine(memory, process, depth, text);
  }
  if (!text.empty()) text.pop_back();
  return text;
}

void keepStackText(const Memory& memory, ProcessState& process) noexcept {
  try {
    process.stackText = stackText(memory, process);
  } catch (const std::bad_alloc&) {
    process.stackText.clear();
  }
}

}  // namespace zel
