#include "store/filelocks.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <vector>

namespace zel {

namespace {

constexpr std::int64_t base = std::int64_t{1} << 61;
constexpr std::int64_t leaseBase = std::int64_t{1} << 62;

constexpr std::int64_t mostTogether = 10'000;

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t byteOf(Version version) {
  return leaseBase + static_cast<std::int64_t>(version);
}

}  // namespace

Patience::Patience(const Waiting& waiting)
    : waiting_(waiting), end_(now() + std::int64_t{waiting.milliseconds} * 1'000'000) {}

bool Patience::pause() {
  if (waiting_.poll) waiting_.poll();
  if (now() >= end_) return false;
  const timespec time{0, nanoseconds_};
  nanosleep(&time, nullptr);
  nanoseconds_ = std::min(nanoseconds_ * 5 / 4, 2'000'000L);
  return true;
}

FileLocks::FileLocks(const FileCalls& calls, const Waiting& waiting, std::string path,
                     Descriptor file)
    : calls_(calls), waiting_(waiting), path_(std::move(path)), file_(std::move(file)) {}

FileLocks::~FileLocks() {
  if (file_) calls_.unlock(file_.get(), base, 0);
}

void FileLocks::abandon() noexcept {
  file_.reset();
}

void FileLocks::fail(const char* what) const {
  throw Failure(ErrDamaged,
                "the database " + path_ + " cannot be locked: " + what + std::strerror(errno));
}

bool FileLocks::tryLock(Byte byte, bool shared) {
  if (calls_.lock(file_.get(), shared ? F_RDLCK : F_WRLCK, base + byte, 1) == 0) return true;
  if (errno != EAGAIN) fail("");
  return false;
}

void FileLocks::lock(Byte byte, bool shared) {
  if (tryLock(byte, shared)) return;
  Patience patience(waiting_);
  do {
    if (!patience.pause()) {
      throw Failure(ErrStoreBusy, "the database " + path_ + " is busy: others use it");
    }
  } while (!tryLock(byte, shared));
}

void FileLocks::unlock(Byte byte) noexcept {
  calls_.unlock(file_.get(), base + byte, 1);
}

// While nobody is dropping, a commit keeps what the version before it had. So a version can be read
// from now on when it is still the newest after its lock was set.
Version FileLocks::lease(const std::function<Version()>& newest) {
  const Locked still(*this, dropping, true);
  for (Version version = newest();;) {
    const auto place = leases_.try_emplace(version, 0).first;
    if (place->second == 0 && calls_.lock(file_.get(), F_RDLCK, byteOf(version), 1) != 0) {
      leases_.erase(place);
      fail("");
    }
    ++place->second;
    try {
      const Version again = newest();
      if (again == version) return version;
      giveUp(version);
      version = again;
    } catch (...) {
      giveUp(version);
      throw;
    }
  }
}

void FileLocks::giveUp(Version version) noexcept {
  const auto place = leases_.find(version);
  if (place == leases_.end() || --place->second > 0) return;
  leases_.erase(place);
  calls_.unlock(file_.get(), byteOf(version), 1);
}

// The kernel answers any one of the locks in a range, so what is left on both sides is asked for
// again. Locks of one owner on neighbouring bytes come as one.
std::set<Version> FileLocks::others(Version newest) const {
  std::set<Version> versions;
  std::vector<std::pair<std::int64_t, std::int64_t>> ranges{{byteOf(0), byteOf(newest) + 1}};
  while (!ranges.empty()) {
    const auto [first, end] = ranges.back();
    ranges.pop_back();
    if (first >= end) continue;
    struct flock64 found;
    if (calls_.blocker(file_.get(), F_WRLCK, first, end - first, found) != 0) fail("");
    if (found.l_type == F_UNLCK) continue;
    const std::int64_t from = std::max<std::int64_t>(found.l_start, first);
    const std::int64_t to =
        found.l_len == 0 ? end : std::min<std::int64_t>(found.l_start + found.l_len, end);
    // Nobody leases so many: a lock on all of the file, by another program.
    const std::int64_t step = to - from > mostTogether ? to - from - 1 : 1;
    for (std::int64_t byte = from; byte < to; byte += step) {
      versions.insert(static_cast<Version>(byte - leaseBase));
    }
    ranges.emplace_back(first, from);
    ranges.emplace_back(to, end);
  }
  return versions;
}

}  // namespace zel
