#include "faults.h"

#include <malloc.h>
#include <sys/mman.h>

#include <new>

#include <povzel/hostdebug.h>
#include <povzel/hostsigterm.h>
#include "basics/fortests.h"
#include "tests.h"

namespace {

#define POVZEL_NAME(name) #name,
constexpr std::string_view names[] = {POVZEL_OS_CALLS(POVZEL_NAME, POVZEL_NAME) "malloc"};
#undef POVZEL_NAME
constexpr int callCount = std::size(names);
constexpr int allocation = callCount - 1;
constexpr int any = -1;
constexpr int none = -1;

// Which call fails next. Children share it, so that theirs can be counted and seen as well.
struct Trap {
  std::atomic<int> left;  // calls that succeed before
  std::atomic<int> struck;
  int error;
  int only;  // the call that counts, or any
  pid_t parent;
  bool inParent;
  bool inChildren;

  bool catches(int call) {
    if (only != any && only != call) return false;
    if (!(getpid() == parent ? inParent : inChildren)) return false;
    if (left.fetch_sub(1) != 0) return false;
    struck = call;
    return true;
  }
};

Trap& trap() {
  static auto* shared = static_cast<Trap*>(
      mmap(nullptr, sizeof(Trap), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return *shared;
}

// The call number `call` of the table, failing when it is caught.
template <int call, typename Result, typename... Arguments>
struct Trapped {
  static inline Result (*real)(Arguments...) = nullptr;

  static Result make(Arguments... arguments) noexcept {
    if (!trap().catches(call)) return real(arguments...);
    constexpr std::string_view name = names[call];
    const int error = trap().error;
    if constexpr (name == "write") {
      if (error == EINTR) return writeHalf(arguments...);
    }
    if (name.starts_with("close") || (name == "waitpid" && error != EINTR)) real(arguments...);
    errno = error;
    if constexpr (name.ends_with("_r") || name == "pthread_create") {
      return error;
    } else if constexpr (name == "fread" || std::is_pointer_v<Result>) {
      return {};
    } else {
      return -1;
    }
  }

  static ssize_t writeHalf(int fd, const void* bytes, std::size_t size) {
    if (size > 1) return real(fd, bytes, size / 2);
    errno = EINTR;
    return -1;
  }
};

template <int call, bool noThrow, typename Result, typename... Arguments>
void layTrap(Result (*&entry)(Arguments...) noexcept(noThrow)) {
  using Call = Trapped<call, Result, Arguments...>;
  Call::real = entry;
  entry = Call::make;
}

void* allocateTrapped(std::size_t length) {
  if (!trap().catches(allocation)) return std::malloc(length);
  errno = ENOMEM;
  return nullptr;
}

constexpr int numberOf(std::string_view name) {
  const auto call = std::ranges::find(names, name) - names;
  if (call == callCount) std::abort();
  return static_cast<int>(call);
}

// All calls lead into the trap while this lives. A fatal path returns meanwhile.
class TrappedCalls {
 public:
  TrappedCalls() {
#define POVZEL_TRAP(name) layTrap<numberOf(#name)>(osCallsForTests.name);
    POVZEL_OS_CALLS(POVZEL_TRAP, POVZEL_TRAP)
#undef POVZEL_TRAP
    utlHeapAllocateForTests = allocateTrapped;
    noHalt = 1;
  }
  ~TrappedCalls() {
    osCallsForTests = kept_;
    utlHeapAllocateForTests = std::malloc;
    noHalt = 0;
  }
  TrappedCalls(TrappedCalls&&) = delete;

  // The next call after `succeed` fails; of those in this process, in its children, or in both.
  void set(int succeed, int error, int only, bool inParent, bool inChildren) const {
    new (&trap()) Trap{succeed, none, error, only, getpid(), inParent, inChildren};
  }

 private:
  const OsCalls kept_ = osCallsForTests;
};

std::string linkOf(const std::string& name) {
  std::error_code ignored;
  return fs::read_symlink(name, ignored);
}

// Lines of the calling thread's status.
std::string statusLines(const std::initializer_list<const char*>& keys) {
  const std::string status = readFile("/proc/thread-self/status");
  std::string lines;
  for (const char* key : keys) {
    const std::size_t line = status.find(key);
    lines += status.substr(line, status.find('\n', line + 1) - line);
  }
  return lines;
}

}  // namespace

std::string threadState() {
  return linkOf("/proc/thread-self/cwd") +
         statusLines({"\nUmask:", "\nUid:", "\nGid:", "\nSigBlk:"});
}

std::string processState() {
  std::string state = threadState() + statusLines({"\nSigIgn:", "\nSigCgt:"});
  for (int fd = 0; fd < 64; ++fd) {
    const std::string file = linkOf("/proc/self/fd/" + std::to_string(fd));
    if (!file.empty()) state += "\nfile " + std::to_string(fd) + " " + file;
  }
  return state + (waitpid(-1, nullptr, WNOHANG) != -1 ? "\na child" : "");
}

namespace {

std::set<std::string> contentOf(const std::string& directory) {
  std::set<std::string> lines;
  if (directory.empty()) return lines;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    const std::string content = entry.is_regular_file() ? readFile(entry.path()) : "";
    lines.insert(entry.path().string() + " " + linkOf(entry.path()) + " " + content);
  }
  return lines;
}

CallNames sweep(const std::function<Said()>& operation, const FaultPlan& plan) {
  const TrappedCalls calls;
  CallNames failed;
  std::string process;
  std::set<std::string> content;
  Said said = false;
  bool grown = false;
  // Runs the operation with its call `number` failing. Returns false if there is no such call.
  const auto runWithout = [&](int number) {
    plan.prepare();
    process = processState();
    content = contentOf(plan.directory);
    const std::size_t allocated = mallinfo2().uordblks;
    calls.set(number, plan.error, any, !plan.inChildren, plan.inChildren);
    said = operation();
    trap().left = none;
    grown = mallinfo2().uordblks > allocated;
    return trap().struck != none;
  };

  for (int number = 0; runWithout(number); ++number) {
    const std::string name{names[trap().struck]};
    SCOPED_TRACE(name + ", call number " + std::to_string(number));
    failed.insert(name);
    EXPECT_EQ(process, processState());
    const bool tolerated = plan.tolerated.contains(name);
    EXPECT_TRUE(said.success == tolerated || plan.sometimesTolerated.contains(name));
    if (!said.success) {
      EXPECT_EQ(content, contentOf(plan.directory));
      const long error = name == "malloc" ? ENOMEM : plan.error;
      EXPECT_TRUE(said.error == error || said.error == Said::nothing) << said.error;
    }
    // What a first failure allocates may be kept for the next, but no more.
    if (grown) runWithout(number);
    if (grown) runWithout(number);
    EXPECT_FALSE(grown) << "memory is left";
    plan.prepare();
    EXPECT_TRUE(operation().success) << "afterwards";
    if (testing::Test::HasFailure()) return failed;
  }
  EXPECT_TRUE(said.success) << "although no call failed";
  EXPECT_FALSE(failed.empty()) << "no call to fail";
  return failed;
}

std::optional<TrappedCalls> failingCalls;

}  // namespace

FailingCall::FailingCall(const std::string& name, int error, int succeed) {
  failingCalls.emplace().set(succeed, error, numberOf(name), true, true);
}

FailingCall::~FailingCall() {
  failingCalls.reset();
}

CallNames failEachCall(const std::function<Said()>& operation, const FaultPlan& plan) {
  CallNames failed = sweep(operation, plan);
  if (plan.interruptible.empty()) return failed;
  FaultPlan interrupted = plan;
  interrupted.error = EINTR;
  interrupted.tolerated.insert(plan.interruptible.begin(), plan.interruptible.end());
  sweep(operation, interrupted);
  for (const std::string& call : plan.interruptible) {
    if (call == "write") continue;  // has written half, which is no failure
    plan.prepare();
    const FailingCall failing(call, EINTR);
    HostIncrementSigTerm();
    EXPECT_FALSE(operation().success) << call << " goes on though the process is to end";
    EXPECT_EQ(HostClearSigTerm(), 1);
    while (waitpid(-1, nullptr, 0) > 0) {  // the child that was not waited for
    }
  }
  return failed;
}
