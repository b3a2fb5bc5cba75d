#include <povzel/hostterminal.h>

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include <povzel/unixio.h>
#include "basics/internal.h"
#include "system/internal.h"

namespace {

// The terminal on standard input shows nothing of what is typed while this lives.
class EchoOff {
 public:
  EchoOff() {
    if (os.tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    changed_ = os.tcsetattr(STDIN_FILENO, TCSANOW, &silent) == 0;
    if (!changed_) putBack();
  }
  ~EchoOff() {
    if (changed_) putBack();
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  void putBack() { os.tcsetattr(STDIN_FILENO, TCSANOW, &before_); }

  termios before_ = {};
  bool changed_ = false;
};

// The signals that end or stop a process at its terminal, and the one that limits a wait. They act
// when the terminal shows again what is typed.
constexpr int heldSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGALRM, SIGTERM, SIGTSTP};
constexpr std::size_t heldCount = std::size(heldSignals);

// What the system raises in the thread itself, for an access or a background process at its
// terminal. To block these changes what they do.
constexpr int raisedSignals[] = {SIGSEGV, SIGBUS, SIGILL,  SIGFPE,
                                 SIGTRAP, SIGSYS, SIGTTIN, SIGTTOU};

template <std::size_t count>
bool contains(const int (&signals)[count], int signal) {
  return std::count(signals, signals + count, signal) > 0;
}

bool isHandled(const struct sigaction& action) {
  return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

// The thread that waits for the line, 0 for none.
std::atomic<pid_t> reader{0};

void passOn(int signal, siginfo_t* info, void* context);

// A signal's own action while passOn has its place. Processes forked meanwhile inherit passOn and
// this, but not the reader.
struct HeldAction {
  std::atomic<bool> isHeld;
  struct sigaction former;

  // What a fork or a handler on top of it sees is complete.
  void replace(int signal, const struct sigaction& action) {
    former = action;
    isHeld = true;
    UNIXIO_DO_SIGNAL(signal, passOn, nullptr);
  }
  void putBack(int signal) {
    if (!isHeld) return;
    sigaction(signal, &former, nullptr);
    isHeld = false;
  }
};
HeldAction heldActions[heldCount];

// Where passOn is without its reader. Signal-safe.
void putInheritedBack() {
  for (std::size_t index = 0; index < heldCount; ++index) {
    struct sigaction action;
    sigaction(heldSignals[index], nullptr, &action);
    if (action.sa_sigaction == passOn) heldActions[index].putBack(heldSignals[index]);
  }
  reader = 0;
}

// Hands a signal to the reader, whichever thread got it. There it is blocked until it may act.
void passOn(int signal, siginfo_t* /*info*/, void* /*context*/) {
  const ErrnoKeeper keeper;
  const pid_t thread = reader.load();
  if (tgkill(getpid(), thread != 0 ? thread : gettid(), signal) == 0) return;
  // Either the reader has ended meanwhile, the actions put back, or this is a process without it,
  // forked past the handlers of forks.
  if (reader == thread) putInheritedBack();
  std::raise(signal);
}

// The program's other signals whose handlers interrupt system calls, unless it blocks them. They
// wait while this lives, in this thread alone. Handlers that restart system calls run meanwhile,
// and ppoll does not tell which has interrupted it.
class Interruptions {
 public:
  explicit Interruptions(const sigset_t& blocked) : signals_(unixIoSignals()), wait_(blocked) {
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
      if (sigismember(&blocked, signal) == 0 && interrupts(signal)) sigaddset(&signals_, signal);
    }
    if (sigisemptyset(&signals_) != 0) return;
    arrival_ = unixIoAboveStandard(signalfd(-1, &signals_, SFD_CLOEXEC));
    if (arrival_ == -1) return;
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    sigorset(&wait_, &blocked, &signals_);
  }
  ~Interruptions() {
    if (arrival_ != -1) os.close(arrival_);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  // Becomes readable when one has come; -1 if none may, or for want of a descriptor.
  int arrival() const { return arrival_; }
  // The mask to wait under.
  const sigset_t& wait() const { return wait_; }

  bool areIn(const sigset_t& pending) const {
    sigset_t both;
    sigandset(&both, &pending, &signals_);
    return sigisemptyset(&both) == 0;
  }

 private:
  static bool interrupts(int signal) {
    if (contains(heldSignals, signal) || contains(raisedSignals, signal)) return false;
    struct sigaction action;
    if (sigaction(signal, nullptr, &action) != 0) return false;
    return isHandled(action) && (action.sa_flags & SA_RESTART) == 0;
  }

  sigset_t signals_;
  sigset_t wait_;
  int arrival_ = -1;
};

// Signals wait while this lives, and the terminal is silent. At its end first the terminal, then
// the actions and the mask are as they were, and what has waited acts.
class Silence {
 public:
  Silence() {
    static pthread_once_t registered = PTHREAD_ONCE_INIT;
    pthread_once(&registered, [] { pthread_atfork(nullptr, nullptr, putInheritedBack); });
    reader = gettid();
    for (std::size_t index = 0; index < heldCount; ++index) hold(index);
    echoOff_.emplace();
  }
  ~Silence() {
    echoOff_.reset();
    for (std::size_t index = 0; index < heldCount; ++index) {
      heldActions[index].putBack(heldSignals[index]);
    }
    reader = 0;
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

  const Interruptions& interruptions() const { return interruptions_; }

  // Whether a held signal has come.
  bool isOver() const {
    return anyPending([](std::size_t) { return true; });
  }

  // Whether one has that the program wants to interrupt the reading.
  bool isInterrupted() const {
    return anyPending([this](std::size_t index) { return interrupts_[index]; });
  }

 private:
  // The program's own signals are left to it: those that the thread blocks or that are ignored, and
  // a timer's if its handler lets the reading go on.
  void hold(std::size_t index) {
    const int signal = heldSignals[index];
    struct sigaction action;
    sigaction(signal, nullptr, &action);
    if (action.sa_sigaction == passOn) return;  // by a prompt that this one interrupts
    const bool restarts = isHandled(action) && (action.sa_flags & SA_RESTART) != 0;
    if (action.sa_handler == SIG_IGN || sigismember(&mask_.former(), signal) == 1) return;
    if (signal == SIGALRM && restarts) return;
    interrupts_[index] = isHandled(action) && !restarts;
    heldActions[index].replace(signal, action);
  }

  template <typename Counts>
  bool anyPending(Counts counts) const {
    sigset_t pending;
    sigpending(&pending);
    if (interruptions_.areIn(pending)) return true;
    for (std::size_t index = 0; index < heldCount; ++index) {
      if (heldActions[index].isHeld && sigismember(&pending, heldSignals[index]) == 1 &&
          counts(index))
        return true;
    }
    return false;
  }

  const SignalMask mask_{SIG_BLOCK,
                         unixIoSignals(SIGHUP, SIGINT, SIGQUIT, SIGALRM, SIGTERM, SIGTSTP)};
  const Interruptions interruptions_{mask_.former()};
  bool interrupts_[heldCount] = {};
  std::optional<EchoOff> echoOff_;
};

// The caller's buffer as it fills; what does not fit is dropped.
struct Line {
  char* text;
  std::size_t size;
  std::size_t length = 0;

  void add(char byte) {
    if (length + 1 < size) text[length++] = byte;
  }
  // Ends the line. One that failed leaves nothing of what was typed.
  void end(bool failed) const {
    if (failed) explicit_bzero(text, length);
    text[failed ? 0 : length] = '\0';
  }
};

enum class Reading { done, failed, signalled };

bool hasReadAhead() {
  return stdin->_IO_read_ptr < stdin->_IO_read_end;
}

// What the stream has read ahead comes first; the rest goes past its buffer, where a password would
// stay.
ssize_t readByte(char& byte) {
  if (!hasReadAhead()) return os.read(STDIN_FILENO, &byte, 1);
  byte = static_cast<char>(std::getc(stdin));
  stdin->_IO_read_ptr[-1] = '\0';
  return 1;
}

// Waits until there is something to read. Returns false when a signal has come instead.
bool waitForInput(const Interruptions& interruptions) {
  pollfd waitedFor[] = {{STDIN_FILENO, POLLIN, 0}, {interruptions.arrival(), POLLIN, 0}};
  if (ppoll(waitedFor, std::size(waitedFor), nullptr, &interruptions.wait()) < 0) return false;
  if (waitedFor[0].revents != 0) return true;
  errno = EINTR;
  return false;
}

// Goes on with the line until it ends or a signal is to act.
Reading readOn(Line& line, const Silence& silence) {
  for (;;) {
    char byte = '\n';
    const bool isThere = hasReadAhead() || waitForInput(silence.interruptions());
    const ssize_t count = isThere ? readByte(byte) : -1;
    if (count < 0) {
      if (silence.isOver()) return Reading::signalled;
      // The system goes on with a read itself if the handler is to let it.
      if (isThere || !unixIoGoesOn()) return Reading::failed;
      continue;
    }
    if (count == 0) return line.length > 0 ? Reading::done : Reading::failed;
    if (byte == '\n') return Reading::done;
    line.add(byte);
  }
}

void readFromTerminal(char* buf, std::size_t maxLen) {
  Line line{buf, maxLen};
  errno = 0;
  for (Reading outcome = Reading::signalled; outcome == Reading::signalled;) {
    bool interrupted = false;
    {
      const Silence silence;
      outcome = readOn(line, silence);
      interrupted = silence.isInterrupted();
    }
    if (outcome != Reading::signalled) return line.end(outcome == Reading::failed);
    errno = EINTR;
    if (interrupted || !unixIoGoesOn()) return line.end(true);
  }
}

// Reads what is left of a line. Returns false if neither its end nor that of the stream comes.
bool dropRest() {
  for (;;) {
    const int character = os.fgetc(stdin);
    if (character == '\n' || (character == EOF && std::feof(stdin) != 0)) return true;
    if (character != EOF) continue;
    if (!unixIoGoesOn()) return false;
    std::clearerr(stdin);
  }
}

// Wipes all of the stream's buffer but what is still to be read.
void wipeBuffer() {
  const ErrnoKeeper keeper;
  char* const begin = stdin->_IO_buf_base;
  char* const end = stdin->_IO_buf_end;
  char* const next = stdin->_IO_read_ptr;
  const bool isInBuffer = begin != nullptr && begin <= next && next <= end;
  if (!isInBuffer) return;  // what is left of characters put back has a place of its own
  // A file's position becomes that of the next line: nothing is sought in the buffer any more.
  os.fflush(stdin);
  explicit_bzero(begin, static_cast<std::size_t>(next - begin));
  char* const rest = stdin->_IO_read_end;
  explicit_bzero(rest, static_cast<std::size_t>(end - rest));
}

void readFromStream(char* buf, std::size_t maxLen) {
  const EchoOff echoOff;
  buf[maxLen - 1] = '\n';  // stays unless the line reaches it
  bool done = UnixIoFgets(buf, maxLen, stdin) != 0;
  const bool isCut = done && buf[maxLen - 1] == '\0' && buf[maxLen - 2] != '\n';
  if (isCut) done = dropRest();
  wipeBuffer();
  if (!done) {
    explicit_bzero(buf, maxLen);
    return;
  }
  const std::size_t length = std::strlen(buf);
  if (length > 0 && buf[length - 1] == '\n') buf[length - 1] = '\0';
}

}  // namespace

void HostSilentGetLine(const char* prompt, char* buf, std::size_t maxLen) {
  const CancellationWaits cancellationWaits;
  std::fputs(prompt, stdout);
  std::fflush(stdout);
  if (maxLen > 0) (isatty(STDIN_FILENO) == 1 ? readFromTerminal : readFromStream)(buf, maxLen);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}
