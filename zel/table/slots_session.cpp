// Sessions and the library's own life.
#include "frame.h"
#include "session/changes.h"
#include "slots.h"
#include "vm/interpreter.h"

namespace zel {

void leaveError(const Failure& failure) noexcept {
  try {
    setPendingError(failure);
  } catch (const std::bad_alloc&) {
    leaveMemoryError();
  }
}

void leaveMemoryError() noexcept {
  // Small enough for strings and lists that need no allocation.
  try {
    setPendingError(Failure(ErrNoMemory, "out of memory"));
  } catch (const std::bad_alloc&) {
    return;
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
  guarded([&] { requirePointer(serverName, 1, "the server name"); });
}

BoolType ZelLogin(const char* user, const char* password) {
  return guarded(BoolType{0}, [&] {
    requirePointer(user, 1, "the user name");
    requirePointer(password, 1, "the password");
    openDatabase();
    login(user, password);
    return BoolType{1};
  });
}

void ZelLogout() {
  guarded([] { logout(); });
}

ZelSessionIdType ZelGetSessionId() {
  const Session* session = currentSession();
  return session != nullptr ? session->id : 0;
}

void ZelSetSessionId(ZelSessionIdType id) {
  guarded([&] {
    selectSession(id);
    // A new request begins: an error that nobody asked for belongs to an earlier one.
    dropPendingError();
    trimHandedOut();
    collectIfDue();
  });
}

BoolType ZelErr(ZelErrSType* error) {
  return guarded(BoolType{0}, [&] {
    requirePointer(error, 1, "the error record");
    return BoolType{takePendingError(*error)};
  });
}

unsigned char ZelProduct() {
  return 1;
}

const char* ZelVersion() {
  return "6.7.1";
}

void ZelShutdown() {
  guarded([] { closeDatabase(); });
}

void ZelUnload() {
  guarded([] { closeDatabase(); });
}

BoolType ZelCommit() {
  return guarded(BoolType{0}, [] {
    commitTransaction(requireSession().id);
    return BoolType{1};
  });
}

void ZelAbort() {
  guarded([] { abortTransaction(requireSession().id); });
}

void ZelSoftBreak() {
  requestBreak(false);
}

void ZelHardBreak() {
  requestBreak(true);
}

int ZelFeatureLevel() {
  return ZelRtlSlotCount;
}

int ZelCompatiblityLevel() {
  return 1;
}

}  // namespace slots

}  // namespace zel
