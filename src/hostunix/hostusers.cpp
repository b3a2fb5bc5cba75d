#include <povzel/hostusers.h>

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr char unknownUser[] = "unknown user";

void copyCut(char* to, std::size_t size, const char* from) {
  if (size == 0) return;
  const std::size_t length = strnlen(from, size - 1);
  std::memmove(to, from, length);
  to[length] = '\0';
}

void copyNameOf(uid_t uid, char* to, std::size_t size) {
  const passwd* entry = os.getpwuid(uid);
  copyCut(to, size, entry != nullptr ? entry->pw_name : unknownUser);
}

}  // namespace

char* HostGetUserName() {
  static char name[40] = "";
  static char result[sizeof name];
  if (name[0] == '\0') {
    errno = 0;
    const passwd* entry = os.getpwuid(getuid());
    if (entry == nullptr) {
      std::fprintf(stderr, "HostGetUserName:  getpwuid(getuid()) returned NULL, errno = %d\n",
                   errno);
      copyCut(result, sizeof result, "FORGED USER");
      return result;
    }
    copyCut(name, sizeof name, entry->pw_name);
  }
  std::memcpy(result, name, sizeof result);
  return result;
}

BoolType HostGetHomeDir(const char* userName, char* result) {
  const passwd* entry = os.getpwnam(userName);
  if (entry != nullptr && std::strlen(entry->pw_dir) + 1 < sizeof(HostFnameStrType)) {
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
  copyNameOf(getuid(), runame, runameSz);
  if (*ruid != *euid || runameSz == 0) {
    copyNameOf(geteuid(), euname, eunameSz);
  } else {
    copyCut(euname, eunameSz, runame);
  }
  HostGetLoginUserInfo(luid, luname, lunameSz);
}

BoolType HostIsSuperUser() {
  return geteuid() == 0;
}

BoolType HostUserSysAdmin(const char* userName) {
  return std::strcmp(userName, "SystemUser") == 0 || std::strcmp(userName, "DataCurator") == 0;
}
