// System calls on the file store's files: the one place where tests make them fail, and where an
// interrupted one is repeated. They answer as the calls themselves do.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <utility>

namespace zel {

// Asked before each call, by its name: 0 lets it be made, anything else is the errno it fails with.
using FailCall = std::function<int(const char* call)>;

class FileCalls {
 public:
  explicit FileCalls(FailCall before = nullptr) : before_(std::move(before)) {}

  int open(const char* name, int flags, mode_t mode = 0) const {
    return tried("open", [=] { return ::open64(name, flags | O_CLOEXEC | O_NOCTTY, mode); });
  }
  ssize_t read(int fd, void* to, std::size_t size, std::int64_t at) const {
    return tried("pread", [=] { return ::pread64(fd, to, size, at); });
  }
  // Writes all of it; answers -1 when it could not.
  int write(int fd, const void* from, std::size_t size, std::int64_t at) const {
    const auto* bytes = static_cast<const char*>(from);
    while (size > 0) {
      const ssize_t done = tried("pwrite", [=] { return ::pwrite64(fd, bytes, size, at); });
      if (done < 0) return -1;
      bytes += done;
      size -= static_cast<std::size_t>(done);
      at += done;
    }
    return 0;
  }
  int truncate(int fd, std::int64_t size) const {
    return tried("ftruncate", [=] { return ::ftruncate64(fd, size); });
  }
  int sync(int fd) const {
    return tried("fdatasync", [=] { return ::fdatasync(fd); });
  }
  // Makes the names in a folder last.
  int syncFolder(const char* folder) const {
    const int fd = open(folder, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return -1;
    const int result = tried("fsync", [=] { return ::fsync(fd); });
    ::close(fd);
    // Some file systems know nothing of it.
    return result < 0 && errno == EINVAL ? 0 : result;
  }
  int status(int fd, struct stat64& result) const {
    return tried("fstat", [&, fd] { return ::fstat64(fd, &result); });
  }
  int status(const char* name, struct stat64& result) const {
    return tried("stat", [&, name] { return ::stat64(name, &result); });
  }
  int unlink(const char* name) const {
    return tried("unlink", [=] { return ::unlink(name); });
  }
  void* map(int fd, std::size_t size, int protection, std::int64_t at) const {
    if (!let("mmap") && errno != EINTR) return MAP_FAILED;
    return ::mmap64(nullptr, size, protection, MAP_SHARED, fd, at);
  }
  // A lock of the open file, not of the process: another open and close of it does no harm. Type is
  // F_RDLCK, F_WRLCK or F_UNLCK; does not wait, and fails with EAGAIN.
  int lock(int fd, short type, std::int64_t start, std::int64_t length) const {
    struct flock64 lock = range(type, start, length);
    const int result = tried("fcntl", [&, fd] { return ::fcntl64(fd, F_OFD_SETLK, &lock); });
    if (result < 0 && errno == EACCES) errno = EAGAIN;
    return result;
  }
  void unlock(int fd, std::int64_t start, std::int64_t length) const noexcept {
    struct flock64 lock = range(F_UNLCK, start, length);
    ::fcntl64(fd, F_OFD_SETLK, &lock);
  }
  // The first lock found that would be in the way of one of that type; its type is F_UNLCK if none.
  int blocker(int fd, short type, std::int64_t start, std::int64_t length,
              struct flock64& found) const {
    found = range(type, start, length);
    return tried("fcntl", [&, fd] { return ::fcntl64(fd, F_OFD_GETLK, &found); });
  }

 private:
  static struct flock64 range(short type, std::int64_t start, std::int64_t length) {
    struct flock64 lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
  }
  bool let(const char* name) const {
    const int error = before_ ? before_(name) : 0;
    if (error != 0) errno = error;
    return error == 0;
  }
  template <typename Call>
  auto tried(const char* name, Call call) const -> decltype(call()) {
    for (;;) {
      const auto result = let(name) ? call() : -1;
      if (result >= 0 || errno != EINTR) return result;
    }
  }

  FailCall before_;
};

// A descriptor, closed at the end.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.fd_);
    other.fd_ = -1;
    return *this;
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

}  // namespace zel
