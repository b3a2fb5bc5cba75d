// What a store's objects refer to, by the seam alone: for stores that have no tools of their own.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "store/store.h"
#include "tool/console.h"

namespace zel {

// What is wrong with the newest version, a line for each, a hundred at most: bytes that are none of
// an object, and references to what is missing. None when all is well. A row that the store itself
// finds damaged is the last line.
std::vector<std::string> faultsOf(Store& store, ProgressLine& progress);

struct Dropped {
  std::uint64_t objects = 0;  // that are left
  std::uint64_t dropped = 0;  // that nothing led to
};
// Commits that what cannot be reached from the system's objects is gone, all at once. `isAlone`
// answers, when the version is leased by which it is decided, that no other process had the store
// open before; those that come later see nothing of what is dropped. Throws ErrInUseElsewhere when
// it answers false. Needs memory for each reference, 8 bytes.
Dropped dropUnreachable(Store& store, const std::function<bool()>& isAlone, ProgressLine& progress);

}  // namespace zel
