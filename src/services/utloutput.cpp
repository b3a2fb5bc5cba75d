#include <povzel/utloutput.h>

#include <cerrno>
#include <cstdio>

#include <povzel/errmsg.h>
#include <povzel/hostfiles.h>
#include <povzel/hostfname.h>
#include <povzel/unixerr.h>
#include <povzel/unixio.h>
#include "basics/internal.h"

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

}  // namespace

BoolType UtlResetOutput(const char* fileName, char* errText, std::size_t errTextSize) {
  HostFnameStrType expanded;
  HostExpandFileName(fileName, expanded, sizeof expanded);
  errno = 0;
  if (os.freopen(expanded, "a", stdout) != nullptr &&
      os.freopen(expanded, "a", stderr) != nullptr) {
    return 1;
  }
  ErrMsgStrType reason;
  UnixErr(errno, reason, sizeof reason);
  if (errText != nullptr && errTextSize > 0) {
    ErrMsgSymToText("utl.freopen", errText, errTextSize, "ss", expanded, reason);
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
  if (size == 0) return 1;

  HostFnameStrType expanded;
  HostExpandFileName(fileName, expanded, sizeof expanded);
  FILE* file = UnixIoFopen(expanded, "a+");
  if (file == nullptr) return reportFailedStep(openStep, errno);
  const BoolType result = endWithLf(file);
  std::fclose(file);
  return result;
}
