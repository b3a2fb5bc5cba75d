// Which database the name of a server means.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "repository.h"

namespace zel {

struct ServerName {
  bool isFile = false;  // else the database of this process, which is in memory
  std::string path;     // absolute
  bool create = false;
};

// A name with a '/', or that ends in ".povzel", is that of a file, relative to the working folder;
// a query part can follow: ?create=true. The empty name means the database in memory. Throws
// ErrLoginDenied for every other name.
ServerName readServerName(std::string_view name);

// Opens what keeps the file's objects. `poll` is called while other processes are waited for, and
// may throw to end that. Throws what openFileStore does.
std::shared_ptr<Repository> openRepository(const ServerName& name, std::function<void()> poll);

}  // namespace zel
