// Why a file cannot be opened as a library, or run as a program, as the file itself shows it: the
// dynamic loader's own words are about its search, or about bytes.
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "system/internal.h"

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

// A file that is read from, until the end of its block.
struct OpenFile {
  int descriptor = -1;
  std::uint64_t size = 0;

  OpenFile() = default;
  ~OpenFile() {
    if (descriptor >= 0) close(descriptor);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  // Only of a regular file: what else there is might wait for a writer.
  bool open(const char* name, LibFileFaultType& fault) {
    struct statx status;
    if (!unixIoStatx(name, STATX_TYPE | STATX_SIZE, status)) return say(fault, accessFault(errno));
    if (S_ISDIR(status.stx_mode)) return say(fault, "is a directory");
    if (!S_ISREG(status.stx_mode)) return say(fault, "is not a file");
    size = status.stx_size;
    descriptor = open64(name, O_RDONLY | O_CLOEXEC);
    return descriptor >= 0 || say(fault, accessFault(errno));
  }

  bool read(LibFileStart& start, LibFileFaultType& fault) const {
    const ssize_t count = pread64(descriptor, start.bytes, sizeof start.bytes, 0);
    if (count < 0) return say(fault, accessFault(errno));
    if (count == 0) return say(fault, "is empty");
    start.size = static_cast<std::size_t>(count);
    return true;
  }

  // Whether a 32-bit library or program of this processor ends before what its header tells of.
  bool isCutShort(const LibFileStart& start) const {
    Elf32_Ehdr header;
    if (start.size < sizeof header) return true;
    std::memcpy(&header, start.bytes, sizeof header);
    if (header.e_phentsize != sizeof(Elf32_Phdr)) return false;  // the dynamic loader refuses it
    const auto places = static_cast<off64_t>(header.e_phoff);
    for (unsigned i = 0; i < header.e_phnum; ++i) {
      Elf32_Phdr segment;
      const auto place = places + static_cast<off64_t>(i * sizeof segment);
      if (pread64(descriptor, &segment, sizeof segment, place) != ssize_t{sizeof segment}) {
        return true;
      }
      const std::uint64_t end = std::uint64_t{segment.p_offset} + segment.p_filesz;
      if (segment.p_type == PT_LOAD && end > size) return true;
    }
    return false;
  }
};

bool isElf(const LibFileStart& start) {
  return start.size >= SELFMAG && std::memcmp(start.bytes, ELFMAG, SELFMAG) == 0;
}

bool isOfClass(const LibFileStart& start, unsigned char elfClass) {
  return start.size > EI_CLASS && start.bytes[EI_CLASS] == elfClass;
}

bool isOfThisProcessor(const LibFileStart& start) {
  Elf32_Half machine;
  constexpr std::size_t place = offsetof(Elf32_Ehdr, e_machine);
  if (start.size < place + sizeof machine) return true;
  std::memcpy(&machine, start.bytes + place, sizeof machine);
  return machine == EM_386;
}

}  // namespace

bool LibFileStart::isText() const {
  for (std::size_t i = 0; i < size; ++i) {
    if (std::isprint(bytes[i]) == 0 && std::isspace(bytes[i]) == 0) return false;
  }
  return true;
}

bool libFileRead(const char* name, LibFileStart& start, LibFileFaultType& fault) {
  start.size = 0;
  OpenFile file;
  return file.open(name, fault) && file.read(start, fault);
}

bool libFileIsFit(const char* name, const char* kind, LibFileFaultType& fault) {
  OpenFile file;
  LibFileStart start;
  if (!file.open(name, fault) || !file.read(start, fault)) return false;
  if (!isElf(start)) {
    if (start.isText()) return say(fault, "is a text");
    std::snprintf(fault, sizeof fault, "is no %s", kind);
    return false;
  }
  if (isOfClass(start, ELFCLASS64)) {
    std::snprintf(fault, sizeof fault, "is a 64-bit %s", kind);
    return false;
  }
  if (!isOfThisProcessor(start)) {
    std::snprintf(fault, sizeof fault, "is a %s for another processor", kind);
    return false;
  }
  if (file.isCutShort(start)) return say(fault, "is cut short");
  if (liesOnNoexecMount(name)) return say(fault, "lies on a file system mounted noexec");
  return true;
}

bool libFileIsCutShort(const char* name) {
  OpenFile file;
  LibFileStart start;
  LibFileFaultType ignored;
  return file.open(name, ignored) && file.read(start, ignored) && isElf(start) &&
         isOfClass(start, ELFCLASS32) && isOfThisProcessor(start) && file.isCutShort(start);
}
