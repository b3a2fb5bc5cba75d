#include <povzel/utloutput.h>

#include <stdio_ext.h>

#include <cerrno>
#include <cstdio>

#include <povzel/errmsg.h>
#include <povzel/hostfiles.h>
#include <povzel/unixerr.h>
#include <povzel/unixio.h>
#include "hostunix/internal.h"

namespace {

// The operations of UtlAppendLfToFile with the step numbers that its reports carry.
struct AppendStep {
  const char* operation;
  int number;
};
constexpr AppendStep statStep{"stat", 2816};
constexpr AppendStep openStep{"fopen", 2828};
constexpr AppendStep seekLastStep{"fseek", 2834};
constexpr AppendStep readLastStep{"fgetc", 2841};
constexpr AppendStep seekEndStep{"fseek", 2852};
constexpr AppendStep writeStep{"fputc", 2858};

BoolType reportFailedStep(const AppendStep& step, int error) {
  ErrMsgStrType text;
  UnixErr(error, text, sizeof text);
  std::fprintf(stderr, "UtlAppendLfToFile: Operation %s() failed at line %d: %s\n", step.operation,
               step.number, text);
  return 0;
}

BoolType endWithLf(FILE* file) {
  errno = 0;
  if (os.fseek(file, -1, SEEK_END) != 0) return reportFailedStep(seekLastStep, errno);
  const int last = os.fgetc(file);
  if (last == EOF) return reportFailedStep(readLastStep, errno);
  if (last == '\n') return 1;
  if (os.fseek(file, 0, SEEK_END) != 0) return reportFailedStep(seekEndStep, errno);
  // Flushed here, so that a full disk is noticed while the write can still be reported.
  if (os.fputc('\n', file) == EOF || os.fflush(file) != 0) {
    return reportFailedStep(writeStep, errno);
  }
  return 1;
}

// Puts the open file in the place of standard output and errors; of neither when one refuses.
bool redirectOutput(int file) {
  const int formerOutput = os.fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (formerOutput < 0 && errno != EBADF) return false;
  bool redirected = os.dup2(file, STDOUT_FILENO) >= 0;
  if (redirected && os.dup2(file, STDERR_FILENO) < 0) {
    const ErrnoKeeper keeper;
    if (formerOutput < 0) {
      os.close(STDOUT_FILENO);
    } else {
      os.dup2(formerOutput, STDOUT_FILENO);
    }
    redirected = false;
  }
  const ErrnoKeeper keeper;
  if (formerOutput >= 0) os.close(formerOutput);
  return redirected;
}

// The same with the file `name`, opened to append.
bool redirectOutput(const char* name) {
  int file = HostOpen64(name, O_WRONLY | O_CREAT | O_APPEND, 0666);
  if (file >= 0) file = unixIoAboveStandard(file);
  if (file < 0) return false;
  std::fflush(stdout);
  std::fflush(stderr);
  const bool redirected = redirectOutput(file);
  const ErrnoKeeper keeper;
  os.close(file);
  return redirected;
}

}  // namespace

BoolType UtlResetOutput(const char* fileName, char* errText, std::size_t errTextSize) {
  HostFnameStrType expanded;
  const bool fits = hostExpandFileName(fileName, expanded);
  if (fits && redirectOutput(expanded)) return 1;
  if (errText != nullptr && errTextSize > 0) {
    ErrMsgSymToText("utl.freopen", errText, errTextSize, "ss", fits ? expanded : fileName,
                    ErrnoText(errno).text);
  }
  return 0;
}

BoolType UtlAppendLfToFile(const char* fileName) {
  unsigned long size = 0;
  BoolType exists = 0;
  HostErrSType failure{};
  if (!HostFileExistSize(fileName, &size, &exists, &failure)) {
    return exists != 0 ? reportFailedStep(statStep, failure.theErrno) : 1;
  }
  HostFnameStrType expanded;
  if (!hostExpandFileName(fileName, expanded)) return reportFailedStep(statStep, errno);
  if (size == 0) {  // of the low 32 bits, so of 4 GiB as well
    struct statx status;
    if (!unixIoStatx(expanded, STATX_SIZE, status)) return reportFailedStep(statStep, errno);
    if (status.stx_size == 0) return 1;
  }

  FILE* file = UnixIoFopen(expanded, "a+");
  if (file == nullptr) return reportFailedStep(openStep, errno);
  const BoolType result = endWithLf(file);
  if (result == 0) __fpurge(file);  // closing would write the line end after all
  std::fclose(file);
  return result;
}
