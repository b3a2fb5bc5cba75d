#include "passwords.h"

#include <dlfcn.h>
#include <sys/random.h>

#include <array>
#include <cstring>
#include <utility>

#include "errors/failure.h"

namespace zel {

namespace {

constexpr std::size_t longestPassword = 511;
constexpr std::size_t saltSize = 16;
constexpr std::string_view sha512 = "$6$";
constexpr std::string_view yescrypt = "$y$";
constexpr std::string_view saltLetters =
    "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
static_assert(256 % saltLetters.size() == 0, "every letter is as likely");

// Bytes that are wiped when they go.
class Secret {
 public:
  explicit Secret(std::size_t size) : bytes_(size) {}
  ~Secret() { explicit_bzero(bytes_.data(), bytes_.size()); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  char* bytes() { return bytes_.data(); }

 private:
  std::vector<char> bytes_;
};

bool canBeHashed(std::string_view password) {
  return password.size() <= longestPassword && password.find('\0') == std::string_view::npos;
}

std::string newSetting() {
  std::array<unsigned char, saltSize> random{};
  // So few bytes come whole.
  if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
    throw Failure(ErrLoginDenied, "no random bytes for a password's salt can be had");
  }
  std::string setting(sha512);
  for (const unsigned char byte : random) setting += saltLetters[byte % saltLetters.size()];
  return setting + '$';
}

bool areEqual(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (std::size_t at = 0; at < a.size(); ++at) {
    difference |= static_cast<unsigned char>(a[at]) ^ static_cast<unsigned char>(b[at]);
  }
  return difference == 0;
}

}  // namespace

Passwords::Passwords(std::vector<const char*> libraries) : libraries_(std::move(libraries)) {}

Passwords::~Passwords() {
  if (library_ != nullptr) dlclose(library_);
}

void Passwords::load() {
  std::string why;
  for (const char* name : libraries_) {
    if (crypt_ != nullptr) return;
    library_ = dlopen(name, RTLD_LAZY | RTLD_LOCAL);
    if (library_ == nullptr) {
      const char* said = dlerror();
      if (why.empty() && said != nullptr) why = said;
      continue;
    }
    crypt_ = reinterpret_cast<CryptFType>(dlsym(library_, "crypt_r"));
    // The libcrypt that can enlarge its record has one of 32 KiB; the older one has tables in it.
    recordSize_ = (dlsym(library_, "crypt_ra") != nullptr ? 32 : 132) * 1024;
    if (crypt_ == nullptr) dlclose(std::exchange(library_, nullptr));
  }
  if (crypt_ != nullptr) return;
  throw Failure(ErrLoginDenied, "passwords cannot be checked: " + why +
                                    " (install libcrypt.so.1 for 32-bit programs, Debian's package "
                                    "libcrypt1:i386)");
}

// Empty for a setting that crypt refuses.
std::string Passwords::crypt(std::string_view password, const std::string& setting) {
  load();
  Secret text(password.size() + 1);
  std::memcpy(text.bytes(), password.data(), password.size());
  Secret record(recordSize_);
  const char* hash = crypt_(text.bytes(), setting.c_str(), record.bytes());
  return hash != nullptr && hash[0] == '$' ? hash : "";
}

std::string Passwords::hashOf(std::string_view password) {
  if (!canBeHashed(password)) {
    throw Failure(ErrBadArgument, "a password has at most 511 bytes, and none of them is 0");
  }
  std::string hash = crypt(password, newSetting());
  if (hash.empty()) throw Failure(ErrLoginDenied, "libcrypt does not make SHA-512 hashes");
  return hash;
}

bool Passwords::matches(std::string_view password, const std::string& hash) {
  const std::string_view kind = std::string_view(hash).substr(0, sha512.size());
  if (kind != sha512 && kind != yescrypt) return false;
  if (!canBeHashed(password)) return false;
  return areEqual(crypt(password, hash), hash);
}

}  // namespace zel
