// Makes allocations of the library's heap fail in a test, by count. For tests that link with
// INTERNALS.
#pragma once

#include <cstddef>
#include <cstdlib>

#include <povzel/hostdebug.h>
#include "basics/fortests.h"

// While it lives, the allocation after the next `succeed` ones fails, and the fatal path returns.
class FailingHeap {
 public:
  explicit FailingHeap(int succeed) {
    left = succeed;
    failed = false;
    utlHeapAllocateForTests = allocate;
    noHalt = 1;
  }
  FailingHeap(const FailingHeap&) = delete;
  FailingHeap& operator=(const FailingHeap&) = delete;
  ~FailingHeap() {
    utlHeapAllocateForTests = std::malloc;
    noHalt = 0;
  }

  static bool hasFailed() { return failed; }

 private:
  static void* allocate(std::size_t length) {
    if (left-- == 0) {
      failed = true;
      return nullptr;
    }
    return std::malloc(length);
  }

  static inline int left = 0;
  static inline bool failed = false;
};
