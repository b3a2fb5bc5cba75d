// A signal every two milliseconds, to interrupt whatever is under test.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <csignal>

inline std::atomic<int> ticks{0};
inline void (*onThirdTick)() = nullptr;

// Starts the signals; `action` runs inside the third. Interrupted system calls fail with EINTR
// unless `restart` is set.
inline void startTicking(void (*action)(), bool restart = false) {
  ticks = 0;
  onThirdTick = action;
  struct sigaction handler = {};
  handler.sa_handler = [](int) {
    if (++ticks == 3) onThirdTick();
  };
  handler.sa_flags = restart ? SA_RESTART : 0;
  sigaction(SIGALRM, &handler, nullptr);
  const itimerval every = {{0, 2000}, {0, 2000}};
  setitimer(ITIMER_REAL, &every, nullptr);
}

inline void stopTicking() {
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
}
