// The store in a file: what it keeps and says, alone, beside others, and after whatever happens to
// the process or the file.
#include "store/filestore.h"

#include <sqlite3.h>
#include <sys/mman.h>

#include "models.h"
#include "tests.h"

namespace zel {
namespace {

int openingOf(const std::string& path) {
  return numberOf([&] { openFileStore({.path = path}); });
}
// Writes some commits, in a process that is killed behind them or not.
Models filled(const std::string& path, int commits, bool isKilled = false) {
  Models models(1);
  std::vector<std::vector<Write>> all;
  for (int i = 0; i < commits; ++i) {
    std::vector<Write>& writes = all.emplace_back();
    for (ObjectId id = firstFreeId; id < firstFreeId + objects; id += i == 0 ? 1 : 1 + i % 4) {
      writes.push_back(writing({id}, std::string(i * 37 % 5000, 'a' + i % 26)));
    }
    for (std::uint32_t part = 1; part < parts; part += 1 + i % 3) {
      writes.push_back(writing({dictionary, part}, std::to_string(i)));
    }
    models.push_back(changed(models.back(), writes));
  }
  const auto work = [&] {
    auto store = openFileStore({.path = path, .create = true});
    store->newIds(objects);
    for (const auto& writes : all) commit(*store, writes);
    if (isKilled) kill(getpid(), SIGKILL);
  };
  isKilled ? static_cast<void>(runInChild(work)) : work();
  return models;
}
void noReferences(const Row&, std::vector<ObjectId>&) {}
std::vector<std::string> complaints(const std::string& path) {
  return verifyFile({.path = path}, noReferences, nullptr);
}

template <typename Shared>
Shared* shared() {
  return static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

class FileStoreTest : public testing::Test {
 protected:
  static void place(const std::string& name, const std::string& main, const std::string& behind) {
    fs::remove(name + "-shm");
    writeFile(name, main);
    writeFile(name + "-wal", behind);
  }
  // Where waiting for a disk costs nothing.
  const bool isInMemory = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 1) == 0;
  ScratchDirectory scratch;
  std::string path = scratch / "some.povzel";
  std::string frames = path + "-wal";
  std::string copy = scratch / "copy.povzel";
};

// Two stores on one file take turns in random transactions; every answer is that of the model.
TEST_F(FileStoreTest, AnswersAsTheModel) {
  playRandomly([&] { return openFileStore({.path = path}); }, filled(path, 3), 4000);
  EXPECT_THAT(complaints(path), testing::IsEmpty());
  EXPECT_FALSE(fs::exists(frames));
  auto store = openFileStore({.path = path});
  for (ObjectId id = firstFreeId; id < firstFreeId + objects; ++id) put(*store, id, "last");
  EXPECT_EQ(store->statistics().rows, newest(*store).size()) << "old rows that nobody needs";
}

// What is no database is named; nothing of it is touched.
TEST_F(FileStoreTest, RefusesOtherFiles) {
  ASSERT_EQ(mkfifo((scratch / "fifo").c_str(), 0600), 0);
  scratch.write("text", "some text");
  scratch.write("empty", "");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((scratch / "other").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(a)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  filled(scratch / "newer", 1);
  std::string bytes = readFile(scratch / "newer");
  bytes[63] = 2;
  scratch.write("newer", bytes);
  constexpr std::tuple<const char*, int, const char*> cases[] = {
      {"none", ErrLoginDenied, "--create"},
      {"empty", ErrLoginDenied, "--create"},
      {".", ErrLoginDenied, "folder"},
      {"fifo", ErrLoginDenied, "pipe"},
      {"/dev/null", ErrLoginDenied, "device"},
      {"text", ErrLoginDenied, "another kind"},
      {"other", ErrLoginDenied, "another program"},
      {"newer", ErrNewerStore, "format 2"}};
  for (const auto& [name, number, text] : cases) {
    EXPECT_EQ(openingOf(name[0] == '/' ? name : scratch / name), number) << name;
    EXPECT_THAT(message, HasSubstr(text));
  }
  EXPECT_EQ(readFile(scratch / "newer"), bytes);
}

// Of all who create it one wins, whether or not an empty file is there; files are for their owner.
TEST_F(FileStoreTest, IsCreatedOnce) {
  umask(0);
  for (const bool isEmpty : {false, true}) {
    if (isEmpty) writeFile(path, "");
    int winners = 0;
    const std::function<void(int)> create = [&](int others) {
      auto store = openFileStore({.path = path, .create = true});
      const Version base = store->lease();
      const ObjectId id = store->newIds(3);
      if (others > 0) create(others - 1);
      const std::string text = std::to_string(others);
      const int number = numberOf([&] { store->commit({base, {}, {writing({id}, text)}}); });
      ASSERT_TRUE(number == 0 || number == ErrInUseElsewhere) << message;
      if (number != 0) return;
      ++winners;
      EXPECT_TRUE(scanned(*store, base).empty());
      EXPECT_EQ(store->changedSince(base, 1), std::vector{Place{firstFreeId}});
      EXPECT_EQ(newest(*store), (Model{{{firstFreeId}, text}}));
      EXPECT_EQ(put(*store, store->newIds(1), "b"), 2U);
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

// Commits so large that every second is moved into the main file; `done` is the last one.
constexpr ObjectId many = 520;
void work(const std::string& path, const FailCall& hook, std::atomic<unsigned>& done) {
  auto store = openFileStore({.path = path, .create = true, .beforeCall = hook});
  for (unsigned i = 1; i < 6; ++i) {
    std::vector<Write> writes{writing({dictionary, i}, std::to_string(i))};
    for (ObjectId id = firstFreeId; id < firstFreeId + many; ++id) {
      writes.push_back(writing({id}, std::to_string(i) + std::string(3000, ' ')));
    }
    commit(*store, std::move(writes));
    done = i;
  }
}
unsigned workedUpTo(const Model& model) {
  if (model.empty()) return 0;
  const auto last = static_cast<unsigned>(std::stoul(model.at({firstFreeId})));
  EXPECT_EQ(model.size(), last + many);
  for (const auto& [place, text] : model) {
    EXPECT_EQ(std::stoul(text), place.id == dictionary ? place.part : last);
  }
  return last;
}

// A process that is killed before any of its system calls leaves its last commit or, unless that
// was acknowledged, the one before. What then happens to the write-ahead file goes back to an
// earlier commit, or is noticed.
TEST_F(FileStoreTest, SurvivesTheEndAtEachCall) {
  auto& done = *shared<std::atomic<unsigned>>();
  int calls = 0;
  work(
      path, [&](const char*) { return ++calls, 0; }, done);
  const int step = calls / static_cast<int>(setting("POVZEL_STORE_ROUNDS", 30)) + 1;
  int noticed = 0;
  for (int last = 1, round = 1; last < calls; ++round) {
    fs::remove(path);
    done = 0;
    runInChild([&] {
      int left = last;
      const auto hook = [&](const char*) { return --left > 0 ? 0 : kill(getpid(), SIGKILL); };
      work(path, hook, done);
    });
    const std::string behind = readFile(frames);
    if (!behind.empty()) {
      place(copy, readFile(path), behind.substr(0, behind.size() * (round % 4) / 4));
      if (round % 8 == 7) fs::remove(copy + "-wal");
      const int number = numberOf(
          [&] { EXPECT_LE(workedUpTo(newest(*openFileStore({.path = copy}))), done + 1); });
      EXPECT_TRUE(number == 0 || number == ErrDamaged) << message;
      noticed += number != 0 ? 1 : 0;
    }
    const auto goOn = [&] {
      auto store = openFileStore({.path = path, .create = true});
      const unsigned found = workedUpTo(newest(*store));
      EXPECT_TRUE(found == done || found == done + 1) << last;
      put(*store, firstFreeId, "goes on");
    };
    ASSERT_EQ(numberOf(goOn), 0) << message << last;
    for (const auto& file : fs::directory_iterator(scratch.path())) {
      EXPECT_THAT(file.path(), Not(HasSubstr("new-"))) << last;
    }
    EXPECT_THAT(complaints(path), testing::IsEmpty()) << last;
    last += last < 60 || last > calls - 60 ? 6 : step;
  }
  EXPECT_GT(noticed, 0);
}

// A system call or an allocation that fails makes a call fail, or nothing; all is as before, and
// works afterwards.
void failEachCall(const std::string& path, const std::string& copy, int error, int& left,
                  const FailCall& hook, std::set<int>& numbers) {
  const Model before = filled(path, 2).back();
  bool isFailing = true;
  for (int last = 1; isFailing; ++last) {
    fs::remove(copy);
    fs::copy_file(path, copy);
    std::unique_ptr<Store> store;
    Model expected = before;
    const auto undisturbed = [&](const std::function<void()>& action) {
      const int kept = std::exchange(left, INT_MAX);
      ASSERT_EQ(numberOf(action), 0) << message << last;
      left = kept;
    };
    const auto open = [&] { store = openFileStore({.path = copy, .beforeCall = hook}); };
    const auto change = [&] {
      const std::vector<Write> writes{writing({firstFreeId}, std::to_string(last)),
                                      writing({dictionary, 5}, std::string(9000, 'z'))};
      const Model next = changed(expected, writes);
      commit(*store, writes);
      expected = next;
    };
    left = last;
    numbers.insert(numberOf(open));
    if (store == nullptr) undisturbed(open);
    for (int i = 0; i < 3; ++i) {
      numbers.insert(numberOf(change));
      undisturbed([&] { EXPECT_EQ(newest(*store), expected) << last << " of " << error; });
    }
    numbers.insert(numberOf([&] { store->newIds(5000); }));
    store.reset();
    isFailing = left <= 0;
    left = INT_MAX;
    undisturbed(open);
    undisturbed(change);
    EXPECT_EQ(newest(*store), expected);
  }
}
TEST_F(FileStoreTest, SurvivesAFailureOfEachCall) {
  int left = INT_MAX;
  for (const int error : {ENOSPC, EIO, EINTR}) {
    std::set<int> numbers;
    failEachCall(
        path, copy, error, left, [&](const char*) { return --left == 0 ? error : 0; }, numbers);
    EXPECT_EQ(numbers.contains(ErrStoreFull), error == ENOSPC);
    EXPECT_EQ(numbers.contains(ErrDamaged), error != EINTR);
    EXPECT_TRUE(error != EINTR || numbers == std::set{0});
  }
}
#ifndef POVZEL_SANITIZE
TEST_F(FileStoreTest, SurvivesAFailureOfEachAllocation) {
  const ChildResult child = inChild([&] {
    static int left = INT_MAX;
    static sqlite3_mem_methods usual;
    sqlite3_shutdown();
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &usual);
    sqlite3_mem_methods failing = usual;
    failing.xMalloc = [](int size) { return --left == 0 ? nullptr : usual.xMalloc(size); };
    failing.xRealloc = [](void* old, int size) {
      return --left == 0 ? nullptr : usual.xRealloc(old, size);
    };
    sqlite3_config(SQLITE_CONFIG_MALLOC, &failing);
    std::set<int> numbers;
    failEachCall(path, copy, ENOMEM, left, nullptr, numbers);
    return HasFailure() || numbers != std::set{0, int{ErrNoMemory}} ? 1 : 3;
  });
  EXPECT_TRUE(child.exitedWith(3)) << child.out << child.err;
}
#endif

// Several processes run random transactions and are killed at any moment: what each was told is
// there, and whole. The transactions have the order of their versions: each has read what the ones
// before it wrote.
TEST_F(FileStoreTest, SurvivesKilledWriters) {
  constexpr unsigned counters = 3;
  struct Done {
    std::uint32_t from, seen, to, wrote;
  };
  auto& all = *shared<std::array<Done, 400'000>>();  // by versions
  auto& ids = *shared<std::array<std::atomic<ObjectId>, 4>>();
  std::mt19937 random(stormSeed());
  filled(path, 1);
  {
    auto store = openFileStore({.path = path});
    for (std::uint32_t i = 0; i < counters; ++i) {
      commit(*store, {writing({firstFreeId + i}, "0"), writing({dictionary, i + 1}, "0")});
    }
  }
  const auto write = [&](std::size_t self) {
    auto store = openFileStore({.path = path});
    for (unsigned turn = 1;; ++turn) {
      Done now{static_cast<unsigned>(random() % counters), 0,
               static_cast<unsigned>(random() % counters), static_cast<unsigned>(random())};
      const std::string text = std::to_string(now.wrote);
      Changes changes{store->lease(), {{firstFreeId + now.from}}, {}};
      store->read(changes.base, std::array{firstFreeId + now.from}, [&](const Row& row) {
        now.seen = static_cast<std::uint32_t>(std::stoul(row.bytes));
      });
      changes.writes = {writing({firstFreeId + now.to}, text),
                        writing({dictionary, now.to + 1}, text)};
      const ObjectId id = turn % 50 == 0 ? store->newIds(1) : 0;
      if (id != 0) changes.writes.push_back(writing({id}, "new"));
      const Version version = store->commit(changes).version;
      store->giveUp(changes.base);
      if (version != 0) all.at(version) = now;
      if (version != 0 && id != 0) ids[self] = id;
    }
  };
  Version last = 0;
  for (long round = setting("POVZEL_STORE_ROUNDS", 100); round > 0; --round) {
    std::vector<pid_t> children;
    for (std::size_t self = 0; self < ids.size(); ++self) {
      random.discard(1);
      children.push_back(fork());
      if (children.back() != 0) continue;
      if (numberOf([&] { write(self); }) != 0) std::fprintf(stderr, "%s\n", message.c_str());
      _exit(1);
    }
    usleep(random() % 30000);
    for (const pid_t child : children) {
      kill(child, SIGKILL);
      int status = 0;
      waitpid(child, &status, 0);
      ASSERT_TRUE(WIFSIGNALED(status));
    }
    const auto look = [&] {
      auto store = openFileStore({.path = path});
      Model model = newest(*store);
      last = store->lease();
      for (std::uint32_t i = 0; i < counters; ++i) {
        EXPECT_EQ(model.at({firstFreeId + i}), model.at(Place{dictionary, i + 1}));
      }
      for (const ObjectId id : ids) EXPECT_TRUE(id == 0 || model.contains({id}));
    };
    ASSERT_EQ(numberOf(look), 0) << message;
    EXPECT_EQ(all.at(last + 1).wrote, 0U) << "a commit is lost";
  }
  std::map<std::uint32_t, std::uint32_t> model;
  for (Version version = 1; version <= last; ++version) {
    const Done& now = all.at(version);
    if (now.wrote == 0) model.clear();  // killed before it could tell
    if (now.wrote == 0) continue;
    ASSERT_EQ(model.try_emplace(now.from, now.seen).first->second, now.seen) << version;
    model[now.to] = now.wrote;
  }
  EXPECT_THAT(complaints(path), testing::IsEmpty());
}

// After a clean end a file that was cut or has a byte turned gives the last commit or an error;
// with damage in the write-ahead file it may be an earlier one.
TEST_F(FileStoreTest, NoticesDamage) {
  std::mt19937 random(stormSeed());
  int errors = 0;
  for (const bool isBehind : {false, true}) {
    fs::remove(path);
    const Models models = filled(path, 30, isBehind);
    std::array<std::string, 2> files{readFile(path), readFile(frames)};
    std::string& bytes = files[isBehind];
    for (std::size_t i = 0; i < 700; ++i) {
      const std::string kept = bytes;
      const std::size_t at = i < 110 ? i : random() % bytes.size();
      bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
      if (i % 4 == 3) bytes.resize(at);
      place(copy, files[0], files[1]);
      if (!isBehind) fs::remove(copy + "-wal");
      const int number = numberOf([&] {
        auto store = openFileStore({.path = copy});
        const Version version = store->lease();
        EXPECT_EQ(newest(*store), models.at(version));
        EXPECT_TRUE(isBehind || version == models.size() - 1);
      });
      errors += number != 0 ? 1 : 0;
      EXPECT_TRUE(number == 0 || number == ErrDamaged || number == ErrLoginDenied ||
                  number == ErrNewerStore);
      bytes = kept;
    }
    EXPECT_GT(errors, 300);
  }
  const std::string main = readFile(path);
  const std::string behind = readFile(frames);
  fs::remove(frames);
  fs::remove(path + "-shm");
  EXPECT_EQ(openingOf(path), ErrDamaged);
  EXPECT_THAT(message, HasSubstr(frames));
  EXPECT_EQ(readFile(path), main);
  // What another file has left behind is none of a backup's.
  const Models models = filled(copy, 2);
  place(path, readFile(copy), behind);
  EXPECT_EQ(newest(*openFileStore({.path = path})), models.back());
  // What came behind all that the main file knows of is missed as well.
  fs::remove(path);
  runInChild([&] {
    auto store = openFileStore({.path = path, .create = true});
    for (const int size : {0, 5'000'000, 1}) put(*store, firstFreeId, std::string(size, 'x'));
    kill(getpid(), SIGKILL);
  });
  fs::remove(frames);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(openingOf(path), ErrDamaged);
}

// Whoever has met damage reads what is whole, and writes nothing. A check looks at old rows, too.
TEST_F(FileStoreTest, WritesNothingOnceItMetDamage) {
  filled(path, 1);
  auto store = openFileStore({.path = path});
  auto other = openFileStore({.path = path});
  const Version old = other->lease();
  const Version now = put(*store, firstFreeId + 1, "new");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "UPDATE old SET bytes = x'41'", nullptr, nullptr, nullptr);
  EXPECT_THAT(complaints(path), ElementsAre(HasSubstr("an old version of object 65537")));
  sqlite3_exec(db, "UPDATE object SET bytes = x'41' WHERE id = 65536", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  EXPECT_EQ(put(*store, firstFreeId + 2, "not met"), now + 1);
  EXPECT_EQ(numberOf([&] { newest(*store); }), ErrDamaged);
  EXPECT_EQ(numberOf([&] { store->newIds(1); }), ErrDamaged);
  EXPECT_EQ(numberOf([&] { put(*store, firstFreeId + 2, "x"); }), ErrDamaged);
  EXPECT_THAT(message, HasSubstr("object 65536 "));
  Model whole;
  store->read(store->lease(), std::array{firstFreeId + 2}, into(whole));
  EXPECT_EQ(whole, (Model{{{firstFreeId + 2}, "not met"}}));
  EXPECT_EQ(put(*other, firstFreeId + 2, "others do not know"), now + 2);
  other->giveUp(old);
}

// Opening, reading and closing wait for no writer, however much it commits.
TEST_F(FileStoreTest, OpensBesideAWriter) {
  const Model before = filled(path, 2).back();
  std::vector<Write> writes;
  for (ObjectId id = firstFreeId; id < firstFreeId + many; ++id) {
    writes.push_back(writing({id}, std::string(12'000, 'w')));
  }
  const Model after = changed(before, writes);
  std::vector<Model> found;
  const auto look = [&] { found.push_back(newest(*openFileStore({.path = path, .patience = 0}))); };
  int calls = 0;
  const FailCall beside = [&](const char* call) {
    const bool isTime = call == std::string("pwrite") && ++calls % 150 == 0;
    EXPECT_EQ(isTime ? numberOf(look) : 0, 0) << message;
    return 0;
  };
  commit(*openFileStore({.path = path, .beforeCall = beside}), writes);
  ASSERT_GT(found.size(), 9U);
  EXPECT_EQ(found.front(), before);
  EXPECT_EQ(found.back(), after);
  for (const Model& model : found) EXPECT_TRUE(model == before || model == after);
}

// Who opens a file just before another comes in its place takes nothing from that.
TEST_F(FileStoreTest, LeavesWhatIsBesideTheNextFileAlone) {
  filled(path, 1);
  openFileStore({.path = path})->backUp(copy, nullptr);
  const FailCall replace = [&](const char* call) {
    if (call != std::string("fcntl") || !fs::exists(copy)) return 0;
    fs::rename(copy, path);
    runInChild([&] {
      auto store = openFileStore({.path = path});
      put(*store, firstFreeId, "acknowledged");
      _exit(0);
    });
    return 0;
  };
  Model found;
  const auto look = [&] { found = newest(*openFileStore({.path = path, .beforeCall = replace})); };
  EXPECT_EQ(numberOf(look), 0) << message;
  EXPECT_EQ(found[{firstFreeId}], "acknowledged");
}

// What is in its place, but might not last, is said to be so.
TEST_F(FileStoreTest, TellsWhenItsNameMightNotLast) {
  int error = EIO;
  const FailCall hook = [&](const char* call) { return call == std::string("fsync") ? error : 0; };
  auto store = openFileStore({.path = path, .create = true, .beforeCall = hook});
  const ObjectId id = store->newIds(1);
  EXPECT_EQ(numberOf([&] { put(*store, id, "a"); }), ErrOutcomeUnknown);
  EXPECT_EQ(newest(*store), (Model{{{id}, "a"}}));
  error = 0;
  EXPECT_EQ(put(*store, id, "b"), 2U);
}

// The locks stay when the process opens and closes the files by other ways; a child of the process
// has no part in them, nor in the store. What is taken away while in use is noticed.
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
    mine = openFileStore({.path = path});
    mine->lease();
    put(*mine, firstFreeId, "4");
    _exit(isRefused && mine->lease() == 5 ? 3 : 1);
    return 0;
  });
  EXPECT_TRUE(other.exitedWith(3)) << other.out << other.err;
  EXPECT_EQ(scanned(*store, old), before);
  EXPECT_EQ(store->changedSince(old, store->lease()), std::vector{Place{firstFreeId}});
  EXPECT_EQ(numberOf([&] { compactFile({.path = path}, noReferences, nullptr); }),
            ErrInUseElsewhere);
  store->giveUp(old);
  store->giveUp(5);
  put(*store, firstFreeId, "5");
  put(*store, firstFreeId, "6");
  // The other's leases have ended with it.
  EXPECT_EQ(store->statistics().rows, newest(*store).size());
  for (const std::string& name : {frames, path}) {
    fs::rename(name, copy);
    EXPECT_EQ(numberOf([&] { put(*store, firstFreeId, "after"); }), ErrDamaged);
    EXPECT_THAT(message, HasSubstr(name));
    fs::rename(copy, name);
    put(*store, firstFreeId, "again");
  }
  store.reset();
  EXPECT_FALSE(fs::exists(frames));
}

// Who may only read does so, also beside a writer.
TEST_F(FileStoreTest, ReadsWhatItMayNotWrite) {
  Model model = filled(path, 3).back();
  fs::permissions(path, fs::perms(0444));
  std::unique_ptr<Store> writer;
  for (const bool isWritten : {false, true}) {
    if (isWritten && geteuid() != 0) break;
    fs::permissions(scratch.path(), fs::perms(0755));
    if (isWritten) writer = openFileStore({.path = path});
    if (isWritten) put(*writer, firstFreeId, model[{firstFreeId}] = "written");
    fs::permissions(scratch.path(), fs::perms(0555));
    const ChildResult child = inChild([&] {
      if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 1;
      auto store = openFileStore({.path = path});
      if (newest(*store) != model) return 2;
      if (numberOf([&] { put(*store, firstFreeId, "x"); }) != ErrReadOnly) return 4;
      if (numberOf([&] { store->newIds(1); }) != ErrReadOnly) return 5;
      auto none = openFileStore({.path = scratch / "new.povzel", .create = true});
      return numberOf([&] { put(*none, firstFreeId, "x"); }) == ErrReadOnly ? 3 : 6;
    });
    EXPECT_TRUE(child.exitedWith(3)) << isWritten << child.status << child.err;
  }
  fs::permissions(scratch.path(), fs::perms(0700));
}

// Waiting for others ends with an error, or when the caller wants it to.
TEST_F(FileStoreTest, WaitsForOthersForATime) {
  filled(path, 1);
  int polls = 0;
  const auto poll = [&] {
    if (++polls == 3) throw Failure(ErrSoftBreak, "enough");
  };
  auto store = openFileStore({.path = path, .poll = poll, .patience = 50});
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  EXPECT_EQ(numberOf([&] { put(*store, firstFreeId, "x"); }), ErrSoftBreak);
  EXPECT_EQ(numberOf([&] { put(*store, firstFreeId, "x"); }), ErrStoreBusy);
  sqlite3_close(other);
  EXPECT_EQ(put(*store, firstFreeId, "x"), 2U);
}

// A backup is a whole store; compacting drops what nothing leads to; broken references are found.
TEST_F(FileStoreTest, CopiesCompactsAndVerifies) {
  const References references = [](const Row& row, std::vector<ObjectId>& ids) {
    ids.push_back(std::stoull(row.bytes));
  };
  const Progress never = [](std::uint64_t, std::uint64_t) { return false; };
  constexpr ObjectId a = firstFreeId;
  const std::string toA = std::to_string(a);
  auto store = openFileStore({.path = path, .create = true});
  store->newIds(10);
  commit(*store, {writing({dictionary, 5}, toA), writing({a}, std::to_string(a + 1)),
                  writing({a + 1}, toA), writing({a + 2}, toA), writing({a + 2, 9}, toA)});
  const Model all = newest(*store);
  EXPECT_EQ(numberOf([&] { store->backUp(copy, never); }), ErrHardBreak);
  EXPECT_FALSE(fs::exists(copy));
  store->backUp(copy, nullptr);
  const std::string bytes = readFile(copy);
  EXPECT_EQ(numberOf([&] { store->backUp(copy, nullptr); }), ErrNotPermitted);
  EXPECT_EQ(readFile(copy), bytes);
  EXPECT_EQ(newest(*openFileStore({.path = copy})), all);
  EXPECT_EQ(numberOf([&] { verifyFile({.path = copy}, references, never); }), ErrHardBreak);
  EXPECT_EQ(numberOf([&] { compactFile({.path = copy}, references, never); }), ErrHardBreak);
  EXPECT_EQ(compactFile({.path = copy}, references, nullptr).dropped, 1U);
  auto compact = openFileStore({.path = copy});
  EXPECT_EQ(newest(*compact), changed(all, {{{a + 2}, 0, "", true}, {{a + 2, 9}, 0, "", true}}));
  EXPECT_GE(compact->newIds(1), a + 10);
  EXPECT_THAT(verifyFile({.path = copy}, references, nullptr), testing::IsEmpty());
  EXPECT_EQ(put(*compact, a + 1, "99999999"), 2U);
  EXPECT_THAT(verifyFile({.path = copy}, references, nullptr),
              ElementsAre(AllOf(HasSubstr("65537"), HasSubstr("99999999"))));
}

}  // namespace
}  // namespace zel
