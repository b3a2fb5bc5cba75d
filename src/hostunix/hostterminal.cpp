#include <povzel/hostterminal.h>

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <povzel/unixio.h>
#include "basics/internal.h"

namespace {

// The terminal on standard input shows nothing of what is typed while this lives.
class EchoOff {
 public:
  EchoOff() {
    if (os.tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    changed_ = os.tcsetattr(STDIN_FILENO, TCSANOW, &silent) == 0;
    if (!changed_) putBack();
  }
  ~EchoOff() {
    if (changed_) putBack();
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  void putBack() { os.tcsetattr(STDIN_FILENO, TCSANOW, &before_); }

  termios before_ = {};
  bool changed_ = false;
};

void readLine(char* buf, std::size_t maxLen) {
  if (maxLen == 0) return;
  if (!UnixIoFgets(buf, maxLen, stdin)) {
    buf[0] = '\0';
    return;
  }
  const std::size_t length = std::strlen(buf);
  if (length > 0 && buf[length - 1] == '\n') buf[length - 1] = '\0';
}

}  // namespace

void HostSilentGetLine(const char* prompt, char* buf, std::size_t maxLen) {
  std::fputs(prompt, stdout);
  std::fflush(stdout);
  {
    const EchoOff echoOff;
    readLine(buf, maxLen);
  }
  std::fputc('\n', stdout);
  std::fflush(stdout);
}
