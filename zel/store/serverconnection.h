// A connection to a PostgreSQL server, and statements that are sent there together.
//
//   ServerConnection server(options);
//   server.connect();
//   server.send(ServerSql::begin);
//   server.send(ServerSql::lock);
//   server.send(ServerSql::commit);
//   const std::vector<Answer> answers = server.run();
//
// Whatever is sent before a `run` or `finish` takes one round trip. Failures are those that
// serverstore.h names; none of the messages holds a password.
#pragma once

#include <bitset>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/libpq.h"
#include "store/serverstore.h"
#include "store/servertables.h"

namespace zel {

// The values that a statement is run with, in the server's binary form.
class Values {
 public:
  Values& add(std::uint64_t number);
  Values& add(std::string_view text);
  Values& add(const std::vector<std::uint64_t>& numbers);
  // A row's columns, each an array: ids, parts, classes, whether they are gone, bytes.
  Values& add(std::span<const Write> writes);

  const std::vector<std::string>& all() const { return all_; }

 private:
  std::vector<std::string> all_;
};

// What one statement was answered. Views of its bytes live as long as it does.
class Answer {
 public:
  Answer(const LibPq& pq, PGresult* result) : pq_(&pq), result_(result, pq.clear) {}

  PGresult* get() const { return result_.get(); }
  int size() const { return pq_->ntuples(get()); }
  std::uint64_t number(int row, int column) const;
  bool flag(int row, int column) const;
  std::string_view bytes(int row, int column) const;
  std::string_view field(int code) const;  // of an error

 private:
  const LibPq* pq_;
  std::unique_ptr<PGresult, void (*)(PGresult*)> result_;
};

// Why the server did not do what it was sent.
struct Refusal {
  std::string state;  // five letters and digits, as its documentation has them
  std::string message;
  bool isOneOf(std::initializer_list<std::string_view> states) const;
};

class ServerConnection {
 public:
  using Clock = std::chrono::steady_clock;

  // Loads libpq and looks at the URL; does not connect. Throws ErrLoginDenied.
  explicit ServerConnection(const ServerOptions& options);
  ~ServerConnection();
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;

  const std::string& shown() const { return shown_; }    // for messages
  const std::string& schema() const { return schema_; }  // not quoted
  // A table or sequence in the schema, quoted.
  std::string qualified(std::string_view name) const;

  // Connects, unless that is done. Throws ErrLoginDenied with libpq's reason.
  void connect();
  // Whether it is, and nothing was left half sent, which only closing settles.
  bool isConnected() const { return connection_ != nullptr && sent_.empty(); }
  // How long connecting may take, with all hosts.
  std::chrono::milliseconds connectTime() const { return connectTime_; }
  // Looks whether the schema holds a database that this version knows. Throws ErrLoginDenied,
  // ErrNewerStore, ErrNotPermitted.
  void identify();
  void close() noexcept;
  bool isForked() const noexcept;
  void checkProcess() const;  // throws ErrInUseElsewhere

  // How waiting goes from here on: whether `poll` is called, and until when at most.
  void setPolls(bool polls) { polls_ = polls; }
  void setDeadline(std::optional<Clock::time_point> deadline) { deadline_ = deadline; }

  // Has the server prepare the statement, if it has not; before what holds a lock.
  void prepare(ServerSql which);
  void send(ServerSql which, const Values& values = {});
  // Waits for what was sent. When the server refuses something, what is behind that was not done, a
  // transaction that was begun is rolled back, and the answers end there; `refusal` says why.
  std::vector<Answer> finish(std::optional<Refusal>& refusal);
  // The same, and throws what the refusal means.
  std::vector<Answer> run();
  Failure failureOf(const Refusal& refusal) const;

 private:
  struct Sent {
    ServerSql which;
    bool isPreparing;
  };
  [[noreturn]] void lose(std::string why);
  void wait(short events);
  void awaitConnection();
  void flushMuch(std::size_t size);
  PGresult* next();
  bool take(const Sent& sent, std::vector<Answer>& answers, std::optional<Refusal>& refusal);
  std::string reason() const;

  LibPq pq_;
  ServerOptions options_;
  std::string shown_;
  std::string schema_;
  std::string quoted_;
  std::vector<std::pair<std::string, std::string>> parameters_;
  std::chrono::milliseconds connectTime_{};
  int process_;
  PGconn* connection_ = nullptr;
  std::bitset<static_cast<std::size_t>(ServerSql::count)> prepared_;
  std::vector<Sent> sent_;
  std::size_t unflushed_ = 0;
  bool polls_ = true;
  std::optional<Clock::time_point> deadline_;
  Clock::time_point lastPoll_{};
};

}  // namespace zel
