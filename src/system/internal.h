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

#include <atomic>
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

// Looks at the `fields` (STATX_TYPE...) of a file of any size, inode number and date; stat64 has no
// room for some. Follows links, and is made again after an interruption. Returns false with errno
// set when that fails.
bool unixIoStatx(const char* name, unsigned int fields, struct statx& found);

// A request to cancel the thread waits while this lives, or until restore(): what is changed
// meanwhile is put back.
class CancellationWaits {
 public:
  CancellationWaits() { begin(); }
  ~CancellationWaits() { restore(); }
  CancellationWaits(const CancellationWaits&) = delete;
  CancellationWaits& operator=(const CancellationWaits&) = delete;

  void begin() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_); }
  void restore() const { pthread_setcancelstate(former_, nullptr); }

 private:
  int former_ = 0;
};

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

// Among the flags of an ignored signal: this library ignores it in the program's place, and
// programs that are executed do not inherit that. Ignoring has no other use for the flag, and kept
// here it is the child's own, whatever the parent's threads do meanwhile.
constexpr int unixIoInPlace = SA_NODEFER;

// Ignores `signal` in the program's place, where its action is the default.
void unixIoIgnoreUnlessHandled(int signal);

// An action as the kernel has it. The C library's sigaction may be another library's, with a lock
// and a record of its own: it may only make a note of what it is given. And a child may share its
// parent's memory.
struct UnixIoKernelAction {
  sighandler_t handler;
  unsigned long flags;
  void (*restorer)();
  unsigned long mask[_NSIG / 8 / sizeof(long)];
};

// sigaction for these, past the C library's. Signal-safe.
long unixIoKernelAction(int signal, const UnixIoKernelAction* action, UnixIoKernelAction* former);

// The kernel's action that ignores a signal in the program's place.
inline const UnixIoKernelAction unixIoIgnoreInPlace{
    SIG_IGN, SA_SIGINFO | SA_RESTART | unixIoInPlace, nullptr, {}};

// In a child before exec: no handler of the program runs there, and the program that is executed
// finds no signal ignored that this library alone ignores. Signal-safe.
void unixIoDropHandlers();

// In a child before that: drops what is pending of a signal, and the program's handler with it.
// Signal-safe.
void unixIoDropPending(int signal);

// A handler of SIGCHLD that takes no command's status, so that it may stay while commands run; null
// if there is none (unixiosystem.cpp).
extern std::atomic<sighandler_t> unixIoSparingHandler;

// A signal has another action while this lives; then its former one is back, unchanged. Keeps errno
// at the end.
class SignalAction {
 public:
  SignalAction(int signal, UnixSigHandlerFType* action) : signal_(signal) {
    UNIXIO_DO_SIGNAL(signal, action, &former_);
  }
  ~SignalAction() {
    const ErrnoKeeper keeper;
    sigaction(signal_, &former_, nullptr);
  }
  SignalAction(const SignalAction&) = delete;
  SignalAction& operator=(const SignalAction&) = delete;

 private:
  int signal_;
  struct sigaction former_ = {};
};

// Signal masks put aside and back

// The set of these signals alone.
template <typename... Signals>
sigset_t unixIoSignals(Signals... signals) {
  sigset_t set;
  sigemptyset(&set);
  (sigaddset(&set, signals), ...);
  return set;
}

// The set of all signals but these.
template <typename... Signals>
sigset_t unixIoAllSignalsBut(Signals... signals) {
  sigset_t set;
  sigfillset(&set);
  (sigdelset(&set, signals), ...);
  return set;
}

// What a thread's own code raises: where these are blocked, a fault ends the process unreported.
inline sigset_t unixIoFaultSignals() {
  return unixIoSignals(SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP);
}

// All others: they wait for a fork, while the application's fork handlers may fault.
inline sigset_t unixIoAllSignalsButFaults() {
  return unixIoAllSignalsBut(SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP);
}

// Changes the thread's mask as pthread_sigmask does; the former mask is back when this dies, or
// earlier by restore(). Signal-safe, and keeps errno.
class SignalMask {
 public:
  SignalMask(int how, const sigset_t& signals) { pthread_sigmask(how, &signals, &former_); }
  ~SignalMask() { restore(); }
  SignalMask(const SignalMask&) = delete;
  SignalMask& operator=(const SignalMask&) = delete;

  // Changes it once more.
  static void change(int how, const sigset_t& signals) { pthread_sigmask(how, &signals, nullptr); }
  void restore() const { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  const sigset_t& former() const { return former_; }

 private:
  sigset_t former_;
};

// Shell commands (unixiosystem.cpp)

// A command for the shell, and what this process does while it runs.
struct UnixIoCommand {
  const char* text;
  bool interactive;               // shares the terminal; otherwise in a session of its own
  bool ignoresKeyboard = false;   // this process ignores SIGINT, SIGQUIT, SIGTTOU and SIGTTIN
  bool installsHandlers = false;  // the handlers come back anew, by UNIXIO_DO_SIGNAL
};

// The status of a command that could not be waited for.
constexpr int unixIoLostStatus = -1;

// Runs a command as UnixIoSystem does (unixio.h). Returns false with errno set when the shell was
// not run. Otherwise `status` is what waitpid gave, or lost, with errno set.
bool unixIoRun(const UnixIoCommand& command, int& status);

// Descriptors across exec

// Closes or keeps an open descriptor when the process executes a program. Does nothing to a closed
// one.
void unixIoSetCloseOnExec(int descriptor, bool closes);

// Where standard input, output or error is closed, a new descriptor takes its place, and what the
// program prints its file. Moves such a descriptor further up, close-on-exec; others stay. Returns
// where it is now, or -1 with errno set; then the descriptor is closed.
int unixIoAboveStandard(int descriptor);
