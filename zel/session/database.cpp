#include "database.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "kernel/methods.h"
#include "lang/compiler.h"
#include "objmem/classes.h"
#include "system.h"
#include "vm/primitives.h"

namespace zel {

namespace {

constexpr std::string_view userNames[] = {"SystemUser", "DataCurator"};
constexpr std::string_view everyPassword = "swordfish";
constexpr std::uint64_t leastMemory = 8U << 20;
constexpr std::uint64_t mostMemory = 2U << 30;

// The number that an environment variable holds, with a unit where `units` names some; `otherwise`
// when it is not set. Answers false for anything else.
bool readNumber(const char* name, std::string_view units, std::uint64_t& number) {
  const char* set = std::getenv(name);
  if (set == nullptr || *set == '\0') return true;
  const std::string_view text = set;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{}) return false;
  const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
  if (unit.empty()) return true;
  const std::size_t power = unit.size() == 1 ? units.find(unit) : std::string_view::npos;
  if (power == std::string_view::npos) return false;
  const std::uint64_t factor = std::uint64_t{1} << (10 * (power + 1));
  return !__builtin_mul_overflow(number, factor, &number);
}

void readLimits(Database& database) {
  std::uint64_t steps = 0;
  std::uint64_t bytes = defaultMemoryLimit;
  if (!readNumber("POVZEL_STEPS", "", steps)) {
    database.wrongSetting = "POVZEL_STEPS is no number of steps (0 for no limit)";
  }
  if (!readNumber("POVZEL_MEMORY", "kMG", bytes) || bytes < leastMemory || bytes > mostMemory) {
    database.wrongSetting =
        "POVZEL_MEMORY is no number of bytes from 8M to 2G (k, M and G may follow the number)";
    bytes = defaultMemoryLimit;
  }
  database.memory.meter.limit = steps;
  database.memory.setLimit(static_cast<std::size_t>(bytes));
}

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

void makeCurrent(Database& database, Session* session) {
  database.current = session;
  database.memory.current = session != nullptr ? &session->client : nullptr;
  database.machine.names = session != nullptr ? &session->names : nullptr;
}

std::int32_t nextFreeId(Database& database) {
  do {
    database.lastId = database.lastId >= 0xFFFF ? 1 : database.lastId + 1;
  } while (database.sessions.contains(database.lastId));
  return database.lastId;
}

}  // namespace

Database::Database(BreakRequest& breaks) : memory(breaks), machine(memory, *this) {
  bootstrapClasses(memory);
  installPrimitives(memory);
  installPrimitives(memory, systemPrimitives);
  compileKernel(memory);
  machine.keepOwn();
  readLimits(*this);
  memory.addRoots(this, [](void* owner, Memory& marked) {
    for (const auto& [id, session] : static_cast<Database*>(owner)->sessions) {
      markSession(marked, session);
    }
  });
}

Database::~Database() {
  memory.forgetRoots(this);
}

Session& requireSession(Database& database) {
  if (database.current == nullptr) {
    throw Failure(ErrBadSession, "no session is current: log in first");
  }
  return *database.current;
}

Session& login(Database& database, std::string_view user, std::string_view password) {
  if (!database.wrongSetting.empty()) {
    throw Failure(ErrLoginDenied, "login denied: " + database.wrongSetting);
  }
  const bool known =
      std::find(std::begin(userNames), std::end(userNames), user) != std::end(userNames);
  if (!known || password != everyPassword) {
    throw Failure(ErrLoginDenied, "login denied: the user name or the password is wrong");
  }
  if (database.sessions.size() >= static_cast<std::size_t>(mostSessions)) {
    throw Failure(ErrTooManySessions,
                  "login denied: " + std::to_string(mostSessions) + " sessions are open already");
  }
  database.memory.clients.reserve(database.sessions.size() + 1);
  const std::int32_t id = nextFreeId(database);
  Session& session = database.sessions[id];
  session.id = session.names.sessionId = session.client.id = id;
  session.user = user;
  database.memory.clients.push_back(&session.client);
  makeCurrent(database, &session);
  beginTransaction(database.memory, session.client);
  return session;
}

void logout(Database& database) {
  Session& session = requireSession(database);
  // What a soft break leaves for the next time has none; its time runs out.
  while (database.machine.settleFailed()) continue;
  withRoom(database.memory, [&] { abortTransaction(database.memory, session.client); });
  releaseAllObjects(database.memory, session.client);
  clear(database.memory, session.transcript);
  database.memory.account(
      -static_cast<std::ptrdiff_t>(session.names.variables.size() * Names::variableBytes));
  std::erase(database.memory.clients, &session.client);
  makeCurrent(database, nullptr);
  database.sessions.erase(session.id);
  database.memory.collect();
}

void selectSession(Database& database, std::int32_t id) {
  const auto found = database.sessions.find(id);
  if (found == database.sessions.end()) {
    throw Failure(ErrBadSession, "there is no session " + std::to_string(id));
  }
  makeCurrent(database, &found->second);
}

}  // namespace zel
