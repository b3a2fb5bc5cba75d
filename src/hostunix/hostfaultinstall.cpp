// The fault handler's installation, and the handlers that it stands in front of.
//
// Chaining runs in the fault handler and is signal-safe but for the earlier handler itself: it
// calls sigaddset and pthread_sigmask, and reads records that stay whole beside another
// installation. Installation and HostShutDown belong to the start and the end of the program.
#include <gnu/libc-version.h>
#include <link.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <povzel/hostdebug.h>
#include <povzel/hostfault.h>
#include <povzel/unixio.h>
#include "internal.h"

namespace {

constexpr int MAX_OLD_HANDLERS = 50;

// The handlers of other threads read these at any time, and what was started after us may hand its
// signals on to us when we have shut down: they stay. A new one goes beside the one in force, and
// is then put in force.
struct sigaction oldHandlers[MAX_OLD_HANDLERS][2];
std::atomic<struct sigaction*> oldHandlersValid[MAX_OLD_HANDLERS];  // in force; null for none
BoolType signalHandlersInstalled = 0;

using InstallFunction = void (*)(int, UnixSigHandlerFType*, struct sigaction*);

// Where the code of a library lies in memory. Found once, because asking the dynamic loader from a
// signal handler could wait for its lock.
struct CodeRange {
  std::uintptr_t first;
  std::uintptr_t end;

  bool holds(const void* address) const {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    return value >= first && value < end;
  }
};
CodeRange ownCode;
CodeRange cLibraryCode;

// `code` points to a range that begins with an address inside the library.
int findCode(dl_phdr_info* object, std::size_t /*size*/, void* code) {
  auto* range = static_cast<CodeRange*>(code);
  const std::uintptr_t inside = range->first;
  for (int index = 0; index < object->dlpi_phnum; ++index) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[index];
    if (segment.p_type != PT_LOAD) continue;
    const std::uintptr_t first = object->dlpi_addr + segment.p_vaddr;
    const std::uintptr_t end = first + segment.p_memsz;
    if (inside < first || inside >= end) continue;
    *range = {first, end};
    return 1;
  }
  return 0;
}

CodeRange codeAround(const void* address) {
  CodeRange code{reinterpret_cast<std::uintptr_t>(address), 0};
  dl_iterate_phdr(findCode, &code);
  return code;
}

bool isRealHandler(const struct sigaction& action) {
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

bool isOwnHandler(const struct sigaction& action) {
  return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == HostFaultHandler;
}

// The handler that was there before, where it is a function of the program's; null for the default
// action, for ignoring, and for our own handler.
struct sigaction* rememberedHandler(const SignalEvent& event) {
  const int signal = event.signal;
  if (signal < 0 || signal >= MAX_OLD_HANDLERS || event.handedBack) return nullptr;
  struct sigaction* action = oldHandlersValid[signal];
  if (action == nullptr || !isRealHandler(*action) || isOwnHandler(*action)) return nullptr;
  return action;
}

// What hostChain hands the signal to; null where it ends the process.
struct sigaction* chainedHandler(const SignalEvent& event) {
  if (event.signal == SIGABRT) return nullptr;
  if (event.isHardwareSignal() && ownCode.holds(hostProgramCounter(event.context))) return nullptr;
  return rememberedHandler(event);
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

bool isSame(const struct sigaction& one, const struct sigaction& other) {
  return one.sa_sigaction == other.sa_sigaction && one.sa_flags == other.sa_flags &&
         std::memcmp(&one.sa_mask, &other.sa_mask, sizeof one.sa_mask) == 0;
}

// Our own handler is what it stands in front of only where there is nothing else.
void remember(int signal, const struct sigaction& action) {
  struct sigaction* former = oldHandlersValid[signal];
  if (former != nullptr && (isOwnHandler(action) || isSame(*former, action))) return;
  struct sigaction* next = &oldHandlers[signal][former == oldHandlers[signal] ? 1 : 0];
  *next = action;
  oldHandlersValid[signal] = next;
}

// Remembers the action before the handler can be called, and again what may have come between.
void install(int signal, InstallFunction installWith) {
  checkHandlerLimit(signal);
  struct sigaction previous;
  if (sigaction(signal, nullptr, &previous) == 0) remember(signal, previous);
  installWith(signal, HostFaultHandler, &previous);
  remember(signal, previous);
}

// For what a stack overflow or the code itself raises: on the signal stack of the thread, if it has
// one.
void installOnSignalStack(int signal, UnixSigHandlerFType* handler, struct sigaction* previous) {
  UNIXIO_DO_SIGNAL_(signal, handler, previous, SA_ONSTACK);
}

// A handler that the program has installed keeps the signal, and nothing is remembered.
void installUnlessHandled(int signal, InstallFunction installWith) {
  checkHandlerLimit(signal);
  struct sigaction previous;
  if (sigaction(signal, nullptr, &previous) == 0 && isRealHandler(previous)) return;
  install(signal, installWith);
}

// Puts the action back unless another has taken our handler's place, or has it called.
void uninstall(int signal) {
  const struct sigaction* former = oldHandlersValid[signal];
  struct sigaction present;
  if (former == nullptr || sigaction(signal, nullptr, &present) != 0) return;
  if (isOwnHandler(present)) sigaction(signal, former, nullptr);
}

}  // namespace

bool hostHandlerWasInstalled(int signal) {
  return signalHandlersInstalled != 0 && oldHandlersValid[signal] != nullptr;
}

void hostForgetOldHandlers() {
  for (auto& action : oldHandlersValid) action = nullptr;
}

bool hostIsInCLibrary(const SignalEvent& event) {
  return cLibraryCode.holds(hostProgramCounter(event.context));
}

bool hostHasEarlierHandler(const SignalEvent& event) {
  return rememberedHandler(event) != nullptr;
}

bool hostChainsOnSignalStack(const SignalEvent& event) {
  const struct sigaction* earlier = chainedHandler(event);
  return earlier != nullptr && (earlier->sa_flags & SA_ONSTACK) != 0;
}

bool hostChainBlocksSignal(const SignalEvent& event) {
  const struct sigaction* earlier = chainedHandler(event);
  return earlier != nullptr && (earlier->sa_flags & SA_NODEFER) == 0;
}

void hostCallEarlierHandler(const SignalEvent& event) {
  const struct sigaction* earlier = rememberedHandler(event);
  if (earlier == nullptr) return;
  callHandler(*earlier, event);
}

bool hostChain(const SignalEvent& event) {
  struct sigaction* earlier = chainedHandler(event);
  if (earlier == nullptr) return false;
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
  ownCode = codeAround(reinterpret_cast<void*>(&findCode));
  cLibraryCode = codeAround(reinterpret_cast<void*>(&gnu_get_libc_version));
  hostSetApplicationCallbacks(flushFiles, shutDown);
  HostUseSignalStack();

  unixIoIgnoreUnlessHandled(SIGPIPE);
  unixIoIgnoreUnlessHandled(SIGHUP);
  install(SIGQUIT, UNIXIO_DO_SIGNAL);
  install(SIGILL, installOnSignalStack);
  installUnlessHandled(SIGFPE, installOnSignalStack);
  install(SIGABRT, UNIXIO_DO_SIGNAL);
  install(SIGBUS, installOnSignalStack);
  install(SIGSEGV, installOnSignalStack);
  // Without restart, so that a blocking call notices that termination was asked for.
  install(SIGTERM, UNIXIO_DO_SIGNAL_noRestart);
  install(SIGUSR1, UNIXIO_DO_SIGNAL);
  hostForgetFormerChildren();
  installUnlessHandled(SIGCHLD, UNIXIO_DO_SIGNAL);
  install(SIGXFSZ, UNIXIO_DO_SIGNAL);
  install(SIGXCPU, UNIXIO_DO_SIGNAL);
}

void HostShutDown() {
  if (signalHandlersInstalled == 0) return;
  for (int signal = 0; signal < MAX_OLD_HANDLERS; ++signal) uninstall(signal);
  signalHandlersInstalled = 0;
}
