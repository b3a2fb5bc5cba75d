#include <povzel/utllogname.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <povzel/hostsystem.h>
#include <povzel/hostusers.h>
#include "internal.h"

namespace {

// The caller's buffer as it fills; `room` counts what is left of it, the terminator's byte
// included.
struct NameWriter {
  char* next;
  std::size_t room;

  // Appends all of `text`, or nothing when it does not fit.
  bool append(const char* text, std::size_t length) {
    if (length > room) return false;
    std::memcpy(next, text, length);
    next += length;
    room -= length;
    return true;
  }
  bool append(const char* text) { return text == nullptr || append(text, std::strlen(text)); }

  // Ends the name. A full buffer loses its last character to the terminator.
  bool terminate() const {
    const bool full = room == 0;
    next[full ? -1 : 0] = '\0';
    return !full;
  }
};

bool appendProgramName(NameWriter& out, const char* command) {
  const char* slash = std::strrchr(command, '/');
  const char* name = slash != nullptr ? slash + 1 : command;
  return out.append(name, std::strcspn(name, " ."));
}

bool appendProcessId(NameWriter& out, unsigned long processId) {
  char id[16];
  std::snprintf(id, sizeof id, "%lu", processId);
  return out.append(id);
}

// Appends the home directory and a '/'. Without a known directory the directive itself stays, and
// `complete` becomes false.
bool appendHomeDirectory(NameWriter& out, const char* home, bool& complete) {
  if (home == nullptr) {
    complete = false;
    return out.append("%", 1) && out.append("H", 1);
  }
  const std::size_t length = std::strlen(home);
  return length < out.room && out.append(home, length) && out.append("/", 1);
}

}  // namespace

void utlFindLogNameParts(const char* logTemplate, UtlLogNameParts& parts) {
  // What stands behind "%%" is looked up in vain.
  const auto asksFor = [&](const char* directive, const char* part) {
    return part == nullptr && std::strstr(logTemplate, directive) != nullptr;
  };
  if (asksFor("%M", parts.host)) {
    const bool isKnown = HostGetHostname(parts.foundHost, sizeof parts.foundHost) != 0;
    parts.host = isKnown ? parts.foundHost : "localhost";
  }
  if (asksFor("%H", parts.home)) {
    const char* user = parts.user != nullptr ? parts.user : HostGetUserName();
    if (HostGetHomeDir(user, parts.foundHome)) {
      parts.foundHome[std::strlen(parts.foundHome) - 1] = '\0';
      parts.home = parts.foundHome;
    }
  }
  if (asksFor("%U", parts.user)) parts.user = HostGetUserName();
}

bool utlExpandLogTemplate(const char* logTemplate, const UtlLogNameParts& parts, char* logNameBuf,
                          std::size_t logNameBufSize) {
  NameWriter out{logNameBuf, logNameBufSize};
  bool complete = true;
  bool fits = true;

  for (const char* next = logTemplate; *next != '\0' && fits; ++next) {
    const char directive = *next == '%' ? next[1] : '\0';
    switch (directive) {
      case '%':
        fits = out.append("%", 1);
        break;
      case 'H':
        fits = appendHomeDirectory(out, parts.home, complete);
        break;
      case 'M':
        fits = out.append(parts.host);
        break;
      case 'N':
        fits = appendProgramName(out, parts.command);
        break;
      case 'P':
        fits = appendProcessId(out, parts.processId);
        break;
      case 'U':
        fits = out.append(parts.user);
        break;
      default:
        fits = out.append(next, 1);
        continue;
    }
    ++next;
  }
  const bool terminated = out.terminate();
  return terminated && fits && complete;
}

BoolType UtlExpandLogName(const char* logTemplate, char* logNameBuf, std::size_t logNameBufSize,
                          const char* execStr, const char* username, const char* homedir,
                          char* /*errBuf*/, std::size_t /*errLength*/) {
  if (logNameBufSize == 0) return 0;
  UtlLogNameParts parts;
  if (execStr != nullptr) parts.command = execStr;
  parts.processId = static_cast<unsigned long>(getpid());
  parts.user = username;
  parts.home = homedir;
  utlFindLogNameParts(logTemplate, parts);
  return utlExpandLogTemplate(logTemplate, parts, logNameBuf, logNameBufSize);
}
