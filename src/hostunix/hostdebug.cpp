#include "hostunix/hostdebug.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "errmsg.h"
#include "hostunix/hostcore.h"
#include "hostunix/hostdebugpriv.h"
#include "hostunix/hostenv.h"
#include "hostunix/hostfaultpriv.h"
#include "unixerr.h"
#include "utl/utlexit.h"
#include "utl/utltime.h"
#include "vermsg.h"
#include "vermsgpriv.h"

BoolType noHalt = 0;

namespace {

constexpr int fatalExitStatus = 3;
constexpr unsigned attachPollSeconds = 2;

HostOnDebugHandlerType hostCallDebuggerHook = nullptr;
BoolType hookRunning = 0;
HostFatalReportFuncType* HostFatalReportFunc = nullptr;
std::atomic<long> hostFatalReportCount{0};

const char* textOf(const char* msg) {
  return msg != nullptr ? msg : "";
}

void notifyServer() {
  std::printf("\nHostcalldebugger invoked in process %d, notifying torv of fatal error\n",
              getpid());
  std::fflush(stdout);
  HostFatalReportFunc();
  std::printf("\nHostCallDebugger invoked in process %d\n", getpid());
}

[[noreturn]] void abortRecursion() {
  std::fputs("Recursive error caught!", stdout);
  std::fflush(stdout);
  abortProcess();
}

}  // namespace

void printDebuggerBanner(const char* caller) {
  std::fflush(stderr);
  std::fflush(stdout);
  std::fputs("\n\n", stdout);
  VerLeadingEdge(stdout);
  catalogueMessage(stdout, "host.debugger1", "s", caller);
  ZelCTimeStringType date;
  catalogueMessage(stdout, "host.debugger2", "s", UtlCtime(std::time(nullptr), &date));
}

void errnoMessage(int error, ErrMsgStrType text) {
  ErrMsgStrType reason;
  UnixErr(error, reason, sizeof reason);
  ErrMsgSymToText("fault.errno", text, sizeof(ErrMsgStrType), "ds", static_cast<long>(error),
                  reason);
}

void forgetFatalReports() {
  HostFatalReportFunc = nullptr;
  hostFatalReportCount = 0;
}

void HostOnDebug(HostOnDebugHandlerType hook) {
  hostCallDebuggerHook = hook;
}

void HostInstallFatalReportHandler(HostFatalReportFuncType* report) {
  HostFatalReportFunc = report;
}

int HostCallDebugger() {
  if (noHalt != 0) return 0;
  const int error = errno;

  std::signal(SIGVTALRM, SIG_IGN);
  callUnlessRunning(hostCallDebuggerHook, hookRunning);
  flushApplicationFiles();
  std::fflush(stderr);
  std::fflush(stdout);
  const bool first = hostFatalReportCount.fetch_add(1) == 0;
  HostFatalErr = 1;
  if (first && HostFatalReportFunc != nullptr) notifyServer();
  if (!first) abortRecursion();

  printDebuggerBanner("HostCallDebugger");
  ErrMsgStrType line;
  errnoMessage(error, line);
  HostCoredump(0);
  VerMessage(stdout, line);
  VerEndEdge(stdout);
  UtlExit(fatalExitStatus);
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

void HostWaitForDebugger() {
  char value[80 + 1];
  if (HostGetEnv("TARVOLIN_CHILD_DEBUG", value, sizeof value)) HostExplicitWaitForDebugger();
}

void HostExplicitWaitForDebugger() {
  std::fprintf(stderr,
               "HostCallDebugger: Waiting for Debugger to attach,\n    processId = %d = 0x%X\n",
               getpid(), static_cast<unsigned>(getpid()));
  std::fflush(stderr);
  volatile int attached = 0;  // only a debugger changes it
  while (attached == 0) sleep(attachPollSeconds);
}
