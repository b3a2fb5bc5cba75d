#include <povzel/hostsignals.h>

#include <sys/time.h>

#include <csignal>
#include <cstdio>

#include <povzel/unixio.h>
#include "internal.h"

namespace {

bool interruptsAreDisabled = false;
struct sigaction oldSigVtalrm;

itimerval timerOf(long milliseconds) {
  const timeval period{milliseconds / 1000, milliseconds % 1000 * 1000};
  return {period, period};
}

void setInterrupts(bool disable) {
  const ErrnoKeeper keeper;
  sigset_t mask;
  if (disable) {
    sigfillset(&mask);
  } else {
    sigemptyset(&mask);
  }
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  interruptsAreDisabled = disable;
}

}  // namespace

void hostUnblockInterrupts() {
  setInterrupts(false);
}

void hostForgetProfTimer() {
  oldSigVtalrm = {};
}

void HostIgnoreSigTerm() {
  UNIXIO_DO_SIGNAL(SIGTERM, unixIoIgnoreAction, nullptr);
}

void HostIgnoreSigIo() {
  UNIXIO_DO_SIGNAL(SIGIO, unixIoIgnoreAction, nullptr);
}

void HostEnableKbInt(HostKbIntFuncType* routine) {
  struct sigaction previous;
  UNIXIO_DO_SIGNAL(SIGINT, unixIoIgnoreAction, &previous);
  if (previous.sa_handler != SIG_IGN) UNIXIO_DO_SIGNAL_1ARG(SIGINT, routine, nullptr);
}

void HostDisableInterrupts() {
  if (!interruptsAreDisabled) setInterrupts(true);
}

void HostEnableInterrupts() {
  if (interruptsAreDisabled) setInterrupts(false);
}

void HostBeginSampling(const char* file) {
  std::printf("Error -- Profiling (to file %s) not enabled in this executable.\n", file);
  std::fflush(stdout);
}

void HostStopSampling() {
  std::puts("Error -- profiling not enabled in this executable.");
  std::fflush(stdout);
}

BoolType HostStartProfTimer(long millisec, HostKbIntFuncType* func) {
  UNIXIO_DO_SIGNAL_1ARG(SIGVTALRM, func, &oldSigVtalrm);
  const itimerval timer = timerOf(millisec);
  return setitimer(ITIMER_VIRTUAL, &timer, nullptr) == 0;
}

void HostStopProfTimer() {
  const itimerval stopped = timerOf(0);
  setitimer(ITIMER_VIRTUAL, &stopped, nullptr);
  sigaction(SIGVTALRM, &oldSigVtalrm, nullptr);
  oldSigVtalrm = {};
}
