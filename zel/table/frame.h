// The frame around every table function: nothing that goes wrong inside leaves it except as the
// pending error, and the function then answers what it was told to.
#pragma once

#include <new>

#include "errors/failure.h"
#include "kernel/database.h"
#include "session/session.h"

namespace zel {

// Stores the failure as the pending error, whatever memory is left.
void leaveError(const Failure& failure) noexcept;
void leaveMemoryError() noexcept;

// Answers what `body` answers, or `otherwise` when it fails.
template <typename Result, typename Body>
Result guarded(Result otherwise, Body body) noexcept {
  try {
    return body();
  } catch (const Failure& failure) {
    leaveError(failure);
  } catch (const std::bad_alloc&) {
    leaveMemoryError();
  }
  return otherwise;
}

template <typename Body>
void guarded(Body body) noexcept {
  guarded(0, [&] {
    body();
    return 0;
  });
}

// Throws ErrBadArgument unless `pointer` is there or `count` is 0.
void requirePointer(const void* pointer, ArraySizeType count, const char* what);

}  // namespace zel
