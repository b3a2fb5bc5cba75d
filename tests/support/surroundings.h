// What tests change around the code: ids, limits and mounts (in a child only), and scratch files.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "child.h"

// Runs `body` in a child, which exits with the code that it returns.
inline ChildResult inChild(const std::function<int()>& body) {
  return runInChild([&body] {
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  });
}

// The code that a child exited with; -1 if a signal ended it.
inline int exitCode(const ChildResult& child) {
  return WIFEXITED(child.status) ? WEXITSTATUS(child.status) : -1;
}

// Gives a child mounts of its own. Ends it with code 99 when the system does not allow that.
inline void useOwnMounts() {
  if (unshare(CLONE_NEWNS) == 0 &&
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    return;
  }
  std::perror("own mounts");
  _exit(99);
}

// Shows the file `source` as `target` to a child with mounts of its own.
inline void showAs(const std::string& source, const std::string& target) {
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0) return;
  std::perror(target.c_str());
  _exit(99);
}

// A directory that is removed with all it holds. Its path has no symbolic links.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string name =
        std::filesystem::canonical(std::filesystem::temp_directory_path()) / "povzel.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

  std::string write(const std::string& name, const std::string& text) const {
    writeFile(*this / name, text);
    return *this / name;
  }

 private:
  std::string path_;
};
