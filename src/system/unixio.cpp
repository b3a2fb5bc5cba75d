#include <povzel/unixio.h>

#include <stdio_ext.h>
#include <sys/single_threaded.h>
#include <unistd.h>

#include <atomic>
#include <climits>

#include <povzel/unixerr.h>
#include "basics/internal.h"
#include "internal.h"

volatile BoolType cancelBlockingCall = 0;

namespace {

char* threadPointer() {
  char* pointer;
  __asm__("movl %%gs:0, %0" : "=r"(pointer));
  return pointer;
}

// errno stands at the same distance from each thread's pointer; 0 until it is known. For each line
// that is read, the call that tells where it is costs more than all else that is done here.
std::atomic<std::ptrdiff_t> errnoDistance{0};

void clearErrno() {
  if (errnoDistance.load(std::memory_order_relaxed) == 0) [[unlikely]] {
    errnoDistance.store(reinterpret_cast<char*>(&errno) - threadPointer(),
                        std::memory_order_relaxed);
  }
  *reinterpret_cast<int*>(threadPointer() + errnoDistance.load(std::memory_order_relaxed)) = 0;
}

void install(int sig, const struct sigaction& action, struct sigaction* oldHandler) {
  if (sigaction(sig, &action, oldHandler) == 0) return;
  std::printf("sigaction failed for sig %d with errno %d\n", sig, errno);
  utlGuaranteeFailed("src/unixio", __LINE__);
}

void installHandler(int sig, UnixSigHandlerFType* fct, struct sigaction* oldHandler, int flags) {
  struct sigaction action = {};
  action.sa_sigaction = fct;
  action.sa_flags = flags | SA_SIGINFO;
  sigfillset(&action.sa_mask);
  install(sig, action, oldHandler);
}

bool isIgnoredByProgram(const UnixIoKernelAction& action) {
  constexpr unsigned long inPlace = SA_SIGINFO | unixIoInPlace;
  return action.handler == SIG_IGN && (action.flags & inPlace) != inPlace;
}

// The result of a stat call, with the text of its failure.
BoolType statOutcome(int result, char* errText, std::size_t errTextSize) {
  if (result == 0) return 1;
  if (errText != nullptr) UnixErr(errno, errText, errTextSize);
  return 0;
}

}  // namespace

bool unixIoStatx(const char* name, unsigned int fields, struct statx& found) {
  // As stat64 it mounts nothing that waits for its first use.
  const auto look = [&] { return os.statx(AT_FDCWD, name, AT_NO_AUTOMOUNT, fields, &found); };
  return unixIoRetry(look) == 0;
}

void unixIoSetCloseOnExec(int descriptor, bool closes) {
  const int flags = os.fcntl(descriptor, F_GETFD, 0);
  if (flags == -1) return;
  os.fcntl(descriptor, F_SETFD, closes ? flags | FD_CLOEXEC : flags & ~FD_CLOEXEC);
}

int unixIoAboveStandard(int descriptor) {
  if (descriptor > STDERR_FILENO) return descriptor;
  const int moved = os.fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const ErrnoKeeper keeper;
  os.close(descriptor);
  return moved;
}

void UNIXIO_DO_SIGNAL_(int sig, UnixSigHandlerFType* fct, struct sigaction* oldHandler,
                       int flagsArg) {
  installHandler(sig, fct, oldHandler, flagsArg | SA_RESTART);
}

void UNIXIO_DO_SIGNAL(int sig, UnixSigHandlerFType* fct, struct sigaction* oldHandler) {
  UNIXIO_DO_SIGNAL_(sig, fct, oldHandler, 0);
}

void UNIXIO_DO_SIGNAL_noRestart(int sig, UnixSigHandlerFType* fct, struct sigaction* oldHandler) {
  installHandler(sig, fct, oldHandler, 0);
}

void UNIXIO_DO_SIGNAL_1ARG(int sig, UnixSignalFuncType_1arg* fct, struct sigaction* oldHandler) {
  struct sigaction action = {};
  action.sa_handler = fct;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  install(sig, action, oldHandler);
}

void unixIoIgnoreUnlessHandled(int signal) {
  struct sigaction action;
  if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL) return;
  UNIXIO_DO_SIGNAL_(signal, unixIoIgnoreAction, nullptr, unixIoInPlace);
}

long unixIoKernelAction(int signal, const UnixIoKernelAction* action, UnixIoKernelAction* former) {
  return syscall(SYS_rt_sigaction, signal, action, former, sizeof action->mask);
}

void unixIoDropHandlers() {
  const UnixIoKernelAction byDefault{};
  for (int signal = 1; signal < _NSIG; ++signal) {
    UnixIoKernelAction action;
    if (unixIoKernelAction(signal, nullptr, &action) != 0 || action.handler == SIG_DFL) continue;
    if (!isIgnoredByProgram(action)) unixIoKernelAction(signal, &byDefault, nullptr);
  }
}

// The kernel drops it when the signal is set to be ignored, also where it was so before.
void unixIoDropPending(int signal) {
  UnixIoKernelAction action{};
  unixIoKernelAction(signal, nullptr, &action);
  if (!isIgnoredByProgram(action)) action = unixIoIgnoreInPlace;
  unixIoKernelAction(signal, &action, nullptr);
}

int UnixIoExecve(const char* name, const char** argv, const char** envp) {
  return execve(name, const_cast<char* const*>(argv), const_cast<char* const*>(envp));
}

int UnixIoExecv(const char* name, const char** argv) {
  return execv(name, const_cast<char* const*>(argv));
}

std::FILE* UnixIoFopen(const char* name, const char* mode) {
  // The C library's own "e" closes it on exec from the start, wherever it stands behind the first
  // letter.
  char closedByExec[32];
  std::snprintf(closedByExec, sizeof closedByExec, "%.1se%s", mode,
                mode[0] != '\0' ? mode + 1 : "");
  errno = 0;
  return os.fopen64(name, closedByExec);
}

BoolType UnixIoStat(const char* name, struct stat* result, char* errText, std::size_t errTextSize) {
  return statOutcome(unixIoRetry([&] { return os.stat(name, result); }), errText, errTextSize);
}

BoolType UnixIoStat64(const char* name, struct stat64* result, char* errText,
                      std::size_t errTextSize) {
  return statOutcome(unixIoRetry([&] { return os.stat64(name, result); }), errText, errTextSize);
}

BoolType UnixIoFstat(int fd, struct stat* result, char* errText, std::size_t errTextSize) {
  return statOutcome(unixIoRetry([&] { return os.fstat(fd, result); }), errText, errTextSize);
}

BoolType UnixIoFstat64(int fd, struct stat64* result, char* errText, std::size_t errTextSize) {
  return statOutcome(unixIoRetry([&] { return os.fstat64(fd, result); }), errText, errTextSize);
}

int UnixIoFgetc(std::FILE* inFile) {
  const int before = errno;
  for (;;) {
    errno = 0;
    // Asking whether the stream is a terminal costs a system call, so that waits until nothing
    // comes, or errno depends on it. Before that its buffering tells: the C library buffers
    // terminals by lines.
    const int character = std::fgetc(inFile);
    if (character != EOF) {
      if (__flbf(inFile) == 0 || (before != 0 && isatty(fileno(inFile)) == 0)) errno = before;
      return character;
    }

    const int reason = errno;
    const bool terminal = isatty(fileno(inFile)) == 1;
    errno = !terminal && reason == 0 ? before : reason;
    if (!terminal || (reason != EINTR && reason != ERESTART)) return -1;
    if (HostGetSigTerm(__FILE__, __LINE__) != 0) return -1;
    if (cancelBlockingCall != 0) {
      cancelBlockingCall = 0;
      return -1;
    }
    std::clearerr(inFile);
  }
}

BoolType UnixIoFgets(char* result, std::size_t resultSize, std::FILE* inFile) {
  clearErrno();
  if (resultSize - 2 > INT_MAX - 2U) {
    if (resultSize == 1) *result = '\0';
    if (resultSize <= 1) return 0;  // no room to read; fgets would call it a success
    resultSize = INT_MAX;
  }
  const auto size = static_cast<int>(resultSize);
  // What fgets itself finds out for each line: without other threads there is nothing to lock.
  if (__libc_single_threaded) return fgets_unlocked(result, size, inFile) != nullptr;
  return std::fgets(result, size, inFile) != nullptr;
}

void UnixIoInterrupt(BoolType v) {
  cancelBlockingCall = v;
}
