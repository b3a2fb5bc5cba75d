#include "store/newfile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "store/openfile.h"

namespace zel {

namespace {

// Not every file system can do it in one step.
bool moveToNothing(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (::link(from, to) != 0) return false;
  ::unlink(from);
  return true;
}

}  // namespace

NewFile::NewFile(const FileCalls& calls, const Waiting& waiting, const std::string& path)
    : calls_(calls), waiting_(waiting), path_(path), own_(path + ".new-XXXXXX") {
  const Descriptor made(::mkostemp(own_.data(), O_CLOEXEC));
  if (!made) {
    own_.clear();
    fail("making it");
  }
  try {
    tables_ = std::make_unique<Tables>(calls_, waiting_, own_, Tables::Options{.building = true});
    tables_->make();
    transaction_.emplace(*tables_, true);
  } catch (...) {
    tables_.reset();
    ::unlink(own_.c_str());
    throw;
  }
}

NewFile::~NewFile() {
  transaction_.reset();
  tables_.reset();
  if (!own_.empty()) ::unlink(own_.c_str());
}

void NewFile::fail(const char* what) const {
  const int error = errno;
  const std::string text =
      "the database " + path_ + ": " + what + " failed: " + std::strerror(error);
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      throw Failure(ErrStoreFull, text);
    case EACCES:
    case EROFS:
    case EPERM:
      throw Failure(ErrReadOnly, text);
    default:
      throw Failure(ErrDamaged, text);
  }
}

std::unique_ptr<FileLocks> NewFile::finish() {
  tables_->setState(state);
  transaction_->commit();
  transaction_.reset();
  tables_->finish();
  tables_->removeFramesAtEnd();
  tables_.reset();
  Descriptor fd(calls_.open(own_.c_str(), O_RDWR));
  if (!fd) fail("opening it");
  writeMark(calls_, fd.get(), path_, {state.tick, false, 0});
  return std::make_unique<FileLocks>(calls_, waiting_, path_, std::move(fd));
}

// From here on it is there, whatever happens.
void NewFile::settle() {
  own_.clear();
  calls_.syncFolder(folderOf(path_).c_str());
}

bool NewFile::publish(bool overEmpty) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    // Two who find the same empty file in their way: one of them locks it.
    const Descriptor empty(calls_.open(path_.c_str(), O_RDWR | O_NONBLOCK));
    if (!empty) {
      if (errno != ENOENT) fail("making it");
      if (moveToNothing(own_.c_str(), path_.c_str())) {
        settle();
        return true;
      }
      if (errno != EEXIST) fail("making it");
      continue;
    }
    struct stat64 opened;
    struct stat64 named;
    if (!overEmpty) return false;
    if (calls_.lock(empty.get(), F_WRLCK, 0, 1) != 0) return false;
    if (calls_.status(empty.get(), opened) != 0 || calls_.status(path_.c_str(), named) != 0) {
      fail("making it");
    }
    if (opened.st_ino != named.st_ino || opened.st_size > 0) return false;
    if (::rename(own_.c_str(), path_.c_str()) != 0) fail("making it");
    settle();
    return true;
  }
  return false;
}

void NewFile::replace() {
  struct stat64 there;
  if (calls_.status(path_.c_str(), there) != 0) fail("replacing it");
  // Only the superuser may need to, and can, give it to somebody else.
  if (there.st_uid != ::geteuid() || there.st_gid != ::getegid()) {
    if (::chown(own_.c_str(), there.st_uid, there.st_gid) != 0) fail("giving it to its owner");
  }
  if (::chmod(own_.c_str(), there.st_mode & 0777) != 0) fail("replacing it");
  if (::rename(own_.c_str(), path_.c_str()) != 0) fail("replacing it");
  settle();
}

}  // namespace zel
