#include "store/serverconnection.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "store/serverurl.h"

namespace zel {

namespace {

constexpr int leastServer = 120000;
constexpr std::chrono::milliseconds pollTime(100);
constexpr std::size_t muchUnflushed = 1U << 20;

// The server's numbers of types, which its arrays hold.
constexpr std::uint32_t typeBoolean = 16;
constexpr std::uint32_t typeBytes = 17;
constexpr std::uint32_t typeBigint = 20;

template <typename Number>
void append(std::string& text, Number number) {
  for (int shift = (static_cast<int>(sizeof number) - 1) * 8; shift >= 0; shift -= 8) {
    text += static_cast<char>(number >> shift);
  }
}

template <typename AppendElement>
std::string arrayOf(std::uint32_t type, std::size_t count, AppendElement appendElement) {
  std::string text;
  append<std::uint32_t>(text, 1);  // dimensions
  append<std::uint32_t>(text, 0);  // no nulls
  append<std::uint32_t>(text, type);
  append<std::uint32_t>(text, static_cast<std::uint32_t>(count));
  append<std::uint32_t>(text, 1);  // the first index
  for (std::size_t i = 0; i < count; ++i) appendElement(text, i);
  return text;
}

template <typename NumberOf>
std::string numbersOf(std::size_t count, NumberOf numberOf) {
  return arrayOf(typeBigint, count, [&](std::string& text, std::size_t i) {
    append<std::uint32_t>(text, sizeof(std::uint64_t));
    append<std::uint64_t>(text, numberOf(i));
  });
}

std::string oneLine(std::string_view text) {
  std::string line;
  for (const char letter : text) {
    if (letter != '\n') {
      line += letter;
    } else if (!line.empty()) {
      line += "; ";
    }
  }
  while (line.ends_with("; ")) line.resize(line.size() - 2);
  return line;
}

std::string nameOf(ServerSql which) {
  return "povzel" + std::to_string(static_cast<int>(which));
}

void ignoreNotice(void*, const PGresult*) {}

// The failure for a state of the server's; those that name none of it are a matter of the program.
struct Meaning {
  std::string_view state;  // or how it starts
  std::int32_t number;
  std::string_view advice;
};
constexpr Meaning meanings[] = {
    {"08", ErrConnectionLost, ""},
    {"57P0", ErrConnectionLost, ""},
    {"55P03", ErrStoreBusy, ""},
    {"57014", ErrStoreBusy, ""},
    {"40001", ErrStoreBusy, ""},
    {"40P01", ErrStoreBusy, ""},
    {"53300", ErrStoreBusy, ""},
    {"53", ErrStoreFull, ""},
    {"25006", ErrReadOnly, ""},
    {"42501", ErrNotPermitted,
     ": the user needs USAGE on the schema, SELECT, INSERT, UPDATE and DELETE on its tables, and "
     "USAGE on its sequence"},
    {"XX001", ErrDamaged, ""},
    {"XX002", ErrDamaged, ""},
};

}  // namespace

// Values

Values& Values::add(std::uint64_t number) {
  append(all_.emplace_back(), number);
  return *this;
}

Values& Values::add(std::string_view text) {
  all_.emplace_back(text);
  return *this;
}

Values& Values::add(const std::vector<std::uint64_t>& numbers) {
  all_.push_back(numbersOf(numbers.size(), [&](std::size_t i) { return numbers[i]; }));
  return *this;
}

Values& Values::add(std::span<const Write> writes) {
  const std::size_t size = writes.size();
  all_.push_back(numbersOf(size, [&](std::size_t i) { return writes[i].place.id; }));
  all_.push_back(numbersOf(size, [&](std::size_t i) { return writes[i].place.part; }));
  all_.push_back(numbersOf(size, [&](std::size_t i) { return writes[i].classId; }));
  all_.push_back(arrayOf(typeBoolean, size, [&](std::string& text, std::size_t i) {
    append<std::uint32_t>(text, 1);
    text += static_cast<char>(writes[i].gone ? 1 : 0);
  }));
  all_.push_back(arrayOf(typeBytes, size, [&](std::string& text, std::size_t i) {
    append(text, static_cast<std::uint32_t>(writes[i].bytes.size()));
    text += writes[i].bytes;
  }));
  return *this;
}

// Answers

std::string_view Answer::bytes(int row, int column) const {
  return {pq_->getvalue(get(), row, column),
          static_cast<std::size_t>(pq_->getlength(get(), row, column))};
}

std::uint64_t Answer::number(int row, int column) const {
  std::uint64_t number = 0;
  for (const char byte : bytes(row, column))
    number = number << 8 | static_cast<unsigned char>(byte);
  return number;
}

bool Answer::flag(int row, int column) const {
  return number(row, column) != 0;
}

std::string_view Answer::field(int code) const {
  const char* text = pq_->resultErrorField(get(), code);
  return text != nullptr ? text : std::string_view();
}

bool Refusal::isOneOf(std::initializer_list<std::string_view> states) const {
  return std::find(states.begin(), states.end(), state) != states.end();
}

// Connecting

ServerConnection::ServerConnection(const ServerOptions& options)
    : options_(options), shown_(shownUrl(options.url)), process_(::getpid()) {
  const ServerUrl url = splitUrl(options.url);
  schema_ = url.schema;
  char* error = nullptr;
  const std::unique_ptr<PqOption, void (*)(PqOption*)> parsed(
      pq_.conninfoParse(url.url.c_str(), &error), pq_.conninfoFree);
  const std::unique_ptr<char, void (*)(void*)> why(error, pq_.freemem);
  if (!parsed) {
    // What libpq says has pieces of the URL in it.
    const bool tells = why && !hasPassword(options.url);
    throw Failure(ErrLoginDenied, "the URL " + shown_ + " cannot be read" +
                                      (tells ? ": " + oneLine(why.get()) : ""));
  }
  const auto valueOf = [&](std::string_view keyword) -> std::string {
    for (const auto& [known, value] : parameters_) {
      if (known == keyword) return value;
    }
    return "";
  };
  for (const PqOption* option = parsed.get(); option->keyword != nullptr; ++option) {
    if (option->value != nullptr) parameters_.emplace_back(option->keyword, option->value);
  }
  connectTime_ = std::chrono::milliseconds(options.patience);
  int seconds = 0;
  const std::string timeout = valueOf("connect_timeout");
  std::from_chars(timeout.data(), timeout.data() + timeout.size(), seconds);
  if (seconds > 0) connectTime_ = std::chrono::seconds(std::clamp(seconds, 2, 3600));
  const std::string hosts = valueOf("hostaddr").empty() ? valueOf("host") : valueOf("hostaddr");
  // A server that is gone without a word is found out, so that the next one is tried.
  const char* service = std::getenv("PGSERVICE");
  const bool isPlain = valueOf("service").empty() && service == nullptr;
  const auto addDefault = [&](const char* keyword, const std::string& value) {
    if (isPlain && valueOf(keyword).empty()) parameters_.emplace_back(keyword, value);
  };
  addDefault("tcp_user_timeout", std::to_string(connectTime_.count()));
  addDefault("keepalives_idle", "10");
  addDefault("keepalives_interval", "5");
  addDefault("keepalives_count", "3");
  if (valueOf("fallback_application_name").empty()) {
    parameters_.emplace_back("fallback_application_name", "povzel");
  }
  std::erase_if(parameters_, [](const auto& each) { return each.first == "client_encoding"; });
  parameters_.emplace_back("client_encoding", "UTF8");
  connectTime_ *= 1 + std::count(hosts.begin(), hosts.end(), ',');
}

ServerConnection::~ServerConnection() {
  close();
}

bool ServerConnection::isForked() const noexcept {
  return process_ != ::getpid();
}

void ServerConnection::checkProcess() const {
  if (!isForked()) return;
  throw Failure(ErrInUseElsewhere, "the database " + shown_ +
                                       " is in use by the process that this one was forked from: "
                                       "log in again");
}

void ServerConnection::close() noexcept {
  sent_.clear();
  prepared_.reset();
  unflushed_ = 0;
  if (connection_ == nullptr) return;
  if (isForked()) {
    // It is the parent's; ending it properly would end it there as well.
    ::close(pq_.socket(connection_));
  } else {
    pq_.finish(connection_);
  }
  connection_ = nullptr;
}

std::string ServerConnection::reason() const {
  const std::string text = oneLine(pq_.errorMessage(connection_));
  return text.empty() ? "the server has ended it" : text;
}

void ServerConnection::lose(std::string why) {
  close();
  if (why.find("out of memory") != std::string::npos) throw std::bad_alloc();
  throw Failure(ErrConnectionLost,
                "the connection to the database " + shown_ + " is lost: " + std::move(why));
}

void ServerConnection::connect() {
  checkProcess();
  if (isConnected()) return;
  close();
  std::vector<const char*> keywords;
  std::vector<const char*> values;
  for (const auto& [keyword, value] : parameters_) {
    keywords.push_back(keyword.c_str());
    values.push_back(value.c_str());
  }
  keywords.push_back(nullptr);
  values.push_back(nullptr);
  connection_ = pq_.connectStartParams(keywords.data(), values.data(), 0);
  if (connection_ == nullptr) throw std::bad_alloc();
  pq_.setNoticeReceiver(connection_, ignoreNotice, nullptr);
  try {
    awaitConnection();
    if (pq_.serverVersion(connection_) < leastServer) {
      throw Failure(ErrLoginDenied, "the server of " + shown_ + " is PostgreSQL " +
                                        std::to_string(pq_.serverVersion(connection_) / 10000) +
                                        "; 12 or later is needed");
    }
    const std::unique_ptr<char, void (*)(void*)> quoted(
        pq_.escapeIdentifier(connection_, schema_.c_str(), schema_.size()), pq_.freemem);
    if (!quoted) {
      throw Failure(ErrLoginDenied, "the schema in " + shown_ + " is no name: " + reason());
    }
    quoted_ = quoted.get();
    if (pq_.setnonblocking(connection_, 1) != 0 || pq_.enterPipelineMode(connection_) != 1) {
      lose(reason());
    }
    send(ServerSql::setUp, Values().add(std::to_string(options_.patience)));
    run();
  } catch (...) {
    close();
    throw;
  }
}

void ServerConnection::awaitConnection() {
  const auto refuse = [this](const std::string& why) {
    throw Failure(ErrLoginDenied, "the database " + shown_ + " cannot be reached: " + why);
  };
  const Clock::time_point end = Clock::now() + connectTime_;
  const Clock::time_point deadline = deadline_ ? std::min(*deadline_, end) : end;
  int polling = pq::pollingWriting;
  if (pq_.status(connection_) == pq::statusBad) refuse(reason());
  while (polling != pq::pollingOk) {
    if (polling == pq::pollingFailed) refuse(reason());
    pollfd ready{pq_.socket(connection_),
                 static_cast<short>(polling == pq::pollingReading ? POLLIN : POLLOUT), 0};
    const int found = ::poll(&ready, 1, static_cast<int>(pollTime.count()));
    if (polls_ && options_.poll) options_.poll();
    if (Clock::now() >= deadline) refuse("it does not answer");
    if (found > 0) polling = pq_.connectPoll(connection_);
  }
}

std::string ServerConnection::qualified(std::string_view name) const {
  return quoted_ + '.' + std::string(name);
}

void ServerConnection::identify() {
  std::optional<Refusal> refusal;
  send(ServerSql::identify);
  const std::vector<Answer> answers = finish(refusal);
  const auto refuse = [this](const std::string& why) {
    throw Failure(ErrLoginDenied, why + ": povzel create " + shown_ + " makes one");
  };
  const auto isForeign = [this] {
    throw Failure(ErrLoginDenied, "the schema " + quoted_ + " of " + shown_ +
                                      " holds something else than a database of ours");
  };
  if (refusal && refusal->isOneOf({"42P01", "3F000"})) {
    std::optional<Refusal> again;
    send(ServerSql::countTables, Values().add(std::string_view(schema_)));
    const std::vector<Answer> found = finish(again);
    if (!again && found.front().number(0, 0) > 0) isForeign();
    refuse("there is no database " + shown_);
  }
  if (refusal && refusal->isOneOf({"42703", "42804", "42846"})) isForeign();
  if (refusal) throw failureOf(*refusal);
  const Answer& state = answers.front();
  if (state.size() != 1 || state.bytes(0, 0) != "povzel") isForeign();
  const std::uint64_t format = state.number(0, 1);
  if (format <= serverFormat) return;
  throw Failure(ErrNewerStore, "the database " + shown_ + " has the format " +
                                   std::to_string(format) + " of a newer version; this one knows " +
                                   std::to_string(serverFormat));
}

// Statements

void ServerConnection::wait(short events) {
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (deadline_ && now >= *deadline_) lose("it has not answered in time");
    if (polls_ && options_.poll && now - lastPoll_ >= pollTime) {
      lastPoll_ = now;
      options_.poll();
    }
    pollfd ready{pq_.socket(connection_), events, 0};
    const int found = ::poll(&ready, 1, static_cast<int>(pollTime.count()));
    if (found > 0) return;
    if (found < 0 && errno != EINTR) lose(std::strerror(errno));
  }
}

// Keeps what lies in libpq's memory small, and the server from waiting for who does not read.
void ServerConnection::flushMuch(std::size_t size) {
  unflushed_ += size;
  if (unflushed_ < muchUnflushed) return;
  for (;;) {
    const int left = pq_.flush(connection_);
    if (left < 0) lose(reason());
    if (left == 0) break;
    wait(POLLIN | POLLOUT);
    if (pq_.consumeInput(connection_) != 1) lose(reason());
  }
  unflushed_ = 0;
}

void ServerConnection::prepare(ServerSql which) {
  const auto number = static_cast<std::size_t>(which);
  if (prepared_[number]) return;
  const std::string text = textOf(which, quoted_);
  sent_.push_back({which, true});
  if (pq_.sendPrepare(connection_, nameOf(which).c_str(), text.c_str(), 0, nullptr) != 1) {
    lose(reason());
  }
  prepared_[number] = true;
}

void ServerConnection::send(ServerSql which, const Values& values) {
  try {
    prepare(which);
    std::vector<const char*> pointers;
    std::vector<int> sizes;
    std::size_t size = 0;
    for (const std::string& value : values.all()) {
      pointers.push_back(value.data());
      sizes.push_back(static_cast<int>(value.size()));
      size += value.size();
    }
    const std::vector<int> binary(sizes.size(), 1);
    sent_.push_back({which, false});
    if (pq_.sendQueryPrepared(connection_, nameOf(which).c_str(), static_cast<int>(sizes.size()),
                              pointers.data(), sizes.data(), binary.data(), 1) != 1) {
      lose(reason());
    }
    flushMuch(size);
  } catch (...) {
    close();
    throw;
  }
}

PGresult* ServerConnection::next() {
  for (;;) {
    const int left = pq_.flush(connection_);
    if (left < 0) lose(reason());
    if (pq_.isBusy(connection_) == 0) return pq_.getResult(connection_);
    wait(static_cast<short>(left > 0 ? POLLIN | POLLOUT : POLLIN));
    if (pq_.consumeInput(connection_) != 1) lose(reason());
  }
}

// Takes what one statement was answered.
bool ServerConnection::take(const Sent& sent, std::vector<Answer>& answers,
                            std::optional<Refusal>& refusal) {
  bool isDone = false;
  while (PGresult* result = next()) {
    Answer answer(pq_, result);
    const int status = pq_.resultStatus(result);
    if (status == pq::resultFatal) {
      const std::string_view severity = answer.field(pq::fieldSeverity);
      const std::string_view state = answer.field(pq::fieldState);
      const std::string_view message = answer.field(pq::fieldPrimary);
      if (state.empty() || severity == "FATAL" || severity == "PANIC") {
        lose(message.empty() ? reason() : std::string(message));
      }
      if (!refusal) refusal = {std::string(state), std::string(message)};
    } else if (status == pq::resultCommand || status == pq::resultTuples) {
      isDone = true;
      if (!sent.isPreparing) answers.push_back(std::move(answer));
    } else if (status != pq::resultAborted) {
      lose("it answers what it was not asked");
    }
  }
  return isDone;
}

std::vector<Answer> ServerConnection::finish(std::optional<Refusal>& refusal) {
  std::vector<Answer> answers;
  try {
    lastPoll_ = Clock::now();
    if (pq_.pipelineSync(connection_) != 1) lose(reason());
    for (const Sent& sent : sent_) {
      const bool isDone = take(sent, answers, refusal);
      if (sent.isPreparing && !isDone) prepared_[static_cast<std::size_t>(sent.which)] = false;
    }
    const Answer end(pq_, next());
    if (end.get() == nullptr) lose(reason());
    if (pq_.resultStatus(end.get()) == pq::resultFatal) {
      // What the server does at the end of all may fail as well.
      if (!refusal) {
        refusal = {std::string(end.field(pq::fieldState)),
                   std::string(end.field(pq::fieldPrimary))};
      }
      lose(refusal->message);
    }
    if (pq_.resultStatus(end.get()) != pq::resultSync) lose("it answers what it was not asked");
    sent_.clear();
    unflushed_ = 0;
    if (refusal && pq_.transactionStatus(connection_) != pq::transactionIdle) {
      std::optional<Refusal> ignored;
      send(ServerSql::rollback);
      finish(ignored);
    }
  } catch (...) {
    close();
    throw;
  }
  return answers;
}

std::vector<Answer> ServerConnection::run() {
  std::optional<Refusal> refusal;
  std::vector<Answer> answers = finish(refusal);
  if (refusal) throw failureOf(*refusal);
  return answers;
}

Failure ServerConnection::failureOf(const Refusal& refusal) const {
  const auto meaning =
      std::find_if(std::begin(meanings), std::end(meanings),
                   [&](const Meaning& each) { return refusal.state.starts_with(each.state); });
  const bool isKnown = meaning != std::end(meanings);
  return {isKnown ? meaning->number : ErrInternal,
          "the server of " + shown_ + " says: " + refusal.message +
              (isKnown ? std::string(meaning->advice) : " (" + refusal.state + ")")};
}

}  // namespace zel
