// What programs of a session write for its user, until the client takes it.
#pragma once

#include <string>
#include <string_view>

#include "objmem/memory.h"

namespace zel {

struct Transcript {
  std::string text;
  bool cut = false;           // the oldest part is gone
  std::size_t accounted = 0;  // bytes that the memory has counted
};

// Adds a text. Of more than a mebibyte in all the newest part stays, from a line's start on. Throws
// MemoryFull and leaves the transcript as it was.
void write(Memory& memory, Transcript& transcript, std::string_view text);
// Answers a String of what was written since the last time, after a line that says so when part of
// it is gone. Throws MemoryFull and leaves the transcript as it was.
OopType take(Memory& memory, Transcript& transcript);
// Empties it.
void clear(Memory& memory, Transcript& transcript);

}  // namespace zel
