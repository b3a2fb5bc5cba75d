#include <povzel/hostthread.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

#include <povzel/utlsystem.h>
#include "basics/internal.h"

namespace {

// Rounds up to whole pages; a size within the last page of all counts as the pages before it,
// which no stack can have either.
std::size_t wholePages(std::size_t size) {
  const auto page = static_cast<std::size_t>(UtlGetPageSize());
  const std::size_t most = SIZE_MAX / page * page;
  return size > most ? most : (size + page - 1) / page * page;
}

// Thread attributes that ask for a stack of a minimum size.
class StackAttributes {
 public:
  explicit StackAttributes(std::size_t minStackSize) {
    if (minStackSize == 0) return;
    int rc = pthread_attr_init(&attributes_);
    if (rc != 0) {
      std::printf("hostSetThreadAttributes: pthread_attr_init() failed, rc=%d\n", rc);
      return;
    }
    initialized_ = true;
    std::size_t defaultSize = 0;
    rc = pthread_attr_getstacksize(&attributes_, &defaultSize);
    if (rc != 0) {
      std::printf("hostSetThreadAttributes: pthread_attr_getstacksize() failed, rc=%d\n", rc);
      return;
    }
    if (minStackSize <= defaultSize) return;
    const std::size_t size = wholePages(minStackSize);
    rc = pthread_attr_setstacksize(&attributes_, size);
    if (rc != 0) {
      std::printf("hostSetThreadAttributes: pthread_attr_setstacksize(%d) failed, rc=%d\n",
                  static_cast<int>(size), rc);
      return;
    }
    chosen_ = &attributes_;
  }
  StackAttributes(const StackAttributes&) = delete;
  StackAttributes& operator=(const StackAttributes&) = delete;
  ~StackAttributes() {
    if (initialized_) pthread_attr_destroy(&attributes_);
  }

  // Null stands for default attributes.
  const pthread_attr_t* chosen() const { return chosen_; }

 private:
  pthread_attr_t attributes_;
  bool initialized_ = false;
  const pthread_attr_t* chosen_ = nullptr;
};

}  // namespace

int HostThreadCreate(HostThreadType* threadId, HostThreadFuncType* funcPtr, void* arg,
                     std::size_t minStackSize) {
  const StackAttributes attributes(minStackSize);
  return os.pthread_create(threadId, attributes.chosen(), funcPtr, arg);
}

int HostThreadKill(HostThreadType threadId, int sig) {
  return pthread_kill(threadId, sig);
}

int HostThreadJoin(HostThreadType threadId, void** value_ptr) {
  return pthread_join(threadId, value_ptr);
}

int HostThreadEqual(HostThreadType t1, HostThreadType t2) {
  return pthread_equal(t1, t2) != 0 ? 1 : 0;
}

HostThreadType HostThreadSelf() {
  return pthread_self();
}

void HostThreadExit(void* value_ptr) {
  pthread_exit(value_ptr);
}
