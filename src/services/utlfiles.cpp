#include <povzel/utlfiles.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include <povzel/hostfiles.h>
#include <povzel/hostsigterm.h>
#include <povzel/unixerr.h>
#include "basics/internal.h"

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
  std::fclose(file);
  return result;
}

BoolType UtlGetFileModTime(const char* fname, std::time_t* modTime, SysErrorSType* err) {
  // stat64, because plain stat refuses files of 2 GB and more.
  struct stat64 status;
  int result;
  do {
    result = os.stat64(fname, &status);
  } while (result != 0 && errno == EINTR && HostGetSigTerm(__FILE__, __LINE__) == 0);
  if (result != 0) {
    SysErrorSet(err, errno, "stat(%s)", fname);
    return 0;
  }
  *modTime = status.st_mtime;
  return 1;
}
