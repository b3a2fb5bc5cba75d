#include <povzel/hostsystem.h>

#include <netdb.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "internal.h"

namespace {

constexpr char unknownSystem[] = "x86 (Linux 2.6.18-8.el5PAE #1 SMP glibc-2.5-12)";

using HostName = char[256];

std::atomic<char*> hostName{nullptr};  // null until the resolver has answered

bool findHostName(HostName& name, bool isTold) {
  HostName given;
  if (os.gethostname(given, sizeof given) != 0) {
    if (isTold) std::fputs("gethostname() failure", stdout);
    return false;
  }
  given[sizeof given - 1] = '\0';
  const DatabaseEntry<hostent> host([&given](auto... place) {
    int reason;
    return os.gethostbyname_r(given, place..., &reason);
  });
  if (!host) {
    if (isTold) std::printf("gethostbyname() failure for host %s\n", given);
    return false;
  }
  const std::size_t length = std::strlen(host->h_name);
  if (length == 0 || length >= sizeof name) return false;
  std::memcpy(name, host->h_name, length + 1);
  return true;
}

BoolType getHostName(char* nameBuf, ArraySizeType bufLen, bool isTold) {
  HostName found;
  const char* name = hostName.load(std::memory_order_acquire);
  if (name == nullptr) {
    if (!findHostName(found, isTold)) return 0;
    name = hostKeepFirst(hostName, found, std::strlen(found) + 1);
    if (name == nullptr) name = found;
  }
  const int length = std::snprintf(nameBuf, bufLen, "%s", name);
  return static_cast<ArraySizeType>(length) < bufLen;
}

}  // namespace

const char* hostKnownHostname() {
  const char* name = hostName.load(std::memory_order_acquire);
  if (name == nullptr) name = unameData.nodename;
  return name[0] != '\0' ? name : nullptr;
}

BoolType hostFindHostname(char* nameBuf, ArraySizeType bufLen) {
  return getHostName(nameBuf, bufLen, false);
}

BoolType HostGetHostname(char* nameBuf, ArraySizeType bufLen) {
  return getHostName(nameBuf, bufLen, true);
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
