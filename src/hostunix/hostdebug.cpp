#include <povzel/hostdebug.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include <povzel/errmsg.h>
#include <povzel/hostcore.h>
#include <povzel/hostenv.h>
#include <povzel/unixerr.h>
#include <povzel/utlexit.h>
#include <povzel/utltime.h>
#include <povzel/vermsg.h>
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

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
  hostAbortProcess();
}

}  // namespace

void hostPrintDebuggerBanner(const char* caller) {
  std::fflush(stderr);
  std::fflush(stdout);
  std::fputs("\n\n", stdout);
  VerLeadingEdge(stdout);
  verCatalogueMessage(stdout, "host.debugger1", "s", caller);
  ZelCTimeStringType date;
  verCatalogueMessage(stdout, "host.debugger2", "s", utlCtimeOfNow(&date));
}

void hostErrnoMessage(int error, ErrMsgStrType text) {
  ErrMsgSymToText("fault.errno", text, sizeof(ErrMsgStrType), "ds", static_cast<long>(error),
                  ErrnoText(error).text);
}

void hostForgetFatalReports() {
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
  hostCallUnlessRunning(hostCallDebuggerHook, hookRunning);
  hostFlushApplicationFiles();
  std::fflush(stderr);
  std::fflush(stdout);
  const bool first = hostFatalReportCount.fetch_add(1) == 0;
  HostSetFatalErr(1);
  if (first && HostFatalReportFunc != nullptr) notifyServer();
  if (!first) abortRecursion();

  hostPrintDebuggerBanner("HostCallDebugger");
  ErrMsgStrType line;
  hostErrnoMessage(error, line);
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
