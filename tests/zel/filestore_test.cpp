// The store in a file: what it keeps and says, alone, beside others, and after whatever happens to
// the process or the file.
#include "store/filestore.h"

#include <sqlite3.h>
#include <sys/mman.h>

#include "tests.h"

namespace zel {
namespace {

constexpr ObjectId dictionary = 200;  // one of the system's, without a row of its own
constexpr std::uint32_t parts = 20;
constexpr ObjectId objects = 12;

using Model = std::map<Place, std::string>;  // a state: what there is

std::string textOf(const Row& row) {
  return std::to_string(row.classId) + ":" + row.bytes;
}
TakeRow into(Model& model) {
  return [&model](const Row& row) { model[row.place] = textOf(row); };
}

Write writing(Place place, const std::string& bytes) {
  const bool own = place.part == Place::itself;
  return {place, own ? place.id % 7 : 0, bytes, false};
}
void wrote(Model& model, const Write& write) {
  if (write.gone) model.erase(write.place);
  if (!write.gone) model[write.place] = std::to_string(write.classId) + ":" + write.bytes;
}

Model scanned(Store& store, Version at) {
  Model model;
  store.scan(at, 0, UINT64_MAX, into(model));
  return model;
}
// The newest version, scanned, and read by the ids that were found.
Model newest(Store& store) {
  const Version at = store.lease();
  const Model model = scanned(store, at);
  std::vector<ObjectId> ids;
  for (const auto& [place, text] : model) {
    if (ids.empty() || ids.back() != place.id) ids.push_back(place.id);
  }
  Model again;
  store.read(at, ids, into(again));
  store.giveUp(at);
  EXPECT_EQ(model, again);
  return model;
}

// Commits on the newest version and gives the lease up.
Outcome commit(Store& store, std::vector<Write> writes, std::vector<Place> reads = {}) {
  const Version base = store.lease();
  const std::unique_ptr<Store, std::function<void(Store*)>> end(
      &store, [base](Store* leased) { leased->giveUp(base); });
  return store.commit({base, std::move(reads), std::move(writes)});
}
Outcome put(Store& store, ObjectId id, const std::string& bytes) {
  return commit(store, {writing({id}, bytes)});
}

// The number of the failure, which is then in `message`; 0 if there was none.
std::string message;
int numberOf(const std::function<void()>& action) {
  try {
    action();
    return 0;
  } catch (const Failure& failure) {
    message = failure.message;
    return failure.number;
  }
}
int openingOf(const std::string& path) {
  return numberOf([&] { openFileStore({.path = path}); });
}

// Some commits that leave a dictionary and objects; the state after each, by its version.
std::vector<Model> filled(const std::string& path, int commits, bool kill = false) {
  std::vector<Model> models(1);
  const auto work = [&](bool real) {
    auto store = real ? openFileStore({.path = path, .create = true}) : nullptr;
    if (real) store->newIds(objects);
    for (int i = 0; i < commits; ++i) {
      std::vector<Write> writes;
      for (ObjectId id = firstFreeId; id < firstFreeId + objects; ++id) {
        if (i == 0 || (id + i) % 4 == 0) {
          writes.push_back(writing({id}, std::string(i * 37 % 5000, 'a' + i % 26)));
        }
      }
      for (std::uint32_t part = 1; part < parts; part += 1 + i % 3) {
        writes.push_back(writing({dictionary, part}, std::to_string(i)));
      }
      if (real) commit(*store, writes);
      if (real) continue;
      models.push_back(models.back());
      for (const Write& write : writes) wrote(models.back(), write);
    }
    if (real && kill) _exit(0);
  };
  work(false);
  if (kill) {
    runInChild([&] { work(true); });
  } else {
    work(true);
  }
  return models;
}

References noReferences() {
  return [](const Row&, std::vector<ObjectId>&) {};
}

class FileStoreTest : public testing::Test {
 protected:
  // Where waiting for a disk costs nothing.
  const bool isInMemory = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 1) == 0;
  ScratchDirectory scratch;
  std::string path = scratch / "some.povzel";
  std::string frames = path + "-wal";
};

// Two stores on one file take turns in random transactions on whatever versions they lease; every
// answer is that of the model.
TEST_F(FileStoreTest, AnswersAsTheModel) {
  std::mt19937 random(stormSeed());
  const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
  std::vector<Model> models = filled(path, 3);
  std::vector<std::set<Place>> changes(models.size());  // of each version
  struct One {
    std::unique_ptr<Store> store;
    std::vector<Version> leases;
  };
  std::array<One, 2> both;
  const auto anyPlace = [&]() -> Place {
    if (below(3) == 0) return {dictionary, 1 + below(parts)};
    return {firstFreeId + below(objects), below(4) == 0 ? 1 + below(3) : 0};
  };
  const auto read = [&](Store& store, Version at) {
    Model expected = models[at];
    ASSERT_EQ(scanned(store, at), expected) << at;
    const ObjectId id = firstFreeId + below(objects);
    Model found;
    const int number = numberOf([&] { store.read(at, std::array{id}, into(found)); });
    ASSERT_EQ(number != 0, !expected.contains({id}));
    std::erase_if(expected, [id](const auto& row) { return row.first.id != id; });
    if (number != 0) return;
    ASSERT_EQ(found, expected);
  };
  const auto write = [&](Store& store, Version base) {
    Changes now{base, {}, {}};
    std::set<Place> written;
    for (unsigned i = below(3); i > 0; --i) {
      now.reads.push_back(anyPlace());
      if (below(3) == 0) now.reads.back().part = Place::any;
    }
    for (unsigned i = 1 + below(5); i > 0; --i) {
      const Place place = anyPlace();
      if (!written.insert(place).second) continue;
      now.writes.push_back(writing(place, std::string(below(9) == 0 ? 9000 : below(50), 'x')));
      now.writes.back().gone = below(6) == 0;
      if (now.writes.back().gone) now.writes.back() = {place, 0, "", true};
      // A row of an object that has none of its own would be damage.
      const Place own{place.id};
      if (place.id == dictionary || place == own || written.contains(own)) continue;
      written.insert(own);
      now.writes.push_back(writing(own, "o"));
    }
    std::set<ObjectId> conflicts;
    for (Version v = base + 1; v < models.size(); ++v) {
      for (const Place& place : changes[v]) {
        if (written.contains(place)) conflicts.insert(place.id);
        for (const Place& wanted : now.reads) {
          const bool any = wanted.part == Place::any && wanted.id == place.id;
          if (any || wanted == place) conflicts.insert(place.id);
        }
      }
    }
    const Outcome outcome = store.commit(now);
    ASSERT_EQ(std::set<ObjectId>(outcome.conflicts.begin(), outcome.conflicts.end()), conflicts);
    ASSERT_EQ(outcome.version, conflicts.empty() ? models.size() : 0);
    if (outcome.version == 0) return;
    models.push_back(models.back());
    for (const Write& each : now.writes) wrote(models.back(), each);
    changes.push_back(std::move(written));
  };
  const auto step = [&] {
    One& one = both[below(2)];
    if (one.store == nullptr) one.store = openFileStore({.path = path, .create = true});
    if (one.leases.empty() || below(4) == 0) {
      one.leases.push_back(one.store->lease());
      ASSERT_EQ(one.leases.back(), models.size() - 1);
    }
    const unsigned which = below(static_cast<unsigned>(one.leases.size()));
    const Version at = one.leases[which];
    if (below(2) == 0) write(*one.store, below(3) == 0 ? at : one.leases.back());
    if (below(3) == 0) read(*one.store, at);
    if (below(5) == 0) {
      std::set<Place> since;
      for (Version v = at + 1; v < models.size(); ++v) since.merge(std::set(changes[v]));
      const auto told = one.store->changedSince(at, models.size() - 1);
      ASSERT_EQ(told, std::vector(since.begin(), since.end()));
    }
    if (below(3) == 0) {
      one.store->giveUp(at);
      one.leases.erase(one.leases.begin() + which);
    }
    if (below(200) == 0) one = {};
  };
  for (int i = 0; i < 4000 && !HasFatalFailure(); ++i) ASSERT_EQ(numberOf(step), 0) << message;
  both[0] = {};
  both[1] = {};
  EXPECT_THAT(verifyFile({.path = path}, noReferences(), nullptr), testing::IsEmpty());
  EXPECT_FALSE(fs::exists(frames));
  auto store = openFileStore({.path = path});
  for (ObjectId id = firstFreeId; id < firstFreeId + objects; ++id) put(*store, id, "last");
  EXPECT_EQ(store->statistics().rows, newest(*store).size()) << "old rows that nobody needs";
}

// What is no database is named; nothing of it is touched.
TEST_F(FileStoreTest, RefusesOtherFiles) {
  EXPECT_EQ(openingOf(path), ErrLoginDenied);
  EXPECT_THAT(message, AllOf(HasSubstr(path), HasSubstr("--create")));
  writeFile(path, "");
  EXPECT_EQ(openingOf(path), ErrLoginDenied);
  EXPECT_EQ(openingOf(scratch.path()), ErrLoginDenied);
  EXPECT_THAT(message, HasSubstr("folder"));
  ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(openingOf(scratch / "fifo"), ErrLoginDenied);
  EXPECT_THAT(message, HasSubstr("pipe"));
  EXPECT_EQ(openingOf("/dev/null"), ErrLoginDenied);
  EXPECT_THAT(message, HasSubstr("device"));
  EXPECT_EQ(openingOf(scratch.write("text", "some text")), ErrLoginDenied);
  EXPECT_THAT(message, HasSubstr("another kind"));
  const std::string other = scratch / "other.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(a)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(openingOf(other), ErrLoginDenied);
  EXPECT_THAT(message, HasSubstr("another program"));
  writeFile(path, "");
  filled(path, 1);
  std::string bytes = readFile(path);
  bytes[63] = 2;
  writeFile(path, bytes);
  EXPECT_EQ(openingOf(path), ErrNewerStore);
  EXPECT_EQ(readFile(path), bytes);
}

// Of all who create it one wins, whether or not an empty file is there; files are for their owner.
TEST_F(FileStoreTest, IsCreatedOnce) {
  umask(0);
  for (const bool empty : {false, true}) {
    if (empty) writeFile(path, "");
    int winners = 0;
    const std::function<void(int)> create = [&](int others) {
      auto store = openFileStore({.path = path, .create = true});
      const Version base = store->lease();
      const ObjectId id = store->newIds(3);
      if (others > 0) create(others - 1);
      const std::string text = std::to_string(others);
      const int number = numberOf([&] { store->commit({base, {}, {writing({id}, text)}}); });
      EXPECT_TRUE(number == 0 || number == ErrInUseElsewhere) << message;
      if (number != 0) return;
      ++winners;
      Model before;
      store->scan(base, 0, UINT64_MAX, into(before));
      EXPECT_TRUE(before.empty());
      EXPECT_EQ(store->changedSince(base, 1), std::vector{Place{firstFreeId}});
      EXPECT_EQ(newest(*store), (Model{{{firstFreeId}, "2:" + text}}));
      EXPECT_EQ(put(*store, store->newIds(1), "b").version, 2U);
      for (const char* end : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(stat((path + end).c_str(), &status), 0) << end;
        EXPECT_EQ(status.st_mode & 0777, 0600U) << end;
      }
    };
    create(3);
    EXPECT_EQ(winners, 1);
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.path()), {}), 1);
    fs::remove(path);
  }
}

// Commits of all sizes, so large that they are moved into the main file between.
void work(const std::string& path, const FailCall& hook, volatile unsigned* done) {
  auto store = openFileStore({.path = path, .create = true, .beforeCall = hook});
  const std::string large(4U << 20, 'l');
  for (unsigned i = 1; i < 8; ++i) {
    commit(*store, {writing({firstFreeId}, std::to_string(i)), writing({dictionary, i}, "e"),
                    writing({firstFreeId + 1}, i % 4 == 2 ? large : std::to_string(i))});
    *done = i;
  }
}
unsigned workedUpTo(const Model& model) {
  if (model.empty()) return 0;
  const auto last = static_cast<unsigned>(std::stoul(model.at({firstFreeId}).substr(2)));
  const std::string& text = model.at({firstFreeId + 1});
  EXPECT_TRUE(last % 4 == 2 ? text.size() > 1000000 : text == "3:" + std::to_string(last)) << last;
  EXPECT_EQ(model.size(), last + 2U);
  return last;
}

// A process that is killed before any of its system calls leaves its last commit or, unless that
// was acknowledged, the one before. What then happens to the write-ahead file goes back to an
// earlier commit, or is noticed.
TEST_F(FileStoreTest, SurvivesTheEndAtEachCall) {
  auto* done = static_cast<volatile unsigned*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  int calls = 0;
  unsigned all = 0;
  work(
      path, [&](const char*) { return ++calls, 0; }, &all);
  const int step = std::max(1, calls / static_cast<int>(setting("POVZEL_STORE_ROUNDS", 40)));
  unsigned noticed = 0;
  for (int last = 1; last < calls; last += last < 60 || last > calls - 60 ? 5 : step) {
    fs::remove(path);
    fs::remove(frames);
    *done = 0;
    runInChild([&] {
      int left = last;
      const auto hook = [&](const char*) { return --left > 0 ? 0 : kill(getpid(), SIGKILL); };
      work(path, hook, done);
    });
    const std::string copy = scratch / "copy.povzel";
    const bool begun = fs::exists(path);
    if (begun) fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
    if (begun && fs::exists(frames)) {
      fs::copy_file(frames, copy + "-wal", fs::copy_options::overwrite_existing);
      const auto size = fs::file_size(frames);
      fs::resize_file(copy + "-wal", last % 5 == 0 ? 0 : last % 5 == 1 ? size / 2 : size * 9 / 10);
      if (last % 5 == 2) fs::remove(copy + "-wal");
      const int number = numberOf(
          [&] { EXPECT_LE(workedUpTo(newest(*openFileStore({.path = copy}))), *done + 1); });
      EXPECT_TRUE(number == 0 || number == ErrDamaged) << message;
      noticed += number != 0 ? 1 : 0;
    }
    for (const char* end : {"-wal", "-shm"}) fs::remove(copy + end);
    ASSERT_EQ(numberOf([&] {
                auto store = openFileStore({.path = path, .create = true});
                const unsigned found = workedUpTo(newest(*store));
                EXPECT_TRUE(found == *done || found == *done + 1) << last;
                put(*store, firstFreeId, "goes on");
              }),
              0)
        << message << last;
    EXPECT_THAT(verifyFile({.path = path}, noReferences(), nullptr), testing::IsEmpty()) << last;
  }
  EXPECT_GT(noticed, 0U);
}

// A system call that fails makes a call fail, or nothing; all is as before, and works afterwards.
TEST_F(FileStoreTest, SurvivesAFailureOfEachCall) {
  const std::vector<Model> models = filled(path, 2);
  for (const int error : {ENOSPC, EIO, EINTR}) {
    bool failed = true;
    for (int last = 1; failed; ++last) {
      failed = false;
      int left = INT_MAX;
      const auto hook = [&](const char*) {
        if (--left != 0) return 0;
        failed = true;
        return error;
      };
      const std::string copy = scratch / ("copy" + std::to_string(last) + ".povzel");
      fs::copy_file(path, copy);
      std::unique_ptr<Store> store;
      Model expected = models.back();
      const auto open = [&] { store = openFileStore({.path = copy, .beforeCall = hook}); };
      const auto change = [&] {
        const std::string text = std::to_string(last);
        Model next = expected;
        wrote(next, writing({firstFreeId}, text));
        put(*store, firstFreeId, text);
        expected = next;
      };
      const auto check = [&] {
        const int kept = std::exchange(left, INT_MAX);
        EXPECT_EQ(newest(*store), expected) << last;
        left = kept;
      };
      left = last;
      const int opening = numberOf(open);
      if (opening != 0) {
        left = INT_MAX;
        ASSERT_EQ(numberOf(open), 0) << message;
      }
      for (int i = 0; i < 3; ++i) {
        const int number = numberOf(change);
        EXPECT_TRUE(number == 0 || (error != EINTR && (number == ErrDamaged || error == ENOSPC)))
            << message;
        ASSERT_EQ(numberOf(check), 0) << message << last;
      }
      const int ids = numberOf([&] { store->newIds(100); });
      left = ids == 0 ? left : INT_MAX;
      store.reset();
      left = INT_MAX;
      ASSERT_EQ(numberOf(open), 0) << message << last;
      ASSERT_EQ(numberOf(change), 0) << message << last;
      ASSERT_EQ(numberOf(check), 0) << message << last;
      store.reset();
      fs::remove(copy);
    }
  }
}

// Several processes change one dictionary and an object of their own, and are killed at any moment:
// what each was told is there, and whole.
TEST_F(FileStoreTest, SurvivesKilledWriters) {
  constexpr unsigned writers = 3;
  struct Told {
    std::atomic<unsigned> count;
    std::atomic<ObjectId> newId;  // of the last object made
  };
  auto* told = static_cast<Told*>(mmap(nullptr, sizeof(Told) * writers, PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::mt19937 random(stormSeed());
  filled(path, 1);
  for (unsigned self = 0; self < writers; ++self) {
    auto store = openFileStore({.path = path});
    commit(*store, {writing({firstFreeId + self}, "0"), writing({dictionary, self + 1}, "0")});
  }
  const auto write = [&](unsigned self) {
    auto store = openFileStore({.path = path});
    for (unsigned i = told[self].count + 1;; ++i) {
      const ObjectId id = store->newIds(1);
      Changes changes{store->lease(), {{dictionary, self + 1}}, {}};
      for (const Place place :
           {Place{firstFreeId + self}, Place{dictionary, self + 1}, Place{id}}) {
        if (place.id == id && i % 50 != 0) continue;
        changes.writes.push_back(writing(place, std::to_string(i)));
      }
      EXPECT_THAT(store->commit(changes).conflicts, testing::IsEmpty());
      store->giveUp(changes.base);
      if (i % 50 == 0) told[self].newId = id;
      told[self].count = i;
    }
  };
  for (long round = setting("POVZEL_STORE_ROUNDS", 100); round > 0; --round) {
    std::vector<pid_t> children;
    for (unsigned self = 0; self < writers; ++self) {
      children.push_back(fork());
      if (children.back() != 0) continue;
      _exit(numberOf([&] { write(self); }) == 0
                ? 0
                : (std::fprintf(stderr, "%s\n", message.c_str()), 1));
    }
    usleep(random() % 40000);
    for (const pid_t child : children) {
      kill(child, SIGKILL);
      int status = 0;
      waitpid(child, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status));
    }
    Model model;
    ASSERT_EQ(numberOf([&] { model = newest(*openFileStore({.path = path})); }), 0) << message;
    for (unsigned self = 0; self < writers; ++self) {
      const std::string own = model.at({firstFreeId + self}).substr(2);
      const unsigned count = static_cast<unsigned>(std::stoul(own));
      EXPECT_EQ("0:" + own, model.at(Place{dictionary, self + 1}));
      EXPECT_TRUE(count == told[self].count || count == told[self].count + 1);
      EXPECT_TRUE(told[self].newId == 0 || model.contains({told[self].newId}));
      told[self].count = count;
    }
  }
  EXPECT_THAT(verifyFile({.path = path}, noReferences(), nullptr), testing::IsEmpty());
}

// After a clean end a file that was cut or has a byte turned gives the last commit or an error;
// with damage in the write-ahead file it may be an earlier one.
TEST_F(FileStoreTest, NoticesDamage) {
  const std::string damaged = scratch / "damaged.povzel";
  std::mt19937 random(stormSeed());
  int errors = 0;
  const auto look = [&](const std::vector<Model>& models, bool mayBeEarlier) {
    const int number = numberOf([&] {
      auto store = openFileStore({.path = damaged});
      const Version version = store->lease();
      const Model model = newest(*store);
      ASSERT_TRUE(version == models.size() - 1 || (mayBeEarlier && version < models.size()));
      EXPECT_EQ(model, models[version]);
    });
    EXPECT_TRUE(number == 0 || number == ErrDamaged || number == ErrLoginDenied ||
                number == ErrNewerStore)
        << message;
    if (number != 0) ++errors;
    for (const char* end : {"", "-wal", "-shm"}) fs::remove(damaged + end);
  };
  for (const bool atFrames : {false, true}) {
    fs::remove(path);
    const std::vector<Model> models = filled(path, 30, atFrames);
    const std::string main = readFile(path);
    const std::string behind = readFile(frames);
    const std::string& which = atFrames ? behind : main;
    for (int i = 0; i < 700; ++i) {
      std::string bytes = which;
      const std::size_t at = i < 110 ? static_cast<std::size_t>(i) : random() % bytes.size();
      if (i % 4 == 3) {
        bytes.resize(at);
      } else {
        bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
      }
      writeFile(damaged, atFrames ? main : bytes);
      if (atFrames) writeFile(damaged + "-wal", bytes);
      look(models, atFrames);
    }
    EXPECT_GT(errors, 300);
    if (!atFrames) continue;
    writeFile(damaged, main);
    EXPECT_EQ(openingOf(damaged), ErrDamaged);
    EXPECT_THAT(message, HasSubstr(damaged + "-wal"));
    EXPECT_EQ(readFile(damaged), main);
  }
}

// What others do with the file while it is in use.
TEST_F(FileStoreTest, NoticesARemovedFile) {
  filled(path, 1);
  for (const std::string& name : {frames, path}) {
    auto store = openFileStore({.path = path});
    put(*store, firstFreeId, "before");
    fs::rename(name, name + ".away");
    EXPECT_EQ(numberOf([&] { put(*store, firstFreeId, "after"); }), ErrDamaged);
    EXPECT_THAT(message, HasSubstr(name));
    fs::rename(name + ".away", name);
    put(*store, firstFreeId, "again");
  }
}

// The locks stay when the process opens and closes the file by other ways; a child of the process
// has no part in them, nor in the store.
TEST_F(FileStoreTest, SharesWithChildrenAndOthers) {
  filled(path, 1);
  auto store = openFileStore({.path = path});
  const Version old = store->lease();
  const Model before = scanned(*store, old);
  for (const char* end : {"", "-wal", "-shm"}) readFile(path + end);
  const ChildResult other = inChild([&] {
    const bool isRefused = numberOf([&] { store->lease(); }) == ErrInUseElsewhere &&
                           numberOf([&] { put(*store, firstFreeId, "x"); }) == ErrInUseElsewhere;
    store->giveUp(old);
    store.reset();
    auto mine = openFileStore({.path = path});
    for (const char* text : {"1", "2", "3"}) put(*mine, firstFreeId, text);
    mine->lease();
    put(*mine, firstFreeId, "4");
    mine.reset();
    mine = openFileStore({.path = path});
    mine->lease();
    _exit(isRefused && mine->lease() == 5 ? 3 : 1);
    return 0;
  });
  EXPECT_TRUE(other.exitedWith(3)) << other.out << other.err;
  ASSERT_TRUE(fs::exists(frames));
  EXPECT_EQ(scanned(*store, old), before);
  EXPECT_EQ(store->changedSince(old, store->lease()), std::vector{Place{firstFreeId}});
  EXPECT_EQ(numberOf([&] { compactFile({.path = path}, noReferences(), nullptr); }),
            ErrInUseElsewhere);
  // The other's leases have ended with it.
  store->giveUp(old);
  store->giveUp(5);
  put(*store, firstFreeId, "5");
  put(*store, firstFreeId, "6");
  EXPECT_EQ(store->statistics().rows, newest(*store).size());
  store.reset();
  EXPECT_FALSE(fs::exists(frames));
}

// Who may only read does so, beside whoever writes too, and leaves no trace.
TEST_F(FileStoreTest, ReadsWhatItMayNotWrite) {
  const Model model = filled(path, 3).back();
  fs::permissions(scratch.path(), fs::perms(0555));
  fs::permissions(path, fs::perms(0444));
  const ChildResult child = inChild([&] {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 1;
    auto store = openFileStore({.path = path});
    if (newest(*store) != model) return 2;
    if (numberOf([&] { put(*store, firstFreeId, "x"); }) != ErrReadOnly) return 4;
    if (numberOf([&] { store->newIds(1); }) != ErrReadOnly) return 5;
    auto none = openFileStore({.path = scratch / "new.povzel", .create = true});
    return numberOf([&] { put(*none, firstFreeId, "x"); }) == ErrReadOnly ? 3 : 6;
  });
  fs::permissions(scratch.path(), fs::perms(0700));
  EXPECT_TRUE(child.exitedWith(3)) << child.status << child.err;
  EXPECT_FALSE(fs::exists(frames));
}

// No room is an error, and the store goes on when there is some.
TEST_F(FileStoreTest, SurvivesAFullDisk) {
  const Model before = filled(path, 1).back();
  const ChildResult child = inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    auto store = openFileStore({.path = path});
    const std::string large(300000, 'x');
    const rlimit small{200000, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &small);
    if (numberOf([&] { put(*store, firstFreeId, large); }) != ErrStoreFull) return 1;
    if (newest(*store) != before) return 2;
    const rlimit enough{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &enough);
    put(*store, firstFreeId, large);
    return newest(*store).at({firstFreeId}).size() > large.size() ? 3 : 4;
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.status << message;
}

// Waiting for others ends with an error, or when the caller wants it to.
TEST_F(FileStoreTest, WaitsForOthersForATime) {
  filled(path, 1);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  int polls = 0;
  const auto poll = [&] {
    if (++polls == 3) throw Failure(ErrSoftBreak, "enough");
  };
  auto store = openFileStore({.path = path, .poll = poll, .patience = 50});
  sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  EXPECT_EQ(numberOf([&] { put(*store, firstFreeId, "x"); }), ErrSoftBreak);
  EXPECT_EQ(numberOf([&] { put(*store, firstFreeId, "x"); }), ErrStoreBusy);
  sqlite3_close(other);
  EXPECT_EQ(put(*store, firstFreeId, "x").version, 2U);
}

// A backup is a whole store; compacting drops what nothing leads to; broken references are found.
TEST_F(FileStoreTest, CopiesCompactsAndVerifies) {
  const References references = [](const Row& row, std::vector<ObjectId>& ids) {
    if (!row.bytes.empty()) ids.push_back(std::stoull(row.bytes));
  };
  const auto refer = [](Place from, ObjectId to) {
    return Write{from, 0, std::to_string(to), false};
  };
  constexpr ObjectId a = firstFreeId;
  const Progress never = [](std::uint64_t, std::uint64_t) { return false; };
  auto store = openFileStore({.path = path, .create = true});
  store->newIds(10);
  commit(*store, {refer({dictionary, 5}, a), refer({a}, a + 1), refer({a + 1}, a),
                  refer({a + 2}, a), refer({a + 2, 9}, a + 3), refer({a + 3}, 7)});
  const Model all = newest(*store);
  const std::string copy = scratch / "copy.povzel";
  EXPECT_EQ(numberOf([&] { store->backUp(copy, never); }), ErrHardBreak);
  EXPECT_FALSE(fs::exists(copy));
  store->backUp(copy, nullptr);
  const std::string bytes = readFile(copy);
  EXPECT_EQ(numberOf([&] { store->backUp(copy, nullptr); }), ErrNotPermitted);
  EXPECT_EQ(readFile(copy), bytes);
  EXPECT_EQ(newest(*openFileStore({.path = copy})), all);
  EXPECT_EQ(numberOf([&] { verifyFile({.path = copy}, references, never); }), ErrHardBreak);

  EXPECT_EQ(numberOf([&] { compactFile({.path = copy}, references, never); }), ErrHardBreak);
  EXPECT_EQ(compactFile({.path = copy}, references, nullptr).dropped, 2U);
  EXPECT_THAT(verifyFile({.path = copy}, references, nullptr), testing::IsEmpty());
  auto compact = openFileStore({.path = copy});
  Model reached = all;
  std::erase_if(reached, [](const auto& row) { return row.first.id >= a + 2; });
  EXPECT_EQ(newest(*compact), reached);
  EXPECT_GE(compact->newIds(1), a + 10);
  EXPECT_EQ(put(*compact, a + 1, "99999999").version, 2U);
  EXPECT_THAT(verifyFile({.path = copy}, references, nullptr),
              ElementsAre(AllOf(HasSubstr("65537"), HasSubstr("99999999"))));
  EXPECT_EQ(
      numberOf([&] { compact->read(compact->lease(), std::array{a + 2}, [](const Row&) {}); }),
      ErrDamaged);
}

}  // namespace
}  // namespace zel
