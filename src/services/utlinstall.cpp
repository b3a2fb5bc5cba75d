#include <povzel/utlinstall.h>

#include <fcntl.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <povzel/errmsg.h>
#include <povzel/hostenv.h>
#include <povzel/hostfiles.h>
#include <povzel/hostfname.h>
#include <povzel/syserror.h>

namespace {

constexpr char optDirectory[] = "/opt/tarvolin/";
constexpr char usrDirectory[] = "/usr/tarvolin/";

constexpr char bothExistWarning[] =
    "Warning: using '/opt/tarvolin' instead of '/usr/tarvolin' which also exists.\n"
    "  Tarvolin will work best if only one exists.\n"
    "  Releases before 5.0 will work only with '/usr/tarvolin'.\n"
    "  Release 5.0 and later will work with either one.\n"
    "  This warning can be disabled by setting env variable TV_DISABLE_WARNING.\n";

bool warningDisabled() {
  char value[32];
  return HostGetEnv("TV_DISABLE_WARNING", value, sizeof value) != 0;
}

const char* chooseGlobalDirectory() {
  const bool usrExists = HostFileExist("/usr/tarvolin", nullptr) != 0;
  if (HostFileExist("/opt/tarvolin", nullptr) != 0) {
    if (usrExists && !warningDisabled()) std::fputs(bothExistWarning, stderr);
    return optDirectory;
  }
  return usrExists ? usrDirectory : optDirectory;
}

pthread_once_t chosen = PTHREAD_ONCE_INIT;
std::atomic<const char*> globalDirectory{nullptr};

}  // namespace

const char* UtlGetGlobalTarvolinDir() {
  const char* directory = globalDirectory.load(std::memory_order_acquire);
  if (directory != nullptr) return directory;
  pthread_once(&chosen, [] { globalDirectory = chooseGlobalDirectory(); });
  return globalDirectory;
}

const char* UtlGetFifoDir() {
  return UtlGetGlobalTarvolinDir()[1] == 'o' ? "/opt/tarvolin/locks/" : "/usr/tarvolin/locks/";
}

void UtlBuildFifoName(const char* inName, char* outName) {
  HostFnameStrType name;
  std::snprintf(name, sizeof name, "%s%s..FIFO", UtlGetFifoDir(), inName);
  HostExpandFileName(name, outName, sizeof(HostFnameStrType));
}

int UtlOpenTorvClientFifo(const char* fifoName, BoolType quiet) {
  errno = 0;
  const int pipe = HostOpen(fifoName, O_WRONLY, 0);
  if (pipe >= 0 || quiet != 0) return pipe;
  const int openError = errno;
  SysErrorSType failure;
  SysErrorSet(&failure, openError, "open(%s)", fifoName);
  ErrMsgSymToFile("trvcall.nofifo", stderr, "ss", fifoName, failure.errMsg);
  errno = openError;
  return -1;
}
