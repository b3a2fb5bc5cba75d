// Stack printing, in signal handlers too, and in processes that go on afterwards.
//
// Signal-safe but for the interpreter's printer, which the embedding program provides. May call
// _exit, close, execv, getauxval, getpid, poll, prctl, pthread_sigmask, syscall, waitpid, the
// atomic primitives and _Fork, which unlike fork takes no lock and calls no fork handlers, and
// prints with hostSafePrint. The name of the stack printer comes from HostExpandFileName and
// HostFileType: they read `environ` themselves and call readlink, stat and, where $TARVOLIN is
// relative, getcwd, all of them bare system calls here.
#include <povzel/hoststack.h>

#include <poll.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <povzel/atomics.h>
#include <povzel/hostfiles.h>
#include <povzel/hostfname.h>
#include <povzel/hostsafeprint.h>
#include "internal.h"

namespace {

BoolType printingStacks = 0;
PrintStackFuncType* SmalltalkPrintStackFunc = nullptr;

constexpr char stackPrinter[] = "$TARVOLIN/bin/gstack";
constexpr int reapPauseMilliseconds = 50;

// The invoker of a set-id program chooses what runs here, so it runs with his ids and finds none of
// the files that were opened with others.
bool giveUpRights() {
  constexpr unsigned firstClosed = STDERR_FILENO + 1;
  const bool wasSetId = getauxval(AT_SECURE) != 0;
  if ((wasSetId || hostHasSetIds()) && syscall(SYS_close_range, firstClosed, ~0U, 0) != 0) {
    for (int descriptor = firstClosed; descriptor < hostMostDescriptors; ++descriptor) {
      close(descriptor);
    }
  }
  return !hostHasSetIds() || hostGiveUpThreadIds();
}

// In the child, with all signals blocked until no handler of this process is left.
[[noreturn]] void execProgram(const char* program, const char* const* argv) {
  unixIoDropHandlers();
  const SignalMask none(SIG_SETMASK, unixIoSignals());
  if (giveUpRights()) execv(program, const_cast<char* const*>(argv));

  const int reason = errno;
  SafeLine arguments;
  char* next = arguments;
  *next = '\0';
  for (; *argv != nullptr; ++argv) {
    hostSafeFormat(next, static_cast<std::size_t>(arguments + sizeof arguments - next),
                   next == arguments ? "%s" : " %s", *argv);
    while (*next != '\0') ++next;
  }
  hostSafePrint("\n    Problem with exev()\n  cmd=%s\n  args=%s\n  errno=%d.\n", program, arguments,
                reason);
  _exit(0);
}

// Lets a process and its children look at this one, where the system allows that to parents alone,
// while this lives.
class Tracer {
 public:
  explicit Tracer(pid_t tracer) { prctl(PR_SET_PTRACER, tracer); }
  ~Tracer() { prctl(PR_SET_PTRACER, 0); }
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;
};

// Runs a program and waits until it is gone, whoever reaps it.
bool runAndWait(const char* program, const char* const* argv) {
  const SignalMask untilForked(SIG_SETMASK, unixIoAllSignalsBut());
  const pid_t child = _Fork();
  if (child == 0) execProgram(program, argv);
  untilForked.restore();
  if (child < 0) {
    hostSafePrint("  Problem calling fork, errno=%d\n", errno);
    return false;
  }
  const Tracer tracer(child);
  for (;;) {
    const pid_t reaped = waitpid(child, nullptr, 0);
    if (reaped == child) {
      poll(nullptr, 0, reapPauseMilliseconds);
    } else if (reaped != -1) {
      hostSafePrint("Problem calling waitpid(), result = %d, errno = %d\n", reaped, errno);
      return false;
    } else if (errno == ECHILD) {
      return true;
    }
  }
}

}  // namespace

void hostPrintStacks() {
  if (HostAsmSyncOr(&printingStacks, 1) != 0) return;
  HostPrintMyCStack();
  const SignalMask faultsReachUs(SIG_UNBLOCK, unixIoFaultSignals());
  if (SmalltalkPrintStackFunc != nullptr) SmalltalkPrintStackFunc();
  HostAsmSyncAnd(&printingStacks, 0);
}

void HostPrintCStack(PidType forPid) {
  if (forPid == -1) return;
  const ErrnoKeeper keeper;
  hostSafePrint("\nBegin attempt to print C-level stack for PID %d at: ", forPid);
  const char* const date[] = {"sh", "-c", "date", nullptr};
  runAndWait("/bin/sh", date);
  HostSignalSafePrint("\n");

  HostFnameStrType printer;
  HostExpandFileName(stackPrinter, printer, sizeof printer);
  if (HostFileType(printer, nullptr) == HOST_FILE_KIND_ERROR) {
    utlPlaceInOwnTree(stackPrinter, printer, sizeof printer);
  }
  if (HostFileType(printer, nullptr) != HOST_FILE_KIND_ERROR) {
    char id[16];
    hostSafeFormat(id, sizeof id, "%d", forPid);
    const char* const gstack[] = {"gstack", id, nullptr};
    runAndWait(printer, gstack);
  } else {
    hostSafePrint("  Warning: Unable to print C call stack.  '%s' file not found\n", "gstack");
    HostSignalSafePrint("\nC-level stack not available\n");
  }
  hostSafePrint("\nEnd of C-level stack for PID %d\n\n", forPid);
}

void HostPrintMyCStack() {
  HostPrintCStack(getpid());
}

void HostSetSmalltalkPrintStackFunc(PrintStackFuncType* function) {
  SmalltalkPrintStackFunc = function;
}
