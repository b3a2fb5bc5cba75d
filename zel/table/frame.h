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

  PendingError& pendingError() {
    Session* session = database ? database->current : nullptr;
    return session != nullptr ? session->error : error;
  }
};
Library& library();

// Opens the database; does nothing when it is open.
Database& openDatabase();
// The open database. Throws ErrBadSession unless a session is current in it.
Database& sessionDatabase();

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
// `body` takes the database.
template <typename Result, typename Body>
Result inSession(Result otherwise, Body body) noexcept {
  return guarded(otherwise, [&] {
    Database& database = sessionDatabase();
    database.memory.collectIfDue();
    return withRoom(database.memory, [&] { return body(database); });
  });
}

template <typename Body>
void inSession(Body body) noexcept {
  inSession(0, [&](Database& database) {
    body(database);
    return 0;
  });
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
inline OopType handOut(Database& database, OopType oop) {
  Client& client = database.current->client;
  try {
    return handOut(database.memory, client, oop);
  } catch (const std::bad_alloc&) {
  }
  const Given given(database.memory, oop, {});
  const InRoom room(database.memory, Room::library);
  return withRoom(database.memory, [&] { return handOut(database.memory, client, oop); });
}

// Throws ErrBadArgument unless `pointer` is there or `count` is 0.
void requirePointer(const void* pointer, ArraySizeType count, const char* what);

}  // namespace zel
