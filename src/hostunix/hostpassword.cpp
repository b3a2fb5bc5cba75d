// Password checks (hostusers.h).

#include <dlfcn.h>
#include <shadow.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

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

// What crypt_r works on. The password and its hash are wiped with it.
class CryptRecord {
 public:
  explicit CryptRecord(std::size_t size) : size_(size), place_(UtlMalloc_(size, __LINE__)) {
    if (place_ != nullptr) std::memset(place_, 0, size_);
  }
  ~CryptRecord() {
    if (place_ == nullptr) return;
    explicit_bzero(place_, size_);
    UtlFree(place_);
  }
  CryptRecord(const CryptRecord&) = delete;
  CryptRecord& operator=(const CryptRecord&) = delete;

  void* place() const { return place_; }

 private:
  std::size_t size_;
  void* place_;
};

// Finds crypt_r in the opened `library`. The libcrypt that can enlarge its record has one of 32
// KiB; the older one, without that call, has tables in it.
HostCrypt cryptIn(void* library) {
  HostCrypt crypt = {};
  crypt.hash = reinterpret_cast<decltype(crypt.hash)>(dlsym(library, "crypt_r"));
  crypt.recordSize = (dlsym(library, "crypt_ra") != nullptr ? 32 : 132) * 1024;
  return crypt;
}

BoolType checkAgainst(const char* stored, const char* userName, const char* password,
                      const Refusal& refusal) {
  HostCryptTextType why;
  const HostCrypt crypt = hostFindCrypt(why);
  if (crypt.hash == nullptr) return refusal.cannotHash(why);
  const CryptRecord record(crypt.recordSize);
  if (record.place() == nullptr) {
    return refusal.lookupFailed("pwvalidation.getspnam", userName, ENOMEM);
  }
  const char* hash = crypt.hash(password, stored, record.place());
  if (hash == nullptr || std::strcmp(hash, stored) != 0) return refusal.wrongPassword(userName);
  return 1;
}

}  // namespace

// It is in a library of its own, which a process that checks no password does without. Once opened
// it stays so.
HostCrypt hostFindCrypt(HostCryptTextType& said) {
  static std::atomic<void*> opened[std::size(cryptLibraries)];
  said[0] = '\0';
  for (std::size_t index = 0; index < std::size(cryptLibraries); ++index) {
    void* library = opened[index].load(std::memory_order_acquire);
    if (library == nullptr) library = dlopen(cryptLibraries[index], RTLD_LAZY | RTLD_LOCAL);
    const HostCrypt crypt = library != nullptr ? cryptIn(library) : HostCrypt{};
    if (crypt.hash != nullptr) {
      opened[index].store(library, std::memory_order_release);
      std::snprintf(said, sizeof said, "%s", cryptLibraries[index]);
      return crypt;
    }
    const char* reason = dlerror();
    if (reason != nullptr && said[0] == '\0') std::snprintf(said, sizeof said, "%s", reason);
  }
  return {};
}

BoolType HostValidatePassword(const char* userName, const char* password, long* pwToken,
                              char* errBuf,  // NOLINT(readability-non-const-parameter)
                              ArraySizeType errBufSize) {
  const Refusal refusal{errBuf, errBufSize};
  *pwToken = 0;
  const UserEntry user = hostUserNamed(userName);
  if (!user) return refusal.lookupFailed("pwvalidation.getpwnam", userName, user.error());
  if (std::strlen(user->pw_passwd) == traditionalHashLength) {
    return checkAgainst(user->pw_passwd, userName, password, refusal);
  }

  const DatabaseEntry<spwd> shadow(
      [userName](auto... place) { return os.getspnam_r(userName, place...); });
  if (!shadow) return refusal.lookupFailed("pwvalidation.getspnam", userName, shadow.error());
  return checkAgainst(shadow->sp_pwdp, userName, password, refusal);
}
