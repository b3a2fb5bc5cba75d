#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "internal.h"

void utlSafeWrite(int descriptor, const char* bytes, std::size_t size) {
  const ErrnoKeeper keeper;
  while (size > 0) {
    const ssize_t written = write(descriptor, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
}

void utlSafeWriteParts(int descriptor, std::span<iovec> parts) {
  const ErrnoKeeper keeper;
  while (!parts.empty()) {
    const ssize_t result = writev(descriptor, parts.data(), static_cast<int>(parts.size()));
    if (result < 0 && errno == EINTR) continue;
    if (result <= 0) return;
    auto written = static_cast<std::size_t>(result);
    for (iovec& part : parts) {
      const std::size_t taken = std::min(written, part.iov_len);
      part = {static_cast<char*>(part.iov_base) + taken, part.iov_len - taken};
      written -= taken;
    }
    while (!parts.empty() && parts.front().iov_len == 0) parts = parts.subspan(1);
  }
}
