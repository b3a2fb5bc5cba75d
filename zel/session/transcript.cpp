#include "transcript.h"

#include <algorithm>

#include "objmem/values.h"

namespace zel {

namespace {

constexpr std::size_t mostKept = 1U << 20;
constexpr std::string_view cutNotice = "(what was written before this was dropped)\n";

// The first line's start at or behind the place; in a text without any, a character's start.
std::size_t lineStart(std::string_view text, std::size_t at) {
  const std::size_t end = text.find('\n', at);
  if (end != std::string_view::npos) return end + 1;
  while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) ++at;
  return at;
}

// Makes the room ahead of the change, so that growing cannot fail half way.
void reserve(Memory& memory, Transcript& transcript, std::size_t size) {
  if (size <= transcript.accounted) return;
  const std::size_t capacity = std::max(size, std::min(size * 2, mostKept));
  memory.reserve(capacity - transcript.accounted);
  transcript.text.reserve(capacity);
  memory.account(static_cast<std::ptrdiff_t>(capacity - transcript.accounted));
  transcript.accounted = capacity;
}

}  // namespace

void write(Memory& memory, Transcript& transcript, std::string_view text) {
  std::string& kept = transcript.text;
  reserve(memory, transcript, std::min(kept.size() + text.size(), mostKept));
  if (kept.size() + text.size() > mostKept) {
    // Half of it at once: who writes for ever moves each byte but a few times.
    const std::size_t excess = kept.size() + text.size() - mostKept / 2;
    if (excess < kept.size()) {
      kept.erase(0, lineStart(kept, excess));
    } else {
      text.remove_prefix(lineStart(text, excess - kept.size()));
      kept.clear();
    }
    transcript.cut = true;
  }
  kept += text;
}

OopType take(Memory& memory, Transcript& transcript) {
  const OopType taken = stringOop(
      memory, transcript.cut ? std::string(cutNotice) + transcript.text : transcript.text);
  clear(memory, transcript);
  return taken;
}

void clear(Memory& memory, Transcript& transcript) {
  memory.account(-static_cast<std::ptrdiff_t>(transcript.accounted));
  transcript = Transcript();
}

}  // namespace zel
