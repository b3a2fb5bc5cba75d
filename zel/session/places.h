// Which database the name of a server means.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "repository.h"

namespace zel {

struct ServerName {
  enum class Kind : std::uint8_t { memory, file, server };
  Kind kind = Kind::memory;  // the first one is this process's own
  std::string path;          // of a file, absolute; of a server, its URL
  bool create = false;
};

// A name that starts with "postgresql://" or "postgres://" is the URL of a database on a server,
// see serverstore.h. Else one with a '/', or that ends in ".povzel", is that of a file, relative to
// the working folder; a query part can follow: ?create=true. Behind the last question mark only
// letters, a '=' and a value without '/' are one, anything else belongs to the name. The empty name
// means the database in memory. Throws ErrLoginDenied for every other name, and for a URL with
// create= in its query.
ServerName readServerName(std::string_view name);

// Opens what keeps the objects of a file or on a server. `poll` is called while others are waited
// for, and may throw to end that. Throws what openFileStore and openServerStore do.
std::shared_ptr<Repository> openRepository(const ServerName& name, std::function<void()> poll);

}  // namespace zel
