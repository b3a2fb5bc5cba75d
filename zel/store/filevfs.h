// How SQLite reaches the files of one database: its operating system interface (a VFS), one for
// each connection. What it does beyond SQLite's own:
//
// - Locks belong to the open file (see filelocks.h). They lie where SQLite's own programs expect
//   them.
// - Each page of the main file ends with a checksum, which is compared on each read.
// - The bytes of the header that SQLite leaves for later hold a mark: which state the file and its
//   write-ahead file must have, at the least, when they are read together.
// - Files are made with the rights of the main file, whatever the umask.
// - There are no other files: journals of other modes are neither read nor made.
#pragma once

#include <sqlite3.h>

#include <array>
#include <string>
#include <vector>

#include "store/filecalls.h"

namespace zel {

constexpr int pageSize = 4096;
constexpr int pageReserve = 8;  // bytes of each page that SQLite leaves to us

// What files beside the main file get, from that.
struct FileRights {
  mode_t mode = 0600;
  uid_t user = 0;  // these for the superuser's only
  gid_t group = 0;
};

// Whatever is written to the database counts as a tick.
struct Mark {
  std::uint64_t tick = 0;  // which the database has reached, or it was damaged
  bool inUse = false;      // there is a write-ahead file
  std::uint32_t filling =
      0;  // the main file may hold some pages of so many frames of that; 0: none
};

// The write-ahead file's name.
inline std::string framesPathOf(const std::string& path) {
  return path + "-wal";
}
// That of the memory which those who use it share.
inline std::string sharedPathOf(const std::string& path) {
  return path + "-shm";
}

// Whether somebody uses what lies beside the main file. Throws ErrDamaged when that cannot be told.
bool isBesideInUse(const FileCalls& calls, const std::string& path);
// Removes that. Throws ErrReadOnly.
void removeBeside(const FileCalls& calls, const std::string& path);

class FileVfs {
 public:
  // Of the database at `path`. `rights` are those of new files; with `readOnly` nothing is made or
  // written.
  FileVfs(const FileCalls& calls, const std::string& path, FileRights rights, bool readOnly);
  ~FileVfs();  // after the connection's end
  FileVfs(const FileVfs&) = delete;
  FileVfs& operator=(const FileVfs&) = delete;

  const char* name() const { return name_.c_str(); }

  // The frames of the write-ahead file that count. 0 before the first read.
  std::uint32_t frames() const;
  // Whether the write-ahead file is still the one under its name.
  bool hasLostFrames() const;
  // Whether there was no write-ahead file to read, and now there is.
  bool missesFrames() const;
  // The last failure of a system call, or what was wrong with a page; empty if there was none.
  std::string takeTrouble();
  // In a forked child: closes the descriptors and touches no lock.
  void abandon() noexcept;
  const std::string& framesPath() const { return framesPath_; }

  // What SQLite calls, with its numbers; see sqlite3_io_methods.
  struct File {
    sqlite3_file base;
    FileVfs* vfs;
    int fd;
    bool isMain;
    int level;  // of SQLite's locks
  };
  int open(const char* path, File* file, int flags, int* outFlags);
  int read(const File& file, void* to, int amount, std::int64_t at);
  int write(const File& file, const void* from, int amount, std::int64_t at);
  int lock(File& file, int level);
  int unlock(File& file, int level);
  int isReserved(const File& file, int* result);
  int mapShared(int region, int size, bool extend, void volatile** result);
  int lockShared(int offset, int count, int flags);
  void unmapShared(bool remove) noexcept;
  int trouble(int result, const char* what) noexcept;
  const FileCalls& calls() const { return calls_; }

 private:
  int openShared();
  Descriptor openBeside(const std::string& path) const;
  bool isIntact(const char* page, std::int64_t at) const;

  const FileCalls& calls_;
  FileRights rights_;
  bool readOnly_;
  bool sharedReadOnly_ = false;
  std::string name_;
  std::string framesPath_;
  std::string sharedPath_;
  int mainFile_ = -1;
  int framesFile_ = -1;
  Descriptor shared_;
  std::vector<void*> regions_;
  int regionSize_ = 0;
  std::array<char, 160> trouble_{};
  sqlite3_vfs vfs_{};
};

// The mark in a main file. Reading throws ErrDamaged when it is not as it was written.
Mark readMark(const FileCalls& calls, int fd, const std::string& path);
// On the disk when this returns; throws.
void writeMark(const FileCalls& calls, int fd, const std::string& path, const Mark& mark);

}  // namespace zel
