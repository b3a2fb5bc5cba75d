// Why a file cannot be opened as a library, or run as a program, as the file itself shows it: the
// dynamic loader's own words are about its search, or about bytes.
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal.h"

namespace {

bool say(LibFileFaultType& fault, const char* text) {
  std::snprintf(fault, sizeof fault, "%s", text);
  return false;
}

const char* accessFault(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return "is not there";
    case EACCES:
      return "is not readable";
    default:
      return strerrordesc_np(error);
  }
}

bool liesOnNoexecMount(const char* file) {
  struct statvfs64 status;
  return statvfs64(file, &status) == 0 && (status.f_flag & ST_NOEXEC) != 0;
}

}  // namespace

bool LibFileStart::isText() const {
  for (std::size_t i = 0; i < size; ++i) {
    if (std::isprint(bytes[i]) == 0 && std::isspace(bytes[i]) == 0) return false;
  }
  return true;
}

bool libFileRead(const char* file, LibFileStart& start, LibFileFaultType& fault) {
  start.size = 0;
  // Unlike stat and open it takes files of any size, inode number and date.
  struct statx status;
  if (statx(AT_FDCWD, file, 0, STATX_TYPE, &status) != 0) return say(fault, accessFault(errno));
  if (S_ISDIR(status.stx_mode)) return say(fault, "is a directory");
  if (!S_ISREG(status.stx_mode)) return say(fault, "is not a file");
  const int descriptor = open64(file, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return say(fault, accessFault(errno));
  const ssize_t count = read(descriptor, start.bytes, sizeof start.bytes);
  const int error = errno;
  close(descriptor);
  if (count < 0) return say(fault, accessFault(error));
  if (count == 0) return say(fault, "is empty");
  start.size = static_cast<std::size_t>(count);
  return true;
}

bool libFileIsFit(const char* file, const char* kind, LibFileFaultType& fault) {
  LibFileStart start;
  if (!libFileRead(file, start, fault)) return false;
  Elf32_Ehdr header;
  static_assert(sizeof header <= sizeof start.bytes);
  std::memcpy(&header, start.bytes, sizeof header);
  if (start.size < SELFMAG || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
    if (start.isText()) return say(fault, "is a text");
    std::snprintf(fault, sizeof fault, "is no %s", kind);
    return false;
  }
  if (start.size < sizeof header) return say(fault, "is cut short");
  if (header.e_ident[EI_CLASS] == ELFCLASS64) {
    std::snprintf(fault, sizeof fault, "is a 64-bit %s", kind);
    return false;
  }
  if (header.e_machine != EM_386) {
    std::snprintf(fault, sizeof fault, "is a %s for another processor", kind);
    return false;
  }
  if (liesOnNoexecMount(file)) return say(fault, "lies on a file system mounted noexec");
  return true;
}
