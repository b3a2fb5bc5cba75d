// What the sources of this layer share with those above it: the frames around system calls and
// signals.
//
//   syserror.cpp        error records
//   unixerr.cpp         error numbers, their portable codes and texts
//   unixio.cpp          I/O that signals do not interrupt
//   unixiosystem.cpp    shell commands
//   hostsigterm.cpp     requests to end the process, counted
//   unwind.cpp          unwinding
#pragma once

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstdint>

#include <povzel/hostsigterm.h>
#include <povzel/povzeltypes.h>
#include <povzel/unixerr.h>
#include <povzel/unixio.h>
#include "basics/internal.h"

// Interrupted system calls

// Whether the system call that has just failed is to be made again: a signal interrupted it, and
// nobody has asked the process to end.
inline bool unixIoGoesOn() {
  return (errno == EINTR || errno == ERESTART) && HostGetSigTerm(__FILE__, __LINE__) == 0;
}

// Makes a system call that returns -1 when it fails, again after each interruption.
template <typename Call>
auto unixIoRetry(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || !unixIoGoesOn()) return result;
  }
}

// The catalogue's text for an errno value, as an argument of other texts.
struct ErrnoText {
  explicit ErrnoText(int error) { UnixErr(error, text, sizeof text); }

  ErrMsgStrType text;
};

// Signal actions put aside and back

// The C library's SIG_DFL and SIG_IGN have the type of a one-argument handler.
inline UnixSigHandlerFType* unixIoActionAsHandler(sighandler_t action) {
  return reinterpret_cast<UnixSigHandlerFType*>(reinterpret_cast<std::uintptr_t>(action));
}

// The default action and ignoring, in the type that the UNIXIO_DO_SIGNAL family takes.
inline UnixSigHandlerFType* const unixIoDefaultAction = unixIoActionAsHandler(SIG_DFL);
inline UnixSigHandlerFType* const unixIoIgnoreAction = unixIoActionAsHandler(SIG_IGN);

// A signal is ignored while this lives; then its former action is back, unchanged. Keeps errno at
// the end.
class IgnoredSignal {
 public:
  explicit IgnoredSignal(int signal) : signal_(signal) {
    UNIXIO_DO_SIGNAL(signal, unixIoIgnoreAction, &former_);
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
