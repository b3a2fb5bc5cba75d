#include <povzel/utlfiles.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include <povzel/hostfiles.h>
#include <povzel/unixerr.h>
#include "system/internal.h"

namespace {

int writeEntry(const char* directory, const char* name, const char* separator, void* file) {
  return std::fprintf(static_cast<FILE*>(file), "%s%s%s\n", directory, separator, name);
}

}  // namespace

FILE* UtlOpenFile(const char* fileName, const char* openMode, char* errBuff,
                  ArraySizeType errBuffSize) {
  HostErrSType failure{};
  FILE* file = HostOpenFile(fileName, openMode, &failure, 1);
  if (file == nullptr && errBuff != nullptr) HostGetErrMsg(&failure, errBuff, errBuffSize);
  return file;
}

BoolType UtlCheckAccess(const char* fileName, const char* accessType, HostErrSType* fileErr,
                        BoolType userFile) {
  FILE* file = HostOpenFile(fileName, accessType, fileErr, userFile);
  if (file == nullptr) return 0;
  std::fclose(file);
  return 1;
}

BoolType UtlDirectory(const char* wildcardSpec, const char* fileSpec) {
  HostErrSType ignored;
  FILE* file = HostOpenFile(fileSpec, "w", &ignored, 1);
  if (file == nullptr) return 0;
  const BoolType result = HostDirectory(wildcardSpec, writeEntry, file);
  const bool written = std::ferror(file) == 0;
  return std::fclose(file) == 0 && written ? result : 0;
}

BoolType UtlGetFileModTime(const char* fname, std::time_t* modTime, SysErrorSType* err) {
  struct statx status;
  const bool found = unixIoStatx(fname, STATX_MTIME, status);
  const std::int64_t seconds = found ? status.stx_mtime.tv_sec : 0;
  const auto time = static_cast<std::time_t>(seconds);
  if (!found || time != seconds) {
    SysErrorSet(err, found ? EOVERFLOW : errno, "stat(%s)", fname);
    return 0;
  }
  *modTime = time;
  return 1;
}
