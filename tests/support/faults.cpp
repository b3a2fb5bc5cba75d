#include "faults.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string_view>

#include <povzel/hostdebug.h>
#include "basics/fortests.h"
#include "process.h"

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
  std::atomic<int> only;  // the call that counts, or any
  std::atomic<int> struck;
  int error;
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
    if constexpr (names[call] == "close" || names[call] == "closedir") real(arguments...);
    if constexpr (names[call] == "waitpid") {
      if (trap().error != EINTR) real(arguments...);
    }
    if constexpr (names[call] == "write") {
      if (trap().error == EINTR) return writeHalf(arguments...);
    }
    errno = trap().error;
    if constexpr (names[call] == "getlogin_r" || names[call] == "pthread_create") {
      return trap().error;
    } else if constexpr (names[call] == "fread") {
      return 0;
    } else if constexpr (std::is_pointer_v<Result>) {
      return nullptr;
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
  for (int call = 0; call < callCount; ++call) {
    if (names[call] == name) return call;
  }
  std::abort();
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
  TrappedCalls(const TrappedCalls&) = delete;
  TrappedCalls& operator=(const TrappedCalls&) = delete;

  // The next call after `succeed` fails; of those in this process, in its children, or in both.
  void set(int succeed, int error, int only, bool inParent, bool inChildren) const {
    trap().error = error;
    trap().parent = getpid();
    trap().inParent = inParent;
    trap().inChildren = inChildren;
    trap().only = only;
    trap().struck = none;
    trap().left = succeed;
  }
  void release() const {
    trap().left = none;
  }

 private:
  const OsCalls kept_ = osCallsForTests;
};

// What is printed goes into a file, and from there to where it was meant for if a test fails.
class Hush {
 public:
  Hush() {
    std::fflush(nullptr);
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
      kept_[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 20);
      dup2(fileno(file_), fd);
    }
  }
  ~Hush() {
    std::fflush(nullptr);
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
      dup2(kept_[fd], fd);
      close(kept_[fd]);
    }
    if (testing::Test::HasFailure()) showAll();
    std::fclose(file_);
  }
  Hush(const Hush&) = delete;
  Hush& operator=(const Hush&) = delete;

 private:
  void showAll() {
    std::rewind(file_);
    for (int character; (character = std::fgetc(file_)) != EOF;) std::putchar(character);
  }

  std::FILE* file_ = std::tmpfile();
  std::array<int, 3> kept_ = {};
};

void describeFiles(std::ostream& out, const std::string& directory) {
  namespace fs = std::filesystem;
  std::set<std::string> entries;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    std::string line = entry.path();
    if (entry.is_symlink()) {
      line += " -> " + fs::read_symlink(entry.path()).string();
    } else if (entry.is_regular_file()) {
      line += ": " + readFile(entry.path());
    }
    entries.insert(line);
  }
  for (const std::string& entry : entries) out << entry << "\n";
}

void describeDescriptors(std::ostream& out) {
  for (int fd = 0; fd < 64; ++fd) {
    char target[256];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    if (length >= 0)
      out << fd << " " << std::string(target, static_cast<std::size_t>(length)) << "\n";
  }
}

// All of the process that an operation must not change, in lines.
std::string stateOf(const std::string& directory) {
  std::ostringstream out;
  uid_t user[3];
  gid_t group[3];
  getresuid(&user[0], &user[1], &user[2]);
  getresgid(&group[0], &group[1], &group[2]);
  out << "ids";
  for (int kind = 0; kind < 3; ++kind) out << " " << user[kind] << ":" << group[kind];
  const mode_t mask = umask(0);
  umask(mask);
  out << "\numask " << mask << "\nin " << std::filesystem::current_path().string() << "\nblocked";
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  for (int sig = 1; sig <= SIGRTMAX; ++sig) {
    if (sigismember(&blocked, sig) == 1) out << " " << sig;
  }
  out << "\n";
  for (int sig = 1; sig <= SIGRTMAX; ++sig) {
    struct sigaction action;
    if (sigaction(sig, nullptr, &action) != 0 || action.sa_handler == SIG_DFL) continue;
    out << "signal " << sig << " " << reinterpret_cast<void*>(action.sa_handler) << " "
        << action.sa_flags << "\n";
  }
  describeDescriptors(out);
  if (!directory.empty()) describeFiles(out, directory);
  if (waitpid(-1, nullptr, WNOHANG) != -1) out << "a child\n";
  return out.str();
}

int failures() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

std::size_t allocatedBytes() {
  return mallinfo2().uordblks;
}

// One operation under test.
class Sweep {
 public:
  Sweep(const std::function<Said()>& operation, const FaultPlan& plan)
      : operation_(operation), plan_(plan) {}

  CallNames run() {
    CallNames failed;
    for (int number = 0; runWithout(number); ++number) {
      const std::string name{names[trap().struck]};
      SCOPED_TRACE(name + ", call number " + std::to_string(number));
      failed.insert(name);
      judge(name);
      leaksNothing(number);
      succeedsNow();
      if (failures() > failuresBefore_) return failed;
    }
    EXPECT_TRUE(said_.success) << "although no call failed";
    EXPECT_FALSE(failed.empty()) << "no call to fail";
    return failed;
  }

 private:
  // Runs the operation with its call `number` failing. Returns false if there is no such call.
  bool runWithout(int number) {
    plan_.prepare();
    before_ = stateOf(plan_.directory);
    const std::size_t allocated = allocatedBytes();
    calls_.set(number, plan_.error, any, !plan_.inChildren, plan_.inChildren);
    said_ = operation_();
    calls_.release();
    grown_ = allocatedBytes() > allocated;
    return trap().struck != none;
  }

  void judge(const std::string& name) const {
    if (plan_.tolerated.contains(name)) {
      EXPECT_TRUE(said_.success) << "should be tolerated";
      return;
    }
    if (said_.success && plan_.sometimesTolerated.contains(name)) return;
    EXPECT_FALSE(said_.success);
    if (said_.error != Said::nothing) {
      EXPECT_EQ(said_.error, name == "malloc" ? ENOMEM : plan_.error);
    }
    EXPECT_EQ(before_, stateOf(plan_.directory));
  }

  // What a first failure allocates may be kept for the next, but no more.
  void leaksNothing(int number) {
    if (grown_) runWithout(number);
    if (grown_) runWithout(number);
    EXPECT_FALSE(grown_) << "memory is left";
  }

  void succeedsNow() {
    plan_.prepare();
    EXPECT_TRUE(operation_().success) << "afterwards";
  }

  const std::function<Said()>& operation_;
  const FaultPlan& plan_;
  const int failuresBefore_ = failures();
  const Hush hush_;
  const TrappedCalls calls_;
  std::string before_;
  Said said_ = {};
  bool grown_ = false;
};

std::optional<TrappedCalls>& callsOfFailingCall() {
  static std::optional<TrappedCalls> calls;
  return calls;
}

}  // namespace

FailingCall::FailingCall(const std::string& name, int error, int succeed) {
  callsOfFailingCall().emplace().set(succeed, error, numberOf(name), true, true);
}

FailingCall::~FailingCall() {
  callsOfFailingCall().reset();
}

CallNames failEachCall(const std::function<Said()>& operation, const FaultPlan& plan) {
  return Sweep(operation, plan).run();
}
