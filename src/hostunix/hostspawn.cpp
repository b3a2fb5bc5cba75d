#include <povzel/hostspawn.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <povzel/hostenv.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t shellCommandSize = 80;

void composeShellCommand(char (&command)[shellCommandSize]) {
  char shell[shellCommandSize - 3];
  const bool known = HostGetEnv("SHELL", shell, sizeof shell) != 0;
  std::snprintf(command, sizeof command, "%s -i", known ? shell : "/bin/sh");
}

BoolType spawn(const char* text, bool ignoresKeyboard) {
  char shellCommand[shellCommandSize];
  if (text[0] == '\0') {
    composeShellCommand(shellCommand);
    text = shellCommand;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) unixIoSetCloseOnExec(fd, false);
  }
  errno = 0;
  int status;
  const UnixIoCommand command{
      .text = text, .interactive = true, .ignoresKeyboard = ignoresKeyboard};
  if (unixIoRun(command, status) && WEXITSTATUS(status) == 0) return 1;
  if (errno != ECHILD) return 0;
  errno = 0;
  return 1;
}

}  // namespace

BoolType HostSpawn(const char* theCommand) {
  return spawn(theCommand, true);
}

BoolType HostInteractiveSpawn(const char* theCommand) {
  return spawn(theCommand, false);
}
