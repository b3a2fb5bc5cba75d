#include "places.h"

#include <algorithm>
#include <filesystem>

#include "store/filestore.h"
#include "store/serverstore.h"

namespace zel {

namespace {

constexpr std::string_view ending = ".povzel";

[[noreturn]] void noServer(std::string_view name) {
  throw Failure(ErrLoginDenied, "this library has no server " + std::string(name));
}

ServerName readUrl(std::string_view url) {
  const std::string_view query = url.substr(std::min(url.find('?'), url.size()));
  for (const std::string_view start : {"?create=", "&create="}) {
    if (query.find(start) == std::string_view::npos) continue;
    throw Failure(ErrLoginDenied, "?create=true is for files: povzel create " + shownUrl(url) +
                                      " makes a database on a server, without it");
  }
  return {ServerName::Kind::server, std::string(url), false};
}

// Where the query of a file's name begins, as in ?create=true; at the end when there is none, and a
// question mark is one of the name's.
std::size_t queryOf(std::string_view name) {
  const std::size_t mark = name.rfind('?');
  if (mark == std::string_view::npos) return name.size();
  const std::string_view query = name.substr(mark + 1);
  const std::size_t key = query.find_first_not_of("abcdefghijklmnopqrstuvwxyz");
  const bool isQuery = key != std::string_view::npos && key > 0 && query[key] == '=' &&
                       query.find('/') == std::string_view::npos;
  return isQuery ? mark : name.size();
}

}  // namespace

ServerName readServerName(std::string_view name) {
  if (name.empty()) return {};
  if (isServerUrl(name)) return readUrl(name);
  const std::size_t mark = queryOf(name);
  const std::string_view path = name.substr(0, mark);
  if (path.find('/') == std::string_view::npos && !path.ends_with(ending)) noServer(name);
  ServerName server{ServerName::Kind::file,
                    std::filesystem::absolute(path).lexically_normal().string(), false};
  if (mark == name.size()) return server;
  const std::string_view query = name.substr(mark + 1);
  server.create = query == "create=true";
  if (!server.create && query != "create=false") {
    throw Failure(ErrLoginDenied, "behind the name of a file only ?create=true is known, not ?" +
                                      std::string(query));
  }
  return server;
}

std::shared_ptr<Repository> openRepository(const ServerName& name, std::function<void()> poll) {
  if (name.kind == ServerName::Kind::server) {
    return std::make_shared<Repository>(
        openServerStore({.url = name.path, .poll = std::move(poll)}));
  }
  return std::make_shared<Repository>(
      openFileStore({.path = name.path, .create = name.create, .poll = std::move(poll)}));
}

}  // namespace zel
