// What the sources of the host layer share among themselves: the data that HostInit fills, and the
// frames that their operations have in common.
#pragma once

#include <sys/time.h>
#include <sys/utsname.h>

#include <cerrno>

#include "hostunix/hostids.h"
#include "hostunix/hostsigterm.h"
#include "hostunix/hostsystem.h"
#include "povzeltypes.h"
#include "utl/errnokeeper.h"

// Filled by HostInit (hostinit.cpp)
extern BoolType hostIsInitialized;
extern utsname unameData;  // empty names when uname failed
extern HostSystemInfoSType systemInfoData;
extern HostFnameStrType autoMountPrefix;
extern char* childLogPtr;            // heap copy of TARVOLIN_CHILD_LOG, or null
extern long initialCpuClockReading;  // CPU milliseconds used before HostInit
extern double sc_clk_tck;            // clock ticks in a second
extern timeval beginTp;              // time of day when HostInit ran

// File names (hostfname.cpp)
extern BoolType disableSoftLinkExpansion;  // names keep their symbolic links

// Names are expanded with their symbolic links kept while this lives.
class KeepSoftLinks {
 public:
  KeepSoftLinks() : before_(disableSoftLinkExpansion) { disableSoftLinkExpansion = 1; }
  ~KeepSoftLinks() { disableSoftLinkExpansion = before_; }
  KeepSoftLinks(const KeepSoftLinks&) = delete;
  KeepSoftLinks& operator=(const KeepSoftLinks&) = delete;

 private:
  BoolType before_;
};

// The process works under its real ids while this lives, if it is told to. Keeps errno at the end.
class RealIds {
 public:
  explicit RealIds(BoolType wanted) : wanted_(wanted != 0) {
    if (wanted_) HostUseRealId(&effective_);
  }
  ~RealIds() {
    if (!wanted_) return;
    const ErrnoKeeper keeper;
    HostSetUserId(&effective_);
  }
  RealIds(const RealIds&) = delete;
  RealIds& operator=(const RealIds&) = delete;

 private:
  bool wanted_;
  HostUserIdSType effective_ = {};
};

// Whether the system call that has just failed is to be made again: a signal interrupted it, and
// nobody has asked the process to end.
inline bool interruptedCallGoesOn() {
  return (errno == EINTR || errno == ERESTART) && HostGetSigTerm(__FILE__, __LINE__) == 0;
}

// Makes a system call that returns -1 when it fails, again after each interruption.
template <typename Call>
auto retryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || !interruptedCallGoesOn()) return result;
  }
}
