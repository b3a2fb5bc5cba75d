// The login user (hostusers.h).

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <povzel/hostenv.h>
#include <povzel/hostfiles.h>
#include <povzel/hostusers.h>
#include "internal.h"

namespace {

// Why the kernel's record gives no login user.
using Reason = char[128];

__attribute__((format(printf, 2, 3))) bool fail(Reason& reason, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(reason, sizeof reason, format, arguments);
  va_end(arguments);
  return false;
}

// Prints if $TV_DEBUG_LOGIN_USER asks for it.
class Debug {
 public:
  Debug() {
    char value[256 + 1];
    on_ = HostGetEnv("TV_DEBUG_LOGIN_USER", value, sizeof value) != 0;
  }

  __attribute__((format(printf, 2, 3))) void print(const char* format, ...) const {
    if (!on_) return;
    std::va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
  }

 private:
  bool on_;
};

// Reads up to 63 bytes of the file `fd` from its start, again when a signal interrupts.
ssize_t readRecord(int fd, char (&text)[64]) {
  for (;;) {
    const ssize_t count = os.read(fd, text, sizeof text - 1);
    if (count != -1 || errno != EINTR) return count;
    os.lseek(fd, 0, SEEK_SET);
  }
}

bool readLoginUid(long& uid, Reason& reason) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/loginuid", static_cast<int>(getpid()));
  errno = 0;
  const int fd = HostOpen(path, O_RDONLY, 0);
  if (fd == -1) return fail(reason, "open(%s) failed.  errno=%d", path, errno);

  char text[64];
  const ssize_t count = readRecord(fd, text);
  const int readErrno = errno;
  os.close(fd);
  if (count <= 0) {
    return fail(reason, "read(%d) failed, rc=%d, errno=%d", fd, static_cast<int>(count), readErrno);
  }
  text[count] = '\0';

  errno = 0;
  uid = std::strtol(text, nullptr, 10);
  if (errno != 0) return fail(reason, "strtol(%s) failed. errno=%d", text, errno);
  if (uid < 0) return fail(reason, "Invalid uid found in loginuid: %ld", uid);
  return true;
}

bool findInKernelRecord(int* luid, char* luname, std::size_t lunameSz, Reason& reason) {
  long uid = -1;
  if (!readLoginUid(uid, reason)) return false;
  const UserEntry entry = hostUserWithId(static_cast<uid_t>(uid));
  if (!entry) return fail(reason, "getpwuid(%ld) failed, errno=%d", uid, entry.error());
  *luid = static_cast<int>(uid);
  std::snprintf(luname, lunameSz, "%s", entry->pw_name);
  return true;
}

// Finds the name by the terminal's login record or the environment. Returns false if neither has
// one.
bool findName(const Debug& debug, char* luname, std::size_t lunameSz) {
  if (lunameSz > 0) std::memset(luname, 0, lunameSz);
  const int outcome = os.getlogin_r(luname, lunameSz);
  if (outcome == 0) {
    debug.print("[Debug]: getlogin_r() success: login user is %s\n", luname);
    return true;
  }
  debug.print("[Debug]: getlogin_r() failed, rc=%d\n", outcome);
  if (HostGetEnv("TV_LOGIN_NAME", luname, lunameSz)) {
    debug.print("[Debug]: Got login user for TV_LOGIN_NAME env var: login user is %s\n", luname);
    return true;
  }
  debug.print("[Debug]: TV_LOGIN_NAME is not set.  Unable to get login user.");
  return false;
}

}  // namespace

BoolType HostGetLoginUserInfo(int* luid, char* luname, std::size_t lunameSz) {
  const Debug debug;
  Reason reason;
  if (findInKernelRecord(luid, luname, lunameSz, reason)) {
    debug.print("[Debug]: Got login user from /proc/pid/loginuid:  '%s' (%d)\n", luname, *luid);
    return 1;
  }
  debug.print("[Debug]: getLoginUidFromProc() failed: %s\n", reason);

  *luid = -1;
  if (!findName(debug, luname, lunameSz)) {
    std::snprintf(luname, lunameSz, "%s", hostUnknownUser);
    return 0;
  }
  const UserEntry entry = hostUserNamed(luname);
  if (!entry) {
    debug.print("[Debug]: Unable to determine the login user id.  getpwnam(%s) failure, errno=%d\n",
                luname, entry.error());
    return 0;
  }
  *luid = static_cast<int>(entry->pw_uid);
  return 1;
}
