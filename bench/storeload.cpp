// Clients that use one store for some seconds: in memory, in a file, or on a server.
//   storeload NAME CLIENTS SECONDS READS
// NAME is "memory", a file or a URL. It is made and filled where it is not there. Each client is a
// process of its own, but of a store in memory, whose sessions take turns in one. READS of a
// hundred operations read an object, the others change one. Prints operations a second, commits a
// second, the median time of a commit in milliseconds, and conflicts.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "store/filestore.h"
#include "store/memorystore.h"
#include "store/serverstore.h"

namespace {

using namespace zel;
using Clock = std::chrono::steady_clock;

constexpr ObjectId objects = 10'000;
constexpr std::size_t objectSize = 100;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "storeload: %s\n", what.c_str());
  std::_Exit(1);
}

struct Load {
  std::string name;
  unsigned clients;
  double seconds;
  unsigned reads;  // of a hundred
};

std::vector<Write> allObjects() {
  std::vector<Write> writes;
  for (ObjectId id = firstFreeId; id < firstFreeId + objects; ++id) {
    writes.push_back({{id}, 7, std::string(objectSize, 'a'), false});
  }
  return writes;
}

std::unique_ptr<Store> opened(const std::string& name) {
  if (name == "memory") return std::make_unique<MemoryStore>([](auto&&...) {});
  if (isServerUrl(name)) return openServerStore({.url = name});
  return openFileStore({.path = name, .create = true});
}

void fill(const std::string& name) {
  if (isServerUrl(name)) {
    try {
      NewServerStore made({.url = name});
      made.add(allObjects());
      made.finish(firstFreeId + objects);
    } catch (const Failure& failure) {
      if (failure.number != ErrLoginDenied) throw;
      openServerStore({.url = name});
    }
    return;
  }
  const auto store = opened(name);
  const Lease lease(*store);
  if (lease.version == 0) store->commit({lease.version, {}, allObjects()});
}

struct Counts {
  std::uint64_t operations = 0;
  std::uint64_t conflicts = 0;
  std::uint64_t commits = 0;  // so many times follow
};

class Client {
 public:
  Client(Store& store, const Load& load, unsigned seed)
      : store_(store), load_(load), random_(seed) {}

  void step() {
    const ObjectId id = firstFreeId + random_() % objects;
    if (random_() % 100 < load_.reads) {
      const Lease lease(store_);
      store_.read(lease.version, {&id, 1}, [this](const Row& row) { read_ += row.bytes.size(); });
    } else {
      change(id);
    }
    ++counts_.operations;
  }
  void run() {
    const auto end = Clock::now() + std::chrono::duration<double>(load_.seconds);
    while (Clock::now() < end) step();
  }
  Counts counts() const {
    Counts counts = counts_;
    counts.commits = times_.size();
    return counts;
  }
  const std::vector<float>& times() const { return times_; }  // of commits, in milliseconds

 private:
  void change(ObjectId id) {
    const auto begin = Clock::now();
    for (;;) {
      const Lease lease(store_);
      const std::string bytes(objectSize, static_cast<char>('a' + random_() % 26));
      if (store_.commit({lease.version, {}, {{{id}, 7, bytes, false}}}).version != 0) break;
      ++counts_.conflicts;
    }
    times_.push_back(std::chrono::duration<float, std::milli>(Clock::now() - begin).count());
  }

  Store& store_;
  const Load& load_;
  std::minstd_rand random_;
  Counts counts_;
  std::vector<float> times_;
  std::size_t read_ = 0;
};

// Whole blocks through a pipe.
void send(int fd, const void* from, std::size_t size) {
  for (const auto* at = static_cast<const char*>(from); size > 0;) {
    const ssize_t sent = ::write(fd, at, size);
    if (sent <= 0) fail("a client cannot tell what it did");
    at += sent;
    size -= static_cast<std::size_t>(sent);
  }
}
void receive(int fd, void* to, std::size_t size) {
  for (auto* at = static_cast<char*>(to); size > 0;) {
    const ssize_t got = ::read(fd, at, size);
    if (got <= 0) fail("a client has ended");
    at += got;
    size -= static_cast<std::size_t>(got);
  }
}

struct Result {
  Counts counts;
  std::vector<float> times;
  void add(const Counts& more) {
    counts.operations += more.operations;
    counts.conflicts += more.conflicts;
    counts.commits += more.commits;
  }
};

// A child: says that it is ready, waits for the start, and tells what it did.
[[noreturn]] void serve(const Load& load, unsigned seed, int start, int ready, int result) {
  try {
    const auto store = opened(load.name);
    Client client(*store, load, seed);
    send(ready, "r", 1);
    ::close(ready);
    pollfd begin{start, POLLIN, 0};
    ::poll(&begin, 1, -1);
    client.run();
    const Counts counts = client.counts();
    send(result, &counts, sizeof counts);
    send(result, client.times().data(), client.times().size() * sizeof(float));
  } catch (const Failure& failure) {
    fail(failure.message);
  }
  std::_Exit(0);
}

Result runProcesses(const Load& load) {
  int start[2];
  int ready[2];
  if (::pipe(start) != 0 || ::pipe(ready) != 0) fail("no pipe");
  std::vector<int> results;
  for (unsigned i = 0; i < load.clients; ++i) {
    int result[2];
    if (::pipe(result) != 0) fail("no pipe");
    const pid_t child = ::fork();
    if (child < 0) fail("no process");
    if (child == 0) {
      ::close(start[1]);
      serve(load, i + 1, start[0], ready[1], result[1]);
    }
    ::close(result[1]);
    results.push_back(result[0]);
  }
  ::close(ready[1]);
  for (unsigned i = 0; i < load.clients; ++i) {
    char byte;
    receive(ready[0], &byte, 1);
  }
  ::close(start[1]);
  Result all;
  for (const int fd : results) {
    Counts counts;
    receive(fd, &counts, sizeof counts);
    const std::size_t before = all.times.size();
    all.times.resize(before + counts.commits);
    receive(fd, all.times.data() + before, counts.commits * sizeof(float));
    all.add(counts);
  }
  while (::wait(nullptr) > 0) {
  }
  return all;
}

Result runInTurns(const Load& load) {
  const auto store = opened(load.name);
  {
    const Lease lease(*store);
    store->commit({lease.version, {}, allObjects()});
  }
  std::vector<Client> clients;
  for (unsigned i = 0; i < load.clients; ++i) clients.emplace_back(*store, load, i + 1);
  const auto end = Clock::now() + std::chrono::duration<double>(load.seconds);
  while (Clock::now() < end) {
    for (Client& client : clients) client.step();
  }
  Result all;
  for (const Client& client : clients) {
    all.add(client.counts());
    all.times.insert(all.times.end(), client.times().begin(), client.times().end());
  }
  return all;
}

void print(const Load& load, Result result) {
  double median = 0;
  if (!result.times.empty()) {
    const auto middle = result.times.begin() + static_cast<std::ptrdiff_t>(result.times.size() / 2);
    std::nth_element(result.times.begin(), middle, result.times.end());
    median = *middle;
  }
  std::printf("%.0f %.0f %.3f %llu\n", static_cast<double>(result.counts.operations) / load.seconds,
              static_cast<double>(result.counts.commits) / load.seconds, median,
              static_cast<unsigned long long>(result.counts.conflicts));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) fail("usage: storeload NAME CLIENTS SECONDS READS");
  const auto number = [argv](int index) {
    return static_cast<unsigned>(std::strtoul(argv[index], nullptr, 10));
  };
  const Load load{argv[1], number(2), std::strtod(argv[3], nullptr), number(4)};
  if (load.clients == 0 || load.seconds <= 0) fail("no clients, or no time");
  try {
    if (load.name == "memory") {
      print(load, runInTurns(load));
      return 0;
    }
    fill(load.name);
    print(load, runProcesses(load));
  } catch (const Failure& failure) {
    fail(failure.message);
  }
  return 0;
}
