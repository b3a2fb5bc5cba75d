#include "loaderhooks.h"

#include <dlfcn.h>

LoaderHooks loaderHooks;

std::string fixtureFile(const std::string& name) {
  return std::string(POVZEL_FIXTURES "/libfixture_") + name + ".so";
}

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
__attribute__((visibility("default"))) void* dlopen(const char* name, int flags) noexcept {
  static const auto real =
      reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
  if (name == nullptr) return real(name, flags);
  loaderHooks.opens.emplace_back(name);
  loaderHooks.flags = flags;
  const auto stand = loaderHooks.stands.find(name);
  return real(stand != loaderHooks.stands.end() ? stand->second.c_str() : name, flags);
}

__attribute__((visibility("default"))) char* dlerror() noexcept {
  static const auto real = reinterpret_cast<char* (*)()>(dlsym(RTLD_NEXT, "dlerror"));
  ++loaderHooks.errorCalls;
  char* reason = real();
  return loaderHooks.errorsAreNull ? nullptr : reason;
}

__attribute__((visibility("default"))) void fixtureEvent(const char* event) {
  loaderHooks.events.emplace_back(event);
}

}  // extern "C"
