#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <povzel/errmsg.h>
#include <povzel/hostenv.h>
#include <povzel/hostprocess.h>
#include <povzel/hostusers.h>
#include <povzel/unixerr.h>
#include <povzel/utlheap.h>
#include "basics/internal.h"
#include "internal.h"
#include "messages/internal.h"
#include "services/internal.h"

namespace {

constexpr char defaultLogName[] = "%N%P%M.log";
constexpr char blanks[] = " \t\n";

constexpr char childLogVariable[] = "TARVOLIN_CHILD_LOG=";
constexpr char reconnectVariable[] = "TARVOLIN_NRS_ALL";
constexpr std::size_t reconnectSize = 2048;
constexpr char directoryTag[] = "#dir";

// The caller's buffer for the reason of a failure.
struct FailureText {
  char* text;
  ArraySizeType size;

  template <typename... Arguments>
  bool fail(const char* symbol, const char* kinds, Arguments... arguments) const {
    if (text != nullptr && size > 0) ErrMsgSymToText(symbol, text, size, kinds, arguments...);
    return false;
  }
  bool failedCall(const char* call, int error) const {
    return fail("host.syscallfailed", "ss", call, ErrnoText(error).text);
  }
  bool failedAllocation() const { return failedCall("malloc", ENOMEM); }
};

// Reads the user's groups here, because the child must not search the group database: another
// thread may have been in it when the process forked. Returns false without memory for them.
bool readGroups(ForkPlan& plan) {
  for (int room = 64;; room *= 2) {
    const std::size_t size = static_cast<std::size_t>(room) * sizeof(gid_t);
    plan.groups = static_cast<gid_t*>(UtlMalloc_(size, __LINE__));
    if (plan.groups == nullptr) return false;
    plan.groupCount = room;
    if (os.getgrouplist(plan.userName, plan.gid, plan.groups, &plan.groupCount) >= 0) return true;
    UtlFree(plan.groups);
    plan.groups = nullptr;
  }
}

bool planUser(ForkPlan& plan, const char* user, uid_t parentUid, const FailureText& failure) {
  const UserEntry entry = hostUserNamed(user);
  if (!entry) return failure.fail("host.fork1", "s", ErrnoText(entry.error()).text);
  if (parentUid != 0 && parentUid != entry->pw_uid) return failure.fail("host.fork1a", "s", user);
  plan.byDaemon = true;
  std::snprintf(plan.userName, sizeof plan.userName, "%s", entry->pw_name);
  std::snprintf(plan.homeDirectory, sizeof plan.homeDirectory, "%s", entry->pw_dir);
  plan.uid = entry->pw_uid;
  plan.gid = entry->pw_gid;
  plan.setsGroups = parentUid == 0 && plan.uid != 0;
  return !plan.setsGroups || readGroups(plan) || failure.failedAllocation();
}

std::size_t countWords(const char* text) {
  std::size_t count = 0;
  for (text += std::strspn(text, blanks); *text != '\0'; text += std::strspn(text, blanks)) {
    text += std::strcspn(text, blanks);
    ++count;
  }
  return count;
}

// Splits the command at blanks, tabs and new lines.
bool splitCommand(ForkPlan& plan) {
  const std::size_t count = countWords(plan.cmd);
  const std::size_t size = std::strlen(plan.cmd) + 1;
  plan.argv = static_cast<const char**>(UtlMalloc_((count + 1) * sizeof(char*), __LINE__));
  plan.words = static_cast<char*>(UtlMalloc_(size, __LINE__));
  if (plan.argv == nullptr || plan.words == nullptr) return false;
  std::memcpy(plan.words, plan.cmd, size);
  char* word = plan.words;
  for (std::size_t index = 0; index < count; ++index) {
    word += std::strspn(word, blanks);
    plan.argv[index] = word;
    word += std::strcspn(word, blanks);
    if (*word != '\0') *word++ = '\0';
  }
  plan.argv[count] = nullptr;
  return true;
}

// Finds out what stands for the directives in the names of log and working directory, and this
// user's home if no working directory comes of it whatever the child's process id is.
void planNames(ForkPlan& plan, UtlLogNameParts& names) {
  names.command = plan.program();
  names.processId = ULONG_MAX;
  names.findHost = hostFindHostname;
  if (plan.byDaemon) {
    names.user = plan.userName;
    names.home = plan.homeDirectory;
  }
  if (!plan.isServer) utlFindLogNameParts(plan.logName, names);
  HostFnameStrType directory;
  if (plan.workingDir != nullptr) {
    utlFindLogNameParts(plan.workingDir, names);
    if (utlExpandLogTemplate(plan.workingDir, names, directory, sizeof directory)) return;
  }
  if (!plan.byDaemon) HostGetHomeDir(HostGetUserName(), plan.homeDirectory);
}

// The log's header names the users whose ids the child will have.
void planHeader(const ForkPlan& plan, uid_t parentUid, VerInfoFacts& facts) {
  if (plan.isServer) return;
  const bool setsRealId = plan.byDaemon && parentUid == 0;
  verFindInfo(facts, setsRealId ? plan.uid : getuid(), plan.byDaemon ? plan.uid : parentUid);
}

// Adds the working directory to the value of TARVOLIN_NRS_ALL (2048 bytes), before a '!' at its
// end, unless it names a directory already or has no room.
void addWorkingDirectory(char* value, const char* directory) {
  if (std::strstr(value, directoryTag) != nullptr && std::strstr(value, directory) != nullptr) {
    return;
  }
  std::size_t length = std::strlen(value);
  if (length + std::strlen(directory) + 5 >= reconnectSize) return;
  const bool endsInMark = length > 0 && value[length - 1] == '!';
  if (endsInMark) --length;
  std::snprintf(value + length, reconnectSize - length, "%s:%s%s", directoryTag, directory,
                endsInMark ? "!" : "");
}

bool planEnvironment(const ForkPlan& plan, ChildEnvironment& environment) {
  if (plan.isServer) {
    char descriptor[16];
    std::snprintf(descriptor, sizeof descriptor, "%d", plan.pipeWrite);
    return environment.set("TARVOLIN_SERVER_PIPE", descriptor);
  }
  if (!plan.byDaemon) return environment.isComplete();
  char reconnect[reconnectSize] = "";
  HostGetEnv(reconnectVariable, reconnect, sizeof reconnect);
  if (plan.workingDir != nullptr) addWorkingDirectory(reconnect, plan.workingDir);
  return environment.set("HOME", plan.homeDirectory) && environment.set("USER", plan.userName) &&
         environment.set("LOGNAME", plan.userName) &&
         environment.set("PATH", "/bin:/usr/bin:/usr/ucb") &&
         environment.set(reconnectVariable, reconnect);
}

// Opens the pipe for the server's byte. What the server prints must not pass for the byte.
bool openReadyPipe(ForkPlan& plan) {
  int ends[2];
  if (os.pipe2(ends, O_CLOEXEC) != 0) return false;
  plan.pipeRead = ends[0];
  plan.pipeWrite = unixIoAboveStandard(ends[1]);
  if (plan.pipeWrite >= 0) return true;
  const ErrnoKeeper keeper;
  os.close(plan.pipeRead);
  return false;
}

void closeReadyPipe(const ForkPlan& plan) {
  if (!plan.isServer) return;
  os.close(plan.pipeRead);
  os.close(plan.pipeWrite);
}

// Waits for the server's byte. The caller hears of the child in any case: it is there.
bool awaitServer(const ForkPlan& plan, pid_t child, PidType* thePid, const FailureText& failure) {
  os.close(plan.pipeWrite);
  char ready;
  const ssize_t received = unixIoRetry([&] { return os.read(plan.pipeRead, &ready, 1); });
  const int readError = errno;
  os.close(plan.pipeRead);
  *thePid = child;
  if (received < 0) return failure.failedCall("read", readError);
  if (received == 0) return failure.fail("host.serverfailed", nullptr);
  return true;
}

// No handler of this process runs in the child, but for faults of the application's fork handlers.
//
// It is a copy. One that shared the memory would start faster, but it would hold up the caller for
// as long as the child waits for its folder or for a log that is a pipe; it would have no fork
// handlers; the other threads, which go on, would find the child's environment in theirs; and
// before Linux 5.16 a core dump of the child ended every process that shares the memory.
pid_t forkChild(const ForkPlan& plan, ChildEnvironment& environment) {
  const SignalMask mask(SIG_BLOCK, unixIoAllSignalsButFaults());
  const pid_t child = unixIoRetry([] { return os.fork(); });
  if (child == 0) hostRunForkedChild(plan, environment);
  return child;
}

// Forks. A program gets its whole environment or is not started: without memory for it this fails
// like a system call.
bool startChild(ForkPlan& plan, PidType* thePid, const FailureText& failure) {
  std::fflush(stderr);
  std::fflush(stdout);
  errMsgRefresh();  // for the child's texts
  if (plan.isServer && !openReadyPipe(plan)) return failure.failedCall("pipe", errno);
  ChildEnvironment environment;
  if (!planEnvironment(plan, environment)) {
    closeReadyPipe(plan);
    return failure.failedAllocation();
  }

  hostReapUnheardChildren();
  const pid_t child = forkChild(plan, environment);
  if (child < 0) {
    const int forkError = errno;
    closeReadyPipe(plan);
    return failure.failedCall("fork", forkError);
  }
  hostRememberChild(child);
  if (plan.isServer) return awaitServer(plan, child, thePid, failure);
  *thePid = child;
  return true;
}

// Whatever asks a database, the resolver, the time zone, the heap or a stream is done here: the
// child must not.
bool planChild(ForkPlan& plan, const char* user, UtlLogNameParts& names, VerInfoFacts& facts,
               const FailureText& failure) {
  const uid_t parentUid = geteuid();
  if (user != nullptr && !planUser(plan, user, parentUid, failure)) return false;
  if (!splitCommand(plan)) return failure.failedAllocation();
  planNames(plan, names);
  planHeader(plan, parentUid, facts);
  return true;
}

BoolType forkProcess(ForkPlan plan, const char* user, PidType* thePid, const FailureText& failure) {
  const CancellationWaits cancellationWaits;
  PidType ignored;
  if (thePid == nullptr) thePid = &ignored;
  plan.pipeRead = -1;
  plan.pipeWrite = -1;
  UtlLogNameParts names;
  VerInfoFacts facts;
  plan.names = &names;
  plan.facts = &facts;
  const bool started =
      planChild(plan, user, names, facts, failure) && startChild(plan, thePid, failure);
  for (const void* block : std::initializer_list<const void*>{plan.groups, plan.argv, plan.words}) {
    if (block != nullptr) UtlFree(block);
  }
  return started;
}

}  // namespace

ChildEnvironment::ChildEnvironment() {
  std::size_t present = 0;
  char** const all = environ;
  while (all != nullptr && all[present] != nullptr) ++present;
  const std::size_t size = (present + spare + 1) * sizeof(char*);
  entries_ = static_cast<char**>(UtlMalloc_(size, __LINE__));
  childLog_ =
      static_cast<char*>(UtlMalloc_(sizeof childLogVariable + sizeof(HostFnameStrType), __LINE__));
  if (!isComplete()) return;
  std::memset(entries_, 0, size);
  for (; count_ < present && all[count_] != nullptr; ++count_) entries_[count_] = all[count_];
}

ChildEnvironment::~ChildEnvironment() {
  for (std::size_t index = 0; index < ownedCount_; ++index) UtlFree(owned_[index]);
  if (entries_ != nullptr) UtlFree(entries_);
  if (childLog_ != nullptr) UtlFree(childLog_);
}

bool ChildEnvironment::set(const char* name, const char* value) {
  if (!isComplete() || ownedCount_ == ownedLimit) return false;
  const std::size_t nameLength = std::strlen(name);
  const std::size_t size = nameLength + std::strlen(value) + 2;
  char* text = static_cast<char*>(UtlMalloc_(size, __LINE__));
  if (text == nullptr) return false;
  std::snprintf(text, size, "%s=%s", name, value);
  owned_[ownedCount_++] = text;
  put(text, nameLength);
  return true;
}

void ChildEnvironment::put(char* text, std::size_t nameLength) {
  for (std::size_t index = 0; index < count_; ++index) {
    if (std::strncmp(entries_[index], text, nameLength + 1) != 0) continue;
    entries_[index] = text;
    return;
  }
  entries_[count_++] = text;
}

void ChildEnvironment::setChildLog(const HostFnameStrType& name) {
  std::memcpy(childLog_, childLogVariable, sizeof childLogVariable - 1);
  std::memcpy(childLog_ + sizeof childLogVariable - 1, name, std::strlen(name) + 1);
  put(childLog_, sizeof childLogVariable - 2);
}

void ChildEnvironment::enter() {
  environ = entries_;
}

BoolType HostFork(const char* cmd, const char* user, long /*unused1*/, char* msg,
                  ArraySizeType msgLength, const char* clientHost, const char* logName,
                  const char* workingDir, PidType* thePid) {
  ForkPlan plan{};
  plan.cmd = cmd;
  plan.clientHost = clientHost;
  plan.logName = logName != nullptr ? logName : defaultLogName;
  plan.workingDir = workingDir;
  return forkProcess(plan, user, thePid, {msg, msgLength});
}

BoolType HostForkServer(const char* cmd, char* msg, ArraySizeType msgLength, PidType* thePid) {
  if (thePid != nullptr) *thePid = 0;
  ForkPlan plan{};
  plan.cmd = cmd;
  plan.workingDir = ".";
  plan.isServer = true;
  return forkProcess(plan, nullptr, thePid, {msg, msgLength});
}
