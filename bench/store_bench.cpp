// The store in a file beside bare SQLite with the same settings, in a file that lies in memory.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "paired.h"
#include "store/checksum.h"
#include "store/filestore.h"

namespace {

using namespace zel;

constexpr int objects = 100'000;
constexpr int changed = 1000;
constexpr int coldReads = 10'000;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "store_bench: %s\n", what.c_str());
  std::exit(1);
}

double seconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Files that are gone at the end.
class Folder {
 public:
  Folder() {
    if (mkdtemp(name_.data()) == nullptr) fail("no folder in /dev/shm");
  }
  ~Folder() {
    for (const std::string& file : files_) {
      for (const char* end : {"", "-wal", "-shm"}) unlink((file + end).c_str());
    }
    rmdir(name_.c_str());
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string file(const std::string& name) {
    files_.push_back(name_ + "/" + name);
    return files_.back();
  }

 private:
  std::string name_ = "/dev/shm/store_bench-XXXXXX";
  std::vector<std::string> files_;
};

// Every so-manieth object, so that they lie all over the file.
ObjectId chosen(int index, int count, int turn) {
  return firstFreeId + static_cast<ObjectId>((index * (objects / count) + turn) % objects);
}

std::string bytesOf(int turn) {
  return std::string(100, static_cast<char>('a' + turn % 26));
}

// A commit of what `make` tells.
void commit(Store& store, const std::vector<Write>& writes) {
  const Version base = store.lease();
  if (store.commit({base, {}, writes}).version == 0) fail("a conflict");
  store.giveUp(base);
}

std::string filled(Folder& folder, const std::string& name, int count) {
  std::string path = folder.file(name);
  const auto store = openFileStore({.path = path, .create = true});
  ObjectId next = firstFreeId;
  while (count > 0) {
    std::vector<Write> writes;
    for (int i = 0; i < 10'000 && count > 0; ++i, --count) {
      writes.push_back({{next++}, 7, bytesOf(i), false});
    }
    commit(*store, writes);
  }
  return path;
}

class Bare {
 public:
  explicit Bare(const std::string& path) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) fail("no bare database");
    run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -8192;"
        "PRAGMA secure_delete = OFF; PRAGMA temp_store = MEMORY;"
        "CREATE TABLE IF NOT EXISTS object(id INTEGER PRIMARY KEY, class INTEGER, "
        "version INTEGER, sum INTEGER, bytes BLOB)");
    select_ = prepared("SELECT version FROM object WHERE id = ?");
    read_ = prepared("SELECT class, version, sum, bytes FROM object WHERE id = ?");
    write_ = prepared(
        "INSERT INTO object VALUES(?, 7, ?, 4611686018427387904, ?) ON CONFLICT(id) DO UPDATE SET "
        "version = excluded.version, sum = excluded.sum, bytes = excluded.bytes");
  }
  ~Bare() {
    for (sqlite3_stmt* each : {select_, read_, write_}) sqlite3_finalize(each);
    sqlite3_close(db_);
  }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void run(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(sqlite3_errmsg(db_));
  }
  void write(ObjectId id, Version version, const std::string& bytes) {
    sqlite3_bind_int64(select_, 1, static_cast<sqlite3_int64>(id));
    sqlite3_step(select_);
    sqlite3_reset(select_);
    sqlite3_bind_int64(write_, 1, static_cast<sqlite3_int64>(id));
    sqlite3_bind_int64(write_, 2, static_cast<sqlite3_int64>(version));
    sqlite3_bind_blob(write_, 3, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    if (sqlite3_step(write_) != SQLITE_DONE) fail(sqlite3_errmsg(db_));
    sqlite3_reset(write_);
  }
  // Answers the checksum of what it has read.
  std::uint64_t read(ObjectId id) {
    sqlite3_bind_int64(read_, 1, static_cast<sqlite3_int64>(id));
    if (sqlite3_step(read_) != SQLITE_ROW) fail("a missing row");
    const std::array<std::uint64_t, 3> numbers{
        id, static_cast<std::uint64_t>(sqlite3_column_int64(read_, 0)),
        static_cast<std::uint64_t>(sqlite3_column_int64(read_, 1))};
    const auto* from = static_cast<const char*>(sqlite3_column_blob(read_, 3));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(read_, 3));
    const std::uint64_t sum = checksum(checksum(0, numbers), {from, size});
    sqlite3_reset(read_);
    return sum;
  }

 private:
  sqlite3_stmt* prepared(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr);
    return statement;
  }
  sqlite3* db_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* read_ = nullptr;
  sqlite3_stmt* write_ = nullptr;
};

std::string bareFilled(Folder& folder) {
  std::string path = folder.file("bare.db");
  Bare bare(path);
  bare.run("BEGIN");
  for (int i = 0; i < objects; ++i)
    bare.write(firstFreeId + static_cast<ObjectId>(i), 1, bytesOf(i));
  bare.run("COMMIT");
  return path;
}

// 1,000 objects that are all over the file, or side by side.
void commits(benchmark::State& state, int spread) {
  Folder folder;
  const auto store = openFileStore({.path = filled(folder, "ours.povzel", objects)});
  Bare bare(bareFilled(folder));
  int turn = 0;
  const auto ours = [&](int calls) {
    std::vector<Write> writes(changed);
    double sum = 0;
    for (int call = 0; call < calls; ++call) {
      ++turn;
      for (int i = 0; i < changed; ++i) {
        writes[static_cast<std::size_t>(i)] = {{chosen(i, spread, turn)}, 7, bytesOf(turn), false};
      }
      sum += seconds([&] { commit(*store, writes); });
    }
    return sum;
  };
  const auto other = [&](int calls) {
    double sum = 0;
    for (int call = 0; call < calls; ++call) {
      ++turn;
      const std::string bytes = bytesOf(turn);
      sum += seconds([&] {
        bare.run("BEGIN IMMEDIATE");
        for (int i = 0; i < changed; ++i) {
          bare.write(chosen(i, spread, turn), static_cast<Version>(turn), bytes);
        }
        bare.run("COMMIT");
      });
    }
    return sum;
  };
  compareTimed(state, ours, other, {.units = changed, .bound = 2.0});
}
void BM_CommitSpread(benchmark::State& state) {
  commits(state, changed);
}
BENCHMARK(BM_CommitSpread)->Iterations(51)->UseManualTime();
void BM_CommitNeighbours(benchmark::State& state) {
  commits(state, objects);
}
BENCHMARK(BM_CommitNeighbours)->Iterations(51)->UseManualTime();

// Objects that a store which has just been opened reads.
void BM_ColdReads(benchmark::State& state) {
  Folder folder;
  const std::string path = filled(folder, "ours.povzel", objects);
  const std::string barePath = bareFilled(folder);
  std::vector<ObjectId> ids(coldReads);
  for (int i = 0; i < coldReads; ++i) ids[static_cast<std::size_t>(i)] = chosen(i, coldReads, 0);
  std::size_t size = 0;
  const auto ours = [&](int calls) {
    double sum = 0;
    for (int call = 0; call < calls; ++call) {
      const auto store = openFileStore({.path = path});
      const Version at = store->lease();
      sum +=
          seconds([&] { store->read(at, ids, [&](const Row& row) { size += row.bytes.size(); }); });
    }
    return sum;
  };
  const auto other = [&](int calls) {
    double sum = 0;
    for (int call = 0; call < calls; ++call) {
      Bare bare(barePath);
      sum += seconds([&] {
        bare.run("BEGIN");
        for (const ObjectId id : ids) size += bare.read(id) % 3;
        bare.run("COMMIT");
      });
    }
    return sum;
  };
  compareTimed(state, ours, other, {.units = coldReads, .bound = 2.0});
  benchmark::DoNotOptimize(size);
}
BENCHMARK(BM_ColdReads)->Iterations(51)->UseManualTime();

// Opening and the first read of a large file and of a small one.
void BM_Opening(benchmark::State& state) {
  Folder folder;
  const std::string large = filled(folder, "large.povzel", 1'000'000);
  const std::string small = filled(folder, "small.povzel", 1000);
  const auto open = [](const std::string& path) {
    const auto store = openFileStore({.path = path});
    const std::array<ObjectId, 1> id{firstFreeId};
    store->read(store->lease(), id, [](const Row&) {});
  };
  comparePaired(
      state, [&] { open(large); }, [&] { open(small); }, {.bound = 1.5});
}
BENCHMARK(BM_Opening)->Iterations(101)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
