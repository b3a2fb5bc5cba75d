#include <povzel/hostlimits.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include <povzel/hostenv.h>
#include "basics/internal.h"

namespace {

constexpr int unknownMaxFiles = -1;
constexpr int defaultMaxAioRequests = 128;

std::atomic<int> cachedMaxFiles{unknownMaxFiles};

rlim_t hardLimitOrPresent(const rlimit& limit) {
  return limit.rlim_max != RLIM_INFINITY ? limit.rlim_max : static_cast<rlim_t>(HostGetMaxFiles());
}

}  // namespace

long HostGetMaxFiles() {
  int most = cachedMaxFiles.load(std::memory_order_relaxed);
  if (most != unknownMaxFiles) return most;
  most = static_cast<int>(sysconf(_SC_OPEN_MAX));
  cachedMaxFiles.store(most, std::memory_order_relaxed);
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
    cachedMaxFiles = unknownMaxFiles;
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
