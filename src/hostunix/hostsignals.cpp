#include <povzel/hostsignals.h>

#include <sys/time.h>

#include <csignal>
#include <cstdio>

#include <povzel/unixio.h>
#include "internal.h"

namespace {

thread_local bool interruptsAreDisabled = false;  // the mask is the thread's as well
struct sigaction oldSigVtalrm;
bool profTimerRuns = false;

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
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  interruptsAreDisabled = disable;
}

}  // namespace

void hostUnblockInterrupts() {
  setInterrupts(false);
}

void hostForgetProfTimer() {
  oldSigVtalrm = {};
  profTimerRuns = false;
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
  struct sigaction previous;
  UNIXIO_DO_SIGNAL_1ARG(SIGVTALRM, func, &previous);
  const itimerval timer = timerOf(millisec);
  if (setitimer(ITIMER_VIRTUAL, &timer, nullptr) != 0) {
    const ErrnoKeeper keeper;
    sigaction(SIGVTALRM, &previous, nullptr);
    return 0;
  }
  if (!profTimerRuns) oldSigVtalrm = previous;
  profTimerRuns = true;
  return 1;
}

void HostStopProfTimer() {
  if (!profTimerRuns) return;
  const itimerval stopped = timerOf(0);
  setitimer(ITIMER_VIRTUAL, &stopped, nullptr);
  std::signal(SIGVTALRM, SIG_IGN);  // drops a tick that is pending
  sigaction(SIGVTALRM, &oldSigVtalrm, nullptr);
  hostForgetProfTimer();
}
