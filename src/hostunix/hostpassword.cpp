// Password checks (hostusers.h).

#include <dlfcn.h>
#include <pwd.h>
#include <shadow.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/hostusers.h>
#include <povzel/unixerr.h>
#include "internal.h"

namespace {

constexpr std::size_t traditionalHashLength = 13;

constexpr const char* cryptLibraries[] = {"libcrypt.so.1", "libcrypt.so.2"};

// The caller's buffer for the reason of a refusal.
struct Refusal {
  char* buffer;
  ArraySizeType size;

  bool wanted() const { return buffer != nullptr && size > 0; }

  // Reports that the lookup for `userName` failed with errno value `number`.
  BoolType lookupFailed(const char* symbol, const char* userName, int number) const {
    if (!wanted()) return 0;
    ErrMsgStrType why;
    UnixErr(number, why, sizeof why);
    ErrMsgSymToText(symbol, buffer, size, "ss", userName, why);
    return 0;
  }

  BoolType wrongPassword(const char* userName) const {
    if (wanted()) ErrMsgSymToText("pwvalidation.badpw", buffer, size, "s", userName);
    return 0;
  }

  BoolType cannotHash(const char* why) const {
    if (wanted()) {
      std::snprintf(buffer, size,
                    "Passwords cannot be checked: %s\n"
                    "Install libcrypt.so.1 for 32-bit programs (Debian's package libcrypt1:i386).",
                    why);
    }
    return 0;
  }
};

}  // namespace

// crypt lives in a library of its own, which a process that checks no password does without.
HostCryptFType* hostFindCrypt(HostCryptTextType& said) {
  static HostCryptFType* crypt = nullptr;
  static const char* foundIn = "";
  said[0] = '\0';
  for (const char* name : cryptLibraries) {
    if (crypt != nullptr) break;
    void* library = dlopen(name, RTLD_LAZY | RTLD_LOCAL);
    if (library != nullptr) crypt = reinterpret_cast<HostCryptFType*>(dlsym(library, "crypt"));
    foundIn = name;
    const char* reason = crypt == nullptr ? dlerror() : nullptr;
    if (reason != nullptr && said[0] == '\0') std::snprintf(said, sizeof said, "%s", reason);
  }
  if (crypt != nullptr) std::snprintf(said, sizeof said, "%s", foundIn);
  return crypt;
}

BoolType HostValidatePassword(const char* userName, const char* password, long* pwToken,
                              char* errBuf,  // NOLINT(readability-non-const-parameter)
                              ArraySizeType errBufSize) {
  const Refusal refusal{errBuf, errBufSize};
  *pwToken = 0;
  errno = 0;
  const passwd* entry = os.getpwnam(userName);
  if (entry == nullptr) return refusal.lookupFailed("pwvalidation.getpwnam", userName, errno);

  const char* stored = entry->pw_passwd;
  if (std::strlen(stored) != traditionalHashLength) {
    errno = 0;
    const spwd* shadow = os.getspnam(userName);
    if (shadow == nullptr) return refusal.lookupFailed("pwvalidation.getspnam", userName, errno);
    stored = shadow->sp_pwdp;
  }

  HostCryptTextType why;
  HostCryptFType* crypt = hostFindCrypt(why);
  if (crypt == nullptr) return refusal.cannotHash(why);
  const char* hash = crypt(password, stored);
  if (hash == nullptr || std::strcmp(hash, stored) != 0) return refusal.wrongPassword(userName);
  return 1;
}
