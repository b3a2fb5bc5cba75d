#include "session.h"

#include <algorithm>
#include <cstring>

#include "database.h"
#include "kernel/methods.h"
#include "objmem/classes.h"
#include "system.h"
#include "vm/primitives.h"
#include "vm/tracing.h"

namespace zel {

namespace {

void markSession(Memory& memory, const Session& session) {
  for (const auto& [name, value] : session.names.variables) {
    memory.mark(name);
    memory.mark(value);
  }
  if (session.names.failedOwes) memory.mark(session.names.failedProcess);
  for (const OopType owed : session.names.left) memory.mark(owed);
  if (!session.error.set) return;
  const ZelErrSType& record = session.error.record;
  memory.mark(record.context);
  for (std::int32_t i = 0; i < record.argCount; ++i) memory.mark(record.args[i]);
}

}  // namespace

Session::Session(Database& owner, std::int32_t number, std::string_view userName,
                 std::shared_ptr<Repository> ofStore)
    : database(owner),
      repository(std::move(ofStore)),
      id(number),
      user(userName),
      memory(owner.breaks, repository->identities),
      machine(memory, *this) {
  names.sessionId = client.id = id;
  machine.names = &names;
  bootstrapClasses(memory);
  installPrimitives(memory);
  installPrimitives(memory, systemPrimitives);
  compileKernel(memory);
  machine.keepOwn();
  memory.sealKernel();
  memory.meter.limit = owner.stepLimit;
  memory.setLimit(owner.memoryLimit);
  memory.clients.push_back(&client);
  memory.current = &client;
  memory.relief = {this, [](void* session, bool pressed) {
                     shareMemory(*static_cast<Session*>(session), pressed);
                   }};
  memory.addRoots(this, [](void* session, Memory& marked) {
    markSession(marked, *static_cast<Session*>(session));
  });
  workspace = std::make_unique<Workspace>(memory, client, *repository);
  beginTransaction(memory, client);
}

Session::~Session() {
  memory.forgetRoots(this);
}

void setPendingError(PendingError& pending, Session* session, const Failure& failure) {
  ZelErrSType& record = pending.record;
  record = {};
  record.category = SystemErrCategoryOop;
  record.number = failure.number;
  const std::string text = errorText(failure, sizeof record.message - 1);
  std::memcpy(record.message, text.data(), text.size());
  record.context = NilOop;
  pending.set = true;
  if (session == nullptr) return;
  if (failure.context != 0) record.context = failure.context;
  const std::size_t args = std::min(failure.args.size(), std::size_t{ZelMaxErrArgs});
  std::copy_n(failure.args.begin(), args, record.args);
  record.argCount = static_cast<std::int32_t>(args);
  Client& client = session->client;
  client.failed.fill(NilOop);
  client.failed.back() = record.context;
  std::copy_n(record.args, args, client.failed.begin());
  client.failedNow = true;
}

bool takePendingError(PendingError& pending, ZelErrSType& error) {
  if (!pending.set) return false;
  error = pending.record;
  pending.set = false;
  return true;
}

}  // namespace zel
