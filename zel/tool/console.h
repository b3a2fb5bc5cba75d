// What a program on whole databases has to do with its caller: signals that end it, streams,
// progress, and passwords. All of it throws Trouble, or Interrupted where a signal has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/unfinished.h"

namespace zel {

constexpr int faultStatus = 1;
constexpr int usageStatus = 2;

// Why the program ends: a line for what is wrong, and perhaps one for what helps.
struct Trouble {
  std::string text;
  int status = faultStatus;
};

// The signal that the program is to end by.
struct Interrupted {
  int signal;
};

// Signals that end a program are held back while this lives, so that it ends where nothing is left
// half done. Those that are ignored stay ignored.
class Signals {
 public:
  Signals();

  // The one that has come, 0 for none.
  int come() const;
  // Throws Interrupted if one has come.
  void check() const;
  // Waits until the descriptor is ready for `events` of poll(). Throws Interrupted.
  void wait(int fd, short events) const;

 private:
  Descriptor fd_;
};
// Ends the process as the signal does to those that do not care.
[[noreturn]] void endBy(int signal);

// Makes sure that the three standard descriptors are open: a closed one becomes one that fails, and
// never the next file that is opened.
void openStandardStreams();

// Writes to a new file that the user alone can read, or to standard output when it has no name. The
// file is there when all of it is: at the end of finish().
class Output {
 public:
  Output(const Signals& signals, const std::string& file);

  void line(std::string_view text);
  // Writes what is left, and gives a file its name once it is on the disk.
  void finish();

 private:
  [[noreturn]] void fail() const;
  [[noreturn]] void refuse() const;  // what is there
  void flush();

  const Signals& signals_;
  std::string file_;
  const FileCalls calls_;
  std::optional<Unfinished> made_;
  int fd_;
  std::size_t most_;  // bytes that a write takes at once
  std::string bytes_;
};

// Reads lines from a file, or from standard input when it has no name.
class Input {
 public:
  Input(const Signals& signals, const std::string& file);

  // The next line without its end; answers false behind the last one.
  bool line(std::string& text);
  std::uint64_t done() const { return done_; }  // bytes
  std::uint64_t all() const { return all_; }    // 0 when that is not known
  const std::string& name() const { return name_; }

 private:
  bool fill();

  const Signals& signals_;
  std::string name_;
  Descriptor opened_;
  int fd_;
  std::uint64_t done_ = 0;
  std::uint64_t all_ = 0;
  std::string bytes_;
  std::size_t at_ = 0;
};

// One line on standard error, if that is a terminal, which tells how far long work is.
class ProgressLine {
 public:
  ProgressLine(const Signals& signals, std::string what);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Answers false when the work is to be given up. `all` is 0 when it is not known.
  bool tell(std::uint64_t done, std::uint64_t all);

 private:
  using Clock = std::chrono::steady_clock;

  const Signals& signals_;
  std::string what_;
  bool isOn_;
  bool isShown_ = false;
  Clock::time_point next_;
};

// The password in the first line of the file, or else in POVZEL_PASSWORD, or else asked for twice
// at the terminal with the given words.
std::string newPassword(const Signals& signals, const std::string& file, const std::string& of);

}  // namespace zel
