// The file-name expander as it is defined, step by step and without regard to cost: after every
// change of the name the scan starts again. Tests hold the library's own against it.
#pragma once

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

class ExpanderModel {
 public:
  explicit ExpanderModel(std::size_t size, bool followLinks = true)
      : size_(size), followLinks_(followLinks) {}

  std::string expand(const std::string& input) {
    if (size_ == 0 || input.empty()) return "";
    name_ = input.substr(0, size_ - 1);
    substituteVariable(input);
    makeAbsolute();
    links_ = 0;
    while (step()) {
    }
    struct stat64 status;
    if (followLinks_ && stat64(name_.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
        name_.back() != '/') {
      assignIfItFits(name_ + "/");
    }
    return name_;
  }

 private:
  bool assignIfItFits(const std::string& name) {
    if (name.size() >= size_) return false;
    name_ = name;
    return true;
  }

  void substituteVariable(const std::string& input) {
    if (input[0] != '$') return;
    const std::size_t slash = std::min(input.find('/'), input.size());
    const char* value = std::getenv(input.substr(1, slash - 1).c_str());
    if (value != nullptr) assignIfItFits(value + input.substr(slash));
  }

  void makeAbsolute() {
    if (name_[0] == '$' || name_[0] == '/') return;
    char directory[PATH_MAX];
    if (getcwd(directory, sizeof directory) != nullptr) {
      assignIfItFits(directory + std::string("/") + name_);
    }
  }

  // Makes the first change that is due; false when there is none.
  bool step() {
    for (std::size_t at = 0; at <= name_.size(); ++at) {
      if (at < name_.size() && name_[at] != '/') continue;
      const std::string prefix = name_.substr(0, at);
      const std::string rest = name_.substr(at);
      if (prefix.ends_with("/.")) {
        name_ = prefix.substr(0, at - 2) + rest;
        return true;
      }
      if (prefix.ends_with("/..") && at >= 4) {
        const std::size_t slash = prefix.substr(0, at - 3).rfind('/');
        const std::string kept = slash == std::string::npos ? "" : prefix.substr(0, slash + 1);
        name_ = kept + (rest.empty() ? rest : rest.substr(1));
        return true;
      }
      char target[PATH_MAX];
      if (!followLinks_) continue;
      const ssize_t length = readlink(prefix.c_str(), target, sizeof target - 1);
      if (length < 0) continue;
      if (++links_ == 4095) return false;
      const std::string text(target, static_cast<std::size_t>(length));
      const std::size_t slash = prefix.rfind('/');
      const std::string directory = slash == std::string::npos ? "" : prefix.substr(0, slash + 1);
      std::string changed = text[0] == '/' ? "" : directory;
      changed += text;
      changed += rest;
      return assignIfItFits(changed);
    }
    return false;
  }

  std::size_t size_;
  bool followLinks_;
  std::string name_;
  int links_ = 0;
};
