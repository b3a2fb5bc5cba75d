#include "store/serverstore.h"

#include <poll.h>

#include <algorithm>
#include <map>

#include "store/newfile.h"
#include "store/openfile.h"
#include "store/serverconnection.h"

namespace zel {

namespace {

using Clock = ServerConnection::Clock;

constexpr std::size_t idsAtOnce = 4096;
constexpr std::size_t rowsAtOnce = 4096;
constexpr std::size_t bytesAtOnce = 4U << 20;
constexpr std::uint64_t mostConflicts = 10;
constexpr int mostTries = 10;
constexpr Version mostLag = 1000;
constexpr std::uint64_t commitsBetweenPrunes = 64;
constexpr std::uint64_t prunedAtOnce = 2000;
constexpr std::chrono::milliseconds leavingTime(500);
constexpr int pauseTime = 50;  // milliseconds
constexpr Version allVersions = INT64_MAX;

// The columns of a row, and the version that is none's.
Row rowOf(const Answer& answer, int at) {
  return {{answer.number(at, 0), static_cast<std::uint32_t>(answer.number(at, 1))},
          answer.number(at, 3),
          answer.number(at, 2),
          std::string(answer.bytes(at, 5))};
}
bool isGone(const Answer& answer, int at) {
  return answer.flag(at, 4);
}

// How many of the writes go into one statement.
std::size_t countAtOnce(std::span<const Write> writes) {
  std::size_t bytes = 0;
  std::size_t count = 0;
  while (count < std::min(writes.size(), rowsAtOnce) && bytes < bytesAtOnce) {
    bytes += writes[count++].bytes.size();
  }
  return count;
}

// Does it again for as long as the server could not bring it in line with what others do.
template <typename Work>
std::vector<Answer> tried(ServerConnection& server, Work send) {
  for (int left = mostTries;; --left) {
    std::optional<Refusal> refusal;
    send();
    std::vector<Answer> answers = server.finish(refusal);
    if (!refusal) return answers;
    if (left == 0 || !refusal->isOneOf({"40001", "40P01"})) throw server.failureOf(*refusal);
  }
}

StoreStatistics statisticsOf(ServerConnection& server) {
  server.send(ServerSql::statistic, Values().add(std::string_view(server.qualified("rows"))));
  const std::vector<Answer> answers = server.run();
  const Answer& found = answers.front();
  return {found.number(0, 0), found.number(0, 1), found.number(0, 2), found.number(0, 3)};
}

// What a transaction has read and written, as the server wants it.
struct Places {
  explicit Places(const Changes& changes) {
    for (const Place& place : changes.reads) add(place);
    for (const Write& write : changes.writes) add(write.place);
  }
  void add(Place place) {
    if (place.part == Place::any) return wholes.push_back(place.id);
    ids.push_back(place.id);
    parts.push_back(place.part);
  }
  Values& addTo(Values& values) const { return values.add(ids).add(parts).add(wholes); }

  std::vector<std::uint64_t> ids;
  std::vector<std::uint64_t> parts;
  std::vector<std::uint64_t> wholes;
};

class ServerStore final : public Store {
 public:
  explicit ServerStore(const ServerOptions& options) : options_(options), server_(options) {
    server_.connect();
    server_.identify();
    join();
  }
  ~ServerStore() override { leave(); }

  Version lease() override;
  void giveUp(Version version) noexcept override;
  void read(Version at, std::span<const ObjectId> ids, const TakeRow& take) override;
  void scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) override;
  std::vector<Place> changedSince(Version from, Version to) override;
  ObjectId newIds(std::uint32_t count) override;
  Outcome commit(const Changes& changes) override;
  StoreStatistics statistics() override;
  bool isStillThere() override { return !isBehind_ && !server_.isForked(); }
  void backUp(const std::string& file, const Progress& progress) override;

 private:
  void open();
  void join();
  void leave() noexcept;
  void note(Version settled);
  void checkHistory() const;
  Version needed() const;
  void checkLeased(Version version) const;
  void checkKept(Version version) const;
  std::vector<Answer> rowsOf(Version at, std::span<const ObjectId> ids);
  std::size_t sendCommit(const Changes& changes, const Places& places);
  std::optional<Outcome> tryCommit(const Changes& changes, const Places& places);
  std::optional<Outcome> resolve();
  std::vector<ObjectId> conflictsOf(const Changes& changes, const Places& places);
  void prune() noexcept;

  ServerOptions options_;
  ServerConnection server_;
  std::map<Version, int> leases_;  // and how often
  Version seen_ = 0;               // the newest version that was answered
  Version kept_ = 0;               // what is older was lost with a connection
  bool isBehind_ = false;          // the server has lost commits
  std::uint64_t client_ = 0;       // 0 for none yet
  std::uint64_t turn_ = 0;
  Version committed_ = 0;
  Version rowLease_ = 0;
  std::uint64_t commits_ = 0;
  ObjectId nextId_ = 0;
  ObjectId endOfIds_ = 0;
};

// The connection

void ServerStore::checkHistory() const {
  if (!isBehind_) return;
  throw Failure(ErrConnectionLost, "the server of " + server_.shown() +
                                       " has lost commits that it had acknowledged, as one that "
                                       "takes another's place can: log in again");
}

void ServerStore::note(Version settled) {
  if (settled < seen_) isBehind_ = true;
  checkHistory();
  seen_ = settled;
}

void ServerStore::open() {
  server_.checkProcess();
  checkHistory();
  if (server_.isConnected()) return;
  try {
    server_.connect();
  } catch (const Failure& failure) {
    if (failure.number != ErrLoginDenied) throw;
    throw Failure(ErrConnectionLost, failure.message);
  }
  try {
    join();
  } catch (...) {
    server_.close();
    throw;
  }
}

// Makes the client's row, or finds it again, with what has become of its last commit: whatever an
// earlier connection has still sent is done by then, or comes to nothing.
void ServerStore::join() {
  const bool isKnown = client_ != 0;
  const std::vector<Answer> answers = tried(server_, [&] {
    server_.send(ServerSql::begin);
    server_.send(ServerSql::lock);
    if (isKnown) {
      // What is leased before this is done is no older.
      server_.send(ServerSql::enterAgain, Values().add(client_).add(std::min(needed(), seen_)));
    } else {
      server_.send(ServerSql::enter,
                   Values().add(std::string_view(server_.qualified("ids"))).add(needed()));
    }
    server_.send(ServerSql::commit);
  });
  const Answer& row = answers[2];
  if (row.size() == 0) {
    if (!isKnown) {
      throw Failure(ErrDamaged,
                    "the database " + server_.shown() + " is damaged: it has no state any more");
    }
    // Nobody knows it any more.
    client_ = 0;
    return join();
  }
  const std::uint64_t turn = row.number(0, 1);
  const Version committed = row.number(0, 2);
  if (isKnown && (turn <= turn_ || committed < committed_)) isBehind_ = true;
  client_ = row.number(0, 0);
  turn_ = turn;
  committed_ = committed;
  rowLease_ = row.number(0, 3);
  if (!leases_.empty() && leases_.begin()->first < rowLease_) kept_ = std::max(kept_, rowLease_);
  if (!isKnown) {
    // Its number is that of a range of ids, which nobody else has.
    nextId_ = client_ * idsInRange;
    endOfIds_ = nextId_ + idsInRange;
  }
  note(row.number(0, 4));
}

// Whoever crashes leaves the row to the others.
void ServerStore::leave() noexcept {
  if (!server_.isConnected() || server_.isForked()) return;
  try {
    server_.setPolls(false);
    server_.setDeadline(Clock::now() + 2 * leavingTime);
    server_.send(ServerSql::begin);
    server_.send(ServerSql::hurry,
                 Values().add(std::string_view(std::to_string(leavingTime.count()))));
    server_.send(ServerSql::lockLoosely);
    server_.send(ServerSql::keepSettled, Values().add(client_));
    server_.send(ServerSql::leave, Values().add(client_));
    server_.send(ServerSql::commit);
    server_.run();
  } catch (...) {
    return;
  }
}

// Leases

Version ServerStore::needed() const {
  return leases_.empty() ? allVersions : leases_.begin()->first;
}

void ServerStore::checkLeased(Version version) const {
  if (leases_.contains(version)) return;
  throw Failure(ErrInternal, "version " + std::to_string(version) + " is not leased");
}

void ServerStore::checkKept(Version version) const {
  if (version >= kept_) return;
  throw Failure(ErrConnectionLost, "the connection to the database " + server_.shown() +
                                       " was lost for so long that what this transaction has in "
                                       "view is gone: abort, and go on");
}

Version ServerStore::lease() {
  open();
  const Version need = std::min(needed(), seen_);
  const bool lags = rowLease_ + mostLag < need;
  server_.send(ServerSql::newest);
  if (lags) server_.send(ServerSql::moveLease, Values().add(client_).add(need));
  const std::vector<Answer> answers = server_.run();
  if (lags) rowLease_ = need;
  note(answers.front().number(0, 0));
  ++leases_[seen_];
  return seen_;
}

void ServerStore::giveUp(Version version) noexcept {
  const auto lease = leases_.find(version);
  if (lease == leases_.end() || --lease->second > 0) return;
  leases_.erase(lease);
}

// Reading

std::vector<Answer> ServerStore::rowsOf(Version at, std::span<const ObjectId> ids) {
  while (!ids.empty()) {
    const auto some = ids.first(std::min(ids.size(), idsAtOnce));
    ids = ids.subspan(some.size());
    server_.send(ServerSql::read,
                 Values().add(std::vector<std::uint64_t>(some.begin(), some.end())).add(at));
  }
  return server_.run();
}

// Of a lost version the system's objects are answered as of the oldest that is kept: who moves on
// from it is told of all that has changed since.
void ServerStore::read(Version at, std::span<const ObjectId> ids, const TakeRow& take) {
  open();
  checkLeased(at);
  std::vector<ObjectId> wanted(ids.begin(), ids.end());
  std::sort(wanted.begin(), wanted.end());
  wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
  if (wanted.empty()) return;
  if (wanted.back() >= firstFreeId) checkKept(at);
  const std::vector<Answer> answers = rowsOf(std::max(at, kept_), wanted);
  auto next = std::lower_bound(wanted.begin(), wanted.end(), firstFreeId);
  for (const Answer& answer : answers) {
    for (int i = 0; i < answer.size(); ++i) {
      const bool isOwn = answer.number(i, 1) == Place::itself && !isGone(answer, i);
      if (next != wanted.end() && isOwn && answer.number(i, 0) == *next) ++next;
    }
  }
  if (next != wanted.end()) {
    throw Failure(ErrDamaged, "the database " + server_.shown() + " is damaged: object " +
                                  std::to_string(*next) + " is missing");
  }
  for (const Answer& answer : answers) {
    for (int i = 0; i < answer.size(); ++i) {
      if (!isGone(answer, i)) take(rowOf(answer, i));
    }
  }
}

// In pieces of rows in all their versions, the last of which is the one that counts.
void ServerStore::scan(Version at, ObjectId first, ObjectId end, const TakeRow& take) {
  open();
  checkLeased(at);
  checkKept(at);
  if (first >= end || first > INT64_MAX) return;
  end = std::min<ObjectId>(end, INT64_MAX);
  std::uint64_t limit = 256;
  Place last{first, 0};
  Version lastVersion = 0;
  std::optional<Row> row;
  bool isLastGone = false;
  const auto emit = [&] {
    if (row && !isLastGone) take(*row);
  };
  for (bool isMore = true; isMore;) {
    open();
    checkKept(at);
    server_.send(ServerSql::scan,
                 Values().add(last.id).add(last.part).add(lastVersion).add(end).add(at).add(limit));
    const std::vector<Answer> answers = server_.run();
    const Answer& answer = answers.front();
    std::size_t bytes = 0;
    for (int i = 0; i < answer.size(); ++i) {
      Row found = rowOf(answer, i);
      bytes += found.bytes.size();
      if (row && row->place != found.place) emit();
      isLastGone = isGone(answer, i);
      last = found.place;
      lastVersion = found.version;
      row = std::move(found);
    }
    const auto count = static_cast<std::uint64_t>(answer.size());
    isMore = count == limit;
    limit = std::clamp<std::uint64_t>(bytesAtOnce * count / (bytes + 1), 1, rowsAtOnce);
  }
  emit();
}

std::vector<Place> ServerStore::changedSince(Version from, Version to) {
  open();
  if (from >= to) return {};
  checkLeased(from);
  // What was removed and not kept is not known one by one.
  const bool isLost = from < kept_;
  server_.send(isLost ? ServerSql::allChanges : ServerSql::changes, Values().add(from).add(to));
  const std::vector<Answer> answers = server_.run();
  const Answer& found = answers.front();
  std::vector<Place> places;
  places.reserve(static_cast<std::size_t>(found.size()) + 1);
  if (isLost) places.push_back({0, Place::any});
  for (int i = 0; i < found.size(); ++i) {
    places.push_back({found.number(i, 0), static_cast<std::uint32_t>(found.number(i, 1))});
  }
  return places;
}

StoreStatistics ServerStore::statistics() {
  open();
  return statisticsOf(server_);
}

void ServerStore::backUp(const std::string& file, const Progress& progress) {
  const std::uint64_t all = statistics().rows;
  const Lease newest(*this);
  const std::string path = resolved(file);
  const auto refuse = [&path] {
    throw Failure(ErrNotPermitted, "there is a file " + path + " already");
  };
  struct stat64 status;
  if (::lstat64(path.c_str(), &status) == 0) refuse();
  const FileCalls calls;
  const Waiting waiting{options_.poll, options_.patience};
  NewFile made(calls, waiting, path);
  std::map<Version, std::vector<Write>> writes;
  std::uint64_t done = 0;
  std::size_t bytes = 0;
  const auto write = [&] {
    for (const auto& [version, some] : writes) {
      std::vector<const Write*> sorted;
      for (const Write& each : some) sorted.push_back(&each);
      made.state.version = version;
      made.tables().apply(sorted, made.state, std::nullopt, nullptr);
    }
    writes.clear();
    bytes = 0;
    if (progress && !progress(std::min(done, all), all)) {
      throw Failure(ErrHardBreak, "given up", {}, FailureKind::stop);
    }
  };
  made.state.nextId = firstFreeId;
  write();
  scan(newest.version, 0, UINT64_MAX, [&](const Row& row) {
    writes[row.version].push_back({row.place, row.classId, row.bytes, false});
    bytes += row.bytes.size();
    made.state.nextId = std::max(made.state.nextId, row.place.id + 1);
    if (++done % rowsAtOnce == 0 || bytes > bytesAtOnce) write();
  });
  write();
  made.state.version = newest.version;
  made.state.tick = 1;
  made.finish();
  if (!made.publish(false)) refuse();
  made.settle();
}

// Writing

ObjectId ServerStore::newIds(std::uint32_t count) {
  open();
  for (int left = mostTries; endOfIds_ - nextId_ < count; --left) {
    if (left == 0) throw Failure(ErrStoreBusy, "others take all ids of " + server_.shown());
    const std::uint64_t ranges = (std::uint64_t{count} + idsInRange - 1) / idsInRange;
    const std::vector<Answer> answers = tried(server_, [&] {
      server_.send(
          ServerSql::newIds,
          Values().add(std::string_view(server_.qualified("ids"))).add(ranges).add(client_));
    });
    for (int i = 0; i < answers.front().size(); ++i) {
      const ObjectId first = answers.front().number(i, 0);
      if (first != endOfIds_) nextId_ = first;
      endOfIds_ = first + idsInRange;
    }
  }
  return std::exchange(nextId_, nextId_ + count);
}

Outcome ServerStore::commit(const Changes& changes) {
  open();
  if (changes.writes.empty()) return {changes.base, {}};
  checkLeased(changes.base);
  checkKept(changes.base);
  const Places places(changes);
  // It is not broken off while it is written.
  struct Steadily {
    ServerConnection& server;
    explicit Steadily(ServerConnection& used) : server(used) { server.setPolls(false); }
    ~Steadily() {
      server.setPolls(true);
      server.setDeadline(std::nullopt);
    }
  };
  Outcome outcome;
  {
    const Steadily steadily(server_);
    std::optional<Outcome> done;
    try {
      for (int left = mostTries; !done; --left) {
        if (left == 0) throw Failure(ErrStoreBusy, "others keep " + server_.shown() + " busy");
        done = tryCommit(changes, places);
      }
    } catch (const Failure& failure) {
      if (failure.number != ErrConnectionLost) throw;
      done = resolve();
      if (!done) {
        throw Failure(failure.number, failure.message + "; nothing of the commit was written");
      }
    } catch (const std::bad_alloc&) {
      // It may have been sent all the same.
      done = resolve();
      if (!done) throw;
    }
    outcome = std::move(*done);
    if (outcome.version != 0 && ++commits_ % commitsBetweenPrunes == 0) prune();
  }
  if (outcome.version == 0) outcome.conflicts = conflictsOf(changes, places);
  return outcome;
}

// The transaction of a commit, and behind it what waits for the disk. Answers how many statements
// the transaction has.
std::size_t ServerStore::sendCommit(const Changes& changes, const Places& places) {
  std::span<const Write> writes = changes.writes;
  std::span<const Write> some = writes.first(countAtOnce(writes));
  for (const ServerSql which : {ServerSql::begin, ServerSql::lockLoosely, ServerSql::write,
                                ServerSql::writeMore, ServerSql::commit, ServerSql::settle}) {
    if (which != ServerSql::writeMore || some.size() < writes.size()) server_.prepare(which);
  }
  Values first;
  first.add(client_).add(turn_).add(changes.base).add(std::min(needed(), seen_));
  places.addTo(first).add(some);
  server_.send(ServerSql::begin);
  server_.send(ServerSql::lockLoosely);
  server_.send(ServerSql::write, first);
  std::size_t count = 4;
  for (;; ++count) {
    writes = writes.subspan(some.size());
    if (writes.empty()) break;
    some = writes.first(countAtOnce(writes));
    server_.send(ServerSql::writeMore,
                 Values().add(client_).add(turn_ + 1).add(committed_).add(some));
  }
  server_.send(ServerSql::commit);
  server_.send(ServerSql::settle, Values().add(client_).add(turn_ + 1));
  return count;
}

// Answers none when it is to be tried again.
std::optional<Outcome> ServerStore::tryCommit(const Changes& changes, const Places& places) {
  constexpr std::size_t lockAnswer = 1;
  constexpr std::size_t writeAnswer = 2;
  const auto lost = [this](const std::string& why) {
    server_.close();
    return Failure(ErrConnectionLost, why);
  };
  const std::size_t count = sendCommit(changes, places);
  std::optional<Refusal> refusal;
  const std::vector<Answer> answers = server_.finish(refusal);
  if (refusal) {
    // Behind the transaction's end only settling can have failed.
    if (answers.size() >= count) throw lost(refusal->message);
    if (refusal->isOneOf({"40001", "40P01"})) return std::nullopt;
    throw server_.failureOf(*refusal);
  }
  const Answer& written = answers[writeAnswer];
  if (answers[lockAnswer].size() != 1 || written.size() != 1) throw lost("it has a newer one");
  ++turn_;
  rowLease_ = std::max(rowLease_, std::min(needed(), seen_));
  if (!written.flag(0, 1)) return Outcome{};
  committed_ = written.number(0, 0);
  return Outcome{committed_, {}};
}

// After the connection was lost: whether the commit took effect; none if not.
std::optional<Outcome> ServerStore::resolve() {
  const Version before = committed_;
  const std::uint64_t client = client_;
  const auto unknown = [&](const std::string& why) {
    return Failure(ErrOutcomeUnknown,
                   "whether the commit took effect is unknown: " + why +
                       ". After an abort the session sees it, or not, as soon as the server can be "
                       "reached; there it did if client " +
                       std::to_string(client) + " has committed more than " +
                       std::to_string(before) + " in " + server_.qualified("clients"));
  };
  server_.close();
  const Clock::time_point end =
      Clock::now() + std::chrono::milliseconds(options_.patience) + server_.connectTime();
  server_.setDeadline(end);
  for (;;) {
    try {
      open();
      break;
    } catch (const Failure& reason) {
      if (isBehind_) throw;
      if (Clock::now() >= end) throw unknown(reason.message);
    } catch (const std::bad_alloc&) {
      if (Clock::now() >= end) throw unknown("no memory is left");
    }
    ::poll(nullptr, 0, pauseTime);
  }
  server_.setDeadline(std::nullopt);
  if (client_ != client) throw unknown("the server has forgotten this process");
  if (committed_ <= before) return std::nullopt;
  return Outcome{committed_, {}};
}

// None when the server cannot be asked: the commit has failed all the same.
std::vector<ObjectId> ServerStore::conflictsOf(const Changes& changes, const Places& places) {
  std::vector<ObjectId> ids;
  try {
    Values values;
    values.add(changes.base);
    server_.send(ServerSql::conflicts, places.addTo(values).add(mostConflicts));
    const std::vector<Answer> answers = server_.run();
    for (int i = 0; i < answers.front().size(); ++i) ids.push_back(answers.front().number(i, 0));
  } catch (const Failure& failure) {
    if (failure.kind != FailureKind::error) throw;
    ids.clear();
  }
  return ids;
}

// Takes away what nobody needs any more. What it cannot do is done the next time.
void ServerStore::prune() noexcept {
  try {
    server_.send(ServerSql::begin);
    server_.send(ServerSql::lockForPrune);
    server_.send(ServerSql::markGone, Values().add(client_));
    server_.send(ServerSql::keepSettledOfGone);
    server_.send(ServerSql::forgetGone);
    server_.send(ServerSql::prune, Values().add(prunedAtOnce));
    server_.send(ServerSql::commit);
    server_.run();
  } catch (...) {
    return;
  }
}

}  // namespace

std::unique_ptr<Store> openServerStore(const ServerOptions& options) {
  return std::make_unique<ServerStore>(options);
}

// Making one

struct NewServerStore::Work {
  explicit Work(const ServerOptions& options) : server(options) {}

  // What somebody else has made meanwhile is there already.
  std::vector<Answer> run() {
    std::optional<Refusal> refusal;
    std::vector<Answer> answers = server.finish(refusal);
    if (!refusal) return answers;
    if (refusal->isOneOf({"42P06", "42P07", "42710", "23505"})) refuseSchema();
    throw server.failureOf(*refusal);
  }
  [[noreturn]] void refuseSchema() const {
    throw Failure(ErrLoginDenied, "the schema " + server.schema() + " of " + server.shown() +
                                      " holds something already: a new database needs one that is "
                                      "not there, or empty");
  }

  ServerConnection server;
  bool isEmpty = true;
};

NewServerStore::NewServerStore(const ServerOptions& options)
    : work_(std::make_unique<Work>(options)) {
  ServerConnection& server = work_->server;
  const auto named = [&] { return Values().add(std::string_view(server.schema())); };
  server.connect();
  server.send(ServerSql::begin);
  server.send(ServerSql::hasSchema, named());
  server.send(ServerSql::countTables, named());
  const std::vector<Answer> found = work_->run();
  if (found[2].number(0, 0) > 0) work_->refuseSchema();
  if (found[1].number(0, 0) == 0) {
    server.send(ServerSql::makeSchema);
    work_->run();
  }
  for (const ServerSql which :
       {ServerSql::makeState, ServerSql::makeClients, ServerSql::makeRows, ServerSql::makeIds}) {
    server.send(which);
    work_->run();
  }
}

NewServerStore::~NewServerStore() = default;

void NewServerStore::add(std::span<const Write> writes) {
  work_->server.checkProcess();
  if (!work_->server.isConnected()) {
    throw Failure(ErrConnectionLost, "the connection to " + work_->server.shown() + " is lost");
  }
  while (!writes.empty()) {
    const std::span<const Write> some = writes.first(countAtOnce(writes));
    writes = writes.subspan(some.size());
    work_->server.send(ServerSql::addRows, Values().add(Version{1}).add(some));
    work_->isEmpty = false;
  }
  work_->run();
}

void NewServerStore::finish(ObjectId nextId) {
  ServerConnection& server = work_->server;
  server.checkProcess();
  if (!server.isConnected()) {
    throw Failure(ErrConnectionLost, "the connection to " + server.shown() + " is lost");
  }
  const ObjectId first = (std::max(nextId, firstFreeId) + idsInRange - 1) / idsInRange * idsInRange;
  server.send(ServerSql::keyRows);
  server.send(ServerSql::indexRows);
  server.send(ServerSql::startIds,
              Values().add(std::string_view(server.qualified("ids"))).add(first));
  server.send(ServerSql::startState,
              Values().add(std::uint64_t{serverFormat}).add(work_->isEmpty ? 0 : Version{1}));
  work_->run();
  server.setPolls(false);
  server.send(ServerSql::commit);
  try {
    work_->run();
  } catch (const Failure& failure) {
    if (failure.number != ErrConnectionLost) throw;
    throw Failure(ErrOutcomeUnknown,
                  "whether the database was made is unknown: " + failure.message);
  }
  server.close();
}

ServerStatistics serverStatistics(const ServerOptions& options) {
  ServerConnection server(options);
  server.connect();
  server.identify();
  ServerStatistics result;
  result.store = statisticsOf(server);
  server.send(ServerSql::watch);
  const std::vector<Answer> answers = server.run();
  const Answer& found = answers.front();
  result.sessions = found.number(0, 0);
  result.conflicts = found.number(0, 1);
  result.oldest = found.number(0, 2);
  return result;
}

}  // namespace zel
