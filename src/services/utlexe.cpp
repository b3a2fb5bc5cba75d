#include <povzel/utlexe.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <povzel/hostenv.h>
#include <povzel/hostfiles.h>
#include <povzel/utlfilename.h>
#include "basics/internal.h"
#include "hostunix/internal.h"

namespace {

HostFnameStrType execDirBuff;  // the directory, its terminator, and then the name
char* execDir = nullptr;
char* execName = nullptr;

bool hasExtension(const char* name) {
  return *UtlFnGetExtensionPtr(const_cast<char*>(name)) != '\0';
}

// Formats directory, separator, name and extension into `buffer`; false when they do not fit.
bool composeName(char* buffer, std::size_t size, const char* directory, int directoryLength,
                 const char* separator, const char* name, const char* extension) {
  const std::size_t needed = static_cast<std::size_t>(directoryLength) + std::strlen(separator) +
                             std::strlen(name) + std::strlen(extension) + 1;
  if (needed > size) return false;
  std::snprintf(buffer, size, "%.*s%s%s%s", directoryLength, directory, separator, name, extension);
  return true;
}

// Stores the absolute name of the program started as `argv0` in `result`.
bool absoluteProgramName(const char* argv0, HostFnameStrType result) {
  HostFnameStrType found;
  if (std::strchr(argv0, '/') == nullptr) {
    HostFnameStrType path;
    if (!HostGetEnv("PATH", path, sizeof path)) return false;
    if (!UtlSearchPath(path, argv0, nullptr, found, sizeof found, nullptr)) return false;
    argv0 = found;
  }
  if (argv0[0] == '/') return composeName(result, sizeof found, "", 0, "", argv0, "");

  HostFnameStrType current;
  if (os.getcwd(current, sizeof current) == nullptr) return false;
  const std::size_t length = std::strlen(current);
  const char* separator = current[length - 1] == '/' ? "" : "/";
  return composeName(result, sizeof found, current, static_cast<int>(length), separator, argv0, "");
}

}  // namespace

void UtlSetExeDir(const char* argv0) {
  HostFnameStrType program;
  if (argv0 == nullptr || !absoluteProgramName(argv0, program)) return;
  const std::size_t length = std::strlen(program);
  if (length + 2 > sizeof execDirBuff) return;

  const auto nameStart = static_cast<std::size_t>(UtlFnGetNamePtr(program) - program);
  std::memcpy(execDirBuff, program, nameStart);
  execDirBuff[nameStart] = '\0';
  std::memcpy(execDirBuff + nameStart + 1, program + nameStart, length - nameStart + 1);
  execDir = execDirBuff;
  execName = UtlBasename(execDirBuff + nameStart + 1);
}

const char* UtlGetExeDir() {
  return execDir != nullptr ? execDir : "";
}

const char* UtlGetExeName() {
  return execName != nullptr ? execName : "";
}

BoolType UtlSearchPath(const char* path, const char* name, const char* extension, char* returnBuff,
                       ArraySizeType returnBuffSize, SysErrorSType* err) {
  if (name[0] == '/') return 0;
  const char* added = extension != nullptr && !hasExtension(name) ? extension : "";
  for (const char* element = path;;) {
    const std::size_t length = std::strcspn(element, ":");
    const char* separator = length > 0 && element[length - 1] != '/' ? "/" : "";
    if (composeName(returnBuff, returnBuffSize, element, static_cast<int>(length), separator, name,
                    added) &&
        HostFileExist(returnBuff, nullptr) != 0) {
      return 1;
    }
    if (element[length] == '\0') break;
    element += length + 1;
  }
  SysErrorSet(err, -1, "%s not found in %s", name, path);
  return 0;
}

const char* UtlFindExeFile(const char* defaultName, const char* defaultExtension, char* findBuff,
                           ArraySizeType findBuffSize) {
  const char* name = UtlFnGetNamePtr(const_cast<char*>(defaultName));
  const char* added = defaultExtension != nullptr && !hasExtension(name) ? defaultExtension : "";
  const char* directory = UtlGetExeDir();
  HostFnameStrType found;
  for (const char* below : {"", "../bin/", "../sys/"}) {
    if (!composeName(findBuff, findBuffSize, directory, static_cast<int>(std::strlen(directory)),
                     below, name, added) ||
        !hostFileExists(findBuff, found)) {
      continue;
    }
    // Where a directory above ".." is a link, the name as composed is that of another file for
    // whoever follows links.
    if (composeName(findBuff, findBuffSize, "", 0, "", found, "")) return findBuff;
  }
  return defaultName;
}
