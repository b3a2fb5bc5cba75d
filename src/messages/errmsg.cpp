#include <povzel/errmsg.h>

#include <pthread.h>

#include <atomic>
#include <cstring>

#include <povzel/errutl.h>
#include <povzel/hash.h>
#include <povzel/hostmutex.h>
#include <povzel/utlheap.h>
#include <povzel/utltime.h>
#include "internal.h"

namespace {

constexpr std::size_t cacheSize = 64;
constexpr std::size_t longestSymbol = 4099;
constexpr std::uint64_t tableOffset = sizeof(ErrUtlHdrSType);

HostMutexSType printMutex = PTHREAD_MUTEX_INITIALIZER;  // guards the file and all that follows
BoolType initialized = 0;
std::atomic<BoolType> ErrMsgPanicked{1};
bool swizzleNeeded = false;
ErrUtlHashSType cachedMessages[cacheSize];
unsigned long cacheProbes = 0;
unsigned long cacheHits = 0;

class ErrMsgAccessor {
 public:
  explicit ErrMsgAccessor(HostMutexSType* held) : mutex(held) { HostMutexAcquire(mutex); }
  ~ErrMsgAccessor() { HostMutexRelease(mutex); }
  ErrMsgAccessor(const ErrMsgAccessor&) = delete;
  ErrMsgAccessor& operator=(const ErrMsgAccessor&) = delete;

 private:
  HostMutexSType* mutex;
};

void forkGetLocks() {
  HostMutexAcquire(&printMutex);
}

void forkReleaseLocks() {
  HostMutexRelease(&printMutex);
}

bool panic() {
  ErrMsgPanicked = 1;
  return false;
}

std::uint32_t readLong(const unsigned char* bytes) {
  if (swizzleNeeded) return errUtlDecode(bytes, ErrUtlFileHdr.transform);
  std::uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Searches the file's table for the symbol. Not finding it is no fault of the file; a slot or a
// key beyond its end is.
bool findSlot(const ErrUtlBytes& file, const char* symbol, std::size_t length, std::uint32_t hash,
              ErrUtlHashSType* slot) {
  const std::uint32_t tabSize = ErrUtlFileHdr.tabSize;
  if (tabSize == 0) return false;
  const std::uint32_t home = hash % tabSize;
  std::uint32_t index = home;
  do {
    const std::uint64_t at = tableOffset + std::uint64_t{sizeof *slot} * index;
    if (!file.holds(at, sizeof *slot)) return panic();
    const unsigned char* bytes = file.data + at;
    *slot = {readLong(bytes), readLong(bytes + 4), readLong(bytes + 8)};
    if (slot->valLoc == 0) return false;
    if (slot->hash == hash) {
      if (slot->keyLoc == 0) return true;
      if (!file.holds(slot->keyLoc, length + 1)) return panic();
      if (std::memcmp(file.data + slot->keyLoc, symbol, length + 1) == 0) return true;
    }
    index = index + 1 == tabSize ? 0 : index + 1;
  } while (index != home);
  return false;
}

bool findErrSym(const char* symbol, ErrUtlEntrySType* entry) {
  const ErrMsgAccessor accessor(&printMutex);
  if (ErrUtlErrFile == nullptr) return false;
  const std::size_t length = std::strlen(symbol);
  if (length > longestSymbol) return false;
  const long hash = HashStrHash(reinterpret_cast<const ByteType*>(symbol), length, 1);
  const ErrUtlBytes file = errUtlContents();
  if (file.data == nullptr) return panic();

  ++cacheProbes;
  ErrUtlHashSType& cached = cachedMessages[static_cast<std::size_t>(hash) % cacheSize];
  const auto wanted = static_cast<std::uint32_t>(hash);
  if (cached.valLoc != 0 && cached.hash == wanted && cached.keyLoc == 0) {
    ++cacheHits;
  } else {
    ErrUtlHashSType slot;
    if (!findSlot(file, symbol, length, wanted, &slot)) return false;
    cached = slot;
  }

  BoolType syntaxErr = 0;
  if (!errUtlEntryAt(file, cached.valLoc, entry, &syntaxErr) || syntaxErr != 0) return panic();
  return std::strcmp(entry->sym, symbol) == 0;
}

// ErrMsgReset for those who hold the mutex.
bool reopen() {
  static constexpr unsigned char hostTransform[] = {0, 1, 2, 3};
  if (!ErrUtlReset(0)) return panic();
  swizzleNeeded = std::memcmp(ErrUtlFileHdr.transform, hostTransform, sizeof hostTransform) != 0;
  for (ErrUtlHashSType& cached : cachedMessages) cached.valLoc = 0;
  cacheProbes = 0;
  cacheHits = 0;
  return true;
}

// Copies what fits into a caller's buffer of at least one byte, whose last one becomes zero.
void putText(const char* text, char* buffer, std::size_t size) {
  const std::size_t length = strnlen(text, size - 1);
  std::memcpy(buffer, text, length);
  buffer[length] = '\0';
  buffer[size - 1] = '\0';
}

// Formats the caller's own printf format, without the catalogue.
template <typename... Strings>
void stampFormatted(const char* format, std::FILE* stream, Strings... strings) {
  char text[1024];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  std::snprintf(text, sizeof text, format, strings...);
#pragma GCC diagnostic pop
  UtlTimeStampMs_s(stream, text, 0);
}

}  // namespace

void ErrMsgInit() {
  if (initialized == 0) {
    HostMutexInit(&printMutex);
    pthread_atfork(forkGetLocks, forkReleaseLocks, forkReleaseLocks);
    initialized = 1;
  }
  // Finding the file may ask for an error text, so the mutex is not held yet.
  HostFnameStrType name;
  errUtlFindFile(nullptr, name);
  const ErrMsgAccessor accessor(&printMutex);
  ErrMsgPanicked = 0;
  if (!errUtlOpen(1, name)) {
    panic();
    return;
  }
  reopen();
}

BoolType ErrMsgReset() {
  const ErrMsgAccessor accessor(&printMutex);
  return reopen();
}

void ErrMsgShutdown() {
  const ErrMsgAccessor accessor(&printMutex);
  ErrUtlShutdown();
  ErrMsgPanicked = 1;
}

BoolType ErrMsgGetPanicked() {
  const ErrMsgAccessor accessor(&printMutex);
  return ErrMsgPanicked;
}

void ErrMsgSetPanicked(BoolType panicked) {
  const ErrMsgAccessor accessor(&printMutex);
  ErrMsgPanicked = panicked;
}

char* ErrMsgGetString(const char* symbol) {
  ErrUtlEntrySType entry;
  if (symbol == nullptr || !findErrSym(symbol, &entry)) return nullptr;
  auto* result = static_cast<char*>(UtlMalloc(std::strlen(entry.buf) + 1, "ErrMsgGetString"));
  if (result == nullptr) return nullptr;
  char* to = result;
  for (const char* from = entry.buf; *from != '\0'; ++from) {
    const bool isEscape = from[0] == '\\' && (from[1] == 'n' || from[1] == '\\');
    if (isEscape) ++from;
    *to++ = isEscape && *from == 'n' ? '\n' : *from;
  }
  *to = '\0';
  return result;
}

void ErrMsgBuildString(const char* symbol, char* buffer, std::size_t size, const char* kinds,
                       va_list arguments) {
  if (size == 0) return;
  if (symbol == nullptr) symbol = "";
  ErrMsgArgs args;
  args.collect(kinds, arguments);
  ErrUtlEntrySType entry;
  if (ErrMsgPanicked != 0 || !findErrSym(symbol, &entry)) {
    std::memset(buffer, 0, size);
    desperateErr(symbol, nullptr, buffer, size, args);
    return;
  }
  ErrMsgStrType text;
  if (static_cast<std::size_t>(entry.expectedArgCount) < args.count) {
    desperateErr(entry.sym, entry.buf, text, sizeof text, args);
  } else {
    mySprintf(entry, args, text);
  }
  putText(text, buffer, size);
}

void ErrMsgSymToText(const char* symbol, char* buffer, std::size_t size, const char* kinds, ...) {
  va_list arguments;
  va_start(arguments, kinds);
  ErrMsgBuildString(symbol, buffer, size, kinds, arguments);
  va_end(arguments);
}

void ErrMsgSymToFile(const char* symbol, std::FILE* stream, const char* kinds, ...) {
  ErrMsgStrType text;
  va_list arguments;
  va_start(arguments, kinds);
  ErrMsgBuildString(symbol, text, sizeof text, kinds, arguments);
  va_end(arguments);
  UtlTimeStampMs_s(stream, text, 0);
  std::fflush(stream);
}

void ErrMsgSymToFileNoTimeStamp(const char* symbol, std::FILE* stream, const char* kinds, ...) {
  ErrMsgStrType text;
  va_list arguments;
  va_start(arguments, kinds);
  ErrMsgBuildString(symbol, text, sizeof text, kinds, arguments);
  va_end(arguments);
  std::fputs(text, stream);
  std::fflush(stream);
}

void ErrMsgSymToFile_1(const char* format, std::FILE* stream, const char* string1) {
  stampFormatted(format, stream, string1);
}

void ErrMsgSymToFile_2(const char* format, std::FILE* stream, const char* string1,
                       const char* string2) {
  stampFormatted(format, stream, string1, string2);
}

void ErrMsgToTxt(OopType category, long number, char* buffer, std::size_t size) {
  if (size == 0) return;
  if (category == SystemErrCategoryOop) {
    ErrMsgSymToText(ErrMsgNumToSym(number), buffer, size, nullptr);
  } else {
    std::memset(buffer, 0, size);
    putText("errmsg.userErrTxt", buffer, size);
  }
}
