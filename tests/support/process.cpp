#include "process.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace {

// An unnamed file that a child writes into; unlike a pipe it never fills up and never waits.
using OutputFile = std::unique_ptr<FILE, int (*)(FILE*)>;

std::string textOf(const OutputFile& file) {
  return readFile("/proc/self/fd/" + std::to_string(fileno(file.get())));
}

void (*onThirdTick)() = nullptr;

}  // namespace

ChildResult inChild(const std::function<int()>& body) {
  const OutputFile out(std::tmpfile(), std::fclose);
  const OutputFile err(std::tmpfile(), std::fclose);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0 || out == nullptr || err == nullptr) std::abort();
  if (child == 0) {
    dup2(fileno(out.get()), STDOUT_FILENO);
    dup2(fileno(err.get()), STDERR_FILENO);
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  }
  ChildResult result{};
  while (waitpid(child, &result.status, 0) < 0) {
  }
  result.out = textOf(out);
  result.err = textOf(err);
  return result;
}

ChildResult runInChild(const std::function<void()>& body) {
  return inChild([&body] { return body(), 0; });
}

std::string readFile(const std::string& name) {
  std::ostringstream content;
  content << std::ifstream(name).rdbuf();
  return content.str();
}

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::trunc) << content;
}

ScratchDirectory::ScratchDirectory() : owner_(getpid()) {
  std::string name =
      std::filesystem::canonical(std::filesystem::temp_directory_path()) / "povzel.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) std::abort();
  path_ = name;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  if (owner_ == getpid()) std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDirectory::write(const std::string& name, const std::string& text) const {
  writeFile(*this / name, text);
  return *this / name;
}

Terminal::Terminal() : user(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  if (grantpt(user) != 0 || unlockpt(user) != 0) std::abort();
  program = open(ptsname(user), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (program < 0) std::abort();
}

Terminal::~Terminal() {
  close(program);
  close(user);
}

void Terminal::control() const {
  setsid();
  ioctl(program, TIOCSCTTY, 0);
  dup2(program, STDIN_FILENO);
}

void startTicking(void (*action)(), bool restart) {
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

void stopTicking() {
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
}
