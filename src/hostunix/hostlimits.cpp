#include <povzel/hostlimits.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include <povzel/hostenv.h>
#include "basics/internal.h"

namespace {

constexpr int defaultMaxAioRequests = 128;

// Negative while it is unknown, and another number after each change: what was read before one is
// not kept behind it.
std::atomic<int> cachedMaxFiles{-1};

void forgetMaxFiles() {
  static std::atomic<int> changes{0};
  cachedMaxFiles = -2 - (changes++ & (INT_MAX >> 1));
}

rlim_t hardLimitOrPresent(const rlimit& limit) {
  return limit.rlim_max != RLIM_INFINITY ? limit.rlim_max : static_cast<rlim_t>(HostGetMaxFiles());
}

}  // namespace

long HostGetMaxFiles() {
  int cached = cachedMaxFiles.load(std::memory_order_relaxed);
  if (cached >= 0) return cached;
  const int most = static_cast<int>(os.sysconf(_SC_OPEN_MAX));
  if (most >= 0) cachedMaxFiles.compare_exchange_strong(cached, most);
  return most;
}

BoolType HostSetMaxFiles(long maxFiles, SysErrorSType* err) {
  rlimit limit;
  if (os.getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    SysErrorSet(err, errno, "getrlimit(RLIMIT_NOFILE)");
    return 0;
  }

  bool fromVariable = false;
  char value[64 + 1];
  if (maxFiles != -1) {
    limit.rlim_cur = static_cast<rlim_t>(maxFiles);
  } else if (!HostGetEnv("TARVOLIN_MAX_FD", value, sizeof value)) {
    limit.rlim_cur = hardLimitOrPresent(limit);
  } else {
    maxFiles = std::strtol(value, nullptr, 10);
    if (maxFiles == 0) return 1;
    fromVariable = maxFiles > 0;
    limit.rlim_cur = fromVariable ? static_cast<rlim_t>(maxFiles) : limit.rlim_max;
  }

  if (os.setrlimit(RLIMIT_NOFILE, &limit) == 0) {
    forgetMaxFiles();
    return 1;
  }
  if (fromVariable) {
    SysErrorSet(err, errno,
                "Could not raise fd limit to the TARVOLIN_MAX_FD value of %d because:\n"
                " setrlimit(RLIMIT_NOFILE)",
                static_cast<int>(maxFiles));
  } else {
    SysErrorSet(err, errno, "setrlimit(RLIMIT_NOFILE)");
  }
  return 0;
}

int HostGetMaxAioRequests() {
  const long most = sysconf(_SC_AIO_MAX);
  return most != -1 ? static_cast<int>(most) : defaultMaxAioRequests;
}
