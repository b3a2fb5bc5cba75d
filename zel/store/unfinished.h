// A new file until it is whole: beside its later place, under a name of its own and locked. What
// somebody has left who was killed at it is known by that, and removed by the next one for the same
// place.
#pragma once

#include <string>

#include "store/filecalls.h"

namespace zel {

class Unfinished {
 public:
  // Makes an empty one that is to lie at `path`, for its user alone. It has no descriptor when that
  // has failed, and errno tells why. `calls` outlives this.
  Unfinished(const FileCalls& calls, const std::string& path);
  ~Unfinished();  // removes it, unless it has got its place
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

  explicit operator bool() const { return static_cast<bool>(file_); }
  int descriptor() const { return file_.get(); }
  const std::string& name() const { return name_; }

  // Puts it in its place, where nothing may be, or over what is there. Both answer false when they
  // cannot, and errno tells why.
  bool place();
  bool replace();

 private:
  const FileCalls& calls_;
  std::string path_;
  std::string name_;  // empty when it is nobody's to remove
  Descriptor file_;
};

}  // namespace zel
