// The file store's own locks. They lie on bytes of the database file that no file has, belong to an
// open file (F_OFD_SETLK) and end with the process that holds them, however it ends. None costs a
// write.
//
//   use       everybody who has the file open, shared; alone for who closes it last or compacts it
//   write     one at a time: whoever commits, reserves ids, moves commits into the main file
//   dropping  held by a commit that keeps no old rows; whoever begins a lease waits for its end
//   closing   one at a time: whoever closes it and looks whether others are left
//   leases    a byte for each version that somebody reads
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

#include "store/filecalls.h"
#include "store/store.h"

namespace zel {

// How others are waited for: with a call of `poll`, which may throw, before each short pause.
struct Waiting {
  std::function<void()> poll;
  std::uint32_t milliseconds;  // in all
};

class Patience {
 public:
  explicit Patience(const Waiting& waiting);
  // Pauses; answers false when the time is over.
  bool pause();

 private:
  const Waiting& waiting_;
  std::int64_t end_;
  long nanoseconds_ = 50'000;
};

class FileLocks {
 public:
  enum Byte : std::uint8_t { use, write, dropping, closing };

  // Takes an open descriptor of the file. `path` is for messages. Both references outlive this.
  FileLocks(const FileCalls& calls, const Waiting& waiting, std::string path, Descriptor file);
  ~FileLocks();  // all locks end, also those that a forked child still has the descriptor of
  FileLocks(const FileLocks&) = delete;
  FileLocks& operator=(const FileLocks&) = delete;

  int descriptor() const { return file_.get(); }

  // Answers whether it was free.
  bool tryLock(Byte byte, bool shared);
  // Waits for it; throws ErrStoreBusy, or what the waiting's poll() throws.
  void lock(Byte byte, bool shared);
  void unlock(Byte byte) noexcept;

  // Leases of this store, counted. `newest` reads the newest version.
  Version lease(const std::function<Version()>& newest);
  void giveUp(Version version) noexcept;
  const std::map<Version, int>& own() const { return leases_; }
  // The versions that others lease, up to the given one.
  std::set<Version> others(Version newest) const;

  // In a forked child: closes the descriptor and touches no lock.
  void abandon() noexcept;

 private:
  void fail(const char* what) const;

  const FileCalls& calls_;
  const Waiting& waiting_;
  std::string path_;
  Descriptor file_;
  std::map<Version, int> leases_;
};

// Holds one of the locks for a scope.
class Locked {
 public:
  Locked(FileLocks& locks, FileLocks::Byte byte, bool shared = false)
      : locks_(&locks), byte_(byte) {
    locks.lock(byte, shared);
  }
  ~Locked() { locks_->unlock(byte_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  FileLocks* locks_;
  FileLocks::Byte byte_;
};

}  // namespace zel
