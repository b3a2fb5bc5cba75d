#include <povzel/errmsg.h>

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <iterator>

#include <povzel/errutl.h>
#include <povzel/hash.h>
#include <povzel/hostmutex.h>
#include <povzel/utlheap.h>
#include <povzel/utltime.h>
#include "internal.h"
#include "system/internal.h"

namespace {

constexpr std::size_t longestSymbol = 4099;

// Guards the opening and closing of the file, and the finding that it is damaged. Look-ups do
// without it.
HostMutexSType printMutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<pthread_t> printMutexOwner{0};
int forksInside = 0;  // forks by the mutex's owner, in handlers
pthread_once_t initialized = PTHREAD_ONCE_INIT;
std::atomic<BoolType> ErrMsgPanicked{1};
std::atomic<unsigned long> cacheProbes{0};
std::atomic<unsigned long> cacheHits{0};

bool isPrintMutexMine() {
  return printMutexOwner.load(std::memory_order_relaxed) == pthread_self();
}

// Take the mutex, which is not this thread's own. No handler comes between that and the owner.

void takePrintMutex() {
  const SignalMask held(SIG_BLOCK, unixIoAllSignalsBut());
  HostMutexAcquire(&printMutex);
  printMutexOwner = pthread_self();
}

// Does not wait for it.
bool tryPrintMutex() {
  const SignalMask held(SIG_BLOCK, unixIoAllSignalsBut());
  if (pthread_mutex_trylock(&printMutex) != 0) return false;
  printMutexOwner = pthread_self();
  return true;
}

// A handler in between that forks would hold the mutex in its child, or not hold it and think so.
void releasePrintMutex() {
  const SignalMask held(SIG_BLOCK, unixIoAllSignalsBut());
  printMutexOwner = 0;
  pthread_mutex_unlock(&printMutex);
}

// Holds the mutex. Refused in a handler that has interrupted its thread's own holding.
class ErrMsgAccessor {
 public:
  ErrMsgAccessor() : isRefused_(isPrintMutexMine()) {
    if (!isRefused_) takePrintMutex();
  }
  ~ErrMsgAccessor() {
    if (!isRefused_) releasePrintMutex();
  }
  ErrMsgAccessor(const ErrMsgAccessor&) = delete;
  ErrMsgAccessor& operator=(const ErrMsgAccessor&) = delete;

  bool isRefused() const { return isRefused_; }

 private:
  bool isRefused_;
};

void forkGetLocks() {
  if (isPrintMutexMine()) {
    ++forksInside;
  } else {
    takePrintMutex();
  }
}

void forkReleaseLocks() {
  if (forksInside > 0) {
    --forksInside;
  } else {
    releasePrintMutex();
  }
}

// Statistics need no more than this: beside another thread a count may get lost.
void count(std::atomic<unsigned long>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// The file turned out to be damaged. If another is being opened, the mark would fall on that one.
bool panic(const ErrUtlHold& file) {
  if (isPrintMutexMine() || !tryPrintMutex()) return false;
  if (!file.isOutdated()) ErrMsgPanicked = 1;
  releasePrintMutex();
  return false;
}

// Looks for the symbol's slot. Not finding it is no fault of the file; a slot or a key beyond its
// end is.
ErrUtlSearch findSlot(const ErrUtlReading& file, const char* symbol, std::size_t length,
                      std::uint32_t hash, ErrUtlHashSType& slot) {
  std::atomic<std::uint32_t>& cached = file.cachedMessages[hash % std::size(file.cachedMessages)];
  std::uint32_t index = cached.load(std::memory_order_relaxed);
  if (index != 0 && errUtlSlotAt(file.contents, file.header, index - 1, slot) &&
      slot.hash == hash) {
    count(cacheHits);
    return ErrUtlSearch::found;
  }
  const ErrUtlSearch search =
      errUtlSearch(file.contents, file.header, symbol, length, hash, index, slot);
  if (search == ErrUtlSearch::found && slot.keyLoc == 0) {
    cached.store(index + 1, std::memory_order_relaxed);
  }
  if (search == ErrUtlSearch::keyIsCut && !file.isDamageTold.exchange(true)) {
    errUtlSay("%s: the key of %s lies beyond the end\n", file.contents.name, symbol);
  }
  return search;
}

bool findErrSym(const char* symbol, ErrUtlEntrySType* entry) {
  const ErrUtlHold held;
  if (held.get() == nullptr) return false;
  const ErrUtlReading& file = *held.get();
  const std::size_t length = std::strlen(symbol);
  if (length > longestSymbol) return false;
  const long hash = HashStrHash(reinterpret_cast<const ByteType*>(symbol), length, 1);
  if (file.contents.data == nullptr) return panic(held);

  count(cacheProbes);
  ErrUtlHashSType slot;
  const ErrUtlSearch search =
      findSlot(file, symbol, length, static_cast<std::uint32_t>(hash), slot);
  if (search == ErrUtlSearch::absent) return false;
  if (search != ErrUtlSearch::found) return panic(held);
  BoolType syntaxErr = 0;
  if (!errUtlEntryAt(file.contents, slot.valLoc, entry, &syntaxErr, &file.isDamageTold) ||
      syntaxErr != 0) {
    return panic(held);
  }
  return std::strcmp(entry->sym, symbol) == 0;
}

// ErrMsgReset for those who hold the mutex.
bool reopen(bool keeps = false) {
  cacheProbes = 0;
  cacheHits = 0;
  if (errUtlReopen(keeps)) return true;
  ErrMsgPanicked = 1;
  return false;
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
  pthread_once(&initialized,
               [] { pthread_atfork(forkGetLocks, forkReleaseLocks, forkReleaseLocks); });
  // Finding the file may ask for an error text, so the mutex is not held yet.
  HostFnameStrType name;
  const bool isWhole = errUtlFindFile(nullptr, name);
  const ErrMsgAccessor accessor;
  if (accessor.isRefused()) return;
  ErrMsgPanicked = 0;
  if (errUtlOpen(1, name, isWhole)) {
    reopen();
  } else {
    ErrMsgPanicked = 1;
  }
}

BoolType ErrMsgReset() {
  const ErrMsgAccessor accessor;
  return !accessor.isRefused() && reopen();
}

void errMsgRefresh() {
  const ErrMsgAccessor accessor;
  if (!accessor.isRefused()) reopen(true);
}

void ErrMsgShutdown() {
  ErrMsgPanicked = 1;  // also where the file has to stay open
  const ErrMsgAccessor accessor;
  if (accessor.isRefused()) return;
  ErrUtlShutdown();
  ErrMsgPanicked = 1;
}

// These two do not wait for the mutex: a process that is going down uses them.

BoolType ErrMsgGetPanicked() {
  return ErrMsgPanicked;
}

void ErrMsgSetPanicked(BoolType panicked) {
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
