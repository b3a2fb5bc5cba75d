// The C++ runtime's record of the exceptions of a thread. The runtime's own is thread-local data of
// this library, made when a thread throws for the first time; where there is no memory then, the C
// library ends the process. These take its place: they are there from the start.
#include <cxxabi.h>
#include <pthread.h>

#include <array>
#include <atomic>

namespace __cxxabiv1 {

// As the runtime lays it out; all zero when the thread neither throws nor handles.
struct __cxa_eh_globals {
  void* caught = nullptr;
  unsigned int uncaught = 0;
};
static_assert(sizeof(__cxa_eh_globals) == 8);

}  // namespace __cxxabiv1

namespace {

using Exceptions = __cxxabiv1::__cxa_eh_globals;

struct ThreadRecord {
  Exceptions exceptions;  // first, so that its address is the record's
  std::atomic<bool> taken{false};
};

constexpr std::size_t mostThreads = 16'384;  // more than stacks find room in 32 bits
constinit std::array<ThreadRecord, mostThreads> records;

void release(void* record) {
  static_cast<ThreadRecord*>(record)->taken.store(false, std::memory_order_release);
}

// The library is never unloaded (see its link options), so the key's destructor stays where it is.
struct Key {
  Key() : made(pthread_key_create(&key, release) == 0) {}
  pthread_key_t key = 0;
  bool made;
};

// The calling thread's, or null where nothing can be kept for it.
Exceptions* recordOfThread() {
  static const Key key;
  if (!key.made) return nullptr;
  if (void* record = pthread_getspecific(key.key)) return static_cast<Exceptions*>(record);
  static std::atomic<std::size_t> next{0};
  for (std::size_t tried = 0; tried < mostThreads; ++tried) {
    ThreadRecord& record = records[next++ % mostThreads];
    if (record.taken.exchange(true, std::memory_order_acquire)) continue;
    if (pthread_setspecific(key.key, &record) == 0) return &record.exceptions;
    release(&record);
    return nullptr;
  }
  return nullptr;
}

}  // namespace

namespace __cxxabiv1 {

extern "C" __cxa_eh_globals* __cxa_get_globals() noexcept {
  if (Exceptions* record = recordOfThread()) return record;
  // For a process that has used up its keys or has still more threads.
  static thread_local Exceptions elsewhere;
  return &elsewhere;
}

extern "C" __cxa_eh_globals* __cxa_get_globals_fast() noexcept {
  return __cxa_get_globals();
}

}  // namespace __cxxabiv1
