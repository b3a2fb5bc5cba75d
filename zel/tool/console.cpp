#include "tool/console.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zel {

namespace {

constexpr int endingSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::size_t bufferSize = 65536;
constexpr std::size_t pipeSize = 4096;  // what a pipe that is ready takes without a wait
constexpr std::size_t longestPassword = 4096;
constexpr const char* passwordVariable = "POVZEL_PASSWORD";

sigset_t setOfSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : endingSignals) sigaddset(&signals, signal);
  return signals;
}

std::string errorText() {
  return std::strerror(errno);
}

struct stat64 statusOf(int fd) {
  struct stat64 status {};
  ::fstat64(fd, &status);
  return status;
}

// One byte of input; answers false at the end.
bool readByte(const Signals& signals, int fd, char& byte) {
  for (;;) {
    signals.wait(fd, POLLIN);
    const ssize_t size = ::read(fd, &byte, 1);
    if (size >= 0) return size > 0;
    if (errno != EINTR && errno != EAGAIN) return false;
  }
}

// The first line, without its end; at most one byte too long.
std::string firstLine(const Signals& signals, int fd) {
  std::string line;
  for (char byte = 0; line.size() <= longestPassword && readByte(signals, fd, byte);) {
    if (byte == '\n') break;
    line += byte;
  }
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

// A terminal that does not show what is typed.
class Silence {
 public:
  explicit Silence(int fd) : fd_(fd) {
    ::tcgetattr(fd_, &before_);
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    silent.c_lflag |= ICANON | ISIG;
    ::tcsetattr(fd_, TCSAFLUSH, &silent);
  }
  ~Silence() { ::tcsetattr(fd_, TCSAFLUSH, &before_); }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  int fd_;
  termios before_{};
};

void say(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = ::write(fd, text.data(), text.size());
    if (size <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(size));
  }
}

std::string askedPassword(const Signals& signals, const std::string& of) {
  const Descriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) {
    throw Trouble{
        "a password is needed\nName a --password-file, or set " + std::string(passwordVariable),
        usageStatus};
  }
  const Silence silence(terminal.get());
  const auto ask = [&](const std::string& text) {
    say(terminal.get(), text);
    std::string line;
    try {
      line = firstLine(signals, terminal.get());
    } catch (...) {
      say(terminal.get(), "\n");
      throw;
    }
    say(terminal.get(), "\n");
    return line;
  };
  std::string password = ask("New password of " + of + ": ");
  if (ask("The same again: ") != password) throw Trouble{"the two passwords differ"};
  return password;
}

std::string passwordIn(const Signals& signals, const std::string& file) {
  const auto fail = [&file](const std::string& why) {
    throw Trouble{"cannot read the password file " + file + ": " + why +
                  "\nName a file that has the password in its first line"};
  };
  const Descriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!opened) fail(errorText());
  const struct stat64 status = statusOf(opened.get());
  if (S_ISDIR(status.st_mode)) fail("it is a folder");
  // What is no file, such as a pipe, keeps nothing for others to read.
  if (S_ISREG(status.st_mode) && (status.st_mode & 077) != 0) {
    throw Trouble{"others than you can use the password file " + file +
                  "\nTake that from them: chmod 600 " + file};
  }
  std::string password = firstLine(signals, opened.get());
  if (password.size() > longestPassword) {
    fail("its first line has more than " + std::to_string(longestPassword) + " bytes");
  }
  return password;
}

}  // namespace

// Signals

Signals::Signals() {
  // A reader that has gone, and a file that may not grow, are noticed by the write.
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  const sigset_t signals = setOfSignals();
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  fd_ = Descriptor(::signalfd(-1, &signals, SFD_CLOEXEC));
}

int Signals::come() const {
  sigset_t pending;
  ::sigpending(&pending);
  for (const int signal : endingSignals) {
    if (sigismember(&pending, signal) != 0) return signal;
  }
  return 0;
}

void Signals::check() const {
  if (const int signal = come()) throw Interrupted{signal};
}

void Signals::wait(int fd, short events) const {
  check();
  pollfd both[] = {{fd, events, 0}, {fd_.get(), POLLIN, 0}};
  while (::poll(both, 2, -1) < 0) {
    if (errno != EINTR) return;
  }
  check();
}

void endBy(int signal) {
  ::signal(signal, SIG_DFL);
  ::raise(signal);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal);
  ::sigprocmask(SIG_UNBLOCK, &one, nullptr);
  ::_exit(128 + signal);
}

void openStandardStreams() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) continue;
    // The lowest that is free, and in a direction that it is not for.
    const int opened = ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    if (opened != fd) ::_exit(faultStatus);
  }
}

// Output

Output::Output(const Signals& signals, const std::string& file)
    : signals_(signals), file_(file), fd_(STDOUT_FILENO) {
  if (!file_.empty()) {
    struct stat64 status;
    if (::lstat64(file_.c_str(), &status) == 0) refuse();
    made_.emplace(calls_, file_);
    if (!*made_) throw Trouble{"cannot make " + file_ + ": " + errorText()};
    fd_ = made_->descriptor();
  }
  most_ = S_ISREG(statusOf(fd_).st_mode) ? bufferSize : pipeSize;
}

void Output::refuse() const {
  throw Trouble{"there is a file " + file_ + " already\nName one that is not there"};
}

void Output::fail() const {
  if (errno == EPIPE) throw Interrupted{SIGPIPE};
  throw Trouble{"cannot write " + (file_.empty() ? "to standard output" : file_) + ": " +
                errorText()};
}

void Output::flush() {
  for (std::string_view rest = bytes_; !rest.empty();) {
    signals_.wait(fd_, POLLOUT);
    const ssize_t size = ::write(fd_, rest.data(), std::min(rest.size(), most_));
    if (size < 0 && errno != EINTR && errno != EAGAIN) fail();
    if (size > 0) rest.remove_prefix(static_cast<std::size_t>(size));
  }
  bytes_.clear();
}

void Output::line(std::string_view text) {
  bytes_ += text;
  bytes_ += '\n';
  if (bytes_.size() >= bufferSize) flush();
}

void Output::finish() {
  flush();
  if (file_.empty()) return;
  if (::fsync(fd_) != 0 && errno != EINVAL) fail();
  if (made_->place()) return;
  if (errno == EEXIST) refuse();
  fail();
}

// Input

Input::Input(const Signals& signals, const std::string& file)
    : signals_(signals), name_(file.empty() ? "standard input" : file), fd_(STDIN_FILENO) {
  if (!file.empty()) {
    opened_ = Descriptor(::open64(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!opened_) throw Trouble{"cannot read " + name_ + ": " + errorText()};
    fd_ = opened_.get();
  }
  const struct stat64 status = statusOf(fd_);
  if (S_ISREG(status.st_mode)) all_ = static_cast<std::uint64_t>(status.st_size);
}

bool Input::fill() {
  bytes_.erase(0, std::exchange(at_, 0));
  const std::size_t before = bytes_.size();
  bytes_.resize(before + bufferSize);
  ssize_t size = -1;
  do {
    signals_.wait(fd_, POLLIN);
    size = ::read(fd_, bytes_.data() + before, bufferSize);
  } while (size < 0 && (errno == EINTR || errno == EAGAIN));
  if (size < 0) throw Trouble{"cannot read " + name_ + ": " + errorText()};
  bytes_.resize(before + static_cast<std::size_t>(size));
  done_ += static_cast<std::uint64_t>(size);
  return size > 0;
}

bool Input::line(std::string& text) {
  for (std::size_t looked = at_;;) {
    const std::size_t end = bytes_.find('\n', looked);
    if (end != std::string::npos) {
      text.assign(bytes_, at_, end - at_);
      at_ = end + 1;
      return true;
    }
    looked = bytes_.size() - at_;
    if (fill()) continue;
    text = std::move(bytes_);
    bytes_.clear();
    return !text.empty();
  }
}

// Progress

ProgressLine::ProgressLine(const Signals& signals, std::string what)
    : signals_(signals),
      what_(std::move(what)),
      isOn_(::isatty(STDERR_FILENO) != 0),
      next_(Clock::now() + std::chrono::milliseconds(500)) {}

ProgressLine::~ProgressLine() {
  if (isShown_) say(STDERR_FILENO, "\r\033[K");
}

bool ProgressLine::tell(std::uint64_t done, std::uint64_t all) {
  if (signals_.come() != 0) return false;
  if (!isOn_ || Clock::now() < next_) return true;
  next_ = Clock::now() + std::chrono::milliseconds(250);
  isShown_ = true;
  const std::string much =
      all != 0 ? std::to_string(std::min(done, all) * 100 / all) + " %" : std::to_string(done);
  say(STDERR_FILENO, "\r\033[K" + what_ + ": " + much);
  return true;
}

std::string newPassword(const Signals& signals, const std::string& file, const std::string& of) {
  const char* const value = std::getenv(passwordVariable);
  const std::string set = value != nullptr ? value : "";
  ::unsetenv(passwordVariable);
  if (!file.empty()) return passwordIn(signals, file);
  return !set.empty() ? set : askedPassword(signals, of);
}

}  // namespace zel
