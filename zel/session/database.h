// The database as a whole: the store, and the sessions.
#pragma once

#include <map>

#include "places.h"
#include "session.h"

namespace zel {

struct Database {
  // The limits are those of the environment: POVZEL_STEPS, POVZEL_MEMORY.
  explicit Database(BreakRequest& breakRequest);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  BreakRequest& breaks;
  std::shared_ptr<Repository> inMemory;
  // That sessions have open, by their names: the path of a file can have had several.
  std::multimap<std::string, std::weak_ptr<Repository>> opened;
  Passwords passwords;
  std::map<std::int32_t, Session> sessions;
  Session* current = nullptr;  // null when nobody is logged in or selected
  std::int32_t lastId = 0;
  std::uint64_t stepLimit = 0;
  std::size_t memoryLimit = defaultMemoryLimit;
  std::string wrongSetting;  // what the environment says wrongly: nobody can log in
};

// Has the sessions' memories share the limit: tells the session how much of it the others and the
// store take. With `pressed` they collect before, and what nobody refers to any more goes from a
// store in memory.
void shareMemory(Session& session, bool pressed);

// The current session; throws ErrBadSession if there is none.
Session& requireSession(Database& database);
// Checks the user and makes a new session current, in the database that the server's name means,
// see places.h. Characters that a JVM hands over in two halves are made whole in all three texts. A
// file that is to be created is made by the session's first commit. Throws
// ErrLoginDenied, ErrTooManySessions, and what openRepository does.
Session& login(Database& database, std::string_view server, std::string_view user,
               std::string_view password);
// Ends the current session: what it did not commit is lost, and what it held goes. The last one of
// a file or server closes it. No session is current afterwards.
void logout(Database& database);
// Makes the session current. Throws ErrBadSession and leaves the current one as it was.
void selectSession(Database& database, std::int32_t id);

}  // namespace zel
