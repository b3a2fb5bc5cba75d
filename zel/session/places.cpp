#include "places.h"

#include <filesystem>

#include "store/filestore.h"

namespace zel {

namespace {

constexpr std::string_view schemes[] = {"postgresql://", "postgres://"};
constexpr std::string_view ending = ".povzel";

[[noreturn]] void noServer(std::string_view name) {
  throw Failure(ErrLoginDenied, "this library has no server " + std::string(name));
}

}  // namespace

ServerName readServerName(std::string_view name) {
  if (name.empty()) return {};
  for (const std::string_view scheme : schemes) {
    if (name.starts_with(scheme)) noServer(name);
  }
  const std::size_t mark = name.find('?');
  const std::string_view path = name.substr(0, mark);
  if (path.find('/') == std::string_view::npos && !path.ends_with(ending)) noServer(name);
  ServerName server{true, std::filesystem::absolute(path).lexically_normal().string(), false};
  if (mark == std::string_view::npos) return server;
  const std::string_view query = name.substr(mark + 1);
  server.create = query == "create=true";
  if (!server.create && query != "create=false") {
    throw Failure(ErrLoginDenied, "behind the name of a file only ?create=true is known, not ?" +
                                      std::string(query));
  }
  return server;
}

std::shared_ptr<Repository> openRepository(const ServerName& name, std::function<void()> poll) {
  return std::make_shared<Repository>(
      openFileStore({.path = name.path, .create = name.create, .poll = std::move(poll)}));
}

}  // namespace zel
