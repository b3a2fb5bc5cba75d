// The frame around every table function: nothing that goes wrong inside leaves it except as the
// pending error, and the function then answers what it was told to.
#pragma once

#include <span>

#include "session/database.h"

namespace zel {

// What stands behind the table. The break request is there for as long as the library is loaded,
// since other threads may make one while the database is being opened or closed.
struct Library {
  BreakRequest breaks;
  std::unique_ptr<Database> database;  // from ZelInit to ZelShutdown
  PendingError error;                  // when no session is current
  std::string server;                  // that the next login is for

  PendingError& pendingError() {
    Session* session = database ? database->current : nullptr;
    return session != nullptr ? session->error : error;
  }
};
Library& library();

// Opens the database; does nothing when it is open.
Database& openDatabase();
// The current session. Throws ErrBadSession if there is none.
Session& currentSession();

// Stores the failure as the pending error, whatever memory is left.
void leaveError(const Failure& failure) noexcept;
void leaveMemoryError() noexcept;

// Answers what `body` answers, or `otherwise` when it fails.
template <typename Result, typename Body>
Result guarded(Result otherwise, Body body) noexcept {
  try {
    return body();
  } catch (const Failure& failure) {
    leaveError(failure);
  } catch (const std::bad_alloc&) {
    leaveMemoryError();
  }
  return otherwise;
}

template <typename Body>
void guarded(Body body) noexcept {
  guarded(0, [&] {
    body();
    return 0;
  });
}

// The same for work in a session that may be done once more when it found no room the first time.
// `body` takes the session.
template <typename Result, typename Body>
Result inSession(Result otherwise, Body body) noexcept {
  return guarded(otherwise, [&] {
    Session& session = currentSession();
    session.memory.collectIfDue();
    return withRoom(session.memory, [&] {
      session.workspace->begin();
      return body(session);
    });
  });
}

template <typename Body>
void inSession(Body body) noexcept {
  inSession(0, [&](Session& session) {
    body(session);
    return 0;
  });
}

// Begins what the session's transaction sees, if this is its first access.
inline void beginAccess(Session& session) {
  withRoom(session.memory, [&] { session.workspace->begin(); });
}

// Keeps what a client names from collections, until its program does.
class Given {
 public:
  Given(Memory& memory, OopType first, std::span<const OopType> others)
      : memory_(memory), first_(first), others_(others) {
    memory.addRoots(this, [](void* given, Memory& marked) {
      marked.mark(static_cast<Given*>(given)->first_);
      for (const OopType oop : static_cast<Given*>(given)->others_) marked.mark(oop);
    });
  }
  ~Given() { memory_.forgetRoots(this); }
  Given(const Given&) = delete;
  Given& operator=(const Given&) = delete;

 private:
  Memory& memory_;
  OopType first_;
  std::span<const OopType> others_;
};

// Keeps the value for the current session's client and answers it. What a program has answered is
// not to be lost for want of room.
inline OopType handOut(Session& session, OopType oop) {
  Client& client = session.client;
  try {
    return handOut(session.memory, client, oop);
  } catch (const std::bad_alloc&) {
  }
  const Given given(session.memory, oop, {});
  const InRoom room(session.memory, Room::library);
  return withRoom(session.memory, [&] { return handOut(session.memory, client, oop); });
}

// Throws ErrBadArgument unless `pointer` is there or `count` is 0.
void requirePointer(const void* pointer, ArraySizeType count, const char* what);

}  // namespace zel
