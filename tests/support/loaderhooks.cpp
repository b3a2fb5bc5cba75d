#include "loaderhooks.h"

#include <dlfcn.h>

namespace loaderhooks {

std::vector<OpenCallSType> opens;
std::vector<std::string> events;
std::map<std::string, std::string> stands;
int errorCalls = 0;
bool errorsAreNull = false;

void reset() {
  opens.clear();
  events.clear();
  stands.clear();
  errorCalls = 0;
  errorsAreNull = false;
}

std::vector<std::string> openedNames() {
  std::vector<std::string> names;
  names.reserve(opens.size());
  for (const OpenCallSType& call : opens) names.push_back(call.name);
  return names;
}

std::string fixture(const std::string& name) {
  return std::string(POVZEL_FIXTURES "/libfixture_") + name + ".so";
}

std::string Guarded::text() const {
  if (size == 0) return "";
  const std::string inside = bytes.substr(16, size);
  const std::size_t end = inside.find('\0');
  return end != std::string::npos ? inside.substr(0, end) : "(not terminated)";
}

bool Guarded::intact() const {
  const std::string guard(16, '#');
  return bytes.substr(0, 16) == guard && bytes.substr(16 + size) == guard;
}

}  // namespace loaderhooks

using loaderhooks::errorCalls;
using loaderhooks::errorsAreNull;
using loaderhooks::events;
using loaderhooks::opens;
using loaderhooks::stands;

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
__attribute__((visibility("default"))) void* dlopen(const char* name, int flags) noexcept {
  static const auto real =
      reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
  if (name == nullptr) return real(name, flags);
  opens.push_back({name, flags});
  const auto stand = stands.find(name);
  return real(stand != stands.end() ? stand->second.c_str() : name, flags);
}

__attribute__((visibility("default"))) char* dlerror() noexcept {
  static const auto real = reinterpret_cast<char* (*)()>(dlsym(RTLD_NEXT, "dlerror"));
  ++errorCalls;
  char* reason = real();
  return errorsAreNull ? nullptr : reason;
}

__attribute__((visibility("default"))) void fixtureEvent(const char* event) {
  events.emplace_back(event);
}

}  // extern "C"
