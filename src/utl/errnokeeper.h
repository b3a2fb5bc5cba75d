// Keeps errno across clean-up and reporting.
#pragma once

#include <cerrno>

// Puts errno back to what it was when this was made.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : kept_(errno) {}
  ~ErrnoKeeper() { errno = kept_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

  // The errno that will be put back.
  int kept() const { return kept_; }

 private:
  int kept_;
};
