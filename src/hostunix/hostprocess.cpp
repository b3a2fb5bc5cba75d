#include <povzel/hostprocess.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <povzel/hostfname.h>
#include <povzel/unixio.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t performNamesLength = 80;

BoolType sendSignal(PidType pid, int signal) {
  errno = 0;
  return os.kill(pid, signal) == 0;
}

}  // namespace

BoolType HostPerform(const char* cmdFileSpec, const char* outFileSpec) {
  HostFnameStrType commandFile;
  HostFnameStrType outputFile;
  HostExpandFileName(cmdFileSpec, commandFile, sizeof commandFile);
  HostExpandFileName(outFileSpec, outputFile, sizeof outputFile);
  if (std::strlen(commandFile) + std::strlen(outputFile) > performNamesLength) return 0;

  char command[performNamesLength + sizeof "/bin/sh  </dev/null > 2>&1"];
  std::snprintf(command, sizeof command, "/bin/sh %s </dev/null >%s 2>&1", commandFile, outputFile);
  const IgnoredSignal child(SIGCHLD);
  errno = 0;
  const int status = UnixIoSystem(command, 0);
  constexpr int shellNotRun = 127;
  if (status == shellNotRun || status == shellNotRun * 256) return 0;
  if (errno == ECHILD) return 0;
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
