// What the sources of the host layer share.
//
//   start-up      hostinit.cpp, hostlimits.cpp, hostenv.cpp, hostsystem.cpp
//   signals       hostsignals.cpp
//   faults        hostfault.cpp (the handler), hostfaultinstall.cpp (installation, chaining),
//                 hostfaultexit.cpp (the ends, switches, callbacks), hostfaultreport.cpp (the
//                 report of a signal that nobody handles), hostpages.cpp (guarded pages),
//                 hostsignalstack.cpp (stacks for handlers), hostbackstop.cpp (ends that hang),
//                 hostsafeprint.cpp (printing)
//   fatal paths   hostdebug.cpp, hostcore.cpp, hoststack.cpp
//   processes     hostprocess.cpp, hostspawn.cpp, hostfork.cpp (before the fork),
//                 hostforkchild.cpp (behind it), hostchildren.cpp (after their end)
//   files         hostfiles.cpp, hostfileio.cpp (descriptors), hostdirectory.cpp, hostfname.cpp
//   users         hostids.cpp, hostusers.cpp, hostlogin.cpp, hostpassword.cpp, hostterminal.cpp
//   time, text    hosttime.cpp, hoststatistics.cpp, hoststrings.cpp
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <povzel/hostfault.h>
#include <povzel/hostids.h>
#include <povzel/hostsystem.h>
#include <povzel/povzeltypes.h>
#include <povzel/utlheap.h>
#include "system/internal.h"

// State that HostInit fills (hostinit.cpp), and frames of file operations

// Filled by HostInit (hostinit.cpp)
extern BoolType hostIsInitialized;
extern utsname unameData;  // empty names when uname failed
extern HostSystemInfoSType systemInfoData;
extern HostFnameStrType autoMountPrefix;
extern char* childLogPtr;                 // heap copy of TARVOLIN_CHILD_LOG, or null
extern long long initialCpuClockReading;  // CPU milliseconds used before HostInit
extern double sc_clk_tck;                 // clock ticks in a second
extern timespec beginTp;                  // the clock that is never set, when HostInit ran

// File names (hostfname.cpp)

// HostExpandFileName for an operation on the file itself; with `disableSoftLinkExpansion` the name
// keeps its symbolic links, and directories get no "/". Returns false with ENAMETOOLONG in errno
// when the name, or its variable's value, does not fit: a cut name is that of another file.
bool hostExpandFileName(const char* name, HostFnameStrType& expanded,
                        bool disableSoftLinkExpansion = false);

// Files (hostfiles.cpp)

// HostFileExist; leaves the name of the file that it looked at in `expanded`.
bool hostFileExists(const char* fileName, HostFnameStrType& expanded);

// Descriptors that are looked at one by one where the system does not tell which are open.
constexpr int hostMostDescriptors = 65536;

// Ids (hostids.cpp)

// Whether the effective or the saved ids are others than the real ones. Signal-safe.
bool hostHasSetIds();

// Makes the real ids the calling thread's only ones, by bare system calls: those of the C library
// would wait for all other threads. Returns false with errno set where the system refuses.
// Signal-safe.
bool hostGiveUpThreadIds();

// The real ids are this thread's effective ones while this lives, if it is told so; those of other
// threads stay as they are. Keeps errno at the end.
class RealIds {
 public:
  // Of a user or a group.
  struct Ids {
    unsigned int real, effective, saved;
  };

  explicit RealIds(BoolType wanted);
  ~RealIds();
  RealIds(const RealIds&) = delete;
  RealIds& operator=(const RealIds&) = delete;

  // Whether the real ids are others than those in effect.
  static bool areOthers() { return geteuid() != getuid() || getegid() != getgid(); }

  // Whether the system has refused the change, or would refuse to take it back; then errno says
  // so. Nothing may be done for the user in that case: it would be done with rights that he does
  // not have.
  bool refused() const {
    if (refused_) errno = EPERM;
    return refused_;
  }

 private:
  bool switched_;
  bool refused_ = false;
  Ids user_;
  Ids group_;
};

// What is found out once

// Keeps a heap copy of the `count` values at `found` for the life of the process in `kept`, an
// atomic pointer. Of threads that find it out at the same time the first one's is kept, and all get
// that; null without memory.
template <typename Kept, typename Value>
Value* hostKeepFirst(Kept& kept, const Value* found, std::size_t count = 1) {
  const std::size_t size = count * sizeof(Value);
  auto* copy = static_cast<Value*>(UtlMalloc_(size, __LINE__));
  if (copy == nullptr) return kept.load();
  std::memcpy(copy, found, size);
  Value* first = nullptr;
  if (kept.compare_exchange_strong(first, copy)) return copy;
  UtlFree(copy);
  return first;
}

// The system (hostsystem.cpp)

// What HostGetHostname has once found, or else the name that the system has for itself; null if
// that is not known either. Does not ask the resolver. Signal-safe.
const char* hostKnownHostname();

// HostGetHostname, which says nothing on standard output when it fails.
BoolType hostFindHostname(char* nameBuf, ArraySizeType bufLen);

// Users

// An entry of one of the system's databases, in memory of its own: what the C library's static
// records hold is whatever any thread asked for last. The memory is wiped at the end, because a
// password's hash may be in it.
template <typename Record>
class DatabaseEntry {
 public:
  // Looks it up by `ask(record, buffer, size, &found)`, one of the C library's calls that end in
  // _r: they return an errno value, ERANGE for a buffer that is too small.
  template <typename Ask>
  explicit DatabaseEntry(Ask ask) {
    do {
      error_ = ask(&record_, buffer_, size_, &found_);
    } while (error_ == ERANGE && grow());
  }
  ~DatabaseEntry() { discard(); }
  DatabaseEntry(const DatabaseEntry&) = delete;
  DatabaseEntry& operator=(const DatabaseEntry&) = delete;

  explicit operator bool() const { return found_ != nullptr; }
  const Record* operator->() const { return found_; }

  // Why there is no entry, an errno value; 0 if the database just has none.
  int error() const { return error_; }

 private:
  static constexpr std::size_t largestSize = 1 << 20;

  bool grow() {
    found_ = nullptr;
    if (size_ >= largestSize) return false;
    auto* larger = static_cast<char*>(UtlMalloc_(size_ * 4, __LINE__));
    if (larger == nullptr) {
      error_ = ENOMEM;
      return false;
    }
    discard();
    buffer_ = larger;
    size_ *= 4;
    return true;
  }

  void discard() {
    explicit_bzero(buffer_, size_);
    if (buffer_ != usual_) UtlFree(buffer_);
  }

  Record record_;
  Record* found_ = nullptr;
  int error_ = 0;
  char usual_[1024];
  char* buffer_ = usual_;
  std::size_t size_ = sizeof usual_;
};

using UserEntry = DatabaseEntry<passwd>;

inline UserEntry hostUserNamed(const char* name) {
  return UserEntry([name](auto... place) { return os.getpwnam_r(name, place...); });
}

inline UserEntry hostUserWithId(uid_t uid) {
  return UserEntry([uid](auto... place) { return os.getpwuid_r(uid, place...); });
}

inline constexpr char hostUnknownUser[] = "unknown user";

// Time (hosttime.cpp)

// The CPU time that the process has used, in milliseconds; -1 when the system does not say.
long long hostCpuMilliseconds();

// The time of day, also from 2038 on; zeros when it cannot be read.
struct TimeOfDay {
  long long seconds;
  long microseconds;
};
TimeOfDay hostTimeOfDay();

// Passwords (hostpassword.cpp)

using HostCryptTextType = char[256];

// The system's crypt_r, null if there is none, and the size of the record that it works on.
struct HostCrypt {
  char* (*hash)(const char* password, const char* salt, void* record);
  std::size_t recordSize;
};

// Finds it in libcrypt.so.1 or .so.2. `said` becomes the library that it is in, or why there is
// none.
HostCrypt hostFindCrypt(HostCryptTextType& said);

// Signals (hostsignals.cpp)

// Unblocks every signal of the calling thread, whatever HostDisableInterrupts knows of them.
void hostUnblockInterrupts();

// Forgets the action that HostStartProfTimer replaced.
void hostForgetProfTimer();

// Printing from signal handlers (hostsafeprint.cpp)

// Every line that a handler prints fits in one of these.
using SafeLine = char[256];

// Formats into `buffer` (`size` bytes, at least 1), cut and terminated. Knows %d, %ld, %u, %lu,
// %x, %p, %s and %%, all without flags or widths; any other directive is copied. Signal-safe.
__attribute__((format(printf, 3, 4))) void hostSafeFormat(char* buffer, std::size_t size,
                                                          const char* format, ...);
void hostSafeFormatList(char* buffer, std::size_t size, const char* format, std::va_list arguments);

// Formats a line of at most 255 characters and prints it with HostSignalSafePrint. Signal-safe.
__attribute__((format(printf, 1, 2))) void hostSafePrint(const char* format, ...);

// The descriptor of standard output or error, for what is printed past the stream. What the stream
// holds is written first, unless another thread has its lock, or the end of the process, in the
// fault handler, has interrupted a thread that may be at work in it: then it comes at the exit.
int hostPast(FILE* stream);

// Formats a line as hostSafeFormat does, which may have two file names in it, and writes it to
// hostPast(stream).
__attribute__((format(printf, 2, 3))) void hostPrintPast(FILE* stream, const char* format, ...);

// Faults

// A signal as the handler received it.
struct SignalEvent {
  int signal;
  siginfo_t* info;      // null when the handler's argument was not usable
  siginfo_t* received;  // that argument, for the handlers that are called with it
  ucontext_t* context;
  bool handedBack = false;  // by the earlier handler, which is not called again

  // A memory access that faulted.
  bool isFaultSignal() const { return signal == SIGSEGV || signal == SIGBUS; }
  // One that the hardware raises, or the program's own abort.
  bool isHardwareSignal() const { return isFaultSignal() || signal == SIGILL || signal == SIGABRT; }
  // Sent by a process or by the program itself, not raised by the hardware or the kernel.
  bool wasSent() const { return info != nullptr && info->si_code < 1; }
};

// Texts and reports (hostfaultreport.cpp). Signal-safe.
const char* hostSignalName(int signal);
const char* hostSiCodeText(const siginfo_t* info);
long hostHandlerTime();  // seconds since the epoch
// Prints the whole report, a line at a time.
void hostReportUnhandledSignal(const SignalEvent& event);
// The instruction at which the signal arrived, or null when the context is not known.
const void* hostProgramCounter(const ucontext_t* context);

// Earlier handlers (hostfaultinstall.cpp)

// Whether HostInstallFaultHandler has installed the handler for the signal, whatever its action is
// by now.
bool hostHandlerWasInstalled(int signal);

// Forgets every remembered handler without putting it back.
void hostForgetOldHandlers();

// Whether the signal interrupted the C library, or was raised in it. Signal-safe.
bool hostIsInCLibrary(const SignalEvent& event);

// Hands the signal to the handler that was there before, under the mask that it asked for. Returns
// false when there is none, or when the fault is this library's own. Signal-safe but for that
// handler.
bool hostChain(const SignalEvent& event);

// Whether there is such a handler, for hostCallEarlierHandler to call. Signal-safe.
bool hostHasEarlierHandler(const SignalEvent& event);

// Whether hostChain hands the signal to a handler that was installed for the signal stack.
// Signal-safe.
bool hostChainsOnSignalStack(const SignalEvent& event);

// Whether hostChain hands the signal to a handler that it is blocked for. Signal-safe.
bool hostChainBlocksSignal(const SignalEvent& event);

// Calls that handler, if there is one, under the mask in force. Signal-safe but for that handler.
void hostCallEarlierHandler(const SignalEvent& event);

// Ends by a signal, and the application's part in them (hostfaultexit.cpp)

// Puts the switches of the handler back to what they are at start.
void hostResetFaultSwitches();

// End the process with status 1 if HostExitOnFault, or HostExitOnGuardPageAccess, was called.
// Signal-safe.
void hostObeyExitOnFault(int signal);
void hostObeyExitOnGuardPageAccess(const void* address);

// Keeps the application's callbacks; null for none.
void hostSetApplicationCallbacks(HostFaultFuncType* flushFiles, HostFaultFuncType* shutDown);

// Calls `callback` unless it is null or at work in the calling thread (which `running` tells): one
// that fails itself comes back here, and would be called for ever. Another thread waits until it is
// done before it calls it. Signal-safe but for the callback.
void hostCallUnlessRunning(HostFaultFuncType* callback, UtlClaim& running);

// Calls the application's file flusher in that way. Signal-safe but for the callback.
void hostFlushApplicationFiles();

// Calls the application's shutdown callback. Signal-safe but for the callback.
void hostShutDownApplication();

// Whether the calling thread ends the process in the fault handler, or reports a broken guarantee
// there. What it has interrupted may hold any lock, so until the core is there it uses neither the
// streams nor the heap; the application's callbacks do as they please. Signal-safe.
bool hostEndsInHandler();

// Whether another thread carries out an exit. It may wait for this one, which therefore goes on
// where its signal lets it. Signal-safe.
bool hostExitGoesOnElsewhere();

// Makes the calling thread the one that ends the process by a fatal signal, and reports that. Where
// another one ends it already, the first to come reports its signal, and all wait here. A SIGABRT
// that this end itself has raised ends it at once. Signal-safe but for `report`.
using HostReport = void (*)(const SignalEvent& event);
void hostBeginFatalEnd(const SignalEvent& event, HostReport report);

// Reports a signal that was sent while another thread carries out an exit, if it is the first; the
// exit goes on. Signal-safe but for `report`.
void hostReportDuringExit(const SignalEvent& event, HostReport report);

// The calling thread counts as one that ends the process in the handler while this lives. With all
// places taken by other threads it does not. Signal-safe.
class ReportsInHandler {
 public:
  ReportsInHandler();
  ~ReportsInHandler();
  ReportsInHandler(const ReportsInHandler&) = delete;
  ReportsInHandler& operator=(const ReportsInHandler&) = delete;

 private:
  std::atomic<pid_t>* place_ = nullptr;
};

// The signal that began the end may have interrupted the C library at its heap, which the exit
// handlers then find half changed. An abort of its own ends the process with the status that it was
// to end with. Returns in any other case. Signal-safe.
void hostEndInBrokenHeap(const SignalEvent& event);

// Ends the process quietly after SIGTERM or SIGXCPU. Returns only when the application postpones
// the end, or an exit is going on already. Not signal-safe.
void hostTerminate(const SignalEvent& event);

// Ends the process with a report and a core. Returns only when the application postpones the end,
// or another thread carries out an exit already and this one can go on. Not signal-safe.
void hostEndByUnhandledSignal(const SignalEvent& event);

// Ends the process because waiting for its children failed with `error`, an errno value.
// Not signal-safe.
[[noreturn]] void hostEndUnableToReap(int error);

// Ends the process by SIGABRT itself, which would otherwise come back into the handler.
// Signal-safe.
[[noreturn]] void hostAbortProcess();

// The end of a process that hangs (hostbackstop.cpp)

// From now on ends the process with `status` once the calling thread, which carries out its end,
// has stood in one and the same wait for a lock for five seconds: what the signal interrupted holds
// that lock. All that takes longer, sleeps, reads or waits for threads is left in peace. The last
// status given counts. Signal-safe, and keeps errno.
void hostArmBackstop(int status);

// Nobody is watched any more, if it was `thread`: that one has given its end up. Signal-safe, and
// keeps errno.
void hostDisarmBackstop(pid_t thread);

// The process was told to end while `owner` carries out an exit: does the same for that thread and
// status, unless a thread is watched already. Signal-safe, and keeps errno.
void hostWatchExit(pid_t owner, int status);

// A thread waits for the exit of `owner`, which may wait for that one itself: from now on any wait
// of five seconds that is for another thread counts, and the first such `status`. Signal-safe, and
// keeps errno.
void hostWatchExitAwaited(pid_t owner, int status);

// While the calling thread, if it is the one that is watched, waits for another one, that is
// watched in its place. Signal-safe.
class BackstopMoved {
 public:
  explicit BackstopMoved(pid_t to);
  ~BackstopMoved();
  BackstopMoved(const BackstopMoved&) = delete;
  BackstopMoved& operator=(const BackstopMoved&) = delete;

 private:
  pid_t to_;
  bool isMoved_;
};

// Signal stacks (hostsignalstack.cpp)

// Whether an address lies on the signal stack of the thread, or at its end. The kernel's flags tell
// whether there is one, not whether it is in use. Signal-safe.
bool hostIsOnSignalStack(const ucontext_t* context, std::uintptr_t address);

// Calls `handle` with the event: on the stack that the signal interrupted, where this is the signal
// stack and the other one has not overflown. The signal stack may be a few KiB, and what ends a
// process takes more. Further signals may use it meanwhile: the event that `handle` gets is a copy,
// and all is put back behind it. Signal-safe but for `handle`.
void hostOnInterruptedStack(const SignalEvent& event, void (*handle)(const SignalEvent& event));

// Calls `function` on the stack below `top`, with `argument` and with what this one, of the caller,
// is in use from. Signal-safe but for `function`.
extern "C" void hostCallOnStack(void* top, void (*function)(void* argument, char* used),
                                void* argument);

// Guarded pages (hostpages.cpp)

// Frees every slot without touching the pages.
void hostForgetProtectedPages();

// Offers an access at `faultAddr` (null: the address is not known, so every guarded page counts) to
// the handlers of the pages it may concern, in slot order. Returns true when a handler took it and
// its page has been made accessible. Signal-safe but for those handlers.
bool hostHandleGuardPageAccess(char* faultAddr);

// Whether an access at `faultAddr` that faulted is to be tried again, because a page was opened
// since the calling thread last did: the fault may have been on its way before. Signal-safe.
bool hostPageWasOpened(const char* faultAddr);

// Children (hostchildren.cpp)

// Keeps a child that this library has started, just forked, for HostReapOwnChildrenOnly. Without
// memory for it, beyond 64 children at once, it is not known: then only the program waits for it.
void hostRememberChild(pid_t child);

// Forgets those whose statuses were taken: their ids may come to be others'.
void hostForgetFormerChildren();

// Takes the statuses of the library's own children that have ended, where HostReapOwnChildrenOnly
// and the SIGCHLD handler are to do so, but the program has put the signal to its default action
// since.
void hostReapUnheardChildren();

// Takes the statuses of children that have ended or stopped, as the SIGCHLD handler does.
// Signal-safe but for the end of the process when that fails.
void hostReapChildren();

// Stacks (hoststack.cpp)

// Prints the C stack of this process and the interpreter's. Does nothing while another thread, or
// this one further up, is at it already. Signal-safe but for the interpreter's printer.
void hostPrintStacks();

// Fatal paths (hostdebug.cpp)

// Opens a box on standard output that says that `caller` was entered, and when. In the fault
// handler, which ends the process, it is signal-safe.
void hostPrintDebuggerBanner(const char* caller);

// Forgets the fatal-report callback, and that HostCallDebugger has run.
void hostForgetFatalReports();

// Puts the catalogue's text about `error`, an errno value, into `text`. Signal-safe.
void hostErrnoMessage(int error, ErrMsgStrType text);

// Starting processes: worked out before the fork (hostfork.cpp), carried out after it
// (hostforkchild.cpp)

// An environment of the child's own, made before the fork: the C library's environment has a lock
// that another thread may hold at that moment, and the child has no heap.
class ChildEnvironment {
 public:
  ChildEnvironment();  // a copy of this process's, if there is memory for it and the log's name
  ~ChildEnvironment();
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;

  bool isComplete() const { return entries_ != nullptr && childLog_ != nullptr; }

  // Sets `name` to `value`. Returns false, with nothing set, without memory for it or for the copy,
  // or beyond the spare room, which the few that are set never reach.
  bool set(const char* name, const char* value);

  // In the child only, and without a call: make it, complete, the environment of this process; set
  // TARVOLIN_CHILD_LOG.
  void enter();
  void setChildLog(const HostFnameStrType& name);

 private:
  void put(char* text, std::size_t nameLength);

  static constexpr std::size_t spare = 8;
  static constexpr std::size_t ownedLimit = spare - 1;  // and the log's name
  char** entries_;
  std::size_t count_ = 0;
  char* childLog_;
  char* owned_[ownedLimit] = {};
  std::size_t ownedCount_ = 0;
};

struct UtlLogNameParts;
struct VerInfoFacts;

// What to start, and as whom. What takes memory is the heap's, until forkProcess ends.
struct ForkPlan {
  const char* cmd;
  const char* clientHost;  // null: not shown
  const char* logName;
  const char* workingDir;  // null: the home directory
  bool isServer;

  const char** argv;  // the command's words, null-terminated
  char* words;        // where they lie
  // The file to execute; an empty command names none.
  const char* program() const { return argv[0] != nullptr ? argv[0] : ""; }

  UtlLogNameParts* names;     // for log and working directory
  const VerInfoFacts* facts;  // for the log's header

  bool byDaemon;  // the user's ids and environment are taken
  char userName[256];
  HostFnameStrType homeDirectory;  // that user's, or this process's if the child may need it
  uid_t uid;
  gid_t gid;
  bool setsGroups;
  gid_t* groups;
  int groupCount;

  int pipeRead;  // server mode: the ready pipe; -1 otherwise
  int pipeWrite;
};

// Blocks what the fork has left unblocked, and turns this process into the program that the plan
// names, by async-signal-safe calls alone. Never returns.
[[noreturn]] void hostRunForkedChild(const ForkPlan& plan, ChildEnvironment& environment);
