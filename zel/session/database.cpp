#include "database.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "store/memorystore.h"

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
  database.stepLimit = steps;
  database.memoryLimit = static_cast<std::size_t>(bytes);
}

std::int32_t nextFreeId(Database& database) {
  do {
    database.lastId = database.lastId >= 0xFFFF ? 1 : database.lastId + 1;
  } while (database.sessions.contains(database.lastId));
  return database.lastId;
}

void refuseCopy(const std::string&, Store&, const Progress&) {
  throw Failure(ErrNotImplemented, "a database in memory cannot be backed up");
}

}  // namespace

Database::Database(BreakRequest& breakRequest)
    : breaks(breakRequest), repository(std::make_unique<MemoryStore>(refuseCopy)) {
  readLimits(*this);
}

void shareMemory(Session& session, bool pressed) {
  if (pressed) session.repository.tidy(true);
  std::size_t elsewhere = session.repository.bytes();
  for (auto& [id, other] : session.database.sessions) {
    if (&other == &session) continue;
    if (pressed) other.memory.collect();
    elsewhere += other.memory.statistics().bytes;
  }
  session.memory.setTakenElsewhere(elsewhere);
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
  const std::int32_t id = nextFreeId(database);
  database.current = &database.sessions
                          .try_emplace(id, database, id, user, database.repository)
                          .first->second;
  shareMemory(*database.current, false);
  return *database.current;
}

void logout(Database& database) {
  Session& session = requireSession(database);
  // What a soft break leaves for the next time has none; its time runs out.
  {
    const Run run(session.memory.meter);
    while (session.machine.settleFailed()) continue;
  }
  database.current = nullptr;
  Repository& repository = session.repository;
  database.sessions.erase(session.id);
  repository.tidy(true);
}

void selectSession(Database& database, std::int32_t id) {
  const auto found = database.sessions.find(id);
  if (found == database.sessions.end()) {
    throw Failure(ErrBadSession, "there is no session " + std::to_string(id));
  }
  if (database.current == &found->second) return;
  database.current = &found->second;
  shareMemory(*database.current, false);
}

}  // namespace zel
