#include <povzel/hostfiles.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include <povzel/hostfname.h>
#include <povzel/hostspawn.h>
#include <povzel/unixio.h>
#include <povzel/utlsystem.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr char removeCommand[] = "rm -f ";

bool hasWildcard(const char* name) {
  return std::strpbrk(name, "*?") != nullptr;
}

// Records errno and returns the false result.
BoolType failed(HostErrSType* hostErr) {
  if (hostErr != nullptr) hostErr->theErrno = errno;
  return 0;
}

void expandKeepingLinks(const char* name, HostFnameStrType& expanded) {
  const KeepSoftLinks keepLinks;
  HostExpandFileName(name, expanded, sizeof expanded);
}

bool statName(const char* name, struct stat64* status) {
  return UnixIoStat64(name, status, nullptr, 0) != 0;
}

}  // namespace

std::FILE* HostOpenFile(const char* fileName, const char* openMode, HostErrSType* fileErr,
                        BoolType userFile) {
  const RealIds realIds(userFile);
  HostFnameStrType expanded;
  HostExpandFileName(fileName, expanded, sizeof expanded);
  std::FILE* file = realIds.refused() ? nullptr : UnixIoFopen(expanded, openMode);
  if (file == nullptr) failed(fileErr);
  return file;
}

int HostOpen(const char* name, int flags, int mode) {
  return UtlMapFd(unixIoRetry([&] { return os.open(name, flags | O_CLOEXEC, mode); }));
}

int HostOpen64(const char* name, int flags, int mode) {
  return UtlMapFd(unixIoRetry([&] { return os.open64(name, flags | O_CLOEXEC, mode); }));
}

BoolType HostFileExistSize(const char* fileName, unsigned long* size, BoolType* exists,
                           HostErrSType* hostErr) {
  if (exists != nullptr) *exists = 1;
  HostFnameStrType expanded;
  expandKeepingLinks(fileName, expanded);

  struct stat64 status;
  bool found = statName(expanded, &status);
  if (!found && errno == EACCES && RealIds::areOthers()) {
    const RealIds realIds(1);
    found = !realIds.refused() && statName(expanded, &status);
    if (!found) errno = EACCES;
  }
  if (found) {
    if (size != nullptr) *size = static_cast<unsigned long>(status.st_size);
    return 1;
  }
  if (exists != nullptr && errno == ENOENT) *exists = 0;
  return failed(hostErr);
}

BoolType HostFileExist(const char* fileName, HostErrSType* hostErr) {
  return HostFileExistSize(fileName, nullptr, nullptr, hostErr);
}

HostFileKindEType HostFileType(const char* filename, HostErrSType* hostErr) {
  struct stat64 status;
  if (os.stat64(filename, &status) != 0) {
    failed(hostErr);
    return HOST_FILE_KIND_ERROR;
  }
  if (S_ISDIR(status.st_mode)) return HOST_FILE_KIND_DIR;
  if (S_ISCHR(status.st_mode)) return HOST_FILE_KIND_CHRDEVICE;
  if (S_ISBLK(status.st_mode)) return HOST_FILE_KIND_BLKDEVICE;
  if (S_ISREG(status.st_mode)) return HOST_FILE_KIND_FILE;
  return HOST_FILE_KIND_OTHER;
}

BoolType HostRemoveSingleFile(const char* filename, BoolType userFile, HostErrSType* theErr) {
  if (hasWildcard(filename)) {
    errno = ENOENT;
    return failed(theErr);
  }
  const RealIds realIds(userFile);
  HostFnameStrType expanded;
  expandKeepingLinks(filename, expanded);
  return !realIds.refused() && os.unlink(expanded) == 0 ? 1 : failed(theErr);
}

BoolType HostRemoveFile(const char* filename, BoolType userFile) {
  if (!hasWildcard(filename)) return HostRemoveSingleFile(filename, userFile, nullptr);
  char command[sizeof removeCommand + sizeof(HostFnameStrType)];
  if (std::strlen(filename) >= sizeof(HostFnameStrType)) return 0;
  std::snprintf(command, sizeof command, "%s%s", removeCommand, filename);
  const RealIds realIds(userFile);
  return !realIds.refused() && HostSpawn(command);
}

BoolType HostCreateDirectory(const char* name, HostErrSType* hostErr) {
  HostFnameStrType expanded;
  HostExpandFileName(name, expanded, sizeof expanded);
  return os.mkdir(expanded, 0777) == 0 ? 1 : failed(hostErr);
}

BoolType HostRemoveDirectory(const char* name, HostErrSType* hostErr) {
  HostFnameStrType expanded;
  HostExpandFileName(name, expanded, sizeof expanded);
  return os.rmdir(expanded) == 0 ? 1 : failed(hostErr);
}

void HostResetIo() {}
