#include <povzel/hostprocess.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t performNamesLength = 80;

BoolType sendSignal(PidType pid, int signal) {
  errno = 0;
  if (pid > 0) return os.kill(pid, signal) == 0;
  errno = ESRCH;  // a group, or everybody, is no process
  return 0;
}

// Expanded names of directories end in "/".
bool isNoDirectory(const char* name) {
  if (name[0] == '\0' || name[std::strlen(name) - 1] != '/') return true;
  errno = EISDIR;
  return false;
}

// Access is judged by the real ids, which the shell has.
bool canRead(const char* name) {
  return isNoDirectory(name) && os.access(name, R_OK) == 0;
}

bool canWrite(const char* name) {
  if (!isNoDirectory(name)) return false;
  if (os.access(name, W_OK) == 0) return true;
  if (errno != ENOENT || name[0] == '\0') return false;
  const char* slash = std::strrchr(name, '/');
  char directory[performNamesLength + 1] = ".";
  if (slash != nullptr) {
    std::snprintf(directory, sizeof directory, "%.*s", static_cast<int>(slash - name + 1), name);
  }
  return os.access(directory, W_OK | X_OK) == 0;
}

// Appends `name` as one word for the shell: neither an option nor a name to be searched for.
// Returns the end.
char* appendQuoted(char* end, const char* name) {
  end = stpcpy(end, name[0] == '/' ? "'" : "'./");
  for (; *name != '\0'; ++name) {
    if (*name == '\'') {
      end = stpcpy(end, "'\\''");
    } else {
      *end++ = *name;
    }
  }
  return stpcpy(end, "'");
}

// Whether the shell that ended with `status` found nothing to run.
bool wasNotPerformed(int status) {
  constexpr int notExecutable = 126;
  constexpr int notFound = 127;
  if (!WIFEXITED(status)) return false;
  const int code = WEXITSTATUS(status);
  if (code == notExecutable) errno = EACCES;
  if (code == notFound) errno = ENOENT;
  return code == notExecutable || code == notFound;
}

}  // namespace

BoolType HostPerform(const char* cmdFileSpec, const char* outFileSpec) {
  HostFnameStrType commandFile;
  HostFnameStrType outputFile;
  if (!hostExpandFileName(cmdFileSpec, commandFile)) return 0;
  if (!hostExpandFileName(outFileSpec, outputFile)) return 0;
  if (std::strlen(commandFile) + std::strlen(outputFile) > performNamesLength) {
    errno = ENAMETOOLONG;
    return 0;
  }
  if (!canRead(commandFile) || !canWrite(outputFile)) return 0;

  char command[performNamesLength * (sizeof "'\\''" - 1) +
               sizeof "/bin/sh './' </dev/null >'./' 2>&1"];
  char* end = appendQuoted(stpcpy(command, "/bin/sh "), commandFile);
  end = appendQuoted(stpcpy(end, " </dev/null >"), outputFile);
  stpcpy(end, " 2>&1");
  errno = 0;
  int status;
  if (!unixIoRun({.text = command, .interactive = false}, status)) return 0;
  if (errno == ECHILD || wasNotPerformed(status)) return 0;
  errno = 0;
  return 1;
}

void HostKillProcess() {
  HostSetFatalErr(1);
  hostFlushApplicationFiles();
  std::fflush(stderr);
  os.kill(getpid(), SIGKILL);
}

BoolType HostKillOtherProcess(PidType pid) {
  return sendSignal(pid, SIGKILL);
}

BoolType HostTerminateOtherProcess(PidType pid) {
  return sendSignal(pid, SIGTERM);
}

BoolType HostGetProcessId(PidType* processID) {
  *processID = getpid();
  return 1;
}

HostProcessEType HostGetProcessKind() {
  const int input = fileno(stdin);
  if (input == -1) return HOST_PROCESS_BATCH;
  if (isatty(input) != 0) return HOST_PROCESS_INTERACTIVE;
  struct stat64 status;
  if (os.fstat64(input, &status) != 0) return HOST_PROCESS_OTHER;
  return status.st_size < 1 ? HOST_PROCESS_NETWORK : HOST_PROCESS_BATCH;
}

char* HostGetChildLogPtr() {
  return childLogPtr;
}

void HostGetCommandLine(char* commandLine, ArraySizeType length, int argc, char** argv) {
  if (length == 0) return;
  char* next = commandLine;
  ArraySizeType room = length - 1;
  for (int index = 1; index < argc; ++index) {
    const std::size_t argumentLength = std::strlen(argv[index]);
    if (argumentLength + 1 > room) break;
    std::memcpy(next, argv[index], argumentLength);
    next += argumentLength;
    *next++ = ' ';
    room -= argumentLength + 1;
  }
  *next = '\0';
}
