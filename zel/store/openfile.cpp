#include "store/openfile.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace zel {

namespace {

constexpr std::uint32_t fewFrames = 1000;

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
  throw Failure(ErrLoginDenied, "the database " + path + " cannot be opened: " + what);
}

// Damage that the files around have, and that can be mended while the file is open.
[[noreturn]] void lost(const std::string& path, const std::string& what) {
  throw Failure(ErrDamaged, "the database " + path + " is damaged: " + what);
}

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "it is a folder";
  if (S_ISFIFO(mode)) return "it is a pipe";
  if (S_ISSOCK(mode)) return "it is a socket";
  return S_ISREG(mode) ? nullptr : "it is a device";
}

std::uint32_t bigEndian(const unsigned char* from) {
  return static_cast<std::uint32_t>(from[0] << 24 | from[1] << 16 | from[2] << 8 | from[3]);
}

// What the header says, which is part of the first page.
void checkHeader(const FileCalls& calls, int fd, const std::string& path) {
  constexpr std::array<char, 16> magic{"SQLite format 3"};
  std::array<unsigned char, 100> header{};
  const ssize_t size = calls.read(fd, header.data(), header.size(), 0);
  if (size < 0) refuse(path, std::strerror(errno));
  if (std::memcmp(header.data(), magic.data(), magic.size()) != 0)
    refuse(path, "it is another kind of file");
  if (static_cast<std::size_t>(size) < header.size()) {
    lost(path, "it is cut off");
  }
  if (bigEndian(&header[68]) != applicationId) {
    refuse(path, "it is a file of another program that uses SQLite");
  }
  const std::uint32_t version = bigEndian(&header[60]);
  if (version == 0) lost(path, "it has no format");
  if (version > formatVersion) {
    throw Failure(ErrNewerStore,
                  "the database " + path + " has the format " + std::to_string(version) +
                      " of a newer version; this one knows " + std::to_string(formatVersion));
  }
}

// What lies beside it is found by its name.
void requireOneName(const struct stat64& status, const std::string& path) {
  if (status.st_nlink < 2) return;
  throw Failure(ErrNotPermitted,
                "the database " + path +
                    " has another name, a hard link, under which its commits would not be seen: "
                    "remove one of the two");
}

// Whether the path leads to the open file; takes what the system says of that.
bool isNamed(const FileCalls& calls, int fd, const std::string& path, struct stat64& opened) {
  struct stat64 named;
  return calls.status(fd, opened) == 0 && calls.status(path.c_str(), named) == 0 &&
         opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

// Takes the lock `use`; answers false when somebody has it alone, or another file has the name. The
// first to come looks at what lies beside a file that was closed, or never opened: it is another
// file's, which had the name, or was left by somebody who had not committed anything or had moved
// all of it.
bool enter(const FileCalls& calls, FileLocks& locks, const std::string& path, bool readOnly) {
  struct stat64 status;
  if (!readOnly && locks.tryLock(FileLocks::use, false)) {
    if (!isNamed(calls, locks.descriptor(), path, status)) return false;
    if (!readMark(calls, locks.descriptor(), path).inUse) {
      requireNobodyBeside(calls, path);
      removeBeside(calls, path);
    }
  }
  return locks.tryLock(FileLocks::use, true) && isNamed(calls, locks.descriptor(), path, status);
}

}  // namespace

void requireNobodyBeside(const FileCalls& calls, const std::string& path) {
  if (!isBesideInUse(calls, path)) return;
  throw Failure(ErrInUseElsewhere, "the database " + path +
                                       " has come in the place of one that is in use: end the "
                                       "programs and sessions that use that");
}

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> full(::realpath(path.c_str(), nullptr),
                                                         std::free);
  if (full) return full.get();
  const std::size_t slash = path.rfind('/');
  if (slash == 0) return path;
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
  const std::unique_ptr<char, decltype(&std::free)> there(::realpath(folder.c_str(), nullptr),
                                                          std::free);
  if (!there) refuse(path, std::strerror(errno));
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return std::string(there.get()) + "/" + name;
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

OpenFile::OpenFile(const FileOptions& options)
    : calls_(options.beforeCall),
      waiting_{options.poll, options.patience},
      path_(resolved(options.path)),
      process_(::getpid()) {}

OpenFile::~OpenFile() {
  close();
}

bool OpenFile::isForked() const noexcept {
  return process_ != ::getpid();
}

void OpenFile::checkProcess() const {
  if (!isForked()) return;
  throw Failure(ErrInUseElsewhere, "the database " + path_ +
                                       " is in use by the process that this one was forked from: "
                                       "log in again");
}

bool OpenFile::open() {
  checkProcess();
  if (tables_ != nullptr && tables_->vfs().missesFrames()) tables_.reset();
  if (tables_ != nullptr) return true;
  if (locks_ != nullptr) {
    openTables();
    return true;
  }
  return attach();
}

bool OpenFile::attach() {
  Patience patience(waiting_);
  for (;;) {
    struct stat64 status;
    if (calls_.status(path_.c_str(), status) != 0) {
      const int error = errno;
      if (error != ENOENT) refuse(path_, std::strerror(error));
      if (::lstat64(path_.c_str(), &status) == 0) refuse(path_, "it is a link that leads nowhere");
      return false;
    }
    if (const char* kind = kindOf(status.st_mode)) refuse(path_, kind);
    if (status.st_size == 0) return false;
    readOnly_ = ::faccessat(AT_FDCWD, folderOf(path_).c_str(), W_OK, AT_EACCESS) != 0;
    Descriptor fd(calls_.open(path_.c_str(), (readOnly_ ? O_RDONLY : O_RDWR) | O_NONBLOCK));
    if (!fd && (errno == EACCES || errno == EROFS || errno == EPERM)) {
      readOnly_ = true;
      fd = Descriptor(calls_.open(path_.c_str(), O_RDONLY | O_NONBLOCK));
    }
    struct stat64 opened;
    if (!fd || calls_.status(fd.get(), opened) != 0) refuse(path_, std::strerror(errno));
    requireOneName(opened, path_);
    checkHeader(calls_, fd.get(), path_);
    auto locks = std::make_unique<FileLocks>(calls_, waiting_, path_, std::move(fd));
    bool isIn = false;
    {
      const Locked alone(*locks, FileLocks::closing, readOnly_);
      isIn = enter(calls_, *locks, path_, readOnly_);
    }
    // It may have been compacted, which puts another file in its place.
    if (isIn) {
      rights_ = {opened.st_mode & 0666, opened.st_uid, opened.st_gid};
      locks_ = std::move(locks);
      break;
    }
    if (!patience.pause()) {
      throw Failure(ErrStoreBusy, "the database " + path_ + " is busy: others use it");
    }
  }
  try {
    openTables();
  } catch (...) {
    locks_.reset();
    throw;
  }
  return true;
}

// Beside a writer the mark may just be on its way: what looks like damage is looked at once more
// while nobody writes.
void OpenFile::openTables() {
  try {
    return attachTables();
  } catch (const Failure& failure) {
    if (failure.number != ErrDamaged || readOnly_) throw;
  }
  const Locked still(*locks_, FileLocks::write);
  attachTables();
}

void OpenFile::attachTables() {
  const Mark mark = readMark(calls_, locks_->descriptor(), path_);
  // Looked at before SQLite makes it. Nobody takes it away while this has the lock `use`.
  const std::string frames = framesPathOf(path_);
  struct stat64 status;
  if (mark.inUse && calls_.status(frames.c_str(), status) != 0) {
    lost(path_, frames + " is missing");
  }
  tables_ = std::make_unique<Tables>(calls_, waiting_, path_,
                                     Tables::Options{.readOnly = readOnly_, .rights = rights_});
  try {
    check(mark);
  } catch (...) {
    tables_.reset();
    throw;
  }
}

// What both files together hold is not older than the mark.
void OpenFile::check(const Mark& mark) {
  const State state = tables_->state();
  const bool isFilled = mark.filling <= tables_->vfs().frames();
  if (state.tick >= mark.tick && isFilled) return;
  // Without the lock `write` the mark may have moved on. Without shared memory nobody counts.
  if (readOnly_ && state.tick >= mark.tick) {
    if (readMark(calls_, locks_->descriptor(), path_).filling == 0) return;
    throw Failure(ErrReadOnly, "the database " + path_ +
                                   " can only be read, and was left by a process that was killed: "
                                   "open it once where it can be written");
  }
  lost(path_, "commits are missing in " + tables_->vfs().framesPath());
}

bool OpenFile::isStillThere() const {
  struct stat64 status;
  if (isForked()) return false;
  if (locks_ != nullptr) return isNamed(calls_, locks_->descriptor(), path_, status);
  return calls_.status(path_.c_str(), status) != 0 || status.st_size == 0;
}

void OpenFile::checkWritable() const {
  if (readOnly_) throw Failure(ErrReadOnly, "the database " + path_ + " can only be read");
  tables_->checkWhole();
}

void OpenFile::prepareToWrite() {
  const int fd = locks_->descriptor();
  struct stat64 opened;
  if (!isNamed(calls_, fd, path_, opened))
    lost(path_, "the file was removed or replaced while in use");
  requireOneName(opened, path_);
  const Mark mark = readMark(calls_, fd, path_);
  if (mark.filling != 0) fill(true);  // somebody has ended within it
  const auto requireFrames = [this] {
    if (tables_->vfs().hasLostFrames()) lost(path_, tables_->vfs().framesPath() + " was removed");
  };
  if (mark.inUse) return requireFrames();
  // The first write is none of what anybody waits for: when the mark cannot be set, nothing is
  // lost.
  State state;
  {
    Transaction transaction(*tables_, true);
    state = tables_->state();
    state.tick += 1;
    tables_->setState(state);
    transaction.commit();
  }
  requireFrames();
  if (calls_.syncFolder(folderOf(path_).c_str()) != 0) {
    throw Failure(ErrDamaged,
                  "the database " + path_ + ": writing its folder failed: " + std::strerror(errno));
  }
  writeMark(calls_, fd, path_, {state.tick, true, 0});
}

bool OpenFile::fill(bool always) {
  const State state = tables_->state();
  const std::uint32_t frames = tables_->vfs().frames();
  if (!always && frames < fewFrames) return false;
  const int fd = locks_->descriptor();
  writeMark(calls_, fd, path_, {state.tick, true, frames});
  if (!tables_->checkpoint()) return false;
  writeMark(calls_, fd, path_, {state.tick, true, 0});
  return true;
}

void OpenFile::closeTables() {
  const int fd = locks_->descriptor();
  const Mark mark = readMark(calls_, fd, path_);
  const auto give = [this] { lost(path_, "its commits cannot be moved into it"); };
  // What lies under those names now may be another file's.
  if (tables_->vfs().hasLostFrames()) give();
  if (mark.inUse || tables_->vfs().frames() > 0) {
    const State state = tables_->state();
    if (!fill(true)) give();
    writeMark(calls_, fd, path_, {state.tick, false, 0});
  }
  tables_->removeFramesAtEnd();
  tables_.reset();
}

void OpenFile::close() noexcept {
  if (isForked()) {
    if (tables_ != nullptr) tables_->abandon();
    if (locks_ != nullptr) locks_->abandon();
    return;
  }
  try {
    if (tables_ != nullptr && !readOnly_) {
      // One after the other, so that one of them is the last; nobody is waited for who writes.
      const Locked still(*locks_, FileLocks::closing);
      if (locks_->tryLock(FileLocks::use, false)) closeTables();
      tables_.reset();
      locks_->unlock(FileLocks::use);
    }
  } catch (...) {
    // The files stay as after the end of the process: the next to open them goes on from there.
    tables_.reset();
  }
  tables_.reset();
  locks_.reset();
}

std::uint64_t OpenFile::bytes() {
  std::uint64_t sum = 0;
  struct stat64 status;
  for (const std::string& name : {path_, tables_->vfs().framesPath()}) {
    if (calls_.status(name.c_str(), status) == 0) sum += static_cast<std::uint64_t>(status.st_size);
  }
  return sum;
}

}  // namespace zel
