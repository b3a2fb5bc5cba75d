#include <unistd.h>

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
