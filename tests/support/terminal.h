// A pseudo-terminal.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

// Both ends of a new terminal. The user's end is `user`, the program's `program`.
class Terminal {
 public:
  Terminal() {
    user = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (grantpt(user) != 0 || unlockpt(user) != 0) std::abort();
    program = open(ptsname(user), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (program < 0) std::abort();
  }
  ~Terminal() {
    close(program);
    close(user);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Makes it the controlling terminal and standard input of this process, in a new session.
  void control() const {
    setsid();
    ioctl(program, TIOCSCTTY, 0);
    dup2(program, STDIN_FILENO);
  }

  int user = -1;
  int program = -1;
};
