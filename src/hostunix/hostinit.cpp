#include <povzel/hostinit.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/hostdebug.h>
#include <povzel/hostenv.h>
#include <povzel/hosttime.h>
#include <povzel/utlexit.h>
#include <povzel/utlheap.h>
#include <povzel/utlsystem.h>
#include <povzel/utltime.h>
#include <povzel/vermsg.h>
#include "basics/internal.h"
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

BoolType hostIsInitialized = 0;
utsname unameData = {};
HostSystemInfoSType systemInfoData = {};
HostFnameStrType autoMountPrefix = "";
char* childLogPtr = nullptr;
long long initialCpuClockReading = 0;
double sc_clk_tck = 0;
timespec beginTp = {};

namespace {

char OriginalTerminalName[80];  // of standard input at start; read with a debugger

constexpr int startFailureStatus = 3;

template <std::size_t size>
void copyCut(char (&to)[size], const char* from) {
  const std::size_t length = strnlen(from, size - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
}

void readSystemInfo() {
  if (os.uname(&unameData) != 0) unameData = {};
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

// Takes the name of this process's log away from the environment, so that no child inherits it.
void takeChildLog() {
  HostFnameStrType name;
  if (!HostGetEnv("TARVOLIN_CHILD_LOG", name, sizeof name)) return;
  const std::size_t size = std::strlen(name) + 1;
  childLogPtr = static_cast<char*>(UtlMalloc_(size, __LINE__));
  if (childLogPtr != nullptr) std::memcpy(childLogPtr, name, size);
  HostSetEnv("TARVOLIN_CHILD_LOG", "");
}

void startClocks() {
  sc_clk_tck = static_cast<double>(sysconf(_SC_CLK_TCK));
  initialCpuClockReading = std::max(hostCpuMilliseconds(), 0LL);
  clock_gettime(CLOCK_BOOTTIME, &beginTp);
}

void rememberTerminal() {
  char terminal[sizeof OriginalTerminalName];
  const bool known = ttyname_r(STDIN_FILENO, terminal, sizeof terminal) == 0;
  copyCut(OriginalTerminalName, known ? terminal : "");
}

// The end of a process that could not be prepared.
[[noreturn]] void crashAtStart(const char* reason) {
  const int error = errno;
  std::fflush(stdout);
  std::fputs("\n\n", stderr);
  VerLeadingEdge(stderr);
  verCatalogueMessage(stderr, "host.initfail", "s", reason);
  if (error != 0) {
    ErrMsgStrType text;
    hostErrnoMessage(error, text);
    VerMessage(stderr, text);
  }
  ZelCTimeStringType date;
  verCatalogueMessage(stderr, "fault.date", "s", utlCtimeOfNow(&date));
  VerEndEdge(stderr);
  UtlExit(startFailureStatus);
}

struct RaisedLimit {
  __rlimit_resource resource;
  const char* readError;
  const char* raiseError;
};
constexpr RaisedLimit raisedLimits[] = {
    {RLIMIT_CPU, "getrlimit(RLIMIT_CPU) error", "setrlimit(RLIMIT_CPU) error"},
    {RLIMIT_DATA, "getrlimit(RLIMIT_DATA) error", "setrlimit(RLIMIT_DATA) error"},
    {RLIMIT_FSIZE, "getrlimit(RLIMIT_FSIZE) error", "setrlimit(RLIMIT_FSIZE) error"},
};

// Raises the soft limits to the hard ones.
void raiseLimits() {
  for (const RaisedLimit& limit : raisedLimits) {
    struct rlimit64 values;
    if (os.getrlimit64(limit.resource, &values) != 0) crashAtStart(limit.readError);
    values.rlim_cur = values.rlim_max;
    if (os.setrlimit64(limit.resource, &values) != 0) crashAtStart(limit.raiseError);
  }
}

void readAutoMountPrefix() {
  if (HostGetEnv("TV_AutoMountPrefix", autoMountPrefix, sizeof autoMountPrefix)) return;
  copyCut(autoMountPrefix, "/tmp_mnt");
}

void rememberLoginName() {
  char name[64];
  if (os.getlogin_r(name, sizeof name) == 0) HostSetEnv("TV_LOGIN_NAME", name);
}

}  // namespace

void HostInit() {
  if (hostIsInitialized != 0) return;
  UtlHeapInit();
  hostForgetOldHandlers();
  hostForgetProtectedPages();
  hostResetFaultSwitches();
  noHalt = 0;
  takeChildLog();
  readSystemInfo();
  hostForgetProfTimer();
  hostForgetFatalReports();
  UtlInit();
  ErrMsgInit();
  startClocks();
  HostSetFatalErr(0);
  hostUnblockInterrupts();
  rememberTerminal();
  raiseLimits();
  hostIsInitialized = 1;
  HostSetLocale(LC_ALL, "");
  utlRememberTimeZone();
  unixIoIgnoreUnlessHandled(SIGIO);
  readAutoMountPrefix();
  rememberLoginName();
}
