#include "store/unfinished.h"

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace zel {

namespace {

constexpr std::string_view ending = ".povzel-new-";
constexpr std::string_view letters = "XXXXXX";  // what mkostemp() replaces
constexpr std::int64_t makersByte = (std::int64_t{1} << 61) + 16;

bool tryLock(const FileCalls& calls, int fd) {
  return calls.lock(fd, F_WRLCK, makersByte, 1) == 0;
}

// Whether the open file is a plain one that has that name.
bool isNamed(const FileCalls& calls, int fd, const std::string& name) {
  struct stat64 opened;
  struct stat64 named;
  return calls.status(fd, opened) == 0 && calls.status(name.c_str(), named) == 0 &&
         S_ISREG(opened.st_mode) && opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

// Where it stays nobody is harmed.
void removeLeft(const FileCalls& calls, const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
  const std::string start = path.substr(slash + 1).append(ending);
  const auto close = [](DIR* opened) { ::closedir(opened); };
  const std::unique_ptr<DIR, decltype(close)> names(::opendir(folder.c_str()), close);
  while (const dirent64* entry = names ? ::readdir64(names.get()) : nullptr) {
    const std::string_view found = entry->d_name;
    if (!found.starts_with(start) || found.size() != start.size() + letters.size()) continue;
    const std::string name = folder + entry->d_name;
    const Descriptor file(calls.open(name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK));
    if (!file || !tryLock(calls, file.get()) || !isNamed(calls, file.get(), name)) continue;
    for (const char* beside : {"-wal", "-shm", ""}) calls.unlink((name + beside).c_str());
  }
}

// Not every file system can do it in one step.
bool moveToNothing(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (::link(from, to) != 0) return false;
  ::unlink(from);
  return true;
}

}  // namespace

Unfinished::Unfinished(const FileCalls& calls, const std::string& path)
    : calls_(calls), path_(path) {
  removeLeft(calls, path);
  // Between making and locking, another may take it for one that was left.
  for (int attempt = 0; attempt < 100; ++attempt) {
    name_ = std::string(path).append(ending).append(letters);
    file_.reset(::mkostemp64(name_.data(), O_CLOEXEC));
    if (!file_) name_.clear();
    if (!file_) return;
    if (!tryLock(calls, file_.get()) && errno == EAGAIN) continue;
    struct stat64 status;
    if (calls.status(file_.get(), status) != 0 || status.st_nlink > 0) return;
  }
  file_.reset();
  name_.clear();
  errno = EAGAIN;
}

Unfinished::~Unfinished() {
  if (!name_.empty()) calls_.unlink(name_.c_str());
}

bool Unfinished::place() {
  if (!moveToNothing(name_.c_str(), path_.c_str())) return false;
  name_.clear();
  return true;
}

bool Unfinished::replace() {
  if (::rename(name_.c_str(), path_.c_str()) != 0) return false;
  name_.clear();
  return true;
}

}  // namespace zel
