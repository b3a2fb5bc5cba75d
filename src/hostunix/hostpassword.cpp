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
#include "basics/internal.h"

namespace {

constexpr std::size_t traditionalHashLength = 13;

using CryptFunc = char*(const char* password, const char* salt);

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
    if (wanted()) std::snprintf(buffer, size, "Passwords cannot be checked: %s", why);
    return 0;
  }
};

// crypt lives in a library of its own, which a process that checks no password does without.
CryptFunc* findCrypt(const char*& why) {
  static CryptFunc* crypt = nullptr;
  if (crypt != nullptr) return crypt;
  void* library = dlopen("libcrypt.so.1", RTLD_LAZY | RTLD_LOCAL);
  if (library != nullptr) crypt = reinterpret_cast<CryptFunc*>(dlsym(library, "crypt"));
  if (crypt == nullptr) {
    const char* reason = dlerror();
    why = reason != nullptr ? reason : "libcrypt.so.1 has no crypt";
  }
  return crypt;
}

}  // namespace

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

  const char* why = nullptr;
  CryptFunc* crypt = findCrypt(why);
  if (crypt == nullptr) return refusal.cannotHash(why);
  const char* hash = crypt(password, stored);
  if (hash == nullptr || std::strcmp(hash, stored) != 0) return refusal.wrongPassword(userName);
  return 1;
}
