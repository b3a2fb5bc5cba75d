// Starting product processes: what the parent works out before the fork (hostfork.cpp) and the
// child carries out after it (hostforkchild.cpp).
#pragma once

#include <grp.h>

#include <cstddef>

#include "povzeltypes.h"

// An environment of the child's own, made before the fork: the C library's environment has a lock
// that another thread may hold at that moment.
class ChildEnvironment {
 public:
  ChildEnvironment();  // a copy of this process's
  ~ChildEnvironment();
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;

  // Sets `name` to `value`; texts beyond the spare room are dropped, which the few that are set
  // never reach.
  void set(const char* name, const char* value);

  // Makes it the environment of this process. In the child only.
  void enter();

 private:
  static constexpr std::size_t spare = 8;
  char** entries_;
  std::size_t count_ = 0;
  std::size_t capacity_;
  char* owned_[spare] = {};
  std::size_t ownedCount_ = 0;
};

// What to start, and as whom.
struct ForkPlan {
  const char* cmd;
  const char* clientHost;  // null: not shown
  const char* logName;     // null: the default
  const char* workingDir;  // null: the user's home
  bool isServer;

  bool byDaemon;  // the user's ids and environment are taken
  char userName[256];
  HostFnameStrType homeDirectory;
  uid_t uid;
  gid_t gid;
  bool setsGroups;
  gid_t* groups;  // null when they could not be read; then groupsError says why
  int groupCount;
  int groupsError;

  int pipeRead;  // server mode: the ready pipe; -1 otherwise
  int pipeWrite;
};

// Turns this process, just forked, into the program that the plan names. Never returns.
[[noreturn]] void runForkedChild(const ForkPlan& plan, ChildEnvironment& environment);
