// Sessions: who is logged in, which one is current, and what each has on its own: its pending
// error, its variables, its export set and the exported objects that changed.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "objmem/memory.h"

namespace zel {

struct Failure;

constexpr std::int32_t mostSessions = 64;

struct Session {
  std::int32_t id = 0;
  std::string user;
  bool tracksChanges = false;
  std::unordered_map<OopType, OopType> variables;  // Symbol to value
  std::vector<std::uint8_t> exportMarks;           // by object table index: Exported, Changed
  std::size_t exportCount = 0;
  std::vector<OopType> changed;     // in the order of the first change
  std::size_t firstUnreported = 0;  // in `changed`
};

// The current session, null when nobody is logged in or selected.
Session* currentSession();
// The same, but throws ErrBadSession.
Session& requireSession();

// Checks the user and makes a new session current. Throws ErrLoginDenied or ErrTooManySessions.
Session& login(std::string_view user, std::string_view password);
// Ends the current session: what it did not commit is lost. No session is current afterwards.
void logout();
// Makes the session current. Throws ErrBadSession and leaves the current one as it was.
void selectSession(std::int32_t id);
// Sessions open at the moment.
std::size_t sessionCount();

// The export set of a session: oops that stay alive for the client whatever happens. Exporting
// throws ErrNoSuchObject for what has no body; exporting and releasing twice is no error.
void exportObject(Session& session, OopType oop);
void releaseObject(Session& session, OopType oop);
void releaseAllObjects(Session& session);
bool isExported(const Session& session, OopType oop);
// Tells every session that has exported the object and tracks changes that it changed.
void noteChanged(OopType oop);
// Moves up to `room` changed exported oops, oldest change first, to `oops`; they count as
// unchanged afterwards. Answers how many; `complete` says whether that was all.
std::size_t takeChanged(Session& session, OopType* oops, std::size_t room, bool& complete);

// The error that waits for ZelErr: of the current session, or of the process when there is none.
// Setting replaces an earlier one; taking answers false, and leaves `error` alone, if none waits.
void setPendingError(const Failure& failure);
bool takePendingError(ZelErrSType& error);
void dropPendingError();

// Marks variables, export sets and pending errors, for collections.
void markSessions(Marker mark);
// Forgets all sessions, without a commit.
void clearSessions();

}  // namespace zel
