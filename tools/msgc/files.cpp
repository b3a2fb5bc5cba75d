// Reading and writing whole files.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "messages.h"
#include "system/internal.h"

namespace {

using FileState = struct statx;  // unlike a stat64 it has room for any date

// Looks at what `name` leads to, or at standard output if it is empty.
bool look(const std::string& name, FileState& found) {
  const bool isOutput = name.empty();
  return statx(isOutput ? STDOUT_FILENO : AT_FDCWD, name.c_str(), isOutput ? AT_EMPTY_PATH : 0,
               STATX_BASIC_STATS, &found) == 0;
}

bool isSame(const FileState& one, const FileState& other) {
  return one.stx_dev_major == other.stx_dev_major && one.stx_dev_minor == other.stx_dev_minor &&
         one.stx_ino == other.stx_ino;
}

bool writeAll(int descriptor, const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t count = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) done += static_cast<std::size_t>(count);
  }
  return true;
}

// Where the links at the end of `name` lead. Nothing need be there.
std::string targetOf(std::string name) {
  constexpr int mostLinks = 40;
  for (int i = 0; i < mostLinks; ++i) {
    char link[PATH_MAX];
    const ssize_t length = readlink(name.c_str(), link, sizeof link);
    if (length <= 0) break;
    name.resize(link[0] == '/' ? 0 : name.rfind('/') + 1);
    name.append(link, static_cast<std::size_t>(length));
  }
  return name;
}

// Gives a new file the rights of the one that it replaces, as far as the user may, or the usual.
bool setRights(int descriptor, const FileState* replaced) {
  if (replaced == nullptr) {
    const mode_t withheld = umask(0);
    umask(withheld);
    return fchmod(descriptor, 0666 & ~withheld) == 0;
  }
  const bool isOwned = fchown(descriptor, replaced->stx_uid, replaced->stx_gid) == 0 ||
                       fchown(descriptor, static_cast<uid_t>(-1), replaced->stx_gid) == 0;
  return fchmod(descriptor, replaced->stx_mode & (isOwned ? 07777 : 0777)) == 0;
}

// Puts a regular file in its place at once when it is complete and on the disk. Whatever ends the
// process before, what was there stays; a signal waits until nothing unfinished lies about.
bool replace(const std::string& target, const FileState* replaced, const std::string& bytes) {
  const SignalMask held(SIG_BLOCK, unixIoSignals(SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXFSZ));
  std::string unfinished = target.substr(0, target.rfind('/') + 1) + ".msgc.XXXXXX";
  const int descriptor = mkostemp(unfinished.data(), O_CLOEXEC);
  if (descriptor < 0) return false;
  bool ok =
      writeAll(descriptor, bytes) && setRights(descriptor, replaced) && fsync(descriptor) == 0;
  ok = close(descriptor) == 0 && ok;
  ok = ok && std::rename(unfinished.c_str(), target.c_str()) == 0;
  const ErrnoKeeper keeper;
  if (!ok) unlink(unfinished.c_str());
  return ok;
}

// Writes to a pipe or a device.
bool writeInto(const std::string& name, const std::string& bytes) {
  const int descriptor = open64(name.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool ok = writeAll(descriptor, bytes);
  return close(descriptor) == 0 && ok;
}

bool write(const std::string& name, const std::string& bytes) {
  FileState there;
  if (!look(name, there)) {
    return errno == ENOENT && replace(targetOf(name), nullptr, bytes);
  }
  FileState output;
  if (look("", output) && isSame(there, output)) return writeAll(STDOUT_FILENO, bytes);
  return S_ISREG(there.stx_mode) ? replace(targetOf(name), &there, bytes) : writeInto(name, bytes);
}

}  // namespace

bool readBytes(const std::string& name, std::string* bytes, Faults* faults) {
  const int descriptor = open64(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    faults->add(name, 0, "%s", std::strerror(errno));
    return false;
  }
  char piece[1 << 16];
  ssize_t count = 0;
  while (bytes->size() <= largestFile && (count = read(descriptor, piece, sizeof piece)) > 0) {
    bytes->append(piece, static_cast<std::size_t>(count));
  }
  if (count < 0) faults->add(name, 0, "cannot be read: %s", std::strerror(errno));
  if (count > 0) faults->add(name, 0, "has more than the %zu bytes that are read", largestFile);
  close(descriptor);
  return count == 0;
}

bool isOutputFile(const std::string& output, const std::string& other) {
  FileState one;
  FileState two;
  return look(output, one) && S_ISREG(one.stx_mode) && !other.empty() && look(other, two) &&
         isSame(one, two);
}

std::string shownOutput(const std::string& output) {
  return output.empty() ? "standard output" : output;
}

void writeBytes(const std::string& name, const std::string& bytes, Faults* faults) {
  const bool ok = name.empty() ? writeAll(STDOUT_FILENO, bytes) : write(name, bytes);
  if (!ok) faults->add(shownOutput(name), 0, "cannot be written: %s", std::strerror(errno));
}
