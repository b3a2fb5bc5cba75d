// The installation that this library or program lies in. It is found while the library is loaded,
// so that signal handlers only read it.
#include <dlfcn.h>
#include <link.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

constexpr char variable[] = "TARVOLIN";
constexpr char marker[] = "/sys/english67.err";

char ownPlace[PATH_MAX];  // the folder above lib/ or bin/; empty when there is none
bool isTree = false;

// Cuts the last component of `name` off and returns it, or null if there is none.
const char* cutComponent(char* name) {
  char* slash = std::strrchr(name, '/');
  if (slash == nullptr) return nullptr;
  *slash = '\0';
  return slash + 1;
}

bool isPlaceOfBinaries(const char* folder) {
  return folder != nullptr && (std::strcmp(folder, "lib") == 0 || std::strcmp(folder, "bin") == 0);
}

[[gnu::constructor]] void findTree() {
  const ErrnoKeeper keepErrno;
  Dl_info ignored;
  void* entry = nullptr;
  if (dladdr1(ownPlace, &ignored, &entry, RTLD_DL_LINKMAP) == 0) return;
  // The loader has no name for the program itself.
  const char* file = static_cast<const link_map*>(entry)->l_name;
  char name[PATH_MAX + sizeof marker];
  if (realpath(file[0] != '\0' ? file : "/proc/self/exe", name) == nullptr) return;

  cutComponent(name);
  if (!isPlaceOfBinaries(cutComponent(name))) return;
  const std::size_t length = std::strlen(name);
  std::memcpy(ownPlace, name, length);
  std::memcpy(name + length, marker, sizeof marker);
  isTree = access(name, F_OK) == 0;
}

// Signal-safe, unlike getenv.
bool isVariableSet() {
  constexpr std::size_t length = sizeof variable - 1;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const char* value = *entry + length;
    if (std::strncmp(*entry, variable, length) == 0 && *value == '=') return value[1] != '\0';
  }
  return false;
}

}  // namespace

const char* utlOwnPlace() {
  return ownPlace[0] != '\0' ? ownPlace : nullptr;
}

const char* utlOwnTree() {
  return isTree ? ownPlace : nullptr;
}

void utlPlaceInOwnTree(const char* name, char* place, std::size_t size) {
  constexpr char prefix[] = "$TARVOLIN/";
  constexpr std::size_t prefixLength = sizeof prefix - 2;  // without the '/'
  const char* root = isVariableSet() ? nullptr : utlOwnTree();
  if (root == nullptr || std::strncmp(name, prefix, prefixLength + 1) != 0) return;
  const char* rest = name + prefixLength;
  const std::size_t rootLength = std::strlen(root);
  const std::size_t restLength = std::strlen(rest);
  if (rootLength + restLength >= size) return;
  std::memcpy(place + rootLength, rest, restLength + 1);
  std::memcpy(place, root, rootLength);  // NOLINT(bugprone-not-null-terminated-result)
}
