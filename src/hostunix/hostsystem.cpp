#include <povzel/hostsystem.h>

#include <netdb.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr char unknownSystem[] = "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)";

char hostName[256] = "";  // empty until the resolver has answered

bool findHostName() {
  char given[256];
  if (os.gethostname(given, sizeof given) != 0) {
    std::fputs("gethostname() failure", stdout);
    return false;
  }
  given[sizeof given - 1] = '\0';
  const hostent* host = os.gethostbyname(given);
  if (host == nullptr) {
    std::printf("gethostbyname() failure for host %s\n", given);
    return false;
  }
  const std::size_t length = std::strlen(host->h_name);
  if (length == 0 || length >= sizeof hostName) return false;
  std::memcpy(hostName, host->h_name, length + 1);
  return true;
}

}  // namespace

BoolType HostGetHostname(char* nameBuf, ArraySizeType bufLen) {
  if (hostName[0] == '\0' && !findHostName()) return 0;
  const int length = std::snprintf(nameBuf, bufLen, "%s", hostName);
  return static_cast<ArraySizeType>(length) < bufLen;
}

void HostGetSystemName(char* nameBuf, ArraySizeType bufLen) {
  const utsname& is = unameData;
  if (hostIsInitialized == 0 || is.sysname[0] == '\0') {
    std::snprintf(nameBuf, bufLen, "%s", unknownSystem);
    return;
  }
  const char* restOfRelease = is.release[0] != '\0' ? is.release + 1 : is.release;
  std::snprintf(nameBuf, bufLen, "%s %s (%s %c%s %s)", is.nodename, is.machine, is.sysname,
                is.release[0], restOfRelease, is.version);
}

HostSystemInfoSType* HostGetSystemInfo() {
  return &systemInfoData;
}

long HostGetCpuCount() {
  return get_nprocs();
}

void HostDisableFPE() {}

void HostEnableFPE() {}
