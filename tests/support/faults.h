// Makes the library's system calls and allocations fail: one call by name, or each that an
// operation makes in turn. For tests that link with INTERNALS.
#pragma once

#include <cerrno>
#include <functional>
#include <set>
#include <string>

// Calls go by their names in the table of basics/internal.h; an allocation is "malloc".
using CallNames = std::set<std::string>;

// While it lives, the call `name` fails with `error` after `succeed` times, in this process or a
// child that it forks. A failing close closes all the same, a failing waitpid has waited unless it
// was interrupted, and an interrupted write writes half.
class FailingCall {
 public:
  FailingCall(const std::string& name, int error, int succeed = 0);
  ~FailingCall();
  FailingCall(FailingCall&&) = delete;
};

// What an operation says of itself: whether it succeeded, and the errno value in its record.
struct Said {
  static constexpr long nothing = -1;

  Said(bool succeeded, long errnoValue = nothing) : success(succeeded), error(errnoValue) {}

  bool success;
  long error;
};

struct FaultPlan {
  // What the failing call reports; an allocation has ENOMEM.
  int error = EIO;
  // Calls whose failure the operation survives, and then has done all that it does without one.
  CallNames tolerated = {};
  // Calls whose failure it survives in some of the places where it makes them.
  CallNames sometimesTolerated = {};
  // Calls that are made again after a signal, unless the process has been asked to end. If there
  // are any, all is done with EINTR as well.
  CallNames interruptible = {};
  // The calls of the processes that the operation forks fail, not its own.
  bool inChildren = false;
  // A folder that a failed operation leaves as it was.
  std::string directory = {};
  // Called before each run; puts back what a success has changed.
  std::function<void()> prepare = [] {};
};

// Runs `operation` with its first call failing, then with its second, until none is left to fail,
// and expects of each run
//   - that it says so, with the right errno value if it says one;
//   - that it leaves no descriptor open, no memory allocated and no child behind, and ids, mask,
//     signal actions, current directory and, unless it succeeded, `directory` as they were;
//   - that the same operation succeeds afterwards.
// Returns the calls that failed.
CallNames failEachCall(const std::function<Said()>& operation, const FaultPlan& plan = {});

// What an operation must not change: the calling thread's folder, umask, ids and mask; and with
// them the process's signal actions, descriptors and children.
std::string threadState();
std::string processState();
