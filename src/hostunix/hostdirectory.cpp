// Listing directories (hostfiles.h).

#include <dirent.h>

#include <cstring>

#include <povzel/hostfiles.h>
#include <povzel/utlglob.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

// The last "/" in `wildcard` that is not escaped by a backslash, or null.
char* lastSeparator(char* wildcard) {
  char* found = nullptr;
  for (char* at = wildcard; *at != '\0'; ++at) {
    if (*at == '/') found = at;
    if (*at == '\\' && at[1] != '\0') ++at;
  }
  return found;
}

struct Listing {
  const char* directory;
  const char* pattern;
};

// Cuts the expanded `wildcard` into its two parts.
Listing split(char* wildcard) {
  char* separator = lastSeparator(wildcard);
  if (separator == nullptr) return {wildcard, "*"};
  *separator = '\0';
  return {separator != wildcard ? wildcard : "/", separator[1] != '\0' ? separator + 1 : "*"};
}

}  // namespace

BoolType HostDirectory(const char* wildcardSpec, HostDirFType* callback, void* clientData) {
  if (wildcardSpec[0] == '\0') return 1;
  HostFnameStrType wildcard;
  if (!hostExpandFileName(wildcardSpec, wildcard)) return 1;
  const Listing listing = split(wildcard);

  DIR* stream = os.opendir(listing.directory);
  if (stream == nullptr) return 1;
  while (dirent64* entry = os.readdir64(stream)) {
    if (UtlGlob(listing.pattern, entry->d_name)) {
      callback(listing.directory, entry->d_name, "/", clientData);
    }
  }
  os.closedir(stream);
  return 1;
}
