// Reading, writing and positioning in open files (hostfiles.h).

#include <unistd.h>

#include <cstring>

#include <povzel/hostfiles.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

// Moves `numBytes` bytes with `transfer`, which is read or write of the next ones.
template <typename Byte, typename Transfer>
BoolType transferAll(int fd, Byte* bytes, int numBytes, int* errnoPtr, Transfer transfer) {
  if (bytes == nullptr || fd < 0 || numBytes < 1) return 0;
  for (int done = 0; done < numBytes;) {
    const ssize_t moved = transfer(fd, bytes + done, static_cast<std::size_t>(numBytes - done));
    if (moved == 0) return 0;
    if (moved > 0) {
      done += moved;
      continue;
    }
    if (errnoPtr != nullptr) *errnoPtr = errno;
    if (!unixIoGoesOn()) return 0;
  }
  return 1;
}

}  // namespace

BoolType HostReadFile(int fd, ByteType* dest, int numBytes, int* errnoPtr) {
  return transferAll(fd, dest, numBytes, errnoPtr, os.read);
}

BoolType HostWriteFile(int fd, ByteType* src, int numBytes, int* errnoPtr) {
  return transferAll(fd, src, numBytes, errnoPtr, os.write);
}

void Hostftell(std::FILE* filePtr, long* filePos) {
  *filePos = std::ftell(filePtr);
}

void Hostfseek(std::FILE* filePtr, const long* filePos) {
  std::fseek(filePtr, *filePos, SEEK_SET);
}

int HostSearchBytes(const ByteType* aStr, ByteType target, ArraySizeType length) {
  if (length == 0) return -1;
  const void* found = std::memchr(aStr, target, length);
  return found != nullptr ? static_cast<int>(static_cast<const ByteType*>(found) - aStr) : -1;
}
