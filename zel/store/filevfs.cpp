#include "store/filevfs.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "store/checksum.h"
#include "store/store.h"

namespace zel {

namespace {

using File = FileVfs::File;

constexpr std::array<char, pageSize> emptyPage{};
constexpr std::int64_t markPlace = 72;
struct MarkBytes {
  std::array<std::uint32_t, 2> tick;  // low half first
  std::uint32_t state;                // the frames, shifted by one; 1 when in use
  std::array<std::uint32_t, 2> sum;
};
static_assert(sizeof(MarkBytes) == 20);

std::uint64_t sumOf(const MarkBytes& bytes) {
  return checksum(markPlace, {reinterpret_cast<const char*>(&bytes), offsetof(MarkBytes, sum)});
}

// Of a page without its own place, and of the first without the mark, which changes by itself.
std::uint64_t sumOfPage(const char* page, std::int64_t at) {
  const std::size_t size = pageSize - pageReserve;
  if (at != 0) return checksum(static_cast<std::uint64_t>(at), {page, size});
  const std::size_t behind = markPlace + sizeof(MarkBytes);
  return checksum(checksum(0, {page, markPlace}), {page + behind, size - behind});
}

// SQLite's bytes in the main file and in the shared memory file.
constexpr std::int64_t pendingByte = 0x40000000;
constexpr std::int64_t reservedByte = pendingByte + 1;
constexpr std::int64_t sharedBytes = pendingByte + 2;
constexpr std::int64_t sharedCount = 510;
constexpr std::int64_t firstShared = 120;
constexpr std::int64_t aliveByte = 128;  // held by everybody who has the shared memory

File& of(sqlite3_file* file) {
  return *reinterpret_cast<File*>(file);
}
FileVfs& of(sqlite3_vfs* vfs) {
  return *static_cast<FileVfs*>(vfs->pAppData);
}

int resultOf(int error, int otherwise) {
  switch (error) {
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return SQLITE_FULL;
    case ENOMEM:
      return SQLITE_NOMEM;
    default:
      return otherwise;
  }
}

int lockResult(FileVfs& vfs, int result) {
  if (result == 0) return SQLITE_OK;
  return errno == EAGAIN ? SQLITE_BUSY : vfs.trouble(SQLITE_IOERR_LOCK, "locking");
}

int closeFile(sqlite3_file* base) {
  File& file = of(base);
  if (file.isMain) file.vfs->unlock(file, SQLITE_LOCK_NONE);
  if (file.fd >= 0) ::close(file.fd);
  file.fd = -1;
  return SQLITE_OK;
}
int readFile(sqlite3_file* file, void* to, int amount, sqlite3_int64 at) {
  return of(file).vfs->read(of(file), to, amount, at);
}
int writeFile(sqlite3_file* file, const void* from, int amount, sqlite3_int64 at) {
  return of(file).vfs->write(of(file), from, amount, at);
}
int truncateFile(sqlite3_file* base, sqlite3_int64 size) {
  FileVfs& vfs = *of(base).vfs;
  if (vfs.calls().truncate(of(base).fd, size) == 0) return SQLITE_OK;
  return vfs.trouble(SQLITE_IOERR_TRUNCATE, "truncating");
}
int syncFile(sqlite3_file* base, int) {
  FileVfs& vfs = *of(base).vfs;
  if (vfs.calls().sync(of(base).fd) == 0) return SQLITE_OK;
  return vfs.trouble(SQLITE_IOERR_FSYNC, "writing");
}
int sizeOfFile(sqlite3_file* base, sqlite3_int64* size) {
  const File& file = of(base);
  struct stat64 status {};
  if (file.fd >= 0 && file.vfs->calls().status(file.fd, status) != 0) {
    return file.vfs->trouble(SQLITE_IOERR_FSTAT, "reading");
  }
  *size = status.st_size;
  return SQLITE_OK;
}
int lockFile(sqlite3_file* file, int level) {
  return of(file).vfs->lock(of(file), level);
}
int unlockFile(sqlite3_file* file, int level) {
  return of(file).vfs->unlock(of(file), level);
}
int checkReserved(sqlite3_file* file, int* result) {
  return of(file).vfs->isReserved(of(file), result);
}
int controlFile(sqlite3_file*, int, void*) {
  return SQLITE_NOTFOUND;
}
int sectorSize(sqlite3_file*) {
  return pageSize;
}
int characteristics(sqlite3_file*) {
  return SQLITE_IOCAP_POWERSAFE_OVERWRITE;
}
int mapShared(sqlite3_file* file, int region, int size, int extend, void volatile** result) {
  try {
    return of(file).vfs->mapShared(region, size, extend != 0, result);
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  }
}
int lockShared(sqlite3_file* file, int offset, int count, int flags) {
  return of(file).vfs->lockShared(offset, count, flags);
}
void barrier(sqlite3_file*) {
  __sync_synchronize();
}
int unmapShared(sqlite3_file* file, int remove) {
  of(file).vfs->unmapShared(remove != 0);
  return SQLITE_OK;
}

constexpr sqlite3_io_methods methods = {
    2,          closeFile,  readFile,      writeFile,   truncateFile, syncFile,        sizeOfFile,
    lockFile,   unlockFile, checkReserved, controlFile, sectorSize,   characteristics, mapShared,
    lockShared, barrier,    unmapShared,   nullptr,     nullptr};

int openFile(sqlite3_vfs* vfs, const char* path, sqlite3_file* file, int flags, int* outFlags) {
  file->pMethods = nullptr;
  return of(vfs).open(path, &of(file), flags, outFlags);
}
int deleteFile(sqlite3_vfs* vfs, const char* path, int) {
  if (of(vfs).calls().unlink(path) == 0) return SQLITE_OK;
  return errno == ENOENT ? SQLITE_IOERR_DELETE_NOENT
                         : of(vfs).trouble(SQLITE_IOERR_DELETE, "removing a file");
}
int accessFile(sqlite3_vfs* vfs, const char* path, int, int* result) {
  const std::string_view name = path;
  struct stat64 status;
  *result = name.size() > 4 && name.substr(name.size() - 4) == "-wal" &&
            of(vfs).calls().status(path, status) == 0;
  return SQLITE_OK;
}
int fullName(sqlite3_vfs*, const char* path, int size, char* result) {
  return std::snprintf(result, static_cast<std::size_t>(size), "%s", path) < size ? SQLITE_OK
                                                                                  : SQLITE_CANTOPEN;
}

}  // namespace

FileVfs::FileVfs(const FileCalls& calls, const std::string& path, FileRights rights, bool readOnly)
    : calls_(calls),
      rights_(rights),
      readOnly_(readOnly),
      framesPath_(framesPathOf(path)),
      sharedPath_(sharedPathOf(path)) {
  std::array<char, 32> name;
  std::snprintf(name.data(), name.size(), "povzel-%p", static_cast<void*>(this));
  name_ = name.data();
  const sqlite3_vfs* usual = sqlite3_vfs_find(nullptr);
  if (usual == nullptr) throw std::bad_alloc();
  vfs_.iVersion = 2;
  vfs_.szOsFile = sizeof(File);
  vfs_.mxPathname = usual->mxPathname < 4096 ? 4096 : usual->mxPathname;
  vfs_.zName = name_.c_str();
  vfs_.pAppData = this;
  vfs_.xOpen = openFile;
  vfs_.xDelete = deleteFile;
  vfs_.xAccess = accessFile;
  vfs_.xFullPathname = fullName;
  vfs_.xRandomness = usual->xRandomness;
  vfs_.xSleep = usual->xSleep;
  vfs_.xCurrentTime = usual->xCurrentTime;
  vfs_.xCurrentTimeInt64 = usual->xCurrentTimeInt64;
  if (sqlite3_vfs_register(&vfs_, 0) != SQLITE_OK) throw std::bad_alloc();
}

FileVfs::~FileVfs() {
  sqlite3_vfs_unregister(&vfs_);
}

int FileVfs::trouble(int result, const char* what) noexcept {
  const int error = errno;
  std::snprintf(trouble_.data(), trouble_.size(), "%s failed: %s", what, std::strerror(error));
  return resultOf(error, result);
}

std::string FileVfs::takeTrouble() {
  std::string text = trouble_.data();
  trouble_.front() = '\0';
  return text;
}

// Opens one of the other files, which may be new.
Descriptor FileVfs::openBeside(const std::string& path) const {
  const int flags = O_NOFOLLOW | (readOnly_ ? O_RDONLY : O_RDWR | O_CREAT);
  Descriptor fd(calls_.open(path.c_str(), flags, rights_.mode));
  struct stat64 status;
  if (!fd || readOnly_ || calls_.status(fd.get(), status) != 0 || status.st_size > 0) return fd;
  // Where this fails it belongs to somebody else, who has done the same.
  static_cast<void>(::fchmod(fd.get(), rights_.mode));
  if (::geteuid() == 0) static_cast<void>(::fchown(fd.get(), rights_.user, rights_.group) == 0);
  return fd;
}

int FileVfs::open(const char* path, File* file, int flags, int* outFlags) {
  if ((flags & (SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL)) == 0) return SQLITE_CANTOPEN;
  const bool isMain = (flags & SQLITE_OPEN_MAIN_DB) != 0;
  Descriptor fd = isMain ? Descriptor(calls_.open(path, readOnly_ ? O_RDONLY : O_RDWR))
                         : openBeside(framesPath_);
  if (!fd && (!readOnly_ || isMain || errno != ENOENT)) return trouble(SQLITE_CANTOPEN, "opening");
  (isMain ? mainFile_ : framesFile_) = fd.get();
  *file = {{&methods}, this, fd.release(), isMain, SQLITE_LOCK_NONE};
  if (outFlags != nullptr) *outFlags = flags;
  return SQLITE_OK;
}

bool FileVfs::isIntact(const char* page, std::int64_t at) const {
  std::uint64_t sum;
  std::memcpy(&sum, page + pageSize - pageReserve, sizeof sum);
  if (sum == sumOfPage(page, at)) return true;
  // SQLite may leave a page that it has no use for unwritten.
  return at != 0 && std::memcmp(page, emptyPage.data(), pageSize) == 0;
}

int FileVfs::read(const File& file, void* to, int amount, std::int64_t at) {
  auto* bytes = static_cast<char*>(to);
  int done = 0;
  while (done < amount && file.fd >= 0) {
    const auto size = static_cast<std::size_t>(amount - done);
    const ssize_t count = calls_.read(file.fd, bytes + done, size, at + done);
    if (count < 0) return trouble(SQLITE_IOERR_READ, "reading");
    if (count == 0) break;
    done += static_cast<int>(count);
  }
  const bool isPage = file.isMain && amount == pageSize && at % pageSize == 0;
  const auto isDamaged = [this, at](const char* what) {
    std::snprintf(trouble_.data(), trouble_.size(), "page %lld is %s",
                  static_cast<long long>(at / pageSize + 1), what);
    return SQLITE_IOERR_DATA;
  };
  if (isPage && done > 0 && done < amount) return isDamaged("cut off");
  if (done < amount) {
    std::memset(bytes + done, 0, static_cast<std::size_t>(amount - done));
    return SQLITE_IOERR_SHORT_READ;
  }
  if (!isPage || isIntact(bytes, at)) return SQLITE_OK;
  return isDamaged("not as it was written");
}

int FileVfs::write(const File& file, const void* from, int amount, std::int64_t at) {
  const auto failed = [this] { return trouble(SQLITE_IOERR_WRITE, "writing"); };
  const auto size = static_cast<std::size_t>(amount);
  if (!file.isMain || amount != pageSize) {
    return calls_.write(file.fd, from, size, at) == 0 ? SQLITE_OK : failed();
  }
  std::array<char, pageSize> page;
  std::memcpy(page.data(), from, pageSize);
  if (at == 0) {  // the mark in the file is newer than that in SQLite's page
    std::memset(page.data() + markPlace, 0, sizeof(MarkBytes));
    if (calls_.read(file.fd, page.data() + markPlace, sizeof(MarkBytes), markPlace) < 0) {
      return failed();
    }
  }
  const std::uint64_t sum = sumOfPage(page.data(), at);
  std::memcpy(page.data() + pageSize - pageReserve, &sum, sizeof sum);
  return calls_.write(file.fd, page.data(), pageSize, at) == 0 ? SQLITE_OK : failed();
}

int FileVfs::lock(File& file, int level) {
  if (file.level >= level) return SQLITE_OK;
  const auto tryLock = [&](short type, std::int64_t start, std::int64_t count) {
    return lockResult(*this, calls_.lock(file.fd, type, start, count));
  };
  if (level == SQLITE_LOCK_SHARED) {
    int result = tryLock(F_RDLCK, pendingByte, 1);
    if (result == SQLITE_OK) {
      result = tryLock(F_RDLCK, sharedBytes, sharedCount);
      calls_.unlock(file.fd, pendingByte, 1);
    }
    if (result == SQLITE_OK) file.level = level;
    return result;
  }
  if (level == SQLITE_LOCK_RESERVED) {
    const int result = tryLock(F_WRLCK, reservedByte, 1);
    if (result == SQLITE_OK) file.level = level;
    return result;
  }
  if (file.level < SQLITE_LOCK_PENDING) {
    const int result = tryLock(F_WRLCK, pendingByte, 1);
    if (result != SQLITE_OK) return result;
    file.level = SQLITE_LOCK_PENDING;
  }
  const int result = tryLock(F_WRLCK, sharedBytes, sharedCount);
  if (result == SQLITE_OK) file.level = SQLITE_LOCK_EXCLUSIVE;
  return result;
}

int FileVfs::unlock(File& file, int level) {
  if (file.level <= level) return SQLITE_OK;
  if (level == SQLITE_LOCK_SHARED) {
    if (calls_.lock(file.fd, F_RDLCK, sharedBytes, sharedCount) != 0) {
      return trouble(SQLITE_IOERR_RDLOCK, "locking");
    }
  } else {
    calls_.unlock(file.fd, sharedBytes, sharedCount);
  }
  calls_.unlock(file.fd, pendingByte, 2);  // and the reserved one
  file.level = level;
  return SQLITE_OK;
}

int FileVfs::isReserved(const File& file, int* result) {
  struct flock64 found;
  if (calls_.blocker(file.fd, F_WRLCK, reservedByte, 1, found) != 0) {
    return trouble(SQLITE_IOERR_CHECKRESERVEDLOCK, "locking");
  }
  *result = found.l_type != F_UNLCK || file.level >= SQLITE_LOCK_RESERVED;
  return SQLITE_OK;
}

// Who finds nobody else begins the shared memory anew.
int FileVfs::openShared() {
  sharedReadOnly_ = readOnly_;
  Descriptor fd = openBeside(sharedPath_);
  if (!fd && readOnly_) return SQLITE_READONLY_CANTINIT;
  if (!fd) return trouble(SQLITE_CANTOPEN, "opening the -shm file");
  if (sharedReadOnly_) {
    struct flock64 found;
    if (calls_.blocker(fd.get(), F_WRLCK, aliveByte, 1, found) != 0) {
      return trouble(SQLITE_IOERR_SHMLOCK, "locking");
    }
    if (found.l_type == F_UNLCK) return SQLITE_READONLY_CANTINIT;
  } else if (calls_.lock(fd.get(), F_WRLCK, aliveByte, 1) == 0) {
    if (calls_.truncate(fd.get(), 0) != 0) return trouble(SQLITE_IOERR_SHMOPEN, "opening");
  }
  if (const int result = lockResult(*this, calls_.lock(fd.get(), F_RDLCK, aliveByte, 1));
      result != SQLITE_OK) {
    return result;
  }
  shared_ = std::move(fd);
  return SQLITE_OK;
}

int FileVfs::mapShared(int region, int size, bool extend, void volatile** result) {
  *result = nullptr;
  if (!shared_) {
    if (const int opened = openShared(); opened != SQLITE_OK) return opened;
  }
  regionSize_ = size;
  const std::int64_t end = std::int64_t{size} * (region + 1);
  struct stat64 status;
  if (calls_.status(shared_.get(), status) != 0) return trouble(SQLITE_IOERR_SHMSIZE, "reading");
  if (status.st_size < end) {
    if (!extend) return SQLITE_OK;
    // Written, so that a full disk is noticed here and not where the memory is touched.
    for (std::int64_t at = status.st_size; at < end; at += pageSize) {
      if (calls_.write(shared_.get(), emptyPage.data(), pageSize, at) != 0) {
        return trouble(SQLITE_IOERR_SHMSIZE, "writing the -shm file");
      }
    }
  }
  const int protection = sharedReadOnly_ ? PROT_READ : PROT_READ | PROT_WRITE;
  regions_.reserve(static_cast<std::size_t>(region) + 1);
  while (regions_.size() <= static_cast<std::size_t>(region)) {
    const auto at = static_cast<std::int64_t>(regions_.size()) * size;
    void* memory = calls_.map(shared_.get(), static_cast<std::size_t>(size), protection, at);
    if (memory == MAP_FAILED) return trouble(SQLITE_IOERR_SHMMAP, "mapping the -shm file");
    regions_.push_back(memory);
  }
  *result = regions_[static_cast<std::size_t>(region)];
  return sharedReadOnly_ ? SQLITE_READONLY : SQLITE_OK;
}

int FileVfs::lockShared(int offset, int count, int flags) {
  // Where nobody can write there may be no shared memory.
  if (!shared_) return readOnly_ ? SQLITE_OK : SQLITE_IOERR_SHMLOCK;
  if ((flags & SQLITE_SHM_UNLOCK) != 0) {
    calls_.unlock(shared_.get(), firstShared + offset, count);
    return SQLITE_OK;
  }
  const short type = (flags & SQLITE_SHM_SHARED) != 0 ? F_RDLCK : F_WRLCK;
  return lockResult(*this, calls_.lock(shared_.get(), type, firstShared + offset, count));
}

void FileVfs::unmapShared(bool remove) noexcept {
  for (void* memory : regions_) ::munmap(memory, static_cast<std::size_t>(regionSize_));
  regions_.clear();
  if (!shared_) return;
  struct stat64 opened;
  struct stat64 named;
  if (remove && !readOnly_ && ::fstat64(shared_.get(), &opened) == 0 &&
      ::stat64(sharedPath_.c_str(), &named) == 0 && opened.st_ino == named.st_ino) {
    ::unlink(sharedPath_.c_str());
  }
  calls_.unlock(shared_.get(), firstShared, aliveByte - firstShared + 1);
  shared_.reset();
}

void FileVfs::abandon() noexcept {
  for (const int fd : {mainFile_, framesFile_}) {
    if (fd >= 0) ::close(fd);
  }
  shared_.reset();
}

std::uint32_t FileVfs::frames() const {
  constexpr std::size_t place = 4;  // the word of the index that counts them
  if (regions_.empty()) return 0;
  return static_cast<const volatile std::uint32_t*>(regions_.front())[place];
}

bool FileVfs::hasLostFrames() const {
  struct stat64 opened;
  struct stat64 named;
  return framesFile_ < 0 || calls_.status(framesFile_, opened) != 0 || opened.st_nlink == 0 ||
         calls_.status(framesPath_.c_str(), named) != 0 || named.st_ino != opened.st_ino;
}

bool isBesideInUse(const FileCalls& calls, const std::string& path) {
  const Descriptor shared(calls.open(sharedPathOf(path).c_str(), O_RDONLY | O_NOFOLLOW));
  if (!shared && errno == ENOENT) return false;
  struct flock64 found;
  if (shared && calls.blocker(shared.get(), F_WRLCK, aliveByte, 1, found) == 0) {
    return found.l_type != F_UNLCK;
  }
  throw Failure(ErrDamaged, "the database " + path + ": looking at " + sharedPathOf(path) +
                                " failed: " + std::strerror(errno));
}

void removeBeside(const FileCalls& calls, const std::string& path) {
  const auto remove = [&](const std::string& name) {
    if (calls.unlink(name.c_str()) == 0 || errno == ENOENT) return;
    throw Failure(ErrReadOnly, "the database " + path + ": removing " + name +
                                   " failed: " + std::strerror(errno));
  };
  remove(framesPathOf(path));
  remove(sharedPathOf(path));
}

bool FileVfs::missesFrames() const {
  struct stat64 status;
  return readOnly_ && framesFile_ < 0 && calls_.status(framesPath_.c_str(), status) == 0;
}

Mark readMark(const FileCalls& calls, int fd, const std::string& path) {
  // Who may not take the lock may meet one that is just being written.
  for (int attempt = 0; attempt < 3; ++attempt) {
    MarkBytes bytes{};
    if (calls.read(fd, &bytes, sizeof bytes, markPlace) < 0) {
      throw Failure(ErrDamaged,
                    "the database " + path + ": reading it failed: " + std::strerror(errno));
    }
    const auto whole = [](const std::array<std::uint32_t, 2>& halves) {
      return halves[0] | static_cast<std::uint64_t>(halves[1]) << 32;
    };
    if (whole(bytes.sum) != sumOf(bytes)) continue;
    return {whole(bytes.tick), (bytes.state & 1) != 0, bytes.state >> 1};
  }
  throw Failure(ErrDamaged,
                "the database " + path + " is damaged: its header is not as it was written");
}

void writeMark(const FileCalls& calls, int fd, const std::string& path, const Mark& mark) {
  const auto halves = [](std::uint64_t value) {
    return std::array{static_cast<std::uint32_t>(value), static_cast<std::uint32_t>(value >> 32)};
  };
  MarkBytes bytes{halves(mark.tick), mark.filling << 1 | (mark.inUse ? 1U : 0U), {}};
  bytes.sum = halves(sumOf(bytes));
  if (calls.write(fd, &bytes, sizeof bytes, markPlace) == 0 && calls.sync(fd) == 0) return;
  const int error = errno;
  throw Failure(error == ENOSPC || error == EDQUOT ? ErrStoreFull : ErrDamaged,
                "the database " + path + ": writing it failed: " + std::strerror(error));
}

}  // namespace zel
