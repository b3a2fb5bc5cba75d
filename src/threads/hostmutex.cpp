#include <povzel/hostmutex.h>

#include <cerrno>
#include <cstdio>

#include "basics/internal.h"

namespace {

// Out of line, so that a call that succeeds carries none of it.
[[gnu::cold, gnu::noinline]] void fail(const char* what, int line) {
  if (what != nullptr) std::puts(what);
  utlGuaranteeFailed("src/hostmutex", line);
}

[[gnu::cold, gnu::noinline]] void reportRelease() {
  std::fputs("mutexUnLock failed=n", stdout);
}

}  // namespace

void HostMutexInit(HostMutexSType* mutex) {
  if (mutex == nullptr || pthread_mutex_init(mutex, nullptr) != 0) fail(nullptr, __LINE__);
}

void HostMutexDestroy(HostMutexSType* mutex) {
  if (mutex == nullptr || pthread_mutex_destroy(mutex) != 0) fail("mutexDestroy failed", __LINE__);
}

void povzelMutexAcquire(HostMutexSType* mutex) {
  if (mutex == nullptr || pthread_mutex_lock(mutex) != 0) fail("mutexLock failed", __LINE__);
}

void povzelMutexRelease(HostMutexSType* mutex) {
  if (mutex == nullptr || pthread_mutex_unlock(mutex) != 0) reportRelease();
}

void HostMutexError(long lineNum) {
  std::printf("HostMutexError :  caller line %ld\n", lineNum);
  fail(nullptr, __LINE__);
}
