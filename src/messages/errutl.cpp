#include <povzel/errutl.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include <povzel/hostenv.h>
#include <povzel/unixio.h>
#include <povzel/utlexe.h>
#include <povzel/utlheap.h>
#include "basics/internal.h"
#include "hostunix/internal.h"
#include "internal.h"

HostFnameStrType ErrUtlErrFileName;
FILE* ErrUtlErrFile = nullptr;
ErrUtlHdrSType ErrUtlFileHdr;
BoolType errutl_is_init = 0;
const unsigned char magicArray[4] = {0xDE, 0xAD, 0xBE, 0xEF};

namespace {

constexpr char languageVariable[] = "TARVOLIN_LANG";
constexpr char defaultFileName[] = "$TARVOLIN/sys/english67.err";
constexpr decltype(statx::stx_size) largestContents = 64u << 20;

ErrUtlReading lastReading;  // of the list, which grows only while look-ups hold all of it
ErrUtlReading readings{.next = &lastReading};
ErrUtlReading unreadable;  // stands for one that there was no memory for
std::atomic<ErrUtlReading*> current{nullptr};

HostFnameStrType expandedName;  // that ErrUtlErrFileName was given
bool isNameWhole = true;        // else it is cut, and the name of another file
struct statx state;             // of the open file
bool isStateKnown = false;
struct statx readFrom;    // the file that the current reading is of
bool wasSettled = false;  // a change after it was read gives the file another state
bool isFaultExplained = false;

void dropContents(ErrUtlReading& reading) {
  if (reading.contents.data != nullptr) UtlFree(reading.contents.name);
  reading.contents = {};
}

// Those who hold the former reading keep it; what nobody holds goes. A look-up that takes hold of
// one only now finds that it is not the current one and leaves it unread.
void publish(ErrUtlReading* reading) {
  current = reading;
  for (ErrUtlReading* each = &readings; each != nullptr; each = each->next) {
    if (each != reading && each->holders == 0) dropContents(*each);
  }
}

// Returns one that nobody uses, without contents, or null. Once made they stay, because a look-up
// may yet try to hold one.
ErrUtlReading* unusedReading() {
  ErrUtlReading* each = &readings;
  for (;; each = each->next) {
    if (each != current && each->holders == 0) break;
    if (each->next != nullptr) continue;
    void* place = UtlMalloc_(sizeof *each, __LINE__);
    if (place == nullptr) return nullptr;
    each->next = new (place) ErrUtlReading;
  }
  dropContents(*each);
  each->isDamageTold = false;
  for (std::atomic<std::uint32_t>& cached : each->cachedMessages) cached = 0;
  return each;
}

void closeErrFile() {
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

// Says, once for a file, why it does not work. Returns no contents.
ErrUtlBytes explain(const char* fault, int error = 0) {
  if (isFaultExplained) return {};
  isFaultExplained = true;
  if (error == 0) {
    errUtlSay("ErrUtlReset: \"%s\" %s\n", ErrUtlErrFileName, fault);
  } else {
    errUtlSay("ErrUtlReset: \"%s\" %s, errno = %d\n", ErrUtlErrFileName, fault, error);
  }
  return {};
}

bool isSameTime(const struct statx_timestamp& one, const struct statx_timestamp& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

// Whether that reading is of the file as it is now.
bool isUnchanged(const ErrUtlReading& known) {
  return isStateKnown && wasSettled && known.contents.data != nullptr &&
         state.stx_ino == readFrom.stx_ino && state.stx_dev_major == readFrom.stx_dev_major &&
         state.stx_dev_minor == readFrom.stx_dev_minor && state.stx_size == readFrom.stx_size &&
         isSameTime(state.stx_mtime, readFrom.stx_mtime) &&
         isSameTime(state.stx_ctime, readFrom.stx_ctime) &&
         std::memcmp(&known.header, &ErrUtlFileHdr, sizeof ErrUtlFileHdr) == 0 &&
         std::strcmp(known.contents.name, ErrUtlErrFileName) == 0;
}

// The contents of the open file, behind its name. With `keeps` the want of memory for them leaves
// ENOMEM in errno, and is not said.
ErrUtlBytes readContents(bool keeps) {
  const int fd = fileno(ErrUtlErrFile);
  if (os.statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &state) != 0) {
    return explain("cannot be looked at", errno);
  }
  if (!S_ISREG(state.stx_mode)) return explain("is not a regular file");
  if (state.stx_size == 0) return explain("is empty");
  const auto size = static_cast<std::size_t>(std::min(state.stx_size, largestContents));
  const std::size_t nameSize = std::strlen(ErrUtlErrFileName) + 1;
  auto* name = static_cast<char*>(UtlMalloc_(nameSize + size, __LINE__));
  if (name == nullptr) {
    errno = ENOMEM;
    return keeps ? ErrUtlBytes{} : explain("is too large for the memory left");
  }
  auto* bytes = reinterpret_cast<unsigned char*>(name + nameSize);
  errno = 0;
  if (!readAll(fd, bytes, size)) {
    explain("cannot be read", errno);
    UtlFree(name);
    return {};
  }
  std::memcpy(name, ErrUtlErrFileName, nameSize);
  return {bytes, size, name};
}

bool hasHeader(const ErrUtlBytes& file, const ErrUtlHdrSType& header) {
  const auto holds = [&](std::uint32_t value, std::size_t at) {
    return errUtlDecode(file.data + at, header.transform) == value;
  };
  return file.data != nullptr && file.holds(0, sizeof header) &&
         std::memcmp(file.data, &header, 8) == 0 && holds(header.vers, 8) &&
         holds(header.tabSize, 12) && holds(header.textBegin, 16);
}

// Reads the open file for the look-ups, unless they have it already, or keep what they have for
// want of memory.
void load(bool isCompiled, bool keeps = false) {
  const ErrUtlReading* const known = current;
  if (known != nullptr && isUnchanged(*known)) return;
  ErrUtlReading* const reading = unusedReading();
  if (reading == nullptr) {
    if (keeps) return;
    explain("is too large for the memory left");
    publish(&unreadable);
    return;
  }
  reading->contents = readContents(keeps);
  if (keeps && reading->contents.data == nullptr && errno == ENOMEM) return;
  reading->header = ErrUtlFileHdr;
  if (isCompiled && !hasHeader(reading->contents, reading->header)) {
    explain("has another header than when it was opened");
    dropContents(*reading);
  }
  // File systems count time in steps, and two changes within one look alike.
  constexpr int longestStep = 2;
  readFrom = state;
  wasSettled = std::time(nullptr) - state.stx_ctime.tv_sec > longestStep;
  publish(reading);
  if (!isCompiled || reading->contents.data == nullptr) return;
  const std::uint64_t table = std::uint64_t{sizeof(ErrUtlHashSType)} * reading->header.tabSize;
  if (reading->contents.size < sizeof(ErrUtlHdrSType) + table) {
    explain("ends within its table");
  } else {
    isFaultExplained = false;
  }
}

enum class Opening { source, compiled, again };

// Whether a compiled file may be of that kind: reading from a pipe or a terminal would wait. Of a
// directory the look at its contents tells.
bool mayBeCompiled(const struct statx& found) {
  if (S_ISREG(found.stx_mode) || S_ISDIR(found.stx_mode)) return true;
  explain(S_ISFIFO(found.stx_mode) ? "is a pipe" : "is not a regular file");
  return false;
}

// Opens a stream above the standard ones: while those are closed, what takes their place gets lost
// when this stream is closed.
FILE* openStream(const char* name) {
  FILE* const stream = UnixIoFopen(name, "r");
  if (stream == nullptr || fileno(stream) > STDERR_FILENO) return stream;
  const int file = os.fcntl(fileno(stream), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  FILE* const moved = file >= 0 ? os.fdopen(file, "r") : nullptr;
  const ErrnoKeeper keeper;
  if (file >= 0 && moved == nullptr) os.close(file);
  std::fclose(stream);
  return moved;
}

// Reads the header of the open file, should that still be one to read from.
bool readHeader() {
  const int fd = fileno(ErrUtlErrFile);
  isStateKnown = os.statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &state) == 0;
  if (isStateKnown && !mayBeCompiled(state)) return false;
  return ErrUtlReadHdr(ErrUtlErrFile, &ErrUtlFileHdr) != 0;
}

// Opens the file that ErrUtlErrFileName names.
bool openErrFile(Opening opening) {
  closeErrFile();
  HostFnameStrType expanded;
  const char* name = ErrUtlErrFileName;
  bool isWhole = isNameWhole;
  if (std::strcmp(name, expandedName) != 0) {  // a program has set it
    isWhole = hostExpandFileName(name, expanded);
    name = expanded;
  }
  isStateKnown = isWhole && os.statx(AT_FDCWD, name, 0, STATX_BASIC_STATS, &state) == 0;
  if (opening != Opening::source && isStateKnown && !mayBeCompiled(state)) return false;
  errno = ENAMETOOLONG;
  ErrUtlErrFile = isWhole ? openStream(name) : nullptr;
  if (ErrUtlErrFile == nullptr) {
    const int error = errno;
    std::fprintf(stderr, "ErrUtlReset: fopen() failure on \"%s\"\n", ErrUtlErrFileName);
    std::fprintf(stderr, "     errno = %d (sorry, no translation available)\n", error);
    errno = error;
    return false;
  }
  if (opening != Opening::compiled || readHeader()) return true;
  closeErrFile();
  return false;
}

// The file that the environment names; one whose name is too long as it is, to be refused for that.
const char* languageFile(HostFnameStrType& copy) {
  if (HostGetEnv(languageVariable, copy, sizeof copy) != 0) return copy;
  const char* tooLong = std::getenv(languageVariable);
  return tooLong != nullptr && tooLong[0] != '\0' ? tooLong : defaultFileName;
}

}  // namespace

ErrUtlHold::ErrUtlHold() {
  for (;;) {
    ErrUtlReading* const reading = current;
    reading_ = reading;
    if (reading == nullptr) return;
    reading->holders.fetch_add(1);
    if (reading == current) return;
    reading->holders.fetch_sub(1);
  }
}

bool ErrUtlHold::isOutdated() const {
  return reading_ != current;
}

void errUtlSayList(const char* format, va_list arguments) {
  char line[sizeof(HostFnameStrType) + 100];
  std::vsnprintf(line, sizeof line, format, arguments);
  utlSafeWrite(STDERR_FILENO, line, std::strlen(line));
}

void errUtlSay(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  errUtlSayList(format, arguments);
  va_end(arguments);
}

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
  isFaultExplained = isCompiled == 0;  // a source need not be a file that can be read twice
  if (!openErrFile(isCompiled != 0 ? Opening::compiled : Opening::source)) {
    publish(nullptr);
    return 0;
  }
  load(isCompiled != 0);
  return 1;
}

bool errUtlReopen(bool keeps) {
  errno = 0;
  const ErrUtlReading* const known = current;
  keeps = keeps && known != nullptr && known->contents.data != nullptr;
  if (openErrFile(Opening::again)) {
    load(true, keeps);
    return true;
  }
  const bool isForNow = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
  if (keeps && isForNow) return true;
  publish(nullptr);
  return false;
}

bool errUtlFindFile(const char* fileName, HostFnameStrType& name) {
  HostFnameStrType language;
  HostFnameStrType found;
  if (fileName == nullptr) {
    fileName = UtlFindExeFile(languageFile(language), ".err", found, sizeof found);
  }
  if (!hostExpandFileName(fileName, name)) {
    std::snprintf(name, sizeof name, "%s", fileName);
    return false;
  }
  if (access(name, F_OK) != 0) utlPlaceInOwnTree(fileName, name, sizeof name);
  return true;
}

bool errUtlOpen(BoolType isCompiled, const HostFnameStrType& name, bool isWhole) {
  isNameWhole = isWhole;
  std::memcpy(ErrUtlErrFileName, name, sizeof ErrUtlErrFileName);
  std::memcpy(expandedName, name, sizeof expandedName);
  isFaultExplained = isCompiled == 0;
  errutl_is_init = openErrFile(isCompiled != 0 ? Opening::compiled : Opening::source);
  if (errutl_is_init != 0) return true;
  publish(nullptr);
  std::fprintf(stderr, "ErrUtlInit: Unable to use file %s as a language file\n", name);
  return false;
}

BoolType ErrUtlInit(BoolType isCompiled, const char* fileName) {
  errutl_is_init = 0;
  HostFnameStrType name;
  const bool isWhole = errUtlFindFile(fileName, name);
  if (!errUtlOpen(isCompiled, name, isWhole)) return 0;
  load(isCompiled != 0);
  return 1;
}

BoolType ErrUtlIsUp() {
  return errutl_is_init;
}

void ErrUtlShutdown() {
  closeErrFile();
  publish(nullptr);
}

ErrUtlBytes errUtlContents() {
  const ErrUtlReading* const reading = current;
  return reading != nullptr ? reading->contents : ErrUtlBytes{};
}
