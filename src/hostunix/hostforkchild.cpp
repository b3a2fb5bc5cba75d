// The child between fork and exec. Other threads of the parent are gone, with whatever locks they
// held. The C library makes memory and streams usable again in the child, and the catalogue holds
// its mutex across the fork, so messages, logs and file names may be used here; the environment
// and the group database may not, and what is needed of them comes in the plan. The log's name and
// header ask the user database, the resolver and the time zone, each of which has a lock of its
// own. That one of them was held at the fork is unlikely; a child that waits for it gives up.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/hostfiles.h>
#include <povzel/hostfname.h>
#include <povzel/hostids.h>
#include <povzel/hostsafeprint.h>
#include <povzel/hostusers.h>
#include <povzel/unixerr.h>
#include <povzel/unixio.h>
#include <povzel/utlheap.h>
#include <povzel/utllogname.h>
#include <povzel/vermsg.h>
#include "basics/internal.h"
#include "internal.h"
#include "messages/internal.h"

bool hostIsForkedChild = false;

namespace {

constexpr int childFailureStatus = 3;
constexpr int firstClosedDescriptor = 8;
constexpr int lastClosedDescriptor = 15;
constexpr unsigned preparationSeconds = 300;  // more than a slow resolver or file server needs
constexpr char defaultLogName[] = "%N%P%M.log";
constexpr char blanks[] = " \t\n";

[[noreturn]] void endChild() {
  _exit(childFailureStatus);
}

// Ends the child when its preparation takes too long; the program that it becomes finds SIGALRM as
// the parent had it.
class PreparationLimit {
 public:
  PreparationLimit() { alarm(preparationSeconds); }
  ~PreparationLimit() { alarm(0); }
  PreparationLimit(const PreparationLimit&) = delete;
  PreparationLimit& operator=(const PreparationLimit&) = delete;

 private:
  static void giveUp(int /*sig*/, siginfo_t* /*info*/, void* /*context*/) {
    HostSignalSafePrint("HostFork: the child took too long to prepare itself.\n");
    _exit(childFailureStatus);
  }

  const SignalMask mask_{SIG_UNBLOCK, unixIoSignals(SIGALRM)};
  const SignalAction action_{SIGALRM, giveUp};
};

void errorMessage(FILE* stream, const char* symbol, int error) {
  verCatalogueMessage(stream, symbol, "s", ErrnoText(error).text);
}

// Ends a box with the reason, and the child.
[[noreturn]] void endChildWithReason(int error) {
  errorMessage(stderr, "host.fork4", error);
  VerEndEdge(stderr);
  endChild();
}

// Reports a failed system call outside any box, and ends the child.
[[noreturn]] void endChildAfterCall(const char* call, int error) {
  std::fprintf(stderr, "%s failure, errno = %ld,  at time = %ld\n     %s\n", call,
               static_cast<long>(error), static_cast<long>(hostTimeOfDay().seconds),
               ErrnoText(error).text);
  endChild();
}

void closeInherited(const ForkPlan& plan) {
  for (int descriptor = firstClosedDescriptor; descriptor <= lastClosedDescriptor; ++descriptor) {
    if (descriptor != plan.pipeWrite) os.close(descriptor);
  }
}

std::size_t countWords(const char* text) {
  std::size_t count = 0;
  for (text += std::strspn(text, blanks); *text != '\0'; text += std::strspn(text, blanks)) {
    text += std::strcspn(text, blanks);
    ++count;
  }
  return count;
}

// Splits `cmd` at blanks, tabs and new lines into a null-terminated vector of heap copies.
const char** splitCommand(const char* cmd) {
  const std::size_t count = countWords(cmd);
  auto** argv = static_cast<const char**>(
      UtlMalloc((count + 1) * sizeof(char*), "HostFork (creating an argv)"));
  if (argv == nullptr) endChild();
  for (std::size_t index = 0; index < count; ++index) {
    cmd += std::strspn(cmd, blanks);
    const std::size_t length = std::strcspn(cmd, blanks);
    auto* word = static_cast<char*>(UtlMalloc(length + 1, "HostFork (argv)"));
    if (word == nullptr) endChild();
    std::memcpy(word, cmd, length);
    word[length] = '\0';
    argv[index] = word;
    cmd += length;
  }
  argv[count] = nullptr;
  return argv;
}

// The file to execute; an empty command names none.
const char* programOf(const char** argv) {
  return argv[0] != nullptr ? argv[0] : "";
}

[[noreturn]] void endChildAfterIdentity(const char* symbol, int error) {
  VerLeadingEdge(stderr);
  verCatalogueMessage(stderr, symbol, "d", static_cast<long>(getpid()));
  endChildWithReason(error);
}

// Becomes the daemon's user.
void takeIdentity(const ForkPlan& plan) {
  if (plan.setsGroups &&
      os.setgroups(static_cast<std::size_t>(plan.groupCount), plan.groups) != 0) {
    endChildAfterIdentity("host.fork13", errno);
  }
  if (os.setgid(plan.gid) != 0) endChildAfterIdentity("host.fork5", errno);
  if (os.setuid(plan.uid) != 0) endChildAfterIdentity("host.fork6", errno);
}

bool expandTemplate(const ForkPlan& plan, const char* text, const char* program,
                    HostFnameStrType& result) {
  const char* user = plan.byDaemon ? plan.userName : nullptr;
  const char* home = plan.byDaemon ? plan.homeDirectory : nullptr;
  return UtlExpandLogName(text, result, sizeof result, program, user, home, nullptr, 0) != 0;
}

// Expands a file name where it stands. One that does not fit stays, to be reported; errno says why.
bool expandFileName(HostFnameStrType& name) {
  HostFnameStrType expanded;
  if (!hostExpandFileName(name, expanded)) return false;
  std::memcpy(name, expanded, std::strlen(expanded) + 1);
  return true;
}

void enterWorkingDirectory(const ForkPlan& plan, const char* program) {
  HostFnameStrType directory;
  bool fits = true;
  if (plan.workingDir != nullptr && expandTemplate(plan, plan.workingDir, program, directory)) {
    fits = expandFileName(directory);
  } else if (plan.byDaemon) {
    std::snprintf(directory, sizeof directory, "%s", plan.homeDirectory);
  } else {
    HostGetHomeDir(HostGetUserName(), directory);
  }
  if (fits && os.chdir(directory) == 0) return;
  const int reason = errno;
  verCatalogueMessage(stderr, "host.fork11", "s", directory);
  endChildWithReason(reason);
}

void openNullInput() {
  os.close(STDIN_FILENO);
  const int input = os.open("/dev/null", O_RDONLY, 0);
  if (input < 0 || input == STDIN_FILENO) return;
  os.dup2(input, STDIN_FILENO);
  os.close(input);
}

int openLog(const ForkPlan& plan, const char* program, HostFnameStrType& name) {
  const char* text = plan.logName != nullptr ? plan.logName : defaultLogName;
  if (!expandTemplate(plan, text, program, name)) {
    std::snprintf(name, sizeof name, "lanvex%lu.log", static_cast<unsigned long>(getpid()));
  }
  int log = -1;
  if (expandFileName(name)) {
    const RealIds ids(!plan.byDaemon);
    // The program inherits the right to write beyond 2 GiB, too.
    if (!ids.refused()) log = HostOpen64(name, O_WRONLY | O_CREAT | O_APPEND, 0644);
  }
  if (log >= 0) return log;
  const int reason = errno;
  VerLeadingEdge(stderr);
  verCatalogueMessage(stderr, "host.fork7", "ds", static_cast<long>(getpid()), name);
  errorMessage(stderr, "host.fork13", reason);
  VerEndEdge(stderr);
  endChild();
}

void writeLogHeader(FILE* stream, const ForkPlan& plan) {
  VerLeadingEdge(stream);
  ErrMsgStrType title;
  ErrMsgSymToText(plan.byDaemon ? "host.fork9a" : "host.fork9b", title, sizeof title, nullptr);
  VerCenteredMessage(stream, title);
  VerMessage(stream, "");
  if (plan.clientHost != nullptr)
    verCatalogueMessage(stream, "host.forkClient", "s", plan.clientHost);
  VerInfo(stream, nullptr);
  verCatalogueMessage(stream, "host.fork10", "s", plan.cmd);
  VerEndEdge(stream);
  std::fflush(stream);
}

[[noreturn]] void endChildAfterLogCall(const char* format, int log, int error) {
  char call[64];
  std::snprintf(call, sizeof call, format, log);
  std::fprintf(stderr, "%s failed, errno = %ld, at time = %ld\n     %s\n", call,
               static_cast<long>(error), static_cast<long>(hostTimeOfDay().seconds),
               ErrnoText(error).text);
  endChild();
}

// Client mode: output and errors go to the log, which begins with a header.
FILE* startLog(const ForkPlan& plan, const char* program, ChildEnvironment& environment) {
  HostFnameStrType name;
  const int log = openLog(plan, program, name);
  if (!environment.set("TARVOLIN_CHILD_LOG", name)) endChildAfterCall("malloc()", ENOMEM);
  if (os.dup2(log, STDOUT_FILENO) < 0) endChildAfterLogCall("dup2(%d,1)", log, errno);
  if (os.dup2(log, STDERR_FILENO) < 0) endChildAfterLogCall("dup2(%d,2)", log, errno);
  unixIoSetCloseOnExec(log, true);
  unixIoSetCloseOnExec(STDOUT_FILENO, false);
  unixIoSetCloseOnExec(STDERR_FILENO, false);
  openNullInput();
  FILE* stream = os.fdopen(STDOUT_FILENO, "a");
  if (stream == nullptr) endChildAfterLogCall("fdopen(%d, \"a\")", STDOUT_FILENO, errno);
  writeLogHeader(stream, plan);
  return stream;
}

// Server mode: output and errors stay where they are, and the ready pipe is handed over.
FILE* keepOutput(const ForkPlan& plan) {
  unixIoSetCloseOnExec(plan.pipeWrite, false);
  unixIoSetCloseOnExec(STDOUT_FILENO, false);
  unixIoSetCloseOnExec(STDERR_FILENO, false);
  openNullInput();
  return stderr;
}

// All that comes before exec. Returns the stream that hears of its failure.
FILE* prepareChild(const ForkPlan& plan, ChildEnvironment& environment, const char**& argv) {
  const PreparationLimit limit;
  if (plan.isServer) os.close(plan.pipeRead);
  environment.enter();
  closeInherited(plan);
  ErrMsgReset();
  argv = splitCommand(plan.cmd);
  const char* program = programOf(argv);
  if (os.setsid() < 0) endChildAfterCall("setsid()", errno);
  if (plan.byDaemon) takeIdentity(plan);
  enterWorkingDirectory(plan, program);
  return plan.isServer ? keepOutput(plan) : startLog(plan, program, environment);
}

}  // namespace

void hostRunForkedChild(const ForkPlan& plan, ChildEnvironment& environment) {
  hostIsForkedChild = true;
  const char** argv = nullptr;
  FILE* log = prepareChild(plan, environment, argv);

  UNIXIO_DO_SIGNAL(SIGINT, unixIoIgnoreAction, nullptr);
  UnixIoExecv(programOf(argv), argv);

  const int reason = errno;
  VerLeadingEdge(log);
  verCatalogueMessage(log, "host.fork12", nullptr);
  errorMessage(log, "host.fork4", reason);
  VerEndEdge(log);
  std::fflush(log);
  if (!plan.isServer) std::fclose(log);
  _exit(childFailureStatus);
}
