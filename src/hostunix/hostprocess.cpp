#include <povzel/hostprocess.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <povzel/hostfiles.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t performNamesLength = 80;
constexpr mode_t newFileMode = 0666;  // the shell's

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

// Opening one of these may wait, or make it do something.
bool isPipeOrDevice(const char* name) {
  struct statx found;
  return unixIoStatx(name, STATX_TYPE, found) &&
         (S_ISFIFO(found.stx_mode) || S_ISCHR(found.stx_mode) || S_ISBLK(found.stx_mode));
}

// Whether the shell, which has the real ids, will be able to open it.
bool canOpen(const char* name, int flags) {
  if (!isNoDirectory(name)) return false;
  const bool writes = (flags & O_WRONLY) != 0;
  if (isPipeOrDevice(name)) return os.access(name, writes ? W_OK : R_OK) == 0;
  const RealIds ids(true);
  if (ids.refused()) return false;
  const int file = HostOpen64(name, flags, newFileMode);
  if (file < 0) return false;
  os.close(file);
  return true;
}

// The file that a command writes. One that was not there is made for the shell, and is gone again
// with this unless the shell has run.
class Output {
 public:
  explicit Output(const char* name) : name_(name), isUsable_(canOpen(name, O_WRONLY)) {
    if (isUsable_ || errno != ENOENT || name[0] == '\0') return;
    isUsable_ = isMade_ = canOpen(name, O_WRONLY | O_CREAT | O_EXCL);
  }
  ~Output() {
    if (!isMade_) return;
    const ErrnoKeeper keeper;
    const RealIds ids(true);
    if (!ids.refused()) os.unlink(name_);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool isUsable() const { return isUsable_; }
  void keep() { isMade_ = false; }

 private:
  const char* name_;
  bool isUsable_;
  bool isMade_ = false;
};

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
  if (!canOpen(commandFile, O_RDONLY)) return 0;
  Output output(outputFile);
  if (!output.isUsable()) return 0;

  char command[performNamesLength * (sizeof "'\\''" - 1) +
               sizeof "/bin/sh './' </dev/null >'./' 2>&1"];
  char* end = appendQuoted(stpcpy(command, "/bin/sh "), commandFile);
  end = appendQuoted(stpcpy(end, " </dev/null >"), outputFile);
  stpcpy(end, " 2>&1");
  errno = 0;
  int status;
  if (!unixIoRun({.text = command, .interactive = false}, status)) return 0;
  output.keep();
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
