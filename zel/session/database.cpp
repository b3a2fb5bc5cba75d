#include "database.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>

#include "objmem/text.h"
#include "store/filestore.h"

namespace zel {

namespace {

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

// The repository of a place that a session has open already is shared, while its name leads there.
std::shared_ptr<Repository> repositoryFor(Database& database, const ServerName& server) {
  if (server.kind == ServerName::Kind::memory) return database.inMemory;
  std::erase_if(database.opened, [](const auto& each) { return each.second.expired(); });
  const auto [first, end] = database.opened.equal_range(server.path);
  for (auto known = first; known != end; ++known) {
    std::shared_ptr<Repository> open = known->second.lock();
    if (open->store->isStillThere()) return open;
  }
  std::shared_ptr<Repository> opened = openRepository(server, [&database] {
    if (database.current == nullptr) return;
    Meter& meter = database.current->memory.meter;
    meter.hurry();
    meter.charge(1);
  });
  database.opened.emplace(server.path, opened);
  return opened;
}

// Makes a file of what the store in memory has, in one commit. It would be anybody's with the
// well-known password.
void copyToFile(const std::string& file, Store& from, const Progress& progress) {
  const Lease lease(from);
  for (const char* user : {"SystemUser", "DataCurator"}) {
    const std::optional<std::string> hash = passwordOf(from, lease.version, true, user);
    if (!hash || !hash->empty()) continue;
    throw Failure(ErrNotPermitted,
                  "a file needs other passwords than the well-known one: change "
                  "and commit those of SystemUser and DataCurator first");
  }
  const std::unique_ptr<Store> store = openFileStore({.path = file, .create = true});
  const Lease empty(*store);
  if (empty.version != 0) {
    throw Failure(ErrBadArgument, file + " is there already: a backup needs a file of its own");
  }
  const std::uint64_t all = from.statistics().objects;
  Changes changes{empty.version, {}, {}};
  from.scan(lease.version, 1, UINT64_MAX, [&](const Row& row) {
    changes.writes.push_back({row.place, row.classId, row.bytes, false});
    if (!progress(std::min<std::uint64_t>(changes.writes.size(), all), all)) {
      throw Failure(ErrHardBreak, "the backup was given up");
    }
  });
  store->commit(changes);
}

}  // namespace

Database::Database(BreakRequest& breakRequest)
    : breaks(breakRequest),
      inMemory(std::make_shared<Repository>(std::make_unique<MemoryStore>(copyToFile))) {
  readLimits(*this);
}

void shareMemory(Session& session, bool pressed) {
  if (pressed) {
    for (auto& [id, other] : session.database.sessions) {
      if (&other != &session) other.memory.collect();
    }
    session.repository->tidy(true);
  }
  std::size_t elsewhere = session.database.inMemory->bytes();
  for (const auto& [name, each] : session.database.opened) {
    if (const std::shared_ptr<Repository> open = each.lock()) elsewhere += open->bytes();
  }
  for (auto& [id, other] : session.database.sessions) {
    if (&other != &session) elsewhere += other.memory.statistics().bytes;
  }
  session.memory.setTakenElsewhere(elsewhere);
}

Session& requireSession(Database& database) {
  if (database.current == nullptr) {
    throw Failure(ErrBadSession, "no session is current: log in first");
  }
  return *database.current;
}

Session& login(Database& database, std::string_view serverName, std::string_view userName,
               std::string_view passwordGiven) {
  const auto [server, user, password] =
      std::array{withPairsJoined(std::string(serverName)), withPairsJoined(std::string(userName)),
                 withPairsJoined(std::string(passwordGiven))};
  if (!database.wrongSetting.empty()) {
    throw Failure(ErrLoginDenied, "login denied: " + database.wrongSetting);
  }
  if (database.sessions.size() >= static_cast<std::size_t>(mostSessions)) {
    throw Failure(ErrTooManySessions,
                  "login denied: " + std::to_string(mostSessions) + " sessions are open already");
  }
  const ServerName name = readServerName(server);
  std::shared_ptr<Repository> repository = repositoryFor(database, name);
  const bool isNew = name.create && Lease(*repository->store).version == 0;
  UserChanges founders;
  if (isNew) {
    founders = creators(user, password, database.passwords);
  } else if (!mayLogIn(*repository->store, name.kind == ServerName::Kind::memory, user, password,
                       database.passwords)) {
    throw Failure(ErrLoginDenied, "login denied: the user name or the password is wrong");
  }
  const std::int32_t id = nextFreeId(database);
  const auto opened =
      database.sessions.try_emplace(id, database, id, user, std::move(repository)).first;
  Session& session = opened->second;
  try {
    if (isNew) session.workspace->found(std::move(founders));
  } catch (...) {
    database.sessions.erase(opened);
    throw;
  }
  database.current = &session;
  shareMemory(session, false);
  return session;
}

void logout(Database& database) {
  Session& session = requireSession(database);
  // What a soft break leaves for the next time has none; its time runs out.
  {
    const Run run(session.memory.meter);
    while (session.machine.settleFailed()) continue;
  }
  database.current = nullptr;
  const std::shared_ptr<Repository> repository = session.repository;
  database.sessions.erase(session.id);
  repository->tidy(false);
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
