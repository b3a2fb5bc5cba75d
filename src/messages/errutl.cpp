#include <povzel/errutl.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <povzel/hostenv.h>
#include <povzel/hostfiles.h>
#include <povzel/hostfname.h>
#include <povzel/utlexe.h>
#include <povzel/utlheap.h>
#include "basics/internal.h"
#include "internal.h"

HostFnameStrType ErrUtlErrFileName;
FILE* ErrUtlErrFile = nullptr;
ErrUtlHdrSType ErrUtlFileHdr;
BoolType errutl_is_init = 0;
const unsigned char magicArray[4] = {0xDE, 0xAD, 0xBE, 0xEF};

namespace {

constexpr char languageVariable[] = "TARVOLIN_LANG";
constexpr char defaultFileName[] = "$TARVOLIN/sys/english67.err";
constexpr std::size_t largestContents = 64u << 20;

ErrUtlBytes contents;        // of the message file, once read
FILE* contentsOf = nullptr;  // where they came from: programs may set ErrUtlErrFile themselves

void dropContents() {
  if (contents.data != nullptr) UtlFree(contents.data);
  contents = {};
}

void closeErrFile() {
  dropContents();
  if (ErrUtlErrFile != nullptr) std::fclose(ErrUtlErrFile);
  ErrUtlErrFile = nullptr;
}

bool isPermutation(const unsigned char* values, unsigned count) {
  unsigned seen = 0;
  for (unsigned i = 0; i < count; ++i) {
    if (values[i] >= count) return false;
    seen |= 1u << values[i];
  }
  return seen == (1u << count) - 1;
}

// Reads with pread, because after a fork parent and child share the position of the descriptor.
bool readAll(int fd, unsigned char* bytes, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t count = pread(fd, bytes + done, size - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

const unsigned char* ErrUtlGetMagic() {
  return magicArray;
}

BoolType UtlValidateSwizzleTransforms(const unsigned char* transform4,
                                      const unsigned char* transform2) {
  return isPermutation(transform4, 4) && isPermutation(transform2, 2);
}

std::uint32_t errUtlDecode(const unsigned char* bytes, const unsigned char* transform) {
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value |= std::uint32_t{bytes[i]} << 8 * (transform[i] & 3);
  return value;
}

BoolType ErrUtlReadHdr(FILE* f, ErrUtlHdrSType* hdr) {
  static constexpr unsigned char transform2[] = {0, 1};
  unsigned char bytes[sizeof *hdr];
  std::rewind(f);
  errno = 0;
  if (os.fread(bytes, 1, sizeof bytes, f) != sizeof bytes) {
    std::fprintf(stderr, "ErrUtlReadHdr: fread() header failure, errno = %d\n", errno);
    return 0;
  }
  std::memcpy(hdr->magic, bytes, sizeof hdr->magic);
  if (std::memcmp(hdr->magic, magicArray, sizeof magicArray) != 0) {
    std::fputs("ErrUtlReadHdr:  bad magic number\n", stderr);
    return 0;
  }
  std::memcpy(hdr->transform, bytes + 4, sizeof hdr->transform);
  if (!UtlValidateSwizzleTransforms(hdr->transform, transform2)) {
    std::fputs("ErrUtlReadHdr: illegal swizzle transforms\n", stderr);
    return 0;
  }
  hdr->vers = errUtlDecode(bytes + 8, hdr->transform);
  hdr->tabSize = errUtlDecode(bytes + 12, hdr->transform);
  hdr->textBegin = errUtlDecode(bytes + 16, hdr->transform);
  if (hdr->vers != 1) {
    std::fprintf(stderr, "ErrUtlReadHdr:  bad version = %ld\n", static_cast<long>(hdr->vers));
    return 0;
  }
  if (hdr->tabSize == 0) {
    std::fputs("ErrUtlReadHdr:  zero length hash table\n", stderr);
    return 0;
  }
  return 1;
}

BoolType ErrUtlReset(BoolType isCompiled) {
  closeErrFile();
  HostErrSType error{};
  ErrUtlErrFile = HostOpenFile(ErrUtlErrFileName, "r", &error, 0);
  if (ErrUtlErrFile == nullptr) {
    std::fprintf(stderr, "ErrUtlReset: fopen() failure on \"%s\"\n", ErrUtlErrFileName);
    std::fprintf(stderr, "     errno = %ld (sorry, no translation available)\n",
                 static_cast<long>(error.theErrno));
    return 0;
  }
  if (isCompiled == 0 || ErrUtlReadHdr(ErrUtlErrFile, &ErrUtlFileHdr)) return 1;
  closeErrFile();
  return 0;
}

void errUtlFindFile(const char* fileName, HostFnameStrType& name) {
  HostFnameStrType language;
  HostFnameStrType found;
  if (fileName == nullptr) {
    const bool isNamed = HostGetEnv(languageVariable, language, sizeof language) != 0;
    fileName = UtlFindExeFile(isNamed ? language : defaultFileName, ".err", found, sizeof found);
  }
  HostExpandFileName(fileName, name, sizeof name);
  if (access(name, F_OK) != 0) utlPlaceInOwnTree(fileName, name, sizeof name);
}

bool errUtlOpen(BoolType isCompiled, const HostFnameStrType& name) {
  std::memcpy(ErrUtlErrFileName, name, sizeof ErrUtlErrFileName);
  errutl_is_init = ErrUtlReset(isCompiled);
  if (errutl_is_init != 0) return true;
  std::fprintf(stderr, "ErrUtlInit: Unable to use file %s as a language file\n", name);
  return false;
}

BoolType ErrUtlInit(BoolType isCompiled, const char* fileName) {
  errutl_is_init = 0;
  HostFnameStrType name;
  errUtlFindFile(fileName, name);
  return errUtlOpen(isCompiled, name);
}

BoolType ErrUtlIsUp() {
  return errutl_is_init;
}

void ErrUtlShutdown() {
  closeErrFile();
}

ErrUtlBytes errUtlContents() {
  if (contents.data != nullptr && contentsOf == ErrUtlErrFile) return contents;
  dropContents();
  if (ErrUtlErrFile == nullptr) return {};
  struct stat status;
  const int fd = fileno(ErrUtlErrFile);
  if (os.fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0) return {};
  std::size_t size = static_cast<std::size_t>(status.st_size);
  if (size > largestContents) size = largestContents;
  auto* bytes = static_cast<unsigned char*>(UtlMalloc_(size, __LINE__));
  if (bytes == nullptr) return {};
  if (!readAll(fd, bytes, size)) {
    UtlFree(bytes);
    return {};
  }
  contents = {bytes, size};
  contentsOf = ErrUtlErrFile;
  return contents;
}
