// A stack for the handlers of a thread's faults: where its own has overflown, there is none left.
#include <pthread.h>
#include <sys/mman.h>

#include <cerrno>
#include <csignal>

#include <povzel/hostfault.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t stackSize = 256 << 10;  // the report and the core need some 20 KiB of it
constexpr std::size_t guardSize = 4096;

pthread_key_t stackKey;
int keyError = 0;

// At the thread's end. A thread that ends in a handler still runs on its stack, and leaves it.
void release(void* memory) {
  stack_t stack{};
  stack.ss_flags = SS_DISABLE;
  stack_t former;
  if (sigaltstack(nullptr, &former) != 0) return;
  const bool isOurs = former.ss_sp == static_cast<char*>(memory) + guardSize;
  if (isOurs && sigaltstack(&stack, nullptr) != 0) return;
  munmap(memory, guardSize + stackSize);
}

bool use(char* memory) {
  stack_t stack{};
  stack.ss_sp = memory + guardSize;
  stack.ss_size = stackSize;
  if (os.mprotect(memory, guardSize, PROT_NONE) != 0) return false;
  const int error = pthread_setspecific(stackKey, memory);
  if (error != 0) {
    errno = error;
    return false;
  }
  if (sigaltstack(&stack, nullptr) == 0) return true;
  pthread_setspecific(stackKey, nullptr);
  return false;
}

}  // namespace

BoolType HostUseSignalStack() {
  static pthread_once_t keyMade = PTHREAD_ONCE_INIT;
  pthread_once(&keyMade, [] { keyError = pthread_key_create(&stackKey, release); });
  if (keyError != 0) {
    errno = keyError;
    return 0;
  }
  stack_t present;
  if (sigaltstack(nullptr, &present) != 0) return 0;
  if ((present.ss_flags & SS_DISABLE) == 0) return 1;

  void* memory = mmap(nullptr, guardSize + stackSize, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED) return 0;
  if (use(static_cast<char*>(memory))) return 1;
  const ErrnoKeeper keeper;
  munmap(memory, guardSize + stackSize);
  return 0;
}
