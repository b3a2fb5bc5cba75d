#include <povzel/utlsystem.h>

#include <unistd.h>

namespace {

BoolType disableFdMapping = 0;

}  // namespace

int UtlGetPageSize() {
  return static_cast<int>(sysconf(_SC_PAGESIZE));
}

BoolType UtlDisableFdMapping(BoolType disable) {
  const BoolType previous = disableFdMapping;
  disableFdMapping = disable;
  return previous;
}

int UtlMapFd(int fd) {
  return fd;
}
