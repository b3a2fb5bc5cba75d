#include "hostunix/hostdebug.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

BoolType noHalt = 0;

namespace {

constexpr int fatalExitStatus = 3;

HostOnDebugHandlerType hostCallDebuggerHook = nullptr;
std::atomic<long> hostFatalReportCount{0};

const char* textOf(const char* msg) {
  return msg != nullptr ? msg : "";
}

}  // namespace

void HostOnDebug(HostOnDebugHandlerType hook) {
  hostCallDebuggerHook = hook;
}

int HostCallDebugger() {
  if (noHalt != 0) return 0;

  std::signal(SIGVTALRM, SIG_IGN);
  if (hostCallDebuggerHook != nullptr) hostCallDebuggerHook();
  std::fflush(stderr);
  std::fflush(stdout);
  if (hostFatalReportCount.fetch_add(1) > 0) {
    std::fputs("Recursive error caught!", stdout);
    std::fflush(stdout);
    std::abort();
  }
  std::exit(fatalExitStatus);
}

int HostCallDebuggerMsg(const char* msg) {
  std::puts(textOf(msg));
  return HostCallDebugger();
}

unsigned long HostCallDebuggerMsg_o(const char* msg, unsigned long o) {
  std::printf("\n%s arg:%lu\n", textOf(msg), o);
  HostCallDebugger();
  return o;
}
