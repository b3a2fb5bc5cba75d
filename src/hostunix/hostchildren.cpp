// Children that have ended, as the SIGCHLD handler deals with them.
//
// The library's own are kept in places that are taken and left without a lock: a handler may
// interrupt whoever looks at them.
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <povzel/hostfault.h>
#include <povzel/hostsigterm.h>
#include <povzel/utlheap.h>
#include "internal.h"

namespace {

std::atomic<bool> reapsOwnOnly = false;

// A block stays for good once there is one; its places are used again.
struct Places {
  Places* others;
  std::atomic<pid_t> children[64];  // 0 is a free one
};
Places firstPlaces;
std::atomic<Places*> allPlaces = &firstPlaces;

// Asks `matches` of each place until one does. Returns that, or null.
template <typename Matches>
std::atomic<pid_t>* findPlace(Matches matches) {
  for (Places* places = allPlaces; places != nullptr; places = places->others) {
    for (std::atomic<pid_t>& place : places->children) {
      if (matches(place)) return &place;
    }
  }
  return nullptr;
}

// Puts `with` into the first place that holds `what`, if one does.
bool replaceChild(pid_t what, pid_t with) {
  return findPlace([=](std::atomic<pid_t>& place) {
           pid_t held = what;
           return place.compare_exchange_strong(held, with);
         }) != nullptr;
}

// Looks at a child without taking its status. Returns true if it has ended; forgets one that the
// program has waited for.
bool hasEnded(pid_t child) {
  siginfo_t ended{};
  const int flags = WEXITED | WNOHANG | WNOWAIT;
  if (waitid(P_PID, static_cast<id_t>(child), &ended, flags) == 0) return ended.si_pid != 0;
  if (errno == ECHILD) replaceChild(child, 0);
  return false;
}

void addPlaces(pid_t child) {
  auto* places = static_cast<Places*>(UtlMalloc_(sizeof(Places), __LINE__));
  if (places == nullptr) return;
  std::memset(static_cast<void*>(places), 0, sizeof *places);
  places->children[0] = child;
  places->others = allPlaces;
  while (!allPlaces.compare_exchange_weak(places->others, places)) {
  }
}

// Takes what there is to hear of `child`, -1 for any. Returns false when the process is to end.
bool reap(pid_t child) {
  for (;;) {
    int status;
    const pid_t heard = waitpid(child, &status, WNOHANG | WUNTRACED);
    if (heard > 0) {
      if (WIFSTOPPED(status)) continue;
      replaceChild(heard, 0);
      if (child > 0) return true;
      continue;
    }
    if (heard == 0) return true;
    if (errno == ECHILD) {
      if (child > 0) replaceChild(child, 0);
      return true;
    }
    if (errno != EINTR && errno != ERESTART) hostEndUnableToReap(errno);
    if (HostGetSigTerm_() != 0) return false;
  }
}

}  // namespace

void hostForgetFormerChildren() {
  findPlace([](const std::atomic<pid_t>& place) {
    const pid_t child = place;
    if (child != 0) hasEnded(child);
    return false;
  });
}

void hostRememberChild(pid_t child) {
  const ErrnoKeeper keeper;
  if (!replaceChild(0, child)) {
    hostForgetFormerChildren();
    if (!replaceChild(0, child)) addPlaces(child);
  }
  // One that ended before it was known is heard of once more, by the handler if there is one.
  if (reapsOwnOnly && hasEnded(child)) kill(getpid(), SIGCHLD);
}

void hostReapChildren() {
  const ErrnoKeeper keeper;
  if (!reapsOwnOnly) {
    reap(-1);
    return;
  }
  findPlace([](const std::atomic<pid_t>& place) {
    const pid_t child = place;
    return child != 0 && !reap(child);
  });
}

void hostReapUnheardChildren() {
  if (!reapsOwnOnly || !hostHandlerWasInstalled(SIGCHLD)) return;
  struct sigaction action;
  if (sigaction(SIGCHLD, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
  hostReapChildren();
}

void HostReapOwnChildrenOnly(BoolType own) {
  if (own != 0 && !reapsOwnOnly) hostForgetFormerChildren();
  reapsOwnOnly = own != 0;
  unixIoSparingHandler =
      own != 0 ? reinterpret_cast<sighandler_t>(reinterpret_cast<void*>(HostFaultHandler))
               : nullptr;
}
