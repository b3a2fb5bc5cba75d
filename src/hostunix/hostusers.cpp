#include <povzel/hostusers.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal.h"

namespace {

void copyCut(char* to, std::size_t size, const char* from) {
  if (size == 0) return;
  const std::size_t length = strnlen(from, size - 1);
  std::memmove(to, from, length);
  to[length] = '\0';
}

const char* nameIn(const UserEntry& entry) {
  return entry ? entry->pw_name : hostUnknownUser;
}

// A user's name, and the copy of it that callers get.
struct UserName {
  char name[40];
  char result[40];

  static UserName of(const char* text) {
    UserName user = {};
    copyCut(user.name, sizeof user.name, text);
    std::memcpy(user.result, user.name, sizeof user.name);
    return user;
  }

  // The copy as it was, whatever a caller has written into it. Writes only where it differs: other
  // threads may be reading it.
  char* fresh() {
    if (isSpoilt()) std::memcpy(result, name, sizeof name);
    return result;
  }

 private:
  // By words, which costs less than a call.
  bool isSpoilt() const {
    std::size_t difference = 0;
    for (std::size_t at = 0; at < sizeof name; at += sizeof difference) {
      std::size_t words[2];
      std::memcpy(&words[0], name + at, sizeof difference);
      std::memcpy(&words[1], result + at, sizeof difference);
      difference |= words[0] ^ words[1];
    }
    return difference != 0;
  }
};

std::atomic<UserName*> realUser{nullptr};

// Keeps the name where that takes no memory, unless another thread is keeping it there already.
UserName* keepRealUser(const UserName& found) {
  static UserName place;
  static std::atomic<bool> taken{false};
  if (taken.exchange(true)) return hostKeepFirst(realUser, &found);
  place = found;
  UserName* first = nullptr;
  return realUser.compare_exchange_strong(first, &place) ? &place : first;
}

// Asks the database. Returns null, with errno set, when it does not answer.
UserName* findRealUser() {
  const UserEntry entry = hostUserWithId(getuid());
  errno = entry ? ENOMEM : entry.error();
  if (!entry) return nullptr;
  return keepRealUser(UserName::of(entry->pw_name));
}

}  // namespace

char* HostGetUserName() {
  UserName* user = realUser.load(std::memory_order_acquire);
  if (user == nullptr) user = findRealUser();
  if (user != nullptr) return user->fresh();
  std::fprintf(stderr, "HostGetUserName:  getpwuid(getuid()) returned NULL, errno = %d\n", errno);
  static constinit UserName forged = {"FORGED USER", "FORGED USER"};
  return forged.fresh();
}

BoolType HostGetHomeDir(const char* userName, char* result) {
  const UserEntry entry = hostUserNamed(userName);
  if (entry && std::strlen(entry->pw_dir) + 1 < sizeof(HostFnameStrType)) {
    std::snprintf(result, sizeof(HostFnameStrType), "%s/", entry->pw_dir);
    return 1;
  }
  if (os.getcwd(result, sizeof(HostFnameStrType)) == nullptr) result[0] = '\0';
  return 0;
}

void HostGetUserInfo(int* ruid, int* euid, int* luid, char* runame, std::size_t runameSz,
                     char* euname, std::size_t eunameSz, char* luname, std::size_t lunameSz) {
  *ruid = static_cast<int>(getuid());
  *euid = static_cast<int>(geteuid());
  const UserEntry real = hostUserWithId(static_cast<uid_t>(*ruid));
  copyCut(runame, runameSz, nameIn(real));
  if (*ruid == *euid) {
    copyCut(euname, eunameSz, nameIn(real));
  } else {
    copyCut(euname, eunameSz, nameIn(hostUserWithId(static_cast<uid_t>(*euid))));
  }
  HostGetLoginUserInfo(luid, luname, lunameSz);
}

BoolType HostIsSuperUser() {
  return geteuid() == 0;
}

BoolType HostUserSysAdmin(const char* userName) {
  return std::strcmp(userName, "SystemUser") == 0 || std::strcmp(userName, "DataCurator") == 0;
}
