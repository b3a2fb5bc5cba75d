#include <povzel/hostfiles.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

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

// Looks at the file, its links not expanded; under the real ids where the effective ones are denied
// access. Returns false with errno set when that fails.
bool lookAt(const char* fileName, HostFnameStrType& expanded, struct statx& status) {
  if (!hostExpandFileName(fileName, expanded, true)) return false;
  if (unixIoStatx(expanded, STATX_SIZE, status)) return true;
  if (errno != EACCES || !RealIds::areOthers()) return false;
  const RealIds realIds(1);
  if (!realIds.refused() && unixIoStatx(expanded, STATX_SIZE, status)) return true;
  errno = EACCES;
  return false;
}

}  // namespace

std::FILE* HostOpenFile(const char* fileName, const char* openMode, HostErrSType* fileErr,
                        BoolType userFile) {
  const RealIds realIds(userFile);
  HostFnameStrType expanded;
  const bool ready = !realIds.refused() && hostExpandFileName(fileName, expanded);
  std::FILE* file = ready ? UnixIoFopen(expanded, openMode) : nullptr;
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
  struct statx status;
  if (lookAt(fileName, expanded, status)) {
    if (size != nullptr) *size = static_cast<unsigned long>(status.stx_size);
    return 1;
  }
  if (exists != nullptr && errno == ENOENT) *exists = 0;
  return failed(hostErr);
}

BoolType HostFileExist(const char* fileName, HostErrSType* hostErr) {
  return HostFileExistSize(fileName, nullptr, nullptr, hostErr);
}

bool hostFileExists(const char* fileName, HostFnameStrType& expanded) {
  struct statx status;
  return lookAt(fileName, expanded, status);
}

HostFileKindEType HostFileType(const char* filename, HostErrSType* hostErr) {
  struct statx status;
  if (!unixIoStatx(filename, STATX_TYPE, status)) {
    failed(hostErr);
    return HOST_FILE_KIND_ERROR;
  }
  if (S_ISDIR(status.stx_mode)) return HOST_FILE_KIND_DIR;
  if (S_ISCHR(status.stx_mode)) return HOST_FILE_KIND_CHRDEVICE;
  if (S_ISBLK(status.stx_mode)) return HOST_FILE_KIND_BLKDEVICE;
  if (S_ISREG(status.stx_mode)) return HOST_FILE_KIND_FILE;
  return HOST_FILE_KIND_OTHER;
}

BoolType HostRemoveSingleFile(const char* filename, BoolType userFile, HostErrSType* theErr) {
  if (hasWildcard(filename)) {
    errno = ENOENT;
    return failed(theErr);
  }
  const RealIds realIds(userFile);
  HostFnameStrType expanded;
  const bool ready = !realIds.refused() && hostExpandFileName(filename, expanded, true);
  return ready && os.unlink(expanded) == 0 ? 1 : failed(theErr);
}

BoolType HostRemoveFile(const char* filename, BoolType userFile) {
  if (!hasWildcard(filename)) return HostRemoveSingleFile(filename, userFile, nullptr);
  char command[sizeof removeCommand + sizeof(HostFnameStrType)];
  if (std::strlen(filename) >= sizeof(HostFnameStrType)) {
    errno = ENAMETOOLONG;
    return 0;
  }
  std::snprintf(command, sizeof command, "%s%s", removeCommand, filename);
  const RealIds realIds(userFile);
  return !realIds.refused() && HostSpawn(command);
}

BoolType HostCreateDirectory(const char* name, HostErrSType* hostErr) {
  HostFnameStrType expanded;
  const bool ready = hostExpandFileName(name, expanded);
  return ready && os.mkdir(expanded, 0777) == 0 ? 1 : failed(hostErr);
}

BoolType HostRemoveDirectory(const char* name, HostErrSType* hostErr) {
  HostFnameStrType expanded;
  return hostExpandFileName(name, expanded) && os.rmdir(expanded) == 0 ? 1 : failed(hostErr);
}

void HostResetIo() {}
