// The store on a PostgreSQL server: that of the URL in POVZEL_TEST_SERVER, whose user may do
// anything there.
#include "store/serverstore.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "histories.h"
#include "models.h"
#include "session/users.h"
#include "store/filestore.h"
#include "store/memorystore.h"
#include "store/serverconnection.h"

namespace zel {
namespace {

// The server's own view, by a connection of the test's.
class Administrator {
 public:
  explicit Administrator(const std::string& url) {
    const char* named = std::getenv("POVZEL_LIBPQ");
    library_ = ::dlopen(named != nullptr ? named : "libpq.so.5", RTLD_NOW);
    connection_ = library_ == nullptr ? nullptr : call<void*>("PQconnectdb", url.c_str());
    (*this)("SET client_min_messages = warning");
  }
  ~Administrator() { call<void>("PQfinish", connection_); }
  Administrator(const Administrator&) = delete;
  Administrator& operator=(const Administrator&) = delete;

  // The first value that it answers; what it says when it refuses.
  std::string operator()(const std::string& sql) {
    void* result = call<void*>("PQexec", connection_, sql.c_str());
    std::string text = call<const char*>("PQresultErrorMessage", result);
    EXPECT_EQ("", text) << sql;
    if (call<int>("PQntuples", result) > 0) text = call<const char*>("PQgetvalue", result, 0, 0);
    call<void>("PQclear", result);
    return text;
  }

 private:
  template <typename Result, typename... Arguments>
  Result call(const char* name, Arguments... arguments) {
    return reinterpret_cast<Result (*)(Arguments...)>(::dlsym(library_, name))(arguments...);
  }
  void* library_;
  void* connection_;
};

// Lies between, on a socket of its own, and cuts every connection there is when so many bytes have
// passed to a side.
class Proxy {
 public:
  explicit Proxy(const std::string& server) : server_(server), thread_([this] { run(); }) {}
  ~Proxy() {
    ends_ = true;
    thread_.join();
  }
  std::string folder() const { return folder_.path(); }

  static constexpr long unlimited = LONG_MAX / 2;
  std::array<std::atomic<long>, 2> left{unlimited, unlimited};  // to the server, and back
  std::atomic<bool> refuses{false};                             // new ones
  std::atomic<int> cuts{0};

 private:
  static int openSocket(const std::string& path, bool listens) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name{AF_UNIX, {}};
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    auto* address = reinterpret_cast<sockaddr*>(&name);
    EXPECT_EQ(0, listens ? ::bind(fd, address, sizeof name) : ::connect(fd, address, sizeof name));
    if (listens) ::listen(fd, 8);
    return fd;
  }

  void run() {
    std::vector<pollfd> fds{{listener_, POLLIN, 0}};
    const auto cut = [&fds](std::size_t pair) {
      for (const std::size_t at : {pair, pair + 1}) ::close(fds[at].fd);
      fds.erase(fds.begin() + static_cast<long>(pair), fds.begin() + static_cast<long>(pair) + 2);
    };
    while (!ends_) {
      if (::poll(fds.data(), fds.size(), 20) <= 0) continue;
      for (std::size_t at = fds.size(); at-- > 1;) {
        if (fds[at].revents == 0) continue;
        const std::size_t pair = (at - 1) / 2 * 2 + 1;
        char bytes[4096];
        const ssize_t size = ::recv(fds[at].fd, bytes, sizeof bytes, MSG_DONTWAIT);
        std::atomic<long>& limit = left[at == pair ? 0 : 1];
        const long passing = std::min<long>(size, limit);
        limit -= std::max(0L, passing);
        if (passing > 0) ::send(fds[at == pair ? pair + 1 : pair].fd, bytes, passing, MSG_NOSIGNAL);
        if (size > 0 && limit > 0) continue;
        if (limit <= 0) {
          ++cuts;
          limit = unlimited;
        }
        cut(pair);
        at = pair;
      }
      if (fds[0].revents == 0) continue;
      const int client = ::accept4(fds[0].fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (refuses) {
        ::close(client);
        continue;
      }
      fds.push_back({client, POLLIN, 0});
      fds.push_back({openSocket(server_, false), POLLIN, 0});
    }
    for (const pollfd& each : fds) ::close(each.fd);
  }

  ScratchDirectory folder_;
  std::string server_;
  int listener_ = openSocket(folder_ / ".s.PGSQL.5432", true);
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

TEST(ServerUrl, ShowsNoPasswords) {
  struct Case {
    const char* url;
    const char* shown;
    bool has;
  };
  const Case cases[] = {
      {"postgresql://ada@h:5432/d?schema=a&sslmode=require",
       "postgresql://ada@h:5432/d?schema=a&sslmode=require", false},
      {"postgres://ada:geheim@h/d", "postgres://ada@h/d", true},
      {"postgres://ada:ge@heim@h,i/d", "postgres://ada@h,i/d", true},
      {"postgres://ada:ge/heim@h/d?a=b", "postgres://ada@h/d?a=b", true},
      {"postgres://ada:ge?heim@h/d", "postgres://ada@h/d", true},
      {"postgres://h:1/d?user=a@b", "postgres://h:1/d?user=a@b", false},
      {"postgres:///d?password=x&host=h", "postgres:///d?host=h", true},
      {"postgres:///d?host=h&p%61ssword=x", "postgres:///d?host=h", true},
      {"postgres://[::1]:5/d?sslpassword=x", "postgres://[::1]:5/d", true},
  };
  for (const Case& each : cases) {
    EXPECT_TRUE(isServerUrl(each.url));
    EXPECT_EQ(each.shown, shownUrl(each.url));
    EXPECT_EQ(each.has, hasPassword(each.url)) << each.url;
  }
  EXPECT_FALSE(isServerUrl("shop.povzel"));
}

class ServerStoreTest : public Histories {
 protected:
  void SetUp() override {
    const char* named = std::getenv("POVZEL_TEST_SERVER");
    if (named == nullptr) GTEST_SKIP() << "POVZEL_TEST_SERVER names no PostgreSQL server";
    server = named;
    url = within("schema=te%22st%20%40%27%3B." + std::to_string(getpid()));
    schema = "\"te\"\"st @';." + std::to_string(getpid()) + "\"";
    sql = std::make_unique<Administrator>(server);
    ASSERT_EQ(0, numberOf([&] { NewServerStore({.url = url}).finish(firstFreeId); })) << message;
  }
  void TearDown() override {
    if (sql != nullptr) (*sql)("DROP SCHEMA IF EXISTS " + schema + " CASCADE");
  }

  std::string within(const std::string& parameter) const {
    return server + (server.find('?') == std::string::npos ? '?' : '&') + parameter;
  }
  std::unique_ptr<Store> opened() const { return openServerStore({.url = url, .patience = 1000}); }
  int openingOf(const std::string& name) const {
    return numberOf([&] { openServerStore({.url = name, .patience = 1000}); });
  }
  // Ends the connections that have the schema open, and waits for that.
  void cutAll() {
    (*sql)(
        "SELECT count(pg_terminate_backend(pid, 5000)) FROM pg_locks WHERE locktype = "
        "'advisory' AND classid = $$" +
        schema + ".clients$$::regclass");
  }
  std::string newestOf(ObjectId id) {
    return (*sql)("SELECT convert_from(bytes, 'UTF8') FROM " + schema +
                  ".rows WHERE id = " + std::to_string(id) + " ORDER BY since DESC LIMIT 1");
  }

  std::string server;
  std::string url;
  std::string schema;  // quoted
  std::unique_ptr<Administrator> sql;
};

TEST_F(ServerStoreTest, AnswersAsTheModel) {
  playRandomly([this] { return opened(); }, Models(1), 1200);
  auto store = opened();
  for (int i = 0; i < 128; ++i) put(*store, firstFreeId + i % objects, "last");
  EXPECT_LE(store->statistics().rows, newest(*store).size() + 1) << "old rows that nobody needs";
  EXPECT_EQ(store->statistics().version, store->lease());
  const ScratchDirectory folder;
  const std::string file = folder / "copy.povzel";
  store->backUp(file, nullptr);
  EXPECT_EQ(newest(*store), newest(*openFileStore({.path = file})));
  EXPECT_EQ(ErrNotPermitted, numberOf([&] { store->backUp(file, nullptr); }));
  const ServerStatistics found = serverStatistics({.url = url});
  EXPECT_EQ(1U, found.sessions);
  EXPECT_LT(0U, found.conflicts);
  // Ids are nobody else's, in sequence however many.
  auto other = opened();
  std::set<ObjectId> ids;
  for (const std::uint32_t count : {1U, 4000U, 20000U, 3000U}) {
    for (Store* each : {store.get(), other.get()}) {
      const ObjectId first = each->newIds(count);
      for (ObjectId id = first; id < first + count; ++id) EXPECT_TRUE(ids.insert(id).second);
    }
  }
}

// More than one statement holds, and than the sockets do.
TEST_F(ServerStoreTest, WritesAndReadsMuch) {
  std::vector<Write> writes;
  for (ObjectId id = firstFreeId; id < firstFreeId + 10000; ++id) {
    writes.push_back(writing({id}, std::string(id % 2000, 'x')));
  }
  auto store = opened();
  const Version version = commit(*store, writes);
  EXPECT_EQ(1U, version);
  EXPECT_EQ(changed({}, writes), newest(*store));
  (*sql)("DROP SCHEMA " + schema + " CASCADE");
  { const NewServerStore leftAlone({.url = url}); }
  EXPECT_EQ(ErrLoginDenied, openingOf(url));
  NewServerStore made({.url = url});
  made.add(writes);
  made.finish(firstFreeId + 10000);
  EXPECT_EQ(changed({}, writes), newest(*(store = opened())));
  EXPECT_LE(firstFreeId + 10000, store->newIds(1));
}

TEST_F(ServerStoreTest, RefusesWhatIsNoDatabaseOfOurs) {
  EXPECT_EQ(ErrLoginDenied, openingOf(within("schema=nothing")));
  EXPECT_THAT(message, HasSubstr("povzel create"));
  EXPECT_EQ(ErrLoginDenied, openingOf(within("schema=")));
  EXPECT_EQ(ErrLoginDenied, openingOf(within("schema=pg_catalog")));
  EXPECT_THAT(message, HasSubstr("something else"));
  EXPECT_EQ(ErrLoginDenied, openingOf("postgresql://ada:geheim@/x?nonsense=1"));
  EXPECT_THAT(message, Not(HasSubstr("geheim")));
  EXPECT_EQ(ErrLoginDenied, openingOf("postgresql://ada:geheim@/x?host=/nowhere"));
  EXPECT_THAT(message, AllOf(HasSubstr("/nowhere"), Not(HasSubstr("geheim"))));
  EXPECT_EQ(ErrLoginDenied, numberOf([&] { NewServerStore again({.url = url}); }));
  (*sql)("UPDATE " + schema + ".state SET format = 2");
  EXPECT_EQ(ErrNewerStore, openingOf(url));
  (*sql)("UPDATE " + schema + ".state SET program = 'other'");
  EXPECT_EQ(ErrLoginDenied, openingOf(url));
  const char* before = std::getenv("POVZEL_LIBPQ");
  const std::string kept = before != nullptr ? before : "";
  setenv("POVZEL_LIBPQ", "/nowhere/libpq.so", 1);
  EXPECT_EQ(ErrLoginDenied, openingOf(url));
  EXPECT_THAT(message, HasSubstr("libpq5:i386"));
  before != nullptr ? setenv("POVZEL_LIBPQ", kept.c_str(), 1) : unsetenv("POVZEL_LIBPQ");
}

TEST_F(ServerStoreTest, NeedsNoMoreRightsThanThese) {
  const std::string role = "povzel_test_" + std::to_string(getpid());
  (*sql)("CREATE ROLE " + role + " LOGIN");
  const std::string theirs = url + "&user=" + role;
  EXPECT_EQ(ErrNotPermitted, openingOf(theirs));
  EXPECT_THAT(message, HasSubstr("USAGE on the schema"));
  (*sql)("GRANT USAGE ON SCHEMA " + schema + " TO " + role +
         "; GRANT SELECT, INSERT, UPDATE, DELETE ON ALL TABLES IN SCHEMA " + schema + " TO " +
         role + "; GRANT USAGE ON ALL SEQUENCES IN SCHEMA " + schema + " TO " + role);
  const ScratchDirectory folder;
  EXPECT_EQ(0, numberOf([&] {
              auto store = openServerStore({.url = theirs});
              for (int i = 0; i < 70; ++i) put(*store, store->newIds(1), "x");
              store->backUp(folder / "copy.povzel", nullptr);
              EXPECT_EQ(70U, serverStatistics({.url = theirs}).store.objects);
            }))
      << message;
  (*sql)("REVOKE INSERT ON " + schema + ".rows FROM " + role);
  EXPECT_EQ(ErrNotPermitted, numberOf([&] { put(*openServerStore({.url = theirs}), 70000, "x"); }));
  (*sql)("DROP OWNED BY " + role + "; DROP ROLE " + role);
}

// A transaction goes on with what it had in view, unless others have taken that away meanwhile.
TEST_F(ServerStoreTest, GoesOnAfterALostConnection) {
  auto store = opened();
  const std::string clients = schema + ".clients";
  const std::string client = (*sql)("SELECT id FROM " + clients);
  put(*store, 70000, "a");
  const Version kept = store->lease();
  const auto look = [&](Version at) {
    return [&, at] { store->read(at, std::array{70000ULL}, [](const Row&) {}); };
  };
  cutAll();
  EXPECT_EQ(ErrConnectionLost, numberOf(look(kept)));
  EXPECT_EQ(0, numberOf(look(kept)));
  auto other = opened();
  const auto overwrite = [&](const std::string& since) {
    (*sql)(
        "SELECT pg_terminate_backend(pid, 5000) FROM pg_locks WHERE locktype = 'advisory' AND "
        "objid::bigint = " +
        client);
    EXPECT_EQ(ErrConnectionLost, numberOf([&] { store->lease(); }));
    (*sql)("UPDATE " + clients + " SET gone = now() - interval '" + since +
           "' WHERE id = " + client);
    for (int i = 0; i < 130; ++i) put(*other, 70000, "b");
  };
  overwrite("2 minutes");
  EXPECT_EQ(ErrConnectionLost, numberOf(look(kept)));
  EXPECT_THAT(message, HasSubstr("abort"));
  EXPECT_EQ(ErrConnectionLost, numberOf([&] {
              store->commit({kept, {}, {writing({70001}, "c")}});
            }));
  const Version now = store->lease();
  EXPECT_THAT(store->changedSince(kept, now), testing::Contains(Place{70000}));
  EXPECT_EQ(0, numberOf(look(now)));
  store->giveUp(kept);
  store->giveUp(now);
  overwrite("2 hours");
  EXPECT_EQ(now + 131, put(*store, 70000, "c"));
  EXPECT_NE(client, (*sql)("SELECT max(id) FROM " + clients));
  // Ids that are given out are not given out again, whatever the server loses.
  (*sql)("SET synchronous_commit = off; UPDATE " + schema + ".state SET conflicts = 1");
  const std::string written = (*sql)("SELECT pg_current_wal_insert_lsn()");
  store->newIds(5000);
  EXPECT_EQ("t", (*sql)("SELECT pg_current_wal_flush_lsn() >= '" + written + "'"));
  // A server that knows less than it has said.
  (*sql)("UPDATE " + schema + ".state SET version = 1; UPDATE " + clients + " SET settled = 1");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(ErrConnectionLost, numberOf([&] { store->lease(); }));
    EXPECT_THAT(message, HasSubstr("log in again"));
  }
  // Nor is a state that is gone asked for again and again.
  store = opened();
  (*sql)("DELETE FROM " + schema + ".state");
  cutAll();
  EXPECT_EQ(ErrConnectionLost, numberOf([&] { store->lease(); }));
  EXPECT_EQ(ErrDamaged, numberOf([&] { store->lease(); }));
}

// However late it gets there, and whatever the process has committed since.
TEST_F(ServerStoreTest, WhatAnEarlierConnectionHasSentComesToNothing) {
  auto store = opened();
  const std::uint64_t client = std::stoull((*sql)("SELECT id FROM " + schema + ".clients"));
  cutAll();
  numberOf([&] { store->lease(); });
  put(*store, 70000, "a");
  ServerConnection late({.url = url});
  late.connect();
  const std::vector<std::uint64_t> none;
  const std::vector<Write> writes{writing({70001}, "late")};
  Values first;
  first.add(client).add(std::uint64_t{0}).add(Version{0}).add(Version{0});
  first.add(none).add(none).add(none).add(writes);
  late.send(ServerSql::begin);
  late.send(ServerSql::lockLoosely);
  late.send(ServerSql::write, first);
  const std::vector<Write> more{writing({70002}, "late")};
  late.send(ServerSql::writeMore,
            Values().add(client).add(std::uint64_t{1}).add(Version{0}).add(more));
  late.send(ServerSql::commit);
  late.run();
  EXPECT_EQ("1", (*sql)("SELECT count(*) FROM " + schema + ".rows"));
}

TEST_F(ServerStoreTest, WaitsAsLongAsItShould) {
  EXPECT_EQ(ErrReadOnly, openingOf(url + "&options=-c%20default_transaction_read_only%3Don"));
  auto store = opened();
  Administrator holder(server);
  holder("BEGIN; SELECT 1 FROM " + schema + ".state FOR UPDATE");
  EXPECT_EQ(ErrStoreBusy, numberOf([&] { put(*store, 70000, "a"); }));
  holder("ROLLBACK");
  EXPECT_EQ(1U, put(*store, 70000, "a"));
  int calls = 0;
  const auto poll = [&calls] {
    if (++calls > 3) throw Failure(ErrHardBreak, "", {}, FailureKind::stop);
  };
  auto impatient = openServerStore({.url = url, .poll = poll});
  holder("BEGIN; LOCK TABLE " + schema + ".rows");
  calls = 0;
  EXPECT_EQ(ErrHardBreak, numberOf([&] { newest(*impatient); }));
  holder("ROLLBACK");
  EXPECT_EQ(0, numberOf([&] {
              calls = -100;
              put(*impatient, 70000, "b");
            }));
}

TEST_F(ServerStoreTest, BelongsToOneProcess) {
  auto store = opened();
  put(*store, 70000, "a");
  const ChildResult child = runInChild([&] {
    EXPECT_EQ(ErrInUseElsewhere, numberOf([&] { store->lease(); }));
    EXPECT_EQ(ErrInUseElsewhere, numberOf([&] {
                store->commit({1, {}, {writing({70000}, "b")}});
              }));
    EXPECT_FALSE(store->isStillThere());
    store.reset();
    _exit(HasFailure() ? 1 : 0);
  });
  EXPECT_TRUE(child.exitedWith(0)) << child.out;
  EXPECT_EQ(2U, put(*store, 70000, "c"));
}

// Wherever a commit is cut, it has been made and acknowledged, or neither.
TEST_F(ServerStoreTest, CommitsOnceWhereverTheConnectionIsCut) {
  std::smatch host;
  if (!std::regex_search(server, host, std::regex("host=(/[^&]*)"))) GTEST_SKIP() << "no socket";
  std::smatch port;
  const bool hasPort = std::regex_search(server, port, std::regex("port=([0-9]+)"));
  Proxy proxy(host.str(1) + "/.s.PGSQL." + (hasPort ? port.str(1) : "5432"));
  const std::string through = url + "&port=5432&host=" + proxy.folder();
  auto store = openServerStore({.url = through});
  put(*store, 70000, "first");
  int acknowledged = 0;
  for (std::atomic<long>& left : proxy.left) {
    bool isCut = true;
    for (long n = 1; isCut; ++n) {
      const std::string text = std::to_string(&left - proxy.left.data()) + ' ' + std::to_string(n);
      // It may have been cut behind the last answer.
      numberOf([&] { const Lease again(*store); });
      const Lease lease(*store);
      const int cuts = proxy.cuts;
      left = n;
      const int number = numberOf([&] {
        store->commit({lease.version, {}, {writing({70000}, text)}});
      });
      isCut = proxy.cuts != cuts;
      left = Proxy::unlimited;
      ASSERT_THAT(number, AnyOf(0, int{ErrConnectionLost})) << message;
      ASSERT_EQ(number == 0, newestOf(70000) == text) << text;
      acknowledged += number == 0 ? 1 : 0;
      ASSERT_EQ(std::to_string(acknowledged + 1),
                (*sql)("SELECT version FROM " + schema + ".state"));
    }
  }
  EXPECT_LT(10, acknowledged);
  // While the server is out of reach it is not known, and later it is.
  auto impatient = openServerStore({.url = through, .patience = 300});
  put(*impatient, 70001, "a");
  const Lease lease(*impatient);
  proxy.refuses = true;
  proxy.left[1] = 1;
  EXPECT_EQ(ErrOutcomeUnknown, numberOf([&] {
              impatient->commit({lease.version, {}, {writing({70001}, "b")}});
            }));
  EXPECT_THAT(message, HasSubstr("unknown"));
  proxy.refuses = false;
  EXPECT_EQ("b", newest(*impatient).at({70001}));
}

TEST_F(ServerStoreTest, HistoriesHaveASerialOrder) {
  (*sql)("DROP SCHEMA " + schema + " CASCADE");
  MemoryStore none([](const std::string&, Store&, const Progress&) {});
  Passwords passwords;
  NewServerStore made({.url = url});
  made.add(writesOf(none, none.lease(), creators("SystemUser", "geheim", passwords)));
  made.finish(firstFreeId);
  open(url);
  ASSERT_EQ("true", show(makeGlobals + std::string(". System commit")));
  EXPECT_EQ("0", show("(V at: 1) at: 1 put: 0"));
  cutAll();
  EXPECT_THAT(show("System commit"), StartsWith("error 2519"));
  EXPECT_EQ("true", show("System abort. Globals at: #Gone put: 1. System commit"));
  // Others remove it while the connection is lost, and nobody keeps that.
  cutAll();
  EXPECT_THAT(show("System abort"), StartsWith("error 2519"));
  (*sql)("DELETE FROM " + schema + ".rows WHERE since = (SELECT version FROM " + schema +
         ".state) AND id < 65536; UPDATE " + schema +
         ".state SET version = version + 1, settled = version + 1, pruned = version + 1");
  EXPECT_EQ("false", show("System abort. Globals includesKey: #Gone"));
  zel->ZelShutdown();
  expectSerialOrder(url, 8, 100);
  zel->ZelShutdown();
  for (const char* wrong : {"swordfish", ""}) {
    ASSERT_NE(0, zel->ZelInit());
    zel->ZelSetNet(url.c_str(), nullptr, nullptr, nullptr);
    EXPECT_EQ(0, zel->ZelLogin("SystemUser", wrong));
    zel->ZelShutdown();
  }
}

}  // namespace
}  // namespace zel
