#include <povzel/zelrtl.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <povzel/dynlib.h>
#include "basics/internal.h"
#include "internal.h"

const ZelRtlJumpSType* rtlPrivZelRtlFuncs = nullptr;
ZelRtlAttemptFType zelRtlObserveAttempt = nullptr;

namespace {

constexpr std::size_t fileNameSize = 24;
constexpr std::size_t searchPathSize = 2048;
constexpr std::size_t candidateSize = 1024;

constexpr int leastFeatureLevel = 312;
constexpr int firstIncompatibleLevel = 2;

constexpr char alreadyLoaded[] = "Library is already loaded.";
constexpr char oldLibrary[] = "Attempted to load old ZEL library '%s'.\n";
constexpr char incompatibleLibrary[] = "Attempted to load incompatible ZEL library '%s'.\n";
constexpr char noTarvolin[] =
    "\nThe TARVOLIN environment variable is not defined.\n"
    "Setting it should correct this error.\n";

DynLibType zeldl = nullptr;

// The caller's message buffer, which may be absent or of any size.
struct ErrorText {
  char* buffer;
  ArraySizeType size;

  // Stores the formatted text if the buffer has at least `needed` bytes, else an empty text.
  void putIfFits(std::size_t needed, const char* format, const char* argument) const {
    if (buffer == nullptr || size == 0) return;
    if (size >= needed) {
      std::snprintf(buffer, size, format, argument);
    } else {
      buffer[0] = '\0';
    }
  }

  // Adds `text` behind what is there, cut to the room left.
  void append(const char* text) const {
    if (buffer == nullptr) return;
    const std::size_t used = strnlen(buffer, size);
    if (used < size) std::snprintf(buffer + used, size - used, "%s", text);
  }

  // Refuses `what`, which is `length` characters long and may have `most`.
  bool tooLong(const char* what, std::size_t length, std::size_t most, const char* value) const {
    if (buffer == nullptr) return false;
    std::snprintf(buffer, size, "The %s is too long (%zu characters, at most %zu): %s", what,
                  length, most, value);
    return false;
  }
};

// The environment of a set-id program is its invoker's, who must not choose what runs with its ids.
const char* environmentOr(const char* variable, const char* otherwise) {
  const char* value = secure_getenv(variable);
  return value != nullptr && value[0] != '\0' ? value : otherwise;
}

bool endsInSlash(const char* text, std::size_t length) {
  return length > 0 && (text[length - 1] == '/' || text[length - 1] == '\\');
}

bool composeFileName(BoolType useRpc, char (&name)[fileNameSize], const ErrorText& err) {
  const char* base = environmentOr("ZELRTL_BASELIBNAME", "zel");
  const char* kind = useRpc != 0 ? "rpc" : "lnk";
  const char* version = environmentOr("ZELRTL_VERSION", "67");
  const int length = std::snprintf(name, sizeof name, "lib%s%s%s", base, kind, version);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof name) return true;
  const std::size_t wanted = 3 + std::strlen(base) + std::strlen(kind) + std::strlen(version);
  return err.tooLong("interface library file name (ZELRTL_BASELIBNAME, ZELRTL_VERSION)", wanted,
                     sizeof name - 1, name);
}

bool composeSearchPath(const char* path, const char* tarvolin, char (&search)[searchPathSize],
                       const ErrorText& err) {
  const char* given = path != nullptr ? path : "";
  const char* separator = given[0] != '\0' && tarvolin != nullptr ? ";" : "";
  const char* root = "";
  const char* lib = "";
  if (tarvolin != nullptr) {
    root = tarvolin;
    lib = endsInSlash(tarvolin, std::strlen(tarvolin)) ? "lib" : "/lib";
  }
  const int length = std::snprintf(search, sizeof search, "%s%s%s%s", given, separator, root, lib);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof search) return true;
  const std::size_t wanted =
      std::strlen(given) + std::strlen(separator) + std::strlen(root) + std::strlen(lib);
  return err.tooLong("interface library search path", wanted, sizeof search - 1, search);
}

// Opens the library `name` as zeldl. The reason of a failure goes into `err`, which may be null.
bool openLibrary(const char* name, char* err, ArraySizeType errSize) {
  if (zelRtlObserveAttempt == nullptr) return DynLibLoad(name, &zeldl, err, errSize) != 0;
  char reason[1024];
  const bool opened = DynLibLoad(name, &zeldl, reason, sizeof reason) != 0;
  zelRtlObserveAttempt(name, opened ? nullptr : reason);
  if (!opened && err != nullptr) std::snprintf(err, errSize, "%s", reason);
  return opened;
}

// Tries `fileName` in each directory of `search`. Leaves zeldl null if none has it. Returns false
// if a candidate is too long.
bool openFromDirectories(const char* search, const char* fileName, const ErrorText& err) {
  for (const char* entry = search; *entry != '\0';) {
    const std::size_t length = std::strcspn(entry, ";");
    if (length > 0) {
      const char* separator = endsInSlash(entry, length) ? "" : "/";
      const std::size_t wanted = length + std::strlen(separator) + std::strlen(fileName);
      if (wanted >= candidateSize) {
        return err.tooLong("interface library directory with its file name", wanted,
                           candidateSize - 1, entry);
      }
      char candidate[candidateSize];
      std::snprintf(candidate, sizeof candidate, "%.*s%s%s", static_cast<int>(length), entry,
                    separator, fileName);
      if (openLibrary(candidate, nullptr, 0)) return true;
    }
    entry += length;
    if (*entry == ';') ++entry;
  }
  return true;
}

// Tries `fileName` in the installation that this library lies in, when no other is named.
// The reason why the name alone did not do is then none any more.
bool openFromOwnTree(const char* tarvolin, const char* fileName, const ErrorText& err) {
  const char* tree = utlOwnTree();
  if (tarvolin != nullptr || tree == nullptr) return false;
  char candidate[PATH_MAX + fileNameSize + sizeof "/lib/"];
  std::snprintf(candidate, sizeof candidate, "%s/lib/%s", tree, fileName);
  if (!openLibrary(candidate, nullptr, 0)) return false;
  err.putIfFits(1, "%s", "");
  return true;
}

void cleanUp() {
  DynLibUnload(zeldl);
  zeldl = nullptr;
  rtlPrivZelRtlFuncs = nullptr;
}

BoolType refuseOpenLibrary() {
  cleanUp();
  return 0;
}

// Checks the open library's table and publishes it, or closes the library.
BoolType publishTable(const char* fileName, const ErrorText& err) {
  const DynLibFuncPtr entryPoint = DynLibGetFunc(zeldl, "ZelGetRtlTable", err.buffer, err.size);
  if (entryPoint == nullptr) return refuseOpenLibrary();

  const ZelRtlJumpSType* table = reinterpret_cast<ZelGetRtlTableFuncPtr>(entryPoint)();
  const std::size_t nameLength = std::strlen(fileName);
  if (table == nullptr || table->zelFeatureLevel < leastFeatureLevel) {
    err.putIfFits(nameLength + 40, oldLibrary, fileName);
    return refuseOpenLibrary();
  }
  if (table->zelCompatiblityLevel >= firstIncompatibleLevel) {
    err.putIfFits(nameLength + 49, incompatibleLibrary, fileName);
    return refuseOpenLibrary();
  }
  rtlPrivZelRtlFuncs = table;
  return 1;
}

}  // namespace

BoolType ZelRtlLoad(BoolType useRpc, const char* path, char* errBuf, ArraySizeType errBufSize) {
  const ErrorText err{errBuf, errBufSize};
  if (ZelRtlIsLoaded()) {
    err.putIfFits(sizeof alreadyLoaded, "%s", alreadyLoaded);
    return 0;
  }

  const char* tarvolin = environmentOr("TARVOLIN", nullptr);
  char fileName[fileNameSize];
  char search[searchPathSize];
  if (!composeFileName(useRpc, fileName, err)) return 0;
  if (!composeSearchPath(path, tarvolin, search, err)) return 0;
  if (!openFromDirectories(search, fileName, err)) return 0;

  if (zeldl == nullptr && !openLibrary(fileName, errBuf, errBufSize) &&
      !openFromOwnTree(tarvolin, fileName, err)) {
    if (tarvolin == nullptr) err.append(noTarvolin);
    return 0;
  }
  return publishTable(fileName, err);
}

void ZelRtlUnload() {
  if (!ZelRtlIsLoaded()) return;
  rtlPrivZelRtlFuncs->ZelShutdown();
  rtlPrivZelRtlFuncs->ZelUnload();
  cleanUp();
}

BoolType ZelRtlIsLoaded() {
  return rtlPrivZelRtlFuncs != nullptr;
}
