#include "session.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "changes.h"
#include "errors/failure.h"

namespace zel {

namespace {

constexpr std::uint8_t Exported = 1;
constexpr std::uint8_t Changed = 2;

constexpr std::string_view userNames[] = {"SystemUser", "DataCurator"};
constexpr std::string_view everyPassword = "swordfish";

struct PendingError {
  bool set = false;
  ZelErrSType record{};
};

std::map<std::int32_t, Session> sessions;
std::map<std::int32_t, PendingError> pendingErrors;  // 0 is the process's own
Session* current = nullptr;
std::int32_t lastId = 0;

PendingError& pendingError() {
  return pendingErrors[current != nullptr ? current->id : 0];
}

std::uint8_t* exportMark(Session& session, OopType oop) {
  const std::size_t index = oop >> 2;
  return index < session.exportMarks.size() ? &session.exportMarks[index] : nullptr;
}

std::int32_t nextFreeId() {
  do {
    lastId = lastId >= 0xFFFF ? 1 : lastId + 1;
  } while (sessions.contains(lastId));
  return lastId;
}

// Drops the entries of objects that were released since, and double ones.
void compactChanged(Session& session) {
  std::vector<OopType> kept;
  for (std::size_t i = session.firstUnreported; i < session.changed.size(); ++i) {
    std::uint8_t& mark = session.exportMarks[session.changed[i] >> 2];
    if ((mark & Changed) == 0) continue;
    mark &= static_cast<std::uint8_t>(~Changed);
    kept.push_back(session.changed[i]);
  }
  for (const OopType oop : kept) session.exportMarks[oop >> 2] |= Changed;
  session.changed = std::move(kept);
  session.firstUnreported = 0;
}

}  // namespace

Session* currentSession() {
  return current;
}

Session& requireSession() {
  if (current == nullptr) throw Failure(ErrBadSession, "no session is current: log in first");
  return *current;
}

Session& login(std::string_view user, std::string_view password) {
  const bool known =
      std::find(std::begin(userNames), std::end(userNames), user) != std::end(userNames);
  if (!known || password != everyPassword) {
    throw Failure(ErrLoginDenied, "login denied: the user name or the password is wrong");
  }
  if (sessions.size() >= static_cast<std::size_t>(mostSessions)) {
    throw Failure(ErrTooManySessions,
                  "login denied: " + std::to_string(mostSessions) + " sessions are open already");
  }
  Session& session = sessions[nextFreeId()];
  session.id = lastId;
  session.user = user;
  current = &session;
  beginTransaction(session.id);
  return session;
}

void logout() {
  Session& session = requireSession();
  releaseAllObjects(session);
  endTransactions(session.id);
  pendingErrors.erase(session.id);
  current = nullptr;
  sessions.erase(session.id);
}

void selectSession(std::int32_t id) {
  const auto found = sessions.find(id);
  if (found == sessions.end()) {
    throw Failure(ErrBadSession, "there is no session " + std::to_string(id));
  }
  current = &found->second;
  selectTransaction(id);
}

std::size_t sessionCount() {
  return sessions.size();
}

void exportObject(Session& session, OopType oop) {
  Object& object = objectAt(oop);
  const std::size_t index = oop >> 2;
  if (index >= session.exportMarks.size()) session.exportMarks.resize(index + 1 + index / 2);
  if ((session.exportMarks[index] & Exported) != 0) return;
  session.exportMarks[index] |= Exported;
  ++session.exportCount;
  ++object.exports;
}

void releaseObject(Session& session, OopType oop) {
  std::uint8_t* mark = isReference(oop) ? exportMark(session, oop) : nullptr;
  if (mark == nullptr || (*mark & Exported) == 0) return;
  *mark = 0;
  --session.exportCount;
  --findObject(oop)->exports;
}

void releaseAllObjects(Session& session) {
  for (std::uint32_t index = 0; index < session.exportMarks.size(); ++index) {
    releaseObject(session, fixedOop(index));
  }
}

bool isExported(const Session& session, OopType oop) {
  const std::size_t index = oop >> 2;
  return index < session.exportMarks.size() && (session.exportMarks[index] & Exported) != 0;
}

void noteChanged(OopType oop) {
  constexpr std::size_t slack = 1024;
  for (auto& [id, session] : sessions) {
    if (!session.tracksChanges || !isExported(session, oop)) continue;
    std::uint8_t& mark = session.exportMarks[oop >> 2];
    if ((mark & Changed) != 0) continue;
    mark |= Changed;
    session.changed.push_back(oop);
    if (session.changed.size() > 2 * session.exportCount + slack) compactChanged(session);
  }
}

std::size_t takeChanged(Session& session, OopType* oops, std::size_t room, bool& complete) {
  std::size_t taken = 0;
  std::size_t at = session.firstUnreported;
  for (; at < session.changed.size(); ++at) {
    const OopType oop = session.changed[at];
    std::uint8_t& mark = session.exportMarks[oop >> 2];
    if ((mark & Changed) == 0) continue;  // released since
    if (taken == room) break;
    mark &= static_cast<std::uint8_t>(~Changed);
    oops[taken++] = oop;
  }
  session.firstUnreported = at;
  complete = at == session.changed.size();
  if (complete) {
    session.changed.clear();
    session.firstUnreported = 0;
  }
  return taken;
}

void setPendingError(const Failure& failure) {
  PendingError& pending = pendingError();
  ZelErrSType& record = pending.record;
  record = {};
  record.category = SystemErrCategoryOop;
  record.number = failure.number;
  record.context = failure.context != 0 ? handOut(failure.context) : NilOop;
  const std::size_t length = std::min(failure.message.size(), sizeof record.message - 1);
  std::memcpy(record.message, failure.message.data(), length);
  record.argCount =
      static_cast<std::int32_t>(std::min<std::size_t>(failure.args.size(), ZelMaxErrArgs));
  for (std::int32_t i = 0; i < record.argCount; ++i) {
    record.args[i] = handOut(failure.args[static_cast<std::size_t>(i)]);
  }
  pending.set = true;
}

bool takePendingError(ZelErrSType& error) {
  PendingError& pending = pendingError();
  if (!pending.set) return false;
  error = pending.record;
  pending.set = false;
  return true;
}

void dropPendingError() {
  pendingError().set = false;
}

void markSessions(Marker mark) {
  for (const auto& [id, session] : sessions) {
    for (const auto& [name, value] : session.variables) {
      mark(name);
      mark(value);
    }
    for (std::uint32_t index = 0; index < session.exportMarks.size(); ++index) {
      if ((session.exportMarks[index] & Exported) != 0) mark(fixedOop(index));
    }
  }
  for (const auto& [id, pending] : pendingErrors) {
    if (!pending.set) continue;
    mark(pending.record.context);
    for (std::int32_t i = 0; i < pending.record.argCount; ++i) mark(pending.record.args[i]);
  }
}

void clearSessions() {
  sessions.clear();
  pendingErrors.clear();
  current = nullptr;
  lastId = 0;
}

}  // namespace zel
