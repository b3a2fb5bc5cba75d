#include "store/newfile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "store/openfile.h"

namespace zel {

NewFile::NewFile(const FileCalls& calls, const Waiting& waiting, const std::string& path)
    : calls_(calls), waiting_(waiting), path_(path), made_(calls, path) {
  if (!made_) fail("making a file in its folder");
  tables_ =
      std::make_unique<Tables>(calls_, waiting_, made_.name(), Tables::Options{.building = true});
  tables_->make();
  transaction_.emplace(*tables_, true);
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
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case ENOENT:
    case ENOTDIR:
      throw Failure(ErrLoginDenied, text);
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
  Descriptor fd(calls_.open(made_.name().c_str(), O_RDWR));
  if (!fd) fail("opening it");
  writeMark(calls_, fd.get(), path_, {state.tick, false, 0});
  return std::make_unique<FileLocks>(calls_, waiting_, path_, std::move(fd));
}

void NewFile::settle() {
  if (calls_.syncFolder(folderOf(path_).c_str()) == 0) return;
  throw Failure(ErrOutcomeUnknown, "the database " + path_ +
                                       " is in its place, but whether it will last is unknown: "
                                       "writing its folder failed: " +
                                       std::strerror(errno));
}

bool NewFile::publish(bool overEmpty) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    // Two who find the same empty file in their way: one of them locks it.
    const Descriptor empty(calls_.open(path_.c_str(), O_RDWR | O_NONBLOCK));
    if (!empty) {
      if (errno != ENOENT) fail("making it");
      if (made_.place()) return true;
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
    if (!made_.replace()) fail("making it");
    return true;
  }
  return false;
}

void NewFile::replace() {
  struct stat64 there;
  if (calls_.status(path_.c_str(), there) != 0) fail("replacing it");
  // Only the superuser may need to, and can, give it to somebody else.
  if (there.st_uid != ::geteuid() || there.st_gid != ::getegid()) {
    if (::chown(made_.name().c_str(), there.st_uid, there.st_gid) != 0)
      fail("giving it to its owner");
  }
  if (::chmod(made_.name().c_str(), there.st_mode & 0777) != 0) fail("replacing it");
  if (!made_.replace()) fail("replacing it");
}

}  // namespace zel
