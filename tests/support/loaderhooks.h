// Stands between the library and the dynamic loader: records what is opened, and lets a fixture
// library answer to any name. Fixture libraries report what happens to them through the same list.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace loaderhooks {

struct OpenCallSType {
  std::string name;
  int flags;
};

extern std::vector<OpenCallSType> opens;           // every dlopen, in order
extern std::vector<std::string> events;            // "opened old", "ZelShutdown", "closed old", ...
extern std::map<std::string, std::string> stands;  // name asked for: fixture that is opened
extern int errorCalls;                             // calls of dlerror
extern bool errorsAreNull;                         // dlerror has nothing to say

// Forgets all of the above.
void reset();

// The names in `opens`.
std::vector<std::string> openedNames();

// The file of a fixture library by its short name.
std::string fixture(const std::string& name);

// A buffer whose surroundings and rest tell whether more than `size` bytes were written.
struct Guarded {
  explicit Guarded(std::size_t room) : bytes(room + 32, '#'), size(room) {}
  char* buffer() { return bytes.data() + 16; }
  std::string text() const;  // what the buffer holds up to its terminator
  // What `whole` is when cut to this buffer.
  std::string cut(const std::string& whole) const {
    return size > 0 ? whole.substr(0, size - 1) : "";
  }
  bool intact() const;  // nothing was written before or behind the buffer

  std::string bytes;
  std::size_t size;
};

}  // namespace loaderhooks
