#include <povzel/hostspawn.h>

#include <unistd.h>

#include <csignal>
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

}  // namespace

BoolType HostSpawn(const char* theCommand) {
  const IgnoredSignal interrupt(SIGINT);
  const IgnoredSignal quit(SIGQUIT);
  const IgnoredSignal terminalOutput(SIGTTOU);
  const IgnoredSignal terminalInput(SIGTTIN);
  return HostInteractiveSpawn(theCommand);
}

BoolType HostInteractiveSpawn(const char* theCommand) {
  const IgnoredSignal child(SIGCHLD);
  char shellCommand[shellCommandSize];
  if (theCommand[0] == '\0') {
    composeShellCommand(shellCommand);
    theCommand = shellCommand;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) unixIoSetCloseOnExec(fd, false);
  }
  errno = 0;
  if (UnixIoSystem(theCommand, 1) == 0) return 1;
  if (errno != ECHILD) return 0;
  errno = 0;
  return 1;
}
