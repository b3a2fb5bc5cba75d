#include "store/filetools.h"

#include <cstring>

#include "store/idset.h"
#include "store/newfile.h"

namespace zel {

namespace {

constexpr std::size_t idsAtOnce = 1024;
constexpr std::size_t mostComplaints = 100;
constexpr int stepsAtOnce = 100'000;  // of SQLite's, some milliseconds

[[noreturn]] void giveUp() {
  throw Failure(ErrHardBreak, "given up", {}, FailureKind::stop);
}

// How far a walk over everything is.
class Walk {
 public:
  Walk(const Progress& progress, std::uint64_t all) : progress_(progress), all_(all) { tell(); }
  void step(std::uint64_t count = 1) {
    done_ += count;
    if (done_ / idsAtOnce == told_) return;
    told_ = done_ / idsAtOnce;
    tell();
  }
  void tell() {
    if (progress_ && !progress_(std::min(done_, all_), all_)) giveUp();
  }

 private:
  const Progress& progress_;
  std::uint64_t all_;
  std::uint64_t done_ = 0;
  std::uint64_t told_ = 0;
};

void forAllObjects(Tables& tables, const std::function<void(ObjectId)>& take) {
  for (ObjectId first = 0;;) {
    const std::vector<ObjectId> ids = tables.objectsFrom(first, INT64_MAX, idsAtOnce, false);
    for (const ObjectId id : ids) take(id);
    if (ids.size() < idsAtOnce) return;
    first = ids.back() + 1;
  }
}

// The rows of an object as they are now, all of them or an error.
void forAllRows(Tables& tables, ObjectId id, const std::function<void(const Stored& row)>& take) {
  Stored object;
  if (!tables.getObject(id, object)) {
    tables.damaged("object " + std::to_string(id) + " is missing");
  }
  take(object);
  if (object.parts == 0) return;
  std::uint64_t parts = 0;
  std::uint64_t sum = 0;
  tables.getEntries(id, [&](const Stored& entry) {
    parts += 1;
    sum += entry.sum;
    take(entry);
  });
  if (parts != object.parts || sum != object.partSum) {
    tables.damaged("rows of object " + std::to_string(id) + " are missing");
  }
}

void copyObject(Tables& from, ObjectId id, NewFile& to, Walk& walk) {
  forAllRows(from, id, [&](const Stored& row) {
    to.tables().copy(row, to.state);
    walk.step();
  });
}

void openForTools(OpenFile& file) {
  if (!file.open()) throw Failure(ErrLoginDenied, "there is no database " + file.path());
}

bool isSame(const State& a, const State& b) {
  return a.objects == b.objects && a.entries == b.entries && a.total == b.total;
}

// Adds what can be reached from the system's objects.
void reach(Tables& tables, const References& references, IdSet& reached, Walk& walk) {
  std::vector<ObjectId> open = tables.objectsFrom(0, firstFreeId, firstFreeId, false);
  for (const ObjectId id : open) reached.add(id);
  std::vector<ObjectId> ids;
  while (!open.empty()) {
    const ObjectId id = open.back();
    open.pop_back();
    ids.clear();
    forAllRows(tables, id, [&](const Stored& row) {
      walk.step();
      if (!row.isThere) return;
      references(row.row, ids);
      if (row.row.classId != 0) ids.push_back(row.row.classId);
    });
    for (const ObjectId next : ids) {
      if (next >= firstFreeId && reached.add(next)) open.push_back(next);
    }
  }
}

class Verifier {
 public:
  Verifier(OpenFile& file, const References& references, const Progress& progress)
      : tables_(file.tables()), references_(references), progress_(progress) {}

  std::vector<std::string> run() {
    try {
      const Transaction transaction(tables_);
      state_ = tables_.state();
      checkPages();
      checkRows();
    } catch (const Failure& failure) {
      if (failure.number != ErrDamaged) throw;
      complaints_.push_back(failure.message);
    }
    return std::move(complaints_);
  }

 private:
  void complain(const std::string& text) {
    if (complaints_.size() + 1 < mostComplaints) complaints_.push_back(text);
  }

  void checkPages() {
    sqlite3_progress_handler(
        tables_.connection(), stepsAtOnce,
        [](void* self) {
          auto& verifier = *static_cast<Verifier*>(self);
          try {
            Walk(verifier.progress_, verifier.state_.objects + verifier.state_.entries);
            return 0;
          } catch (...) {
            verifier.thrown_ = std::current_exception();
            return 1;
          }
        },
        this);
    try {
      Query query(tables_, Sql::checkPages);
      while (query.next()) {
        if (query.bytes(0) != "ok") complain(std::string(query.bytes(0)));
      }
    } catch (...) {
      sqlite3_progress_handler(tables_.connection(), 0, nullptr, nullptr);
      if (thrown_) std::rethrow_exception(thrown_);
      throw;
    }
    sqlite3_progress_handler(tables_.connection(), 0, nullptr, nullptr);
  }

  void checkRows() {
    IdSet there;
    forAllObjects(tables_, [&there](ObjectId id) { there.add(id); });
    Walk walk(progress_, state_.objects + state_.entries);
    State found;
    std::vector<ObjectId> ids;
    forAllObjects(tables_, [&](ObjectId id) {
      ids.clear();
      try {
        forAllRows(tables_, id, [&](const Stored& row) {
          count(row, found);
          if (row.isThere) references_(row.row, ids);
          if (row.row.classId != 0) ids.push_back(row.row.classId);
          walk.step();
        });
      } catch (const Failure& failure) {
        if (failure.number != ErrDamaged) throw;
        complain(failure.message);
      }
      for (const ObjectId next : ids) {
        if (next < firstFreeId || there.contains(next)) continue;
        complain("object " + std::to_string(id) + " refers to object " + std::to_string(next) +
                 ", which is missing");
      }
    });
    if (!isSame(found, state_)) complain("there are not the rows that there should be");
    const auto complainOf = [this](const std::string& text) { complain(text); };
    if (tables_.verifyOlds(complainOf) != state_.olds) complain("old rows are missing");
  }

  static void count(const Stored& row, State& found) {
    const bool isEntry = row.row.place.part != Place::itself;
    found.entries += isEntry ? 1 : 0;
    found.objects += !isEntry && row.isThere ? 1 : 0;
    found.total += row.sum;
  }

  Tables& tables_;
  const References& references_;
  const Progress& progress_;
  State state_;
  std::vector<std::string> complaints_;
  std::exception_ptr thrown_;
};

}  // namespace

void copyFile(OpenFile& from, const std::string& file, const Progress& progress) {
  const std::string path = resolved(file);
  struct stat64 status;
  const auto refuse = [&path] {
    throw Failure(ErrNotPermitted, "there is a file " + path + " already");
  };
  if (::lstat64(path.c_str(), &status) == 0) refuse();
  NewFile made(from.calls(), from.waiting(), path);
  {
    const Transaction transaction(from.tables());
    const State state = from.tables().state();
    Walk walk(progress, state.objects + state.entries);
    made.state.version = state.version;
    made.state.tick = state.tick;
    made.state.nextId = state.nextId;
    forAllObjects(from.tables(), [&](ObjectId id) { copyObject(from.tables(), id, made, walk); });
    if (!isSame(made.state, state)) {
      from.tables().damaged("there are not the rows that there should be");
    }
  }
  made.finish();
  if (!made.publish(false)) refuse();
  made.settle();
}

std::vector<std::string> verifyFile(const FileOptions& options, const References& references,
                                    const Progress& progress) {
  OpenFile file(options);
  try {
    openForTools(file);
  } catch (const Failure& failure) {
    if (failure.number != ErrDamaged) throw;
    return {failure.message};
  }
  return Verifier(file, references, progress).run();
}

Compacted compactFile(const FileOptions& options, const References& references,
                      const Progress& progress) {
  OpenFile file(options);
  openForTools(file);
  file.checkWritable();
  const auto refuse = [&file] {
    throw Failure(ErrInUseElsewhere,
                  "the database " + file.path() + " is in use; compacting needs it alone");
  };
  if (!file.locks().tryLock(FileLocks::use, false)) refuse();
  const Locked still(file.locks(), FileLocks::write);
  file.prepareToWrite();
  Compacted result;
  result.bytesBefore = file.bytes();
  NewFile made(file.calls(), file.waiting(), file.path());
  Tables& tables = file.tables();
  {
    const Transaction transaction(tables);
    const State state = tables.state();
    Walk walk(progress, 2 * (state.objects + state.entries));
    IdSet reached;
    reach(tables, references, reached, walk);
    made.state.version = state.version;
    made.state.tick = state.tick;
    made.state.nextId = state.nextId;
    forAllObjects(tables, [&](ObjectId id) {
      if (reached.contains(id)) copyObject(tables, id, made, walk);
    });
    result.objects = made.state.objects;
    result.dropped = state.objects - made.state.objects;
  }
  made.finish();
  const std::string frames = tables.vfs().framesPath();
  file.closeTables();
  // What stays there would be taken for the new file's.
  struct stat64 status;
  if (::stat64(frames.c_str(), &status) == 0) refuse();
  made.replace();
  made.settle();
  if (::stat64(file.path().c_str(), &status) == 0) {
    result.bytes = static_cast<std::uint64_t>(status.st_size);
  }
  return result;
}

}  // namespace zel
