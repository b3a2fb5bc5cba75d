#include <povzel/utllogname.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <povzel/hostsystem.h>
#include <povzel/hostusers.h>

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
  bool append(const char* text) { return append(text, std::strlen(text)); }

  // Ends the name. A full buffer loses its last character to the terminator.
  bool terminate() const {
    const bool full = room == 0;
    next[full ? -1 : 0] = '\0';
    return !full;
  }
};

struct LogNameParts {
  const char* execStr;
  const char* username;
  const char* homedir;
};

bool appendProgramName(NameWriter& out, const char* execStr) {
  const char* slash = std::strrchr(execStr, '/');
  const char* name = slash != nullptr ? slash + 1 : execStr;
  return out.append(name, std::strcspn(name, " ."));
}

bool appendProcessId(NameWriter& out) {
  char id[16];
  std::snprintf(id, sizeof id, "%lu", static_cast<unsigned long>(getpid()));
  return out.append(id);
}

bool appendHostName(NameWriter& out) {
  char host[256];
  return out.append(HostGetHostname(host, sizeof host) ? host : "localhost");
}

// Appends the home directory and a '/'. Without a known directory the directive itself stays, and
// `complete` becomes false.
bool appendHomeDirectory(NameWriter& out, const LogNameParts& parts, bool& complete) {
  if (parts.homedir != nullptr) {
    const std::size_t length = std::strlen(parts.homedir);
    return length < out.room && out.append(parts.homedir, length) && out.append("/", 1);
  }
  HostFnameStrType home;
  const char* user = parts.username != nullptr ? parts.username : HostGetUserName();
  if (HostGetHomeDir(user, home)) return out.append(home);
  complete = false;
  return out.append("%", 1) && out.append("H", 1);
}

}  // namespace

BoolType UtlExpandLogName(const char* logTemplate, char* logNameBuf, std::size_t logNameBufSize,
                          const char* execStr, const char* username, const char* homedir,
                          char* /*errBuf*/, std::size_t /*errLength*/) {
  if (logNameBufSize == 0) return 0;
  const LogNameParts parts{execStr != nullptr ? execStr : "", username, homedir};
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
        fits = appendHomeDirectory(out, parts, complete);
        break;
      case 'M':
        fits = appendHostName(out);
        break;
      case 'N':
        fits = appendProgramName(out, parts.execStr);
        break;
      case 'P':
        fits = appendProcessId(out);
        break;
      case 'U':
        fits = out.append(username != nullptr ? username : HostGetUserName());
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
