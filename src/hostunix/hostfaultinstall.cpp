// The fault handler's installation, and the handlers that it stands in front of.
//
// Chaining runs in the fault handler and is signal-safe but for the earlier handler itself: it
// calls sigaddset and pthread_sigmask, and reads tables that are written before any signal comes.
// Installation and HostShutDown belong to the start and the end of the program.
#include <link.h>

#include <cstdint>
#include <cstdio>

#include <povzel/hostdebug.h>
#include <povzel/hostfault.h>
#include <povzel/unixio.h>
#include "internal.h"

namespace {

constexpr int MAX_OLD_HANDLERS = 50;

struct sigaction oldHandlers[MAX_OLD_HANDLERS];
int oldHandlersValid[MAX_OLD_HANDLERS];
BoolType signalHandlersInstalled = 0;

using InstallFunction = void (*)(int, UnixSigHandlerFType*, struct sigaction*);

// Where this library's code lies in memory. Found once, because asking the dynamic loader from a
// signal handler could wait for its lock.
struct CodeRange {
  std::uintptr_t first;
  std::uintptr_t end;
};
CodeRange ownCode;

int findOwnCode(dl_phdr_info* object, std::size_t /*size*/, void* /*data*/) {
  const auto inside = reinterpret_cast<std::uintptr_t>(&findOwnCode);
  for (int index = 0; index < object->dlpi_phnum; ++index) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[index];
    if (segment.p_type != PT_LOAD) continue;
    const std::uintptr_t first = object->dlpi_addr + segment.p_vaddr;
    const std::uintptr_t end = first + segment.p_memsz;
    if (inside < first || inside >= end) continue;
    ownCode = {first, end};
    return 1;
  }
  return 0;
}

bool isRealHandler(const struct sigaction& action) {
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

bool isOwnHandler(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == HostFaultHandler;
}

// The handler that was there before, where it is a function of the program's; null for the default
// action, for ignoring, and for our own handler.
struct sigaction* rememberedHandler(int signal) {
  if (signal < 0 || signal >= MAX_OLD_HANDLERS || oldHandlersValid[signal] == 0) return nullptr;
  struct sigaction& action = oldHandlers[signal];
  return isRealHandler(action) && !isOwnHandler(action) ? &action : nullptr;
}

bool isInThisLibrary(const void* address) {
  const auto value = reinterpret_cast<std::uintptr_t>(address);
  return value >= ownCode.first && value < ownCode.end;
}

void callHandler(const struct sigaction& action, const SignalEvent& event) {
  if ((action.sa_flags & SA_SIGINFO) != 0) {
    action.sa_sigaction(event.signal, event.received, event.context);
  } else {
    action.sa_handler(event.signal);
  }
}

void checkHandlerLimit(int signal) {
  if (signal < MAX_OLD_HANDLERS) return;
  std::fprintf(stderr, "port error increase hostunix:MAX_OLD_HANDLERS to %d\n", signal + 1);
  HostCallDebugger();
}

void install(int signal, InstallFunction installWith) {
  checkHandlerLimit(signal);
  installWith(signal, HostFaultHandler, &oldHandlers[signal]);
  oldHandlersValid[signal] = 1;
}

// A handler that the program has installed keeps the signal, and nothing is remembered.
void installUnlessHandled(int signal) {
  checkHandlerLimit(signal);
  struct sigaction previous;
  UNIXIO_DO_SIGNAL(signal, HostFaultHandler, &previous);
  if (isRealHandler(previous)) {
    sigaction(signal, &previous, nullptr);
    return;
  }
  oldHandlers[signal] = previous;
  oldHandlersValid[signal] = 1;
}

}  // namespace

void hostForgetOldHandlers() {
  for (int signal = 0; signal < MAX_OLD_HANDLERS; ++signal) {
    oldHandlers[signal] = {};
    oldHandlersValid[signal] = 0;
  }
}

void hostCallEarlierHandler(const SignalEvent& event) {
  const struct sigaction* earlier = rememberedHandler(event.signal);
  if (earlier == nullptr) return;
  const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
  callHandler(*earlier, event);
}

bool hostChain(const SignalEvent& event) {
  if (event.signal == SIGABRT) return false;
  struct sigaction* earlier = rememberedHandler(event.signal);
  if (earlier == nullptr) return false;
  if (event.isHardwareSignal() && isInThisLibrary(hostProgramCounter(event.context))) return false;

  const struct sigaction action = *earlier;
  sigset_t mask = action.sa_mask;
  if ((action.sa_flags & SA_NODEFER) == 0) sigaddset(&mask, event.signal);
  if ((action.sa_flags & static_cast<int>(SA_RESETHAND)) != 0) earlier->sa_handler = SIG_DFL;
  const SignalMask ofHandler(SIG_SETMASK, mask);
  callHandler(action, event);
  return true;
}

void HostInstallFaultHandler(HostFaultFuncType* flushFiles, HostFaultFuncType* shutDown) {
  if (signalHandlersInstalled != 0) return;
  signalHandlersInstalled = 1;
  hostForgetOldHandlers();
  dl_iterate_phdr(findOwnCode, nullptr);
  hostSetApplicationCallbacks(flushFiles, shutDown);

  unixIoIgnoreUnlessHandled(SIGPIPE);
  unixIoIgnoreUnlessHandled(SIGHUP);
  install(SIGQUIT, UNIXIO_DO_SIGNAL);
  install(SIGILL, UNIXIO_DO_SIGNAL);
  installUnlessHandled(SIGFPE);
  install(SIGABRT, UNIXIO_DO_SIGNAL);
  install(SIGBUS, UNIXIO_DO_SIGNAL);
  install(SIGSEGV, UNIXIO_DO_SIGNAL);
  // Without restart, so that a blocking call notices that termination was asked for.
  install(SIGTERM, UNIXIO_DO_SIGNAL_noRestart);
  install(SIGUSR1, UNIXIO_DO_SIGNAL);
  installUnlessHandled(SIGCHLD);
  install(SIGXFSZ, UNIXIO_DO_SIGNAL);
  install(SIGXCPU, UNIXIO_DO_SIGNAL);
}

void HostShutDown() {
  if (signalHandlersInstalled == 0) return;
  for (int signal = 0; signal < MAX_OLD_HANDLERS; ++signal) {
    if (oldHandlersValid[signal] != 0) sigaction(signal, &oldHandlers[signal], nullptr);
  }
  hostForgetOldHandlers();
  signalHandlersInstalled = 0;
}
