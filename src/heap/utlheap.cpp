#include <povzel/utlheap.h>

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <povzel/hostdebug.h>
#include <povzel/hostmutex.h>
#include <povzel/utlsystem.h>
#include "basics/fortests.h"

namespace {

// The line that a freed null pointer is reported at; fixed, because logs are searched for it.
constexpr int freeOfNullLine = 434;

std::atomic<BoolType> initDone{0};
HostMutexSType heapMutex;

void* allocate(std::size_t length) {
  if (initDone.load(std::memory_order_relaxed) == 0) UtlHeapInit();
  return utlHeapAllocateForTests(length);
}

// Makes every page executable that the `length` bytes at `block` touch.
bool makeExecutable(void* block, std::size_t length) {
  const auto pageSize = static_cast<std::uintptr_t>(UtlGetPageSize());
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(block);
  const std::uintptr_t firstPage = start & ~(pageSize - 1);
  const std::uintptr_t lastByte = start + (length > 0 ? length - 1 : 0);
  const std::uintptr_t lastPage = lastByte & ~(pageSize - 1);
  return os.mprotect(reinterpret_cast<void*>(firstPage), lastPage - firstPage + pageSize,
                     PROT_READ | PROT_WRITE | PROT_EXEC) == 0;
}

}  // namespace

void* UtlMalloc(std::size_t length, const char* reason) {
  void* block = allocate(length);
  if (block != nullptr || reason == nullptr) return block;
  std::fprintf(stderr, "malloc failure allocating %zu bytes: %s\n", length, reason);
  HostCallDebuggerMsg("");
  return nullptr;
}

void* UtlMallocF(std::size_t length, int lineNum, const char* fileName) {
  void* block = allocate(length);
  if (block != nullptr) return block;
  std::fprintf(stderr, "malloc failure allocating %d bytes from %s line %d\n",
               static_cast<int>(length), fileName != nullptr ? fileName : "(null)", lineNum);
  HostCallDebuggerMsg("");
  return nullptr;
}

void* UtlMalloc_(std::size_t length, int /*line*/) {
  return allocate(length);
}

void* UtlMallocExe(std::size_t length, int lineNum, const char* fileName) {
  void* block = UtlMallocF(length, lineNum, fileName);
  if (block == nullptr || makeExecutable(block, length)) return block;
  std::free(block);
  return nullptr;
}

void UtlFree(const void* ptr) {
  if (ptr == nullptr) {
    std::puts("Freeing a NULL pointer");
    utlGuaranteeFailed("src/utlheap", freeOfNullLine);
  }
  std::free(const_cast<void*>(ptr));
}

void UtlHeapInit() {
  if (initDone.exchange(1) != 0) return;
  HostMutexInit(&heapMutex);
}

void UtlHeapCheck() {}

std::size_t UtlHeapSizeKB() {
  return 0;
}

void UtlHeapPrint() {
  std::puts("--- C Heap summary not available");
}
