// Messages to System: transactions, suspension, and what the session says about itself.
#include "system.h"

#include "database.h"
#include "objmem/text.h"
#include "objmem/values.h"

namespace zel {

namespace {

constexpr std::size_t longestUserName = 64;

// What goes on behind the end of a transaction begins the next with its first access.
OopType commit(Machine& machine, OopType, const OopType*) {
  withRoom(machine.memory, [&] { machine.session.workspace->commit(); });
  return TrueOop;
}
OopType abortMessage(Machine& machine, OopType receiver, const OopType*) {
  Workspace& workspace = *machine.session.workspace;
  withRoom(machine.memory, [&] { workspace.abort(); });
  withRoom(machine.memory, [&] { workspace.begin(); });
  return receiver;
}
// Moves the session to the newest state; what it has changed would not fit there.
OopType refresh(Machine& machine, OopType receiver, const OopType*) {
  if (machine.memory.current->transaction.hasChanges()) {
    throw Failure(ErrNotPermitted,
                  "the session has changes that are not committed: commit or abort them first");
  }
  return abortMessage(machine, receiver, nullptr);
}
// Only SystemUser changes other users; the commit makes it so.
void requireSystemUser(Machine& machine) {
  if (machine.session.user == "SystemUser") return;
  throw Failure(ErrNotPermitted, "only SystemUser may do that");
}
// As a login has it.
std::string nameArgument(Machine& machine, OopType text) {
  return withPairsJoined(utf8Argument(machine.memory, text));
}
// A file is not to be anybody's.
std::string newPassword(Machine& machine, OopType text) {
  std::string password = nameArgument(machine, text);
  const bool isOpen = password.empty() || password == wellKnownPassword;
  if (isOpen && machine.session.repository->inMemory == nullptr) {
    throw Failure(ErrNotPermitted,
                  "a password that is empty or well-known is none for a database in a file",
                  {text});
  }
  return password;
}
OopType changePassword(Machine& machine, OopType receiver, const OopType* args) {
  const std::string password = newPassword(machine, args[0]);
  if (!machine.session.workspace->passwordOf(machine.session.user)) {
    throw Failure(ErrNotInCollection, "there is no user " + machine.session.user);
  }
  machine.session.workspace->changeUser(machine.session.user,
                                        machine.session.database.passwords.hashOf(password));
  return receiver;
}
// Of a user that is there already it sets the password.
OopType addUser(Machine& machine, OopType receiver, const OopType* args) {
  requireSystemUser(machine);
  const std::string name = nameArgument(machine, args[0]);
  const std::string password = newPassword(machine, args[1]);
  if (name.empty() || name.size() > longestUserName || name.find('\0') != std::string::npos) {
    throw Failure(ErrBadArgumentKind,
                  "a user's name has 1 to " + std::to_string(longestUserName) + " bytes and no NUL",
                  {args[0]});
  }
  machine.session.workspace->changeUser(name, machine.session.database.passwords.hashOf(password));
  return receiver;
}
OopType removeUser(Machine& machine, OopType receiver, const OopType* args) {
  requireSystemUser(machine);
  const std::string name = nameArgument(machine, args[0]);
  if (name == machine.session.user) {
    throw Failure(ErrNotPermitted, "SystemUser cannot be removed");
  }
  if (!machine.session.workspace->passwordOf(name)) {
    throw Failure(ErrNotInCollection, "there is no user " + name, {args[0]});
  }
  machine.session.workspace->changeUser(name, std::nullopt);
  return receiver;
}
// The newest committed state, in a new file.
OopType backupTo(Machine& machine, OopType receiver, const OopType* args) {
  const std::string file = nameArgument(machine, args[0]);
  if (file.empty() || file.find('\0') != std::string::npos) {
    throw Failure(ErrBadArgumentKind, "the name of a file has at least one byte and no NUL",
                  {args[0]});
  }
  machine.session.repository->store->backUp(file, [&](std::uint64_t, std::uint64_t) {
    machine.memory.meter.charge(1);
    return true;
  });
  return receiver;
}

// Ends no program that failed, as what needs the machine does.
OopType needsCommit(Memory& memory, OopType, const OopType*) {
  return booleanOop(memory.current->transaction.hasChanges());
}
OopType suspend(Machine&, OopType, const OopType* args) {
  throw Failure(ErrSuspended, "the program is suspended", {args[0]}, FailureKind::suspension);
}
OopType userName(Machine& machine, OopType, const OopType*) {
  return withRoom(machine.memory, [&] { return stringOop(machine.memory, machine.session.user); });
}
OopType sessionId(Machine& machine, OopType, const OopType*) {
  return smallIntOop(machine.session.id);
}
OopType sessions(Machine& machine, OopType, const OopType*) {
  return smallIntOop(static_cast<std::int32_t>(machine.session.database.sessions.size()));
}
OopType version(Memory& memory, OopType, const OopType*) {
  return stringOop(memory, "6.7.1");
}
OopType collectGarbage(Machine& machine, OopType receiver, const OopType*) {
  machine.memory.collect();
  machine.memory.meter.charge(machine.memory.statistics().objects);
  return receiver;
}
OopType objectCount(Memory& memory, OopType, const OopType*) {
  return integerOop(memory, static_cast<std::int64_t>(memory.statistics().objects));
}
OopType memoryBytes(Memory& memory, OopType, const OopType*) {
  return integerOop(memory, static_cast<std::int64_t>(memory.statistics().bytes));
}
OopType memoryLimit(Memory& memory, OopType, const OopType*) {
  return integerOop(memory, static_cast<std::int64_t>(memory.limit()));
}
// nil when there is none.
OopType stepLimit(Memory& memory, OopType, const OopType*) {
  const std::uint64_t limit = memory.meter.limit;
  return limit != 0 ? integerOop(memory, static_cast<std::int64_t>(limit)) : NilOop;
}

OopType takeTranscript(Machine& machine, OopType, const OopType*) {
  return withRoom(machine.memory, [&] { return take(machine.memory, machine.session.transcript); });
}
OopType writeTranscript(Machine& machine, OopType receiver, const OopType* args) {
  Memory& memory = machine.memory;
  withRoom(memory, [&] {
    const std::string text = utf8Argument(memory, args[0]);
    write(memory, machine.session.transcript, text);
  });
  return receiver;
}

constexpr Primitive systemClassMessages[] = {
    {"commit", commit},
    {"commitTransaction", commit},
    {"abort", abortMessage},
    {"abortTransaction", abortMessage},
    {"refresh", refresh},
    {"changePassword:", changePassword},
    {"addUser:password:", addUser},
    {"removeUser:", removeUser},
    {"backupTo:", backupTo},
    {"needsCommit", needsCommit},
    {"suspend:", suspend},
    {"userName", userName},
    {"sessionId", sessionId},
    {"sessionCount", sessions},
    {"version", version},
    {"collectGarbage", collectGarbage},
    {"objectCount", objectCount},
    {"memoryBytes", memoryBytes},
    {"memoryLimit", memoryLimit},
    {"stepLimit", stepLimit},
    {"takeTranscript", takeTranscript},
};
constexpr Primitive transcriptClassMessages[] = {
    {"append:", writeTranscript},
};
constexpr ClassPrimitives families[] = {
    {SystemClass, {}, systemClassMessages},
    {TranscriptClass, {}, transcriptClassMessages},
};

}  // namespace

constinit const PrimitiveTable systemPrimitives = families;

}  // namespace zel
