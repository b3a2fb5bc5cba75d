// The child between fork and exec. Other threads of the parent are gone, with whatever locks they
// held, and no handler runs: all signals are blocked until the program takes over. The child makes
// async-signal-safe calls alone, and no call of another library that stands in for the C library's;
// what must be asked of anybody comes in the plan.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <povzel/hostfiles.h>
#include <povzel/hostids.h>
#include <povzel/hostsafeprint.h>
#include <povzel/unixio.h>
#include "basics/internal.h"
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

namespace {

constexpr int childFailureStatus = 3;
constexpr int firstClosedDescriptor = 8;
constexpr int lastClosedDescriptor = 15;

[[noreturn]] void endChild() {
  _exit(childFailureStatus);
}

// Ends a box with the reason, and the child.
[[noreturn]] void endChildWithReason(int descriptor, const char* symbol, int error) {
  verSafeCatalogueMessage(descriptor, symbol, "s", ErrnoText(error).text);
  verSafeEndEdge(descriptor);
  endChild();
}

long now() {
  return static_cast<long>(hostTimeOfDay().seconds);
}

// Ends what is said of a failed system call outside any box, and the child.
[[noreturn]] void endChildWithErrorText(int error) {
  char line[sizeof(ErrMsgStrType) + 8];
  hostSafeFormat(line, sizeof line, "     %s\n", ErrnoText(error).text);
  HostSignalSafePrint(line);
  endChild();
}

// Descriptors

int numberIn(const char* digits) {
  int number = 0;
  for (; *digits >= '0' && *digits <= '9'; ++digits) number = number * 10 + (*digits - '0');
  return number;
}

// Calls `visit` for each open descriptor. Returns false if /proc does not tell them all.
template <typename Visit>
bool forEachDescriptor(Visit visit) {
  const int directory = os.open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (directory < 0) return false;
  alignas(dirent64) char entries[4096];
  long size;
  while ((size = syscall(SYS_getdents64, directory, entries, sizeof entries)) > 0) {
    for (long at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries + at);
      at += entry->d_reclen;
      const int descriptor = numberIn(entry->d_name);
      if (descriptor != directory) visit(descriptor);
    }
  }
  os.close(directory);
  return size == 0;
}

// Those that exec would close are closed now: somebody may wait for their last writer, and this
// child may wait itself before it comes to exec.
void closeInherited(const ForkPlan& plan) {
  const auto isNeeded = [&](int descriptor) {
    return descriptor <= STDERR_FILENO || descriptor == plan.pipeWrite;
  };
  const auto closeAcrossExec = [&](int descriptor) {
    if (isNeeded(descriptor)) return;
    const int flags = os.fcntl(descriptor, F_GETFD, 0);
    if (flags != -1 && (flags & FD_CLOEXEC) != 0) os.close(descriptor);
  };
  for (int descriptor = firstClosedDescriptor; descriptor <= lastClosedDescriptor; ++descriptor) {
    if (!isNeeded(descriptor)) os.close(descriptor);
  }
  if (forEachDescriptor(closeAcrossExec)) return;
  rlimit limit{hostMostDescriptors, hostMostDescriptors};
  os.getrlimit(RLIMIT_NOFILE, &limit);
  const int end = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, hostMostDescriptors));
  for (int descriptor = 0; descriptor < end; ++descriptor) closeAcrossExec(descriptor);
}

void openNullInput() {
  os.close(STDIN_FILENO);
  const int input = os.open("/dev/null", O_RDONLY, 0);
  if (input < 0 || input == STDIN_FILENO) return;
  os.dup2(input, STDIN_FILENO);
  os.close(input);
}

// Identity and place

[[noreturn]] void endChildAfterIdentity(const char* symbol, int error) {
  verSafeLeadingEdge(STDERR_FILENO);
  verSafeCatalogueMessage(STDERR_FILENO, symbol, "d", static_cast<long>(getpid()));
  endChildWithReason(STDERR_FILENO, "host.fork4", error);
}

// Becomes the daemon's user.
void takeIdentity(const ForkPlan& plan) {
  if (plan.setsGroups &&
      os.setThreadGroups(static_cast<std::size_t>(plan.groupCount), plan.groups) != 0) {
    endChildAfterIdentity("host.fork13", errno);
  }
  if (os.setThreadGid(plan.gid) != 0) endChildAfterIdentity("host.fork5", errno);
  if (os.setThreadUid(plan.uid) != 0) endChildAfterIdentity("host.fork6", errno);
}

// Expands a file name where it stands. One that does not fit stays, to be reported; errno says why.
bool expandFileName(HostFnameStrType& name) {
  HostFnameStrType expanded;
  if (!hostExpandFileName(name, expanded)) return false;
  std::memcpy(name, expanded, std::strlen(expanded) + 1);
  return true;
}

void enterWorkingDirectory(const ForkPlan& plan) {
  HostFnameStrType directory;
  bool fits = true;
  if (plan.workingDir != nullptr &&
      utlExpandLogTemplate(plan.workingDir, *plan.names, directory, sizeof directory)) {
    fits = expandFileName(directory);
  } else {
    std::memcpy(directory, plan.homeDirectory, sizeof directory);
  }
  if (fits && os.chdir(directory) == 0) return;
  const int reason = errno;
  verSafeCatalogueMessage(STDERR_FILENO, "host.fork11", "s", directory);
  endChildWithReason(STDERR_FILENO, "host.fork4", reason);
}

// The log

int openLog(const ForkPlan& plan, HostFnameStrType& name) {
  if (!utlExpandLogTemplate(plan.logName, *plan.names, name, sizeof name)) {
    hostSafeFormat(name, sizeof name, "lanvex%lu.log", plan.names->processId);
  }
  int log = -1;
  if (expandFileName(name)) {
    const RealIds ids(!plan.byDaemon);
    // The program inherits the right to write beyond 2 GiB, too.
    if (!ids.refused()) log = HostOpen64(name, O_WRONLY | O_CREAT | O_APPEND, 0644);
  }
  if (log >= 0) return log;
  const int reason = errno;
  verSafeLeadingEdge(STDERR_FILENO);
  verSafeCatalogueMessage(STDERR_FILENO, "host.fork7", "ds", static_cast<long>(getpid()), name);
  endChildWithReason(STDERR_FILENO, "host.fork13", reason);
}

void putLogOnto(int descriptor, int log) {
  if (os.dup2(log, descriptor) < 0) {
    const int reason = errno;
    hostSafePrint("dup2(%d,%d) failed, errno = %d, at time = %ld\n", log, descriptor, reason,
                  now());
    endChildWithErrorText(reason);
  }
  unixIoSetCloseOnExec(descriptor, false);
}

void writeLogHeader(int log, const ForkPlan& plan) {
  verSafeLeadingEdge(log);
  ErrMsgStrType title;
  ErrMsgSymToText(plan.byDaemon ? "host.fork9a" : "host.fork9b", title, sizeof title, nullptr);
  verSafeCenteredMessage(log, title);
  verSafeMessage(log, "");
  if (plan.clientHost != nullptr) {
    verSafeCatalogueMessage(log, "host.forkClient", "s", plan.clientHost);
  }
  verSafeInfo(log, *plan.facts);
  verSafeCatalogueMessage(log, "host.fork10", "s", plan.cmd);
  verSafeEndEdge(log);
}

// Client mode: output and errors go to the log, which begins with a header.
void startLog(const ForkPlan& plan, ChildEnvironment& environment) {
  HostFnameStrType name;
  const int log = openLog(plan, name);
  environment.setChildLog(name);
  putLogOnto(STDOUT_FILENO, log);
  putLogOnto(STDERR_FILENO, log);
  openNullInput();
  writeLogHeader(STDOUT_FILENO, plan);
}

// Server mode: output and errors stay where they are, and the ready pipe is handed over.
void keepOutput(const ForkPlan& plan) {
  unixIoSetCloseOnExec(plan.pipeWrite, false);
  unixIoSetCloseOnExec(STDOUT_FILENO, false);
  unixIoSetCloseOnExec(STDERR_FILENO, false);
  openNullInput();
}

// Becomes the program, which finds the signals as those of a process that was just started, but
// SIGINT ignored. Returns only when that fails.
void execute(const ForkPlan& plan) {
  // The header's own: it may have lost the reader of a log that is a pipe.
  for (const int signal : {SIGPIPE, SIGXFSZ}) unixIoDropPending(signal);
  unixIoDropHandlers();
  const UnixIoKernelAction ignored{SIG_IGN, 0, nullptr, {}};
  unixIoKernelAction(SIGINT, &ignored, nullptr);
  const sigset_t none = unixIoSignals();
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  UnixIoExecv(plan.program(), plan.argv);
}

}  // namespace

void hostRunForkedChild(const ForkPlan& plan, ChildEnvironment& environment) {
  const sigset_t all = unixIoAllSignalsBut();
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  environment.enter();
  plan.names->processId = static_cast<unsigned long>(getpid());
  if (plan.isServer) os.close(plan.pipeRead);
  closeInherited(plan);
  if (os.setsid() < 0) {
    const int reason = errno;
    hostSafePrint("setsid() failure, errno = %d,  at time = %ld\n", reason, now());
    endChildWithErrorText(reason);
  }
  if (plan.byDaemon) takeIdentity(plan);
  enterWorkingDirectory(plan);
  if (plan.isServer) {
    keepOutput(plan);
  } else {
    startLog(plan, environment);
  }
  execute(plan);

  const int reason = errno;
  const int log = plan.isServer ? STDERR_FILENO : STDOUT_FILENO;
  verSafeLeadingEdge(log);
  verSafeCatalogueMessage(log, "host.fork12", nullptr);
  endChildWithReason(log, "host.fork4", reason);
}
