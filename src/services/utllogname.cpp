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

// Calls `take(directive, text)` for each directive of the template, by its letter, and with 0 for
// each character that is none, until that returns false.
template <typename Take>
void forEachPiece(const char* logTemplate, Take take) {
  for (const char* next = logTemplate; *next != '\0'; ++next) {
    const bool isDirective =
        *next == '%' && next[1] != '\0' && std::strchr("%HMNPU", next[1]) != nullptr;
    if (isDirective) ++next;
    if (!take(isDirective ? *next : '\0', next)) return;
  }
}

void findHost(UtlLogNameParts& parts) {
  if (parts.host != nullptr) return;
  const bool isKnown = parts.findHost(parts.foundHost, sizeof parts.foundHost) != 0;
  parts.host = isKnown ? parts.foundHost : "localhost";
}

void findHome(UtlLogNameParts& parts) {
  if (parts.home != nullptr) return;
  const char* user = parts.user != nullptr ? parts.user : HostGetUserName();
  if (HostGetHomeDir(user, parts.foundHome) == 0) return;
  parts.foundHome[std::strlen(parts.foundHome) - 1] = '\0';
  parts.home = parts.foundHome;
}

}  // namespace

void utlFindLogNameParts(const char* logTemplate, UtlLogNameParts& parts) {
  forEachPiece(logTemplate, [&](char directive, const char* /*text*/) {
    if (directive == 'M') findHost(parts);
    if (directive == 'H') findHome(parts);
    if (directive == 'U' && parts.user == nullptr) parts.user = HostGetUserName();
    return true;
  });
}

bool utlExpandLogTemplate(const char* logTemplate, const UtlLogNameParts& parts, char* logNameBuf,
                          std::size_t logNameBufSize) {
  NameWriter out{logNameBuf, logNameBufSize};
  bool complete = true;
  bool fits = true;

  forEachPiece(logTemplate, [&](char directive, const char* text) {
    switch (directive) {
      case 'H':
        return fits = appendHomeDirectory(out, parts.home, complete);
      case 'M':
        return fits = out.append(parts.host);
      case 'N':
        return fits = appendProgramName(out, parts.command);
      case 'P':
        return fits = appendProcessId(out, parts.processId);
      case 'U':
        return fits = out.append(parts.user);
      default:
        return fits = out.append(text, 1);
    }
  });
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
