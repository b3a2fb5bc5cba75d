// Sessions: who is logged in, and what each has on its own: an object memory, a machine that runs
// its programs there, and a view of the store.
#pragma once

#include "transcript.h"
#include "vm/machine.h"
#include "workspace.h"

namespace zel {

struct Database;

constexpr std::int32_t mostSessions = 64;

// The error that waits for ZelErr.
struct PendingError {
  bool set = false;
  ZelErrSType record{};
};

struct Session {
  // Makes the classes, their primitives and the methods written in the language itself, and begins
  // the first transaction.
  Session(Database& owner, std::int32_t number, std::string_view userName,
          std::shared_ptr<Repository> ofStore);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Database& database;
  std::shared_ptr<Repository> repository;
  std::int32_t id;
  std::string user;
  Memory memory;
  Machine machine;
  Names names;
  Client client;
  PendingError error;
  Transcript transcript;
  bool selects = false;  // its client says itself where requests begin, by selecting it
  std::unique_ptr<Workspace> workspace;
};

// Stores a failure as the pending error, in place of an earlier one. Its objects are kept for the
// session, null for a failure that concerns none.
void setPendingError(PendingError& pending, Session* session, const Failure& failure);
// Takes the pending error; answers false, and leaves `error` alone, if none waits.
bool takePendingError(PendingError& pending, ZelErrSType& error);

}  // namespace zel
