// Sessions and the library's own life.
#include "frame.h"
#include "slots.h"

namespace zel {

// Never destroyed: when the process ends by exit, other threads may still run programs.
Library& library() {
  static union Loaded {
    Loaded() : library() {}
    ~Loaded() {}
    Library library;
  } loaded;
  return loaded.library;
}

Database& openDatabase() {
  std::unique_ptr<Database>& database = library().database;
  if (!database) database = std::make_unique<Database>(library().breaks);
  return *database;
}

Session& currentSession() {
  Library& loaded = library();
  if (!loaded.database) throw Failure(ErrBadSession, "no session is current: log in first");
  return requireSession(*loaded.database);
}

void leaveError(const Failure& failure) noexcept {
  Database* database = library().database.get();
  try {
    setPendingError(library().pendingError(), database != nullptr ? database->current : nullptr,
                    failure);
  } catch (const std::bad_alloc&) {
    leaveMemoryError();
  }
}

void leaveMemoryError() noexcept {
  const Database* database = library().database.get();
  const Session* session = database != nullptr ? database->current : nullptr;
  try {
    setPendingError(library().pendingError(), nullptr,
                    session != nullptr ? memoryFailure(session->memory)
                                       : Failure(ErrNoMemory, "out of memory"));
  } catch (const std::bad_alloc&) {
    // Not even the text: the number alone.
    PendingError& pending = library().pendingError();
    pending.record = {};
    pending.record.category = SystemErrCategoryOop;
    pending.record.number = ErrNoMemory;
    pending.record.context = NilOop;
    pending.set = true;
  }
}

void requirePointer(const void* pointer, ArraySizeType count, const char* what) {
  if (pointer == nullptr && count != 0) {
    throw Failure(ErrBadArgument, std::string(what) + " is null");
  }
}

namespace slots {

BoolType ZelInit() {
  return guarded(BoolType{0}, [] {
    openDatabase();
    return BoolType{1};
  });
}

void ZelInitAppName(const char* name, BoolType) {
  guarded([&] { requirePointer(name, 1, "the application name"); });
}

void ZelSetNet(const char* serverName, const char*, const char*, const char*) {
  guarded([&] {
    requirePointer(serverName, 1, "the server name");
    library().server = serverName;
  });
}

BoolType ZelLogin(const char* user, const char* password) {
  return guarded(BoolType{0}, [&] {
    requirePointer(user, 1, "the user name");
    requirePointer(password, 1, "the password");
    login(openDatabase(), library().server, user, password);
    return BoolType{1};
  });
}

void ZelLogout() {
  guarded([] {
    Session& session = currentSession();
    logout(session.database);
  });
}

ZelSessionIdType ZelGetSessionId() {
  const Database* database = library().database.get();
  return database != nullptr && database->current != nullptr ? database->current->id : 0;
}

void ZelSetSessionId(ZelSessionIdType id) {
  guarded([&] {
    Database* database = library().database.get();
    if (database == nullptr) {
      throw Failure(ErrBadSession, "there is no session " + std::to_string(id));
    }
    selectSession(*database, id);
    // A new request begins: an error that nobody asked for belongs to an earlier one.
    Session& session = *database->current;
    session.error.set = false;
    session.selects = true;
    beginRequest(session.client);
    session.memory.collectIfDue();
  });
}

BoolType ZelErr(ZelErrSType* error) {
  return guarded(BoolType{0}, [&] {
    requirePointer(error, 1, "the error record");
    return BoolType{takePendingError(library().pendingError(), *error)};
  });
}

unsigned char ZelProduct() {
  return 1;
}

const char* ZelVersion() {
  return "6.7.1";
}

void ZelShutdown() {
  library().database.reset();
  library().error.set = false;
  library().server.clear();
}

void ZelUnload() {
  ZelShutdown();
}

BoolType ZelCommit() {
  return inSession(BoolType{0}, [](Session& session) {
    const Run run(session.memory.meter);  // others may have to be waited for
    session.workspace->commit();
    return BoolType{1};
  });
}

void ZelAbort() {
  inSession([](Session& session) { session.workspace->abort(); });
}

BoolType ZelSoftBreak() {
  return BoolType{library().breaks.make(BreakRequest::soft)};
}

BoolType ZelHardBreak() {
  return BoolType{library().breaks.make(BreakRequest::hard)};
}

int ZelFeatureLevel() {
  return ZelRtlSlotCount;
}

int ZelCompatiblityLevel() {
  return 1;
}

}  // namespace slots

}  // namespace zel
