// The database as a whole: the object memory with its classes and their methods, the machine that
// runs programs in it, and the sessions.
#pragma once

#include <map>

#include "session.h"

namespace zel {

struct Database {
  // Makes the classes, their primitives and the methods written in the language itself. The limits
  // are those of the environment: POVZEL_STEPS, POVZEL_MEMORY.
  explicit Database(BreakRequest& breaks);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  Memory memory;
  Machine machine;
  std::map<std::int32_t, Session> sessions;
  Session* current = nullptr;  // null when nobody is logged in or selected
  std::int32_t lastId = 0;
  std::string wrongSetting;  // what the environment says wrongly: nobody can log in
};

// The current session; throws ErrBadSession if there is none.
Session& requireSession(Database& database);
// Checks the user and makes a new session current. Throws ErrLoginDenied or ErrTooManySessions.
Session& login(Database& database, std::string_view user, std::string_view password);
// Ends the current session: what it did not commit is lost, and what it held goes. No session is
// current afterwards.
void logout(Database& database);
// Makes the session current. Throws ErrBadSession and leaves the current one as it was.
void selectSession(Database& database, std::int32_t id);

}  // namespace zel
