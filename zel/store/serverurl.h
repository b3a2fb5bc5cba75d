// The parts of a server's URL that are not left to libpq, for what serverstore.h promises of it.
#pragma once

#include <string>
#include <string_view>

namespace zel {

struct ServerUrl {
  std::string url;     // without schema=
  std::string schema;  // decoded
};

// Takes `schema=` out of the query. Throws ErrLoginDenied for a schema that no server can have: an
// empty name, one of more than 63 bytes, or with a NUL.
ServerUrl splitUrl(std::string_view url);

}  // namespace zel
