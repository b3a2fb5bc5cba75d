// What the fault handler and HostInit share with the plain uses of signals.
#pragma once

#include <csignal>
#include <cstdint>

#include "unixio.h"
#include "utl/errnokeeper.h"

// The C library's SIG_DFL and SIG_IGN have the type of a one-argument handler.
inline UnixSigHandlerFType* actionAsHandler(sighandler_t action) {
  return reinterpret_cast<UnixSigHandlerFType*>(reinterpret_cast<std::uintptr_t>(action));
}

// The default action and ignoring, in the type that the UNIXIO_DO_SIGNAL family takes.
inline UnixSigHandlerFType* const defaultSignal = actionAsHandler(SIG_DFL);
inline UnixSigHandlerFType* const ignoreSignal = actionAsHandler(SIG_IGN);

// A signal is ignored while this lives; then its former action is back, unchanged. Keeps errno at
// the end.
class IgnoredSignal {
 public:
  explicit IgnoredSignal(int signal) : signal_(signal) {
    UNIXIO_DO_SIGNAL(signal, ignoreSignal, &former_);
  }
  ~IgnoredSignal() {
    const ErrnoKeeper keeper;
    sigaction(signal_, &former_, nullptr);
  }
  IgnoredSignal(const IgnoredSignal&) = delete;
  IgnoredSignal& operator=(const IgnoredSignal&) = delete;

 private:
  int signal_;
  struct sigaction former_ = {};
};

// Ignores `signal` unless the program handles it.
void ignoreUnlessHandled(int signal);

// Unblocks every signal of the calling thread, whatever HostDisableInterrupts knows of them.
void unblockInterrupts();

// Forgets the action that HostStartProfTimer replaced.
void forgetProfTimer();
