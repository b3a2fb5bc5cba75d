// The calls of the system and the C library that can fail, a pointer each. The library makes them
// through this table, `os.unlink(name)`, so that a test can put a failing call in the place of any.
// An indirect call costs what one through the linker's own table does.
//
// What is marked as signal-safe makes its calls directly, where its callees can be seen.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <pthread.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

// Calls that take any number of arguments, with those that are given here.
namespace oscalls {

inline int open(const char* name, int flags, mode_t mode) {
  return ::open(name, flags, mode);
}
inline int open64(const char* name, int flags, mode_t mode) {
  return ::open64(name, flags, mode);
}
inline int fcntl(int descriptor, int command, int argument) {
  return ::fcntl(descriptor, command, argument);
}
// Asked before each vfork, which returns twice and so not through a pointer: anything but 0 stands
// for its failure.
inline int refuseVfork() {
  return 0;
}

}  // namespace oscalls

// OWN(name) for each of the calls above, CALL(name) for each that is used as it is.
#define POVZEL_OS_CALLS(OWN, CALL) \
  OWN(open) \
  OWN(open64) OWN(fcntl) OWN(refuseVfork) /* files and directories */ \
      CALL(read) CALL(write) CALL(close) CALL(lseek) CALL(dup2) CALL(pipe2) CALL(stat) \
          CALL(stat64) CALL(fstat) CALL(fstat64) CALL(readlink) CALL(getcwd) CALL(unlink) \
              CALL(rename) CALL(mkdir) CALL(rmdir) CALL(chdir) CALL(opendir) CALL(readdir64) \
                  CALL(closedir) /* streams */ \
      CALL(fopen) CALL(freopen) CALL(fdopen) CALL(fread) CALL(fgetc) CALL(fputc) CALL(fseek) \
          CALL(fflush) /* processes and threads */ \
      CALL(fork) CALL(_Fork) CALL(execv) CALL(waitpid) CALL(kill) CALL(setsid) \
          CALL(pthread_create) /* users */ \
      CALL(seteuid) CALL(setegid) CALL(setuid) CALL(setgid) CALL(setgroups) CALL(getgrouplist) \
          CALL(getpwnam) CALL(getpwuid) CALL(getspnam) \
              CALL(getlogin_r) /* limits, terminals, pages, the system */ \
      CALL(getrlimit) CALL(setrlimit) CALL(getrlimit64) CALL(setrlimit64) CALL(tcgetattr) \
          CALL(tcsetattr) CALL(mprotect) CALL(uname) CALL(gethostname) CALL(gethostbyname)

struct OsCalls {
#define POVZEL_OS_OWN(name) decltype(&oscalls::name) name = oscalls::name;
#define POVZEL_OS_CALL(name) decltype(&::name) name = ::name;
  POVZEL_OS_CALLS(POVZEL_OS_OWN, POVZEL_OS_CALL)
#undef POVZEL_OS_OWN
#undef POVZEL_OS_CALL
};

extern OsCalls osCallsForTests;

// The table, as everything but a test sees it.
inline constexpr const OsCalls& os = osCallsForTests;
