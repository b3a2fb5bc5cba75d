// Users and their passwords, as rows of the store: changed by a commit, like everything else in it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "passwords.h"
#include "store/store.h"

namespace zel {

// The object that has them.
constexpr ObjectId usersId = 2;

constexpr std::string_view wellKnownPassword = "swordfish";  // of those who are built in

// What a transaction changes: names with the hashes of their passwords, none for a user that is
// removed.
using UserChanges = std::map<std::string, std::optional<std::string>, std::less<>>;

// The hash of a user's password at the leased version; none when there is no such user. With
// `builtIn`, which only a store in memory has, SystemUser and DataCurator are there from the start:
// an empty hash tells of their well-known password.
std::optional<std::string> passwordOf(Store& store, Version at, bool builtIn,
                                      std::string_view user);

// The names of those who have one, in order. Users in rows only: none that are built in.
std::vector<std::string> userNames(Store& store, Version at);

// Whether the user may log in with the password. Throws what Passwords does.
bool mayLogIn(Store& store, bool builtIn, std::string_view user, std::string_view password,
              Passwords& passwords);

// The rows that the changes make of those of the leased version.
std::vector<Write> writesOf(Store& store, Version at, const UserChanges& changes);

// What creates a database: the user's password becomes SystemUser's and DataCurator's. Throws
// ErrLoginDenied unless the user is one of them, and for a password that is empty or well-known.
UserChanges creators(std::string_view user, std::string_view password, Passwords& passwords);

}  // namespace zel
