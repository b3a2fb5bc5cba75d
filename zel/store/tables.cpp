#include "store/tables.h"

#include <algorithm>

#include "store/checksum.h"

namespace zel {

namespace {

constexpr const char* schema = R"(
CREATE TABLE state(one INTEGER PRIMARY KEY, version INTEGER, tick INTEGER, nextId INTEGER,
  objects INTEGER, entries INTEGER, olds INTEGER, total INTEGER, sum INTEGER);
CREATE TABLE object(id INTEGER PRIMARY KEY, class INTEGER, version INTEGER, changed INTEGER,
  born INTEGER, parts INTEGER, partSum INTEGER, sum INTEGER, bytes BLOB);
CREATE TABLE entry(id INTEGER, part INTEGER, version INTEGER, sum INTEGER, bytes BLOB,
  PRIMARY KEY(id, part)) WITHOUT ROWID;
CREATE TABLE old(id INTEGER, part INTEGER, until INTEGER, need INTEGER, untilSum INTEGER,
  class INTEGER, version INTEGER, changed INTEGER, born INTEGER, parts INTEGER, partSum INTEGER,
  sum INTEGER, bytes BLOB, PRIMARY KEY(id, part, until)) WITHOUT ROWID;
CREATE INDEX needed ON old(need);
CREATE TABLE log(version INTEGER PRIMARY KEY, sum INTEGER, places BLOB);
)";

constexpr std::array<const char*, static_cast<std::size_t>(Sql::count)> texts = {
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT version, tick, nextId, objects, entries, olds, total, sum FROM state WHERE one = 1",
    "REPLACE INTO state VALUES(1, ?, ?, ?, ?, ?, ?, ?, ?)",
    "SELECT class, version, changed, born, parts, partSum, sum, bytes FROM object WHERE id = ?",
    "INSERT INTO object(class, version, changed, born, parts, partSum, sum, id, bytes) "
    "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)",
    "UPDATE object SET class = ?, version = ?, changed = ?, born = ?, parts = ?, partSum = ?, "
    "sum = ? , bytes = ?9 WHERE id = ?8",
    "DELETE FROM object WHERE id = ?",
    "SELECT id FROM object WHERE id >= ? AND id < ? ORDER BY id LIMIT ?",
    "SELECT version, sum, bytes FROM entry WHERE id = ? AND part = ?",
    "SELECT part, version, sum, bytes FROM entry WHERE id = ? ORDER BY part",
    "INSERT INTO entry(id, part, version, sum, bytes) VALUES(?, ?, ?, ?, ?)",
    "UPDATE entry SET version = ?3, sum = ?4, bytes = ?5 WHERE id = ?1 AND part = ?2",
    "DELETE FROM entry WHERE id = ? AND part = ?",
    "SELECT part, class, version, changed, born, parts, partSum, sum, bytes, until, untilSum "
    "FROM old WHERE id = ? AND until > ?2 AND changed <= ?2 ORDER BY part",
    "INSERT INTO old(id, part, class, version, changed, born, parts, partSum, sum, until, "
    "untilSum, "
    "need, bytes) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
    "SELECT need FROM old WHERE need > ? ORDER BY need LIMIT 1",
    "SELECT id, part, until, changed FROM old WHERE need = ? LIMIT ?",
    "UPDATE old SET need = ?4 WHERE id = ?1 AND part = ?2 AND until = ?3",
    "DELETE FROM old WHERE id = ? AND part = ? AND until = ?",
    "SELECT DISTINCT id FROM old WHERE id >= ? AND id < ? ORDER BY id LIMIT ?",
    "INSERT INTO log(version, sum, places) VALUES(?, ?, ?)",
    "SELECT version, sum, places FROM log WHERE version > ? AND version <= ? ORDER BY version",
    "DELETE FROM log WHERE version <= ?",
    "PRAGMA integrity_check",
    "SELECT part, class, version, changed, born, parts, partSum, sum, bytes, until, untilSum, id "
    "FROM old",
};

constexpr std::size_t placeSize = sizeof(ObjectId) + sizeof(std::uint32_t);

std::string packed(const std::vector<const Write*>& writes) {
  std::string bytes(writes.size() * placeSize, '\0');
  char* to = bytes.data();
  for (const Write* write : writes) {
    std::memcpy(to, &write->place.id, sizeof(ObjectId));
    std::memcpy(to + sizeof(ObjectId), &write->place.part, sizeof(std::uint32_t));
    to += placeSize;
  }
  return bytes;
}

std::string named(Place place) {
  const std::string object = "object " + std::to_string(place.id);
  return place.part == Place::itself ? object : object + ", part " + std::to_string(place.part);
}

std::uint64_t sumOfState(const State& state) {
  return checksum(0, std::array{state.version, state.tick, state.nextId, state.objects,
                                state.entries, state.olds, state.total});
}

std::uint64_t sumOfUntil(const Stored& row, Version until) {
  return checksum(row.sum, std::array<std::uint64_t, 1>{until});
}

// The rows of object and old have these columns in the same order.
void takeColumns(const Query& query, int first, Stored& result, bool bytes) {
  const auto number = [&](int column) { return query.number(first + column); };
  result.row.classId = number(0);
  result.row.version = number(1);
  result.changed = number(2);
  result.born = number(3);
  result.parts = number(4);
  result.partSum = number(5);
  result.sum = number(6);
  result.isThere = !query.isNull(first + 7);
  if (bytes) result.row.bytes = query.bytes(first + 7);
}

// Answers whether the old row is as it was written.
bool takeOld(const Query& query, ObjectId id, Stored& row) {
  row.row.place = {id, static_cast<std::uint32_t>(query.number(0))};
  takeColumns(query, 1, row, true);
  return sumOf(row) == row.sum && sumOfUntil(row, query.number(9)) == query.number(10);
}

std::string oldNamed(Place place) {
  return "an old version of " + named(place) + " is not as it was written";
}

}  // namespace

std::uint64_t sumOf(const Stored& row) {
  const std::uint64_t fields = checksum(
      row.isThere ? 1 : 0,
      std::array<std::uint64_t, 8>{row.row.place.id, row.row.place.part, row.row.classId,
                                   row.row.version, row.changed, row.born, row.parts, row.partSum});
  return checksum(fields, row.row.bytes);
}

// Queries and transactions

Query::Query(Tables& tables, Sql which, std::initializer_list<std::uint64_t> numbers)
    : tables_(tables), statement_(tables.statement(which)) {
  int index = 0;
  for (const std::uint64_t number : numbers) {
    sqlite3_bind_int64(statement_, ++index, static_cast<sqlite3_int64>(number));
  }
}

Query::~Query() {
  sqlite3_reset(statement_);
}

Query& Query::bind(int index, std::string_view bytes) {
  // A null address would make it null.
  const char* from = bytes.empty() ? "" : bytes.data();
  const int result = sqlite3_bind_blob64(statement_, index, from, bytes.size(), SQLITE_STATIC);
  if (result != SQLITE_OK) tables_.fail(result);
  return *this;
}

bool Query::next() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) tables_.fail(result);
  return false;
}

std::uint64_t Query::number(int column) const {
  return static_cast<std::uint64_t>(sqlite3_column_int64(statement_, column));
}

std::string_view Query::bytes(int column) const {
  const auto* from = static_cast<const char*>(sqlite3_column_blob(statement_, column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  if (from == nullptr && size > 0) throw std::bad_alloc();
  return {from, from == nullptr ? 0 : size};
}

bool Query::isNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

Transaction::Transaction(Tables& tables, bool writing) : tables_(tables) {
  Query(tables, writing ? Sql::beginWriting : Sql::begin).run();
}

Transaction::~Transaction() {
  if (tables_.db_ == nullptr || sqlite3_get_autocommit(tables_.db_) != 0) return;
  for (sqlite3_stmt* statement : tables_.statements_) {
    if (statement != nullptr) sqlite3_reset(statement);
  }
  sqlite3_exec(tables_.db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  Query(tables_, Sql::commit).run();
}

// Opening and closing

Tables::Tables(const FileCalls& calls, const Waiting& waiting, std::string path, Options options)
    : waiting_(waiting),
      path_(std::move(path)),
      vfs_(std::make_unique<FileVfs>(calls, path_, options.rights, options.readOnly)) {
  try {
    const int flags = (options.readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) |
                      SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    const int result = sqlite3_open_v2(path_.c_str(), &db_, flags, vfs_->name());
    if (db_ == nullptr) throw std::bad_alloc();
    if (result != SQLITE_OK) fail(result);
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    sqlite3_busy_handler(
        db_,
        [](void* self, int count) {
          auto& tables = *static_cast<Tables*>(self);
          try {
            if (count == 0 || !tables.patience_) tables.patience_.emplace(tables.waiting_);
            return tables.patience_->pause() ? 1 : 0;
          } catch (...) {
            tables.thrown_ = std::current_exception();
            return 0;
          }
        },
        this);
    if (options.building) {
      int reserve = pageReserve;
      sqlite3_file_control(db_, "main", SQLITE_FCNTL_RESERVE_BYTES, &reserve);
      execute("PRAGMA page_size = 4096; PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF");
    } else {
      execute("PRAGMA synchronous = FULL");
    }
    execute(
        "PRAGMA wal_autocheckpoint = 0; PRAGMA temp_store = MEMORY; PRAGMA cache_size = -8192;"
        "PRAGMA secure_delete = OFF; PRAGMA cell_size_check = ON; PRAGMA trusted_schema = OFF");
  } catch (...) {
    close();
    throw;
  }
}

Tables::~Tables() {
  close();
}

void Tables::close() noexcept {
  for (sqlite3_stmt*& statement : statements_) sqlite3_finalize(std::exchange(statement, nullptr));
  sqlite3_close(std::exchange(db_, nullptr));
}

void Tables::abandon() noexcept {
  statements_ = {};
  db_ = nullptr;
  // SQLite still has it on its list.
  vfs_.release()->abandon();
}

sqlite3_stmt* Tables::statement(Sql which) {
  const auto index = static_cast<std::size_t>(which);
  sqlite3_stmt*& statement = statements_[index];
  if (statement == nullptr) {
    const int result =
        sqlite3_prepare_v3(db_, texts[index], -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (result != SQLITE_OK) fail(result);
  }
  return statement;
}

void Tables::execute(const char* sql) {
  const int result = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
  if (result != SQLITE_OK) fail(result);
}

void Tables::damaged(const std::string& what) {
  if (damage_.empty()) damage_ = what;
  throw Failure(ErrDamaged, "the database " + path_ + " is damaged: " + what);
}

void Tables::checkWhole() const {
  if (damage_.empty()) return;
  throw Failure(ErrDamaged, "the database " + path_ +
                                " is damaged, and nothing is written to it any more: " + damage_);
}

void Tables::fail(int result) {
  if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
  std::string trouble = vfs_->takeTrouble();
  const std::string database = "the database " + path_;
  switch (result & 0xFF) {
    case SQLITE_NOMEM:
      throw std::bad_alloc();
    case SQLITE_FULL:
      throw Failure(ErrStoreFull, "there is no room for " + database);
    case SQLITE_TOOBIG:
      throw Failure(ErrStoreFull, "a row is too large for " + database);
    case SQLITE_READONLY:
    case SQLITE_PERM:
      throw Failure(ErrReadOnly, database + " can only be read");
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_PROTOCOL:
      throw Failure(ErrStoreBusy, database + " is busy: others use it");
    case SQLITE_INTERRUPT:
    case SQLITE_ABORT:
      throw Failure(ErrHardBreak, "broken off", {}, FailureKind::stop);
    case SQLITE_IOERR:
      if (result == SQLITE_IOERR_NOMEM) throw std::bad_alloc();
      if (result == SQLITE_IOERR_DATA || result == SQLITE_IOERR_SHORT_READ) break;
      throw Failure(ErrDamaged, database + ": " + (trouble.empty() ? "I/O error" : trouble));
    case SQLITE_CANTOPEN:
      throw Failure(ErrDamaged, database + ": " + (trouble.empty() ? "opening failed" : trouble));
    default:
      break;
  }
  damaged(trouble.empty() ? sqlite3_errstr(result) : trouble);
}

void Tables::make() {
  execute(schema);
  execute(("PRAGMA application_id = " + std::to_string(applicationId) +
           "; PRAGMA user_version = " + std::to_string(formatVersion))
              .c_str());
}

void Tables::finish() {
  execute("PRAGMA journal_mode = WAL");
}

void Tables::removeFramesAtEnd() {
  sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
}

bool Tables::checkpoint() {
  int all = 0;
  int done = 0;
  const int result = sqlite3_wal_checkpoint_v2(db_, "main", SQLITE_CHECKPOINT_PASSIVE, &all, &done);
  if (result == SQLITE_BUSY) return false;
  if (result != SQLITE_OK) fail(result);
  return all == done;
}

// Rows

State Tables::state() {
  Query query(*this, Sql::getState);
  if (!query.next()) damaged("its state is missing");
  const State state{query.number(0), query.number(1), query.number(2), query.number(3),
                    query.number(4), query.number(5), query.number(6)};
  if (query.number(7) != sumOfState(state)) damaged("its state is not as it was written");
  return state;
}

void Tables::setState(const State& state) {
  Query(*this, Sql::setState,
        {state.version, state.tick, state.nextId, state.objects, state.entries, state.olds,
         state.total, sumOfState(state)})
      .run();
}

bool Tables::getObject(ObjectId id, Stored& result, bool bytes) {
  Query query(*this, Sql::getObject, {id});
  if (!query.next()) return false;
  result.row.place = {id, Place::itself};
  takeColumns(query, 0, result, bytes);
  if (bytes && sumOf(result) != result.sum) damaged(named({id}) + " is not as it was written");
  return true;
}

bool Tables::getEntry(Place place, Stored& result, bool bytes) {
  Query query(*this, Sql::getEntry, {place.id, place.part});
  if (!query.next()) return false;
  result = {};
  result.row.place = place;
  result.isThere = true;
  result.row.version = result.changed = query.number(0);
  result.sum = query.number(1);
  if (!bytes) return true;
  result.row.bytes = query.bytes(2);
  if (sumOf(result) != result.sum) damaged(named(place) + " is not as it was written");
  return true;
}

void Tables::getEntries(ObjectId id, const std::function<void(Stored& entry)>& take) {
  Query query(*this, Sql::getEntries, {id});
  Stored entry;
  entry.isThere = true;
  while (query.next()) {
    entry.row.place = {id, static_cast<std::uint32_t>(query.number(0))};
    entry.row.version = entry.changed = query.number(1);
    entry.sum = query.number(2);
    entry.row.bytes = query.bytes(3);
    if (sumOf(entry) != entry.sum) damaged(named(entry.row.place) + " is not as it was written");
    take(entry);
  }
}

std::vector<ObjectId> Tables::objectsFrom(ObjectId first, ObjectId end, std::size_t count,
                                          bool old) {
  constexpr ObjectId last = INT64_MAX;
  std::vector<ObjectId> ids;
  for (const Sql which : {Sql::scanObjects, Sql::oldObjects}) {
    if (which == Sql::oldObjects && !old) break;
    Query query(*this, which, {std::min(first, last), std::min(end, last), count});
    while (query.next()) ids.push_back(query.number(0));
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  if (ids.size() > count) ids.resize(count);
  return ids;
}

void Tables::getOld(ObjectId id, Version at, const std::function<void(Stored& row)>& take) {
  Query query(*this, Sql::getOld, {id, at});
  Stored row;
  while (query.next()) {
    if (!takeOld(query, id, row)) damaged(oldNamed(row.row.place));
    take(row);
  }
}

std::uint64_t Tables::verifyOlds(const std::function<void(const std::string& what)>& complain) {
  Query query(*this, Sql::allOlds);
  Stored row;
  std::uint64_t count = 0;
  for (; query.next(); ++count) {
    if (!takeOld(query, query.number(11), row)) complain(oldNamed(row.row.place));
  }
  return count;
}

void Tables::addOld(const Stored& row, Version until, Version need) {
  Query query(*this, Sql::addOld,
              {row.row.place.id, row.row.place.part, row.row.classId, row.row.version, row.changed,
               row.born, row.parts, row.partSum, row.sum, until, sumOfUntil(row, until), need});
  if (row.isThere) {
    query.bind(13, row.row.bytes);
  } else {
    sqlite3_bind_null(statement(Sql::addOld), 13);
  }
  query.run();
}

void Tables::prune(State& state, const std::set<Version>& leases, std::size_t most) {
  struct Found {
    ObjectId id;
    std::uint64_t part;
    Version until;
    Version changed;
  };
  const auto nextNeed = [this](Version after) -> std::optional<Version> {
    Query query(*this, Sql::nextNeed, {after});
    return query.next() ? std::optional(query.number(0)) : std::nullopt;
  };
  if (state.olds == 0) return;
  for (auto need = nextNeed(0); need && most > 0; need = nextNeed(*need)) {
    const auto behind = leases.lower_bound(*need);
    if (behind != leases.end() && *behind == *need) continue;
    std::vector<Found> rows;
    {
      Query query(*this, Sql::oldsByNeed, {*need, most});
      while (query.next()) {
        rows.push_back({query.number(0), query.number(1), query.number(2), query.number(3)});
      }
    }
    most -= rows.size();
    for (const Found& row : rows) {
      if (behind != leases.begin() && *std::prev(behind) >= row.changed) {
        Query(*this, Sql::setNeed, {row.id, row.part, row.until, *std::prev(behind)}).run();
      } else {
        Query(*this, Sql::dropOld, {row.id, row.part, row.until}).run();
        --state.olds;
      }
    }
  }
}

// Commits

void Tables::writeObject(Stored& object, State& state, bool exists, std::uint64_t oldSum) {
  const ObjectId id = object.row.place.id;
  if (exists) state.total -= oldSum;
  if (!object.isThere && object.parts == 0) {
    if (exists) Query(*this, Sql::dropObject, {id}).run();
    return;
  }
  object.sum = sumOf(object);
  state.total += object.sum;
  const Sql which = exists ? Sql::setObject : Sql::addObject;
  Query query(*this, which,
              {object.row.classId, object.row.version, object.changed, object.born, object.parts,
               object.partSum, object.sum, id});
  if (object.isThere) {
    query.bind(9, object.row.bytes);
  } else {
    sqlite3_bind_null(statement(which), 9);
  }
  query.run();
}

void Tables::writeEntry(const Write& write, Stored& object, State& state,
                        const std::optional<Version>& lastLease,
                        const std::function<void(Stored& row)>& replaced) {
  Stored entry;
  const bool exists = getEntry(write.place, entry, lastLease.has_value());
  if (exists) {
    object.parts -= 1;
    object.partSum -= entry.sum;
    state.entries -= 1;
    state.total -= entry.sum;
    if (lastLease && entry.changed <= *lastLease) replaced(entry);
  }
  const auto [id, part] = write.place;
  if (write.gone) {
    if (exists) Query(*this, Sql::dropEntry, {id, part}).run();
    return;
  }
  entry = {};
  entry.row.place = write.place;
  entry.isThere = true;
  entry.row.version = entry.changed = state.version;
  entry.row.bytes = write.bytes;
  entry.sum = sumOf(entry);
  object.parts += 1;
  object.partSum += entry.sum;
  state.entries += 1;
  state.total += entry.sum;
  Query(*this, exists ? Sql::setEntry : Sql::addEntry, {id, part, state.version, entry.sum})
      .bind(5, entry.row.bytes)
      .run();
}

void Tables::apply(const std::vector<const Write*>& writes, State& state,
                   const std::optional<Version>& lastLease,
                   const std::function<void(Stored& row)>& replaced) {
  Stored object;
  Stored before;
  const auto isSame = [](const Write* a, const Write* b) { return a->place == b->place; };
  if (std::adjacent_find(writes.begin(), writes.end(), isSame) != writes.end()) {
    throw Failure(ErrInternal, "a commit writes a place twice");
  }
  for (auto next = writes.begin(); next != writes.end();) {
    const ObjectId id = (*next)->place.id;
    const Write* own = (*next)->place.part == Place::itself ? *next : nullptr;
    const bool bytes = own == nullptr || lastLease.has_value();
    const bool exists = getObject(id, object, bytes);
    if (!exists) {
      object = {};
      object.row.place = {id, Place::itself};
      object.born = state.version;
    } else if (lastLease && object.changed <= *lastLease) {
      // What is written anew need not be copied.
      std::string old = own != nullptr ? std::move(object.row.bytes) : object.row.bytes;
      before = object;
      before.row.bytes = std::move(old);
      replaced(before);
    }
    const std::uint64_t oldSum = object.sum;
    object.changed = state.version;
    if (own != nullptr) {
      if (object.isThere) state.objects -= 1;
      if (!own->gone) state.objects += 1;
      object.isThere = !own->gone;
      object.row.classId = own->gone ? 0 : own->classId;
      object.row.version = own->gone ? 0 : state.version;
      object.row.bytes = own->gone ? std::string() : own->bytes;
      ++next;
    }
    for (; next != writes.end() && (*next)->place.id == id; ++next) {
      writeEntry(**next, object, state, lastLease, replaced);
    }
    writeObject(object, state, exists, oldSum);
  }
}

void Tables::copy(const Stored& row, State& state) {
  if (row.row.place.part == Place::itself) {
    if (row.isThere) state.objects += 1;
    Stored object = row;
    writeObject(object, state, false, 0);
    return;
  }
  state.entries += 1;
  state.total += row.sum;
  const auto [id, part] = row.row.place;
  Query(*this, Sql::addEntry, {id, part, row.row.version, row.sum}).bind(5, row.row.bytes).run();
}

// The log

void Tables::addLog(Version version, const std::vector<const Write*>& writes) {
  const std::string bytes = packed(writes);
  Query(*this, Sql::addLog, {version, checksum(version, bytes)}).bind(3, bytes).run();
}

std::vector<Place> Tables::places(Version from, Version to) {
  std::vector<Place> places;
  if (from >= to) return places;
  Query query(*this, Sql::getLog, {from, to});
  Version last = from;
  while (query.next()) {
    const Version version = query.number(0);
    const std::string_view bytes = query.bytes(2);
    if (version != ++last || query.number(1) != checksum(version, bytes) ||
        bytes.size() % placeSize != 0) {
      break;
    }
    for (std::size_t at = 0; at < bytes.size(); at += placeSize) {
      Place place;
      std::memcpy(&place.id, bytes.data() + at, sizeof(ObjectId));
      std::memcpy(&place.part, bytes.data() + at + sizeof(ObjectId), sizeof(std::uint32_t));
      places.push_back(place);
    }
    if (version == to) last = to + 1;
  }
  if (last != to + 1) damaged("what commits have changed is not as it was written");
  std::sort(places.begin(), places.end());
  places.erase(std::unique(places.begin(), places.end()), places.end());
  return places;
}

void Tables::dropLog(Version to) {
  Query(*this, Sql::dropLog, {to}).run();
}

}  // namespace zel
