// Stores on a PostgreSQL server: one schema of a database there, shared by any number of processes
// on any number of machines. What was acknowledged is as durable as the server's settings make it.
//
//   auto store = openServerStore({.url = "postgresql://ada@host/shop?schema=povzel"});
//
// A URL is the server's own kind, with all that libpq understands; `schema=` in its query is ours,
// and "povzel" where it is missing. libpq is loaded when it is first needed.
//
// Besides what store.h says, everything here throws
//   ErrLoginDenied     for what cannot be connected to, or is no database of ours
//   ErrNewerStore      for the database of a newer version
//   ErrConnectionLost  for a call during which the connection was lost; the next one connects again
//   ErrOutcomeUnknown  for a commit, when the server stays out of reach while it is asked whether
//                      it has made the commit
//   ErrNotPermitted    for a right that the user lacks on the server
//   ErrInUseElsewhere  in a process that was forked while the store was open, in the place of its
//                      parent
//   what `poll` throws; the connection is closed then, and made again by the next call
// Messages never hold a password.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "store/store.h"

namespace zel {

struct ServerOptions {
  std::string url;
  // Called about ten times a second while the server is waited for; may throw to break that off,
  // but is not called while a commit is written.
  std::function<void()> poll{};
  std::uint32_t patience = 5000;  // milliseconds to wait for others, or for a server that is gone
};

// "postgresql://" or "postgres://" starts a server's name.
bool isServerUrl(std::string_view name);
// The URL without a password, in front of the host or in the query, for messages.
std::string shownUrl(std::string_view url);
bool hasPassword(std::string_view url);

// Opens the database in the URL's schema. Throws ErrLoginDenied when there is none of ours.
std::unique_ptr<Store> openServerStore(const ServerOptions& options);

// Makes a database in a schema that is not there, or empty, whole or not at all: it is one
// transaction from the constructor to `finish`, and without that nothing is left.
class NewServerStore {
 public:
  // Throws ErrLoginDenied when there is something in the schema, ErrStoreBusy when somebody else is
  // making a database there.
  explicit NewServerStore(const ServerOptions& options);
  ~NewServerStore();
  NewServerStore(const NewServerStore&) = delete;
  NewServerStore& operator=(const NewServerStore&) = delete;

  // Adds rows, none of which is gone, each place once. They are of version 1.
  void add(std::span<const Write> writes);
  // Makes it be there. `nextId` is the first that no object has had, at least firstFreeId. Without
  // any rows the store is empty, of version 0. Throws ErrOutcomeUnknown when the connection is lost
  // while it waits for the server's answer; who looks then sees all of it, or nothing.
  void finish(ObjectId nextId);

 private:
  struct Work;
  std::unique_ptr<Work> work_;
};

struct ServerStatistics {
  StoreStatistics store;
  std::uint64_t sessions = 0;   // processes that have it open
  std::uint64_t conflicts = 0;  // of commits, since it was made
  Version oldest = 0;           // that somebody may still need
};
ServerStatistics serverStatistics(const ServerOptions& options);

}  // namespace zel
