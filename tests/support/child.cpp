#include "child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

// An unnamed file that a child writes into; unlike a pipe it never fills up and never waits.
class CapturedOutput {
 public:
  CapturedOutput() : file_(std::tmpfile()) {
    if (file_ == nullptr) std::abort();
  }
  ~CapturedOutput() { std::fclose(file_); }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  int descriptor() const { return fileno(file_); }
  std::string text() const {
    std::string result;
    char buffer[4096];
    off_t offset = 0;
    for (ssize_t got; (got = pread(descriptor(), buffer, sizeof buffer, offset)) > 0;
         offset += got) {
      result.append(buffer, static_cast<std::size_t>(got));
    }
    return result;
  }

 private:
  FILE* file_;
};

}  // namespace

bool ChildResult::exitedWith(int code) const {
  return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

bool ChildResult::killedBy(int signal) const {
  return WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

ChildResult runInChild(const std::function<void()>& body) {
  const CapturedOutput out;
  const CapturedOutput err;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) std::abort();
  if (child == 0) {
    dup2(out.descriptor(), STDOUT_FILENO);
    dup2(err.descriptor(), STDERR_FILENO);
    body();
    std::fflush(nullptr);
    _exit(0);
  }
  ChildResult result{};
  while (waitpid(child, &result.status, 0) < 0) {
  }
  result.out = out.text();
  result.err = err.text();
  return result;
}

std::string readFile(const std::string& name) {
  std::ostringstream content;
  content << std::ifstream(name).rdbuf();
  return content.str();
}

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::trunc) << content;
}
