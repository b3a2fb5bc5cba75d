#include "hostunix/hostinit.h"

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "errmsg.h"
#include "hostunix/hostenv.h"
#include "hostunix/hosttime.h"
#include "hostunix/hostunixpriv.h"
#include "utl/utlsystem.h"
#include "utlheap.h"

BoolType hostIsInitialized = 0;
utsname unameData = {};
HostSystemInfoSType systemInfoData = {};
HostFnameStrType autoMountPrefix = "";
long initialCpuClockReading = 0;
double sc_clk_tck = 0;
timeval beginTp = {};

namespace {

template <std::size_t size>
void copyCut(char (&to)[size], const char* from) {
  const std::size_t length = strnlen(from, size - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
}

void readSystemInfo() {
  if (uname(&unameData) != 0) unameData = {};
  copyCut(systemInfoData.osName, unameData.sysname);
  copyCut(systemInfoData.nodeName, unameData.nodename);
  copyCut(systemInfoData.osRelease, unameData.release);
  copyCut(systemInfoData.osVersion, unameData.version);
  copyCut(systemInfoData.cpuKind, unameData.machine);
  systemInfoData.cpuCount = static_cast<int>(HostGetCpuCount());

  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGESIZE);
  if (pages < 0 || pageSize < 0) return;
  const long pagesInMegabyte = std::max((1L << 20) / pageSize, 1L);
  std::snprintf(systemInfoData.cpuMisc, sizeof systemInfoData.cpuMisc, "%ldMB",
                pages / pagesInMegabyte);
}

void startClocks() {
  sc_clk_tck = static_cast<double>(sysconf(_SC_CLK_TCK));
  initialCpuClockReading = HostClock();
  gettimeofday(&beginTp, nullptr);
}

void readAutoMountPrefix() {
  if (HostGetEnv("TV_AutoMountPrefix", autoMountPrefix, sizeof autoMountPrefix)) return;
  copyCut(autoMountPrefix, "/tmp_mnt");
}

void rememberLoginName() {
  char name[64];
  if (getlogin_r(name, sizeof name) == 0) HostSetEnv("TV_LOGIN_NAME", name);
}

}  // namespace

void HostInit() {
  if (hostIsInitialized != 0) return;
  UtlHeapInit();
  readSystemInfo();
  ErrMsgInit();
  startClocks();
  hostIsInitialized = 1;
  HostSetLocale(LC_ALL, "");
  readAutoMountPrefix();
  rememberLoginName();
}
