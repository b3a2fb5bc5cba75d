// What tests do with processes and around them: children whose end and output are looked at,
// scratch files, terminals and signals that interrupt.
#pragma once

#include <sys/wait.h>

#include <atomic>
#include <functional>
#include <string>

// Children

struct ChildResult {
  int status;  // as from waitpid
  std::string out;
  std::string err;

  bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killedBy(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

// Forks; the child runs `body` with its output and errors captured, and exits with status 0 when
// that returns, after flushing the streams. Waits for the child itself, not for what it started.
ChildResult runInChild(const std::function<void()>& body);

// The same with a body that returns the exit code.
ChildResult inChild(const std::function<int()>& body);

// The code that a child exited with; -1 if a signal ended it.
inline int exitCode(const ChildResult& child) {
  return WIFEXITED(child.status) ? WEXITSTATUS(child.status) : -1;
}

// Files

// The content of a file; empty when it cannot be read.
std::string readFile(const std::string& name);

// Replaces the content of a file.
void writeFile(const std::string& name, const std::string& content);

// A directory that is removed with all it holds, in the process that made it. Its path has no
// symbolic links.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(ScratchDirectory&&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }
  std::string write(const std::string& name, const std::string& text) const;

 private:
  std::string path_;
  pid_t owner_;
};

// Both ends of a new pseudo-terminal. The user's end is `user`, the program's `program`.
class Terminal {
 public:
  Terminal();
  ~Terminal();
  Terminal(Terminal&&) = delete;

  // Makes it the controlling terminal and standard input of this process, in a new session.
  void control() const;

  int user = -1;
  int program = -1;
};

// A signal every two milliseconds, to interrupt whatever is under test

inline std::atomic<int> ticks{0};

// Starts the signals; `action` runs inside the third. Interrupted system calls fail with EINTR
// unless `restart` is set.
void startTicking(void (*action)(), bool restart = false);
void stopTicking();
