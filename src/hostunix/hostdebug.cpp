#include <povzel/hostdebug.h>

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/hostcore.h>
#include <povzel/hostenv.h>
#include <povzel/unixerr.h>
#include <povzel/utlexit.h>
#include <povzel/utltime.h>
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

BoolType noHalt = 0;

namespace {

constexpr int fatalExitStatus = 3;
constexpr unsigned attachPollSeconds = 2;

HostOnDebugHandlerType hostCallDebuggerHook = nullptr;
UtlClaim hookRunning;
HostFatalReportFuncType* HostFatalReportFunc = nullptr;
std::atomic<long> hostFatalReportCount{0};

const char* textOf(const char* msg) {
  return msg != nullptr ? msg : "";
}

// Texts of any length, in one write: other threads may be printing theirs.
template <typename... Texts>
void print(Texts... texts) {
  std::array<iovec, sizeof...(texts)> parts{iovec{const_cast<char*>(texts), std::strlen(texts)}...};
  utlSafeWriteParts(hostPast(stdout), parts);
}

void notifyServer() {
  hostPrintPast(stdout, "\nHostcalldebugger invoked in process %d, notifying torv of fatal error\n",
                getpid());
  HostFatalReportFunc();
  hostPrintPast(stdout, "\nHostCallDebugger invoked in process %d\n", getpid());
}

[[noreturn]] void abortRecursion() {
  print("Recursive error caught!");
  hostAbortProcess();
}

}  // namespace

void hostPrintDebuggerBanner(const char* caller) {
  hostPast(stderr);
  print("\n\n");
  const int out = hostPast(stdout);
  verSafeLeadingEdge(out);
  verSafeCatalogueMessage(out, "host.debugger1", "s", caller);
  ZelCTimeStringType date;
  verSafeCatalogueMessage(out, "host.debugger2", "s", utlSafeCtimeOfNow(&date));
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
  const CancellationWaits untilTheEnd;
  if (!utlClaimExit()) utlAwaitExit();

  std::signal(SIGVTALRM, SIG_IGN);
  hostCallUnlessRunning(hostCallDebuggerHook, hookRunning);
  hostFlushApplicationFiles();
  hostPast(stderr);
  hostPast(stdout);
  const bool first = hostFatalReportCount.fetch_add(1) == 0;
  HostSetFatalErr(1);
  if (first && HostFatalReportFunc != nullptr) notifyServer();
  if (!first) abortRecursion();

  hostPrintDebuggerBanner("HostCallDebugger");
  ErrMsgStrType line;
  hostErrnoMessage(error, line);
  HostCoredump(0);
  const int out = hostPast(stdout);
  verSafeMessage(out, line);
  verSafeEndEdge(out);
  UtlExit(fatalExitStatus);
}

int HostCallDebuggerMsg(const char* msg) {
  print(textOf(msg), "\n");
  return HostCallDebugger();
}

unsigned long HostCallDebuggerMsg_o(const char* msg, unsigned long o) {
  char argument[32];
  hostSafeFormat(argument, sizeof argument, " arg:%lu\n", o);
  print("\n", textOf(msg), argument);
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
