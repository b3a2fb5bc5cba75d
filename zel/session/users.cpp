#include "users.h"

#include <algorithm>

namespace zel {

namespace {

constexpr std::string_view builtIn[] = {"SystemUser", "DataCurator"};

using Users = std::vector<std::pair<std::string, std::string>>;  // names and hashes

std::uint32_t partOf(std::string_view user) {
  std::uint32_t hash = 2166136261U;
  for (const char c : user) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return Place::ofHash(hash >> 4);
}

// A row holds names and hashes, each ended by a NUL, behind the byte that rows of elements have. A
// removed user of those that are built in has a row without a hash.
Users usersIn(const Row& row) {
  Users users;
  std::string_view rest = std::string_view(row.bytes).substr(1);
  const auto take = [&] {
    const std::size_t end = std::min(rest.find('\0'), rest.size());
    std::string taken(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return taken;
  };
  while (!rest.empty()) {
    std::string name = take();
    users.emplace_back(std::move(name), take());
  }
  return users;
}

std::map<std::uint32_t, Users> allUsers(Store& store, Version at) {
  std::map<std::uint32_t, Users> users;
  const ObjectId id = usersId;
  store.read(at, {&id, 1}, [&](const Row& row) { users.emplace(row.place.part, usersIn(row)); });
  return users;
}

bool isBuiltIn(std::string_view user) {
  return std::ranges::find(builtIn, user) != std::end(builtIn);
}

}  // namespace

std::optional<std::string> passwordOf(Store& store, Version at, bool builtInToo,
                                      std::string_view user) {
  for (const auto& [part, users] : allUsers(store, at)) {
    for (const auto& [name, hash] : users) {
      if (name == user) return hash.empty() ? std::nullopt : std::optional(hash);
    }
  }
  return builtInToo && isBuiltIn(user) ? std::optional(std::string()) : std::nullopt;
}

std::vector<std::string> userNames(Store& store, Version at) {
  std::vector<std::string> names;
  for (const auto& [part, users] : allUsers(store, at)) {
    for (const auto& [name, hash] : users) {
      if (!hash.empty()) names.push_back(name);
    }
  }
  std::ranges::sort(names);
  return names;
}

bool mayLogIn(Store& store, bool builtInToo, std::string_view user, std::string_view password,
              Passwords& passwords) {
  const Lease lease(store);
  const std::optional<std::string> hash = passwordOf(store, lease.version, builtInToo, user);
  if (!hash) return false;
  return hash->empty() ? password == wellKnownPassword : passwords.matches(password, *hash);
}

std::vector<Write> writesOf(Store& store, Version at, const UserChanges& changes) {
  const std::map<std::uint32_t, Users> before = allUsers(store, at);
  std::map<std::uint32_t, Users> rows;
  for (const auto& [name, hash] : changes) {
    const std::uint32_t part = partOf(name);
    const auto known = before.find(part);
    Users& users =
        rows.try_emplace(part, known != before.end() ? known->second : Users()).first->second;
    std::erase_if(users, [&user = name](const auto& each) { return each.first == user; });
    if (hash || isBuiltIn(name)) users.emplace_back(name, hash.value_or(""));
  }
  std::vector<Write> writes;
  for (const auto& [part, users] : rows) {
    Write write{{usersId, part}, 0, std::string(1, '\0'), users.empty()};
    for (const auto& [name, hash] : users) {
      write.bytes += name + '\0';
      write.bytes += hash + '\0';
    }
    writes.push_back(std::move(write));
  }
  return writes;
}

UserChanges creators(std::string_view user, std::string_view password, Passwords& passwords) {
  if (!isBuiltIn(user)) {
    throw Failure(ErrLoginDenied,
                  "login denied: only SystemUser or DataCurator can create a database");
  }
  if (password.empty() || password == wellKnownPassword) {
    throw Failure(
        ErrLoginDenied,
        "login denied: a new database needs a password of its own, not the well-known one");
  }
  UserChanges changes;
  for (const std::string_view name : builtIn)
    changes[std::string(name)] = passwords.hashOf(password);
  return changes;
}

}  // namespace zel
