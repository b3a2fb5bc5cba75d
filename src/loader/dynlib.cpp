#include <povzel/dynlib.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "internal.h"

int dynLibBinding = RTLD_LAZY;

namespace {

constexpr std::size_t nameBufferSize = 2048;
constexpr int longestBareName = 2043;  // that ".so" is added to
constexpr char noErrorInfo[] = "(no error info returned)";

// AddressSanitizer refuses RTLD_DEEPBIND, so its builds go without it.
#ifdef POVZEL_SANITIZE
constexpr int openFlags = RTLD_GLOBAL;
#else
constexpr int openFlags = RTLD_DEEPBIND | RTLD_GLOBAL;
#endif

// The loader's description of its last failure; reading it also clears it.
const char* lastReason() {
  const char* reason = dlerror();
  return reason != nullptr ? reason : noErrorInfo;
}

}  // namespace

bool dynLibLacksSuffix(const char* name) {
  const char* slash = std::strrchr(name, '/');
  return std::strchr(slash != nullptr ? slash + 1 : name, '.') == nullptr;
}

BoolType DynLibLoad(const char* name, DynLibType* resultPtr, char* err, ArraySizeType errSize) {
  *resultPtr = nullptr;
  char withSuffix[nameBufferSize];
  if (dynLibLacksSuffix(name)) {
    const std::size_t length = std::strlen(name);
    if (length > std::size_t{longestBareName}) {
      if (err != nullptr) {
        std::snprintf(err, errSize,
                      "dlopen failed because the library name is too long (%zu characters, at most "
                      "%d before \".so\" is added): %.*s",
                      length, longestBareName, longestBareName, name);
      }
      return 0;
    }
    std::snprintf(withSuffix, sizeof withSuffix, "%s.so", name);
    name = withSuffix;
  }
  // Opening such a file would end the process. A name without '/' only the loader can find.
  const bool isCut = std::strchr(name, '/') != nullptr && libFileIsCutShort(name);
  if (!isCut) *resultPtr = dlopen(name, dynLibBinding | openFlags);
  if (*resultPtr != nullptr) return 1;
  const char* reason = isCut ? "the file is cut short" : lastReason();
  if (err != nullptr) std::snprintf(err, errSize, "dlopen(%s) failed because %s", name, reason);
  return 0;
}

void DynLibUnload(DynLibType dl) {
  if (dl != nullptr) dlclose(dl);
}

DynLibFuncPtr DynLibGetFunc(DynLibType dl, const char* funcname, char* err, ArraySizeType errSize) {
  void* symbol = dlsym(dl, funcname);
  if (symbol != nullptr) return reinterpret_cast<DynLibFuncPtr>(symbol);
  const char* reason = lastReason();
  if (err != nullptr) std::snprintf(err, errSize, "dlsym(%s) failed because %s", funcname, reason);
  return nullptr;
}
