// Runs a piece of a test in a child process and tells how that ended and what it wrote.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

struct ChildResult {
  int status;  // as from waitpid
  std::string out;
  std::string err;

  bool exitedWith(int code) const;
  bool killedBy(int signal) const;
};

// Forks; the child runs `body` with its output and errors captured, and exits with status 0 when
// that returns, after flushing the streams. Waits for the child itself, not for what it started.
ChildResult runInChild(const std::function<void()>& body);

// The content of a file; empty when it cannot be read.
std::string readFile(const std::string& name);

// Replaces the content of a file.
void writeFile(const std::string& name, const std::string& content);
