// Hashes of passwords, as the system's crypt makes them.
//
//   zel::Passwords passwords;
//   const std::string hash = passwords.hashOf("secret");
//   if (passwords.matches("secret", hash)) ...
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zel {

// Loads libcrypt when it is first needed, as the library links the C library alone, and unloads it
// at the end. One thread at a time.
class Passwords {
 public:
  // The names of the library, the first of which that can be loaded is used.
  explicit Passwords(std::vector<const char*> libraries = {"libcrypt.so.1", "libcrypt.so.2"});
  ~Passwords();
  Passwords(const Passwords&) = delete;
  Passwords& operator=(const Passwords&) = delete;

  // The SHA-512 hash of the password under a new random salt: printable, up to 106 bytes. Throws
  // Failure: ErrBadArgument for a password that has a NUL or more than 511 bytes, ErrLoginDenied
  // when libcrypt or random bytes cannot be had; and std::bad_alloc.
  std::string hashOf(std::string_view password);
  // Whether the hash, made by SHA-512 or yescrypt, is that of the password. It is not if there is
  // no such hash. Takes as long wherever the two differ. Throws ErrLoginDenied as above.
  bool matches(std::string_view password, const std::string& hash);

 private:
  using CryptFType = char* (*)(const char* password, const char* setting, void* record);

  void load();
  std::string crypt(std::string_view password, const std::string& setting);

  std::vector<const char*> libraries_;
  void* library_ = nullptr;
  CryptFType crypt_ = nullptr;
  std::size_t recordSize_ = 0;
};

}  // namespace zel
