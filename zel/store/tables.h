// The tables of a database file and what lies in their rows. Who calls this holds the locks that
// are needed (see filelocks.h).
//
//   state   one row: the newest version, and counts and sums over everything
//   object  an object's own row, or in its place what belongs to its other rows: their number and
//           the sum of their checksums
//   entry   the other rows
//   old     rows that were replaced or removed while somebody needs them
//   log     the places that each commit wrote, while somebody may ask
#pragma once

#include <sqlite3.h>

#include <array>
#include <exception>
#include <initializer_list>
#include <optional>
#include <set>
#include <string_view>

#include "store/filelocks.h"
#include "store/filevfs.h"
#include "store/store.h"

namespace zel {

constexpr std::uint32_t applicationId = 0x507A4C31;
constexpr std::uint32_t formatVersion = 1;

// A row as it lies in the file. Of an entry, `changed` is its version, and the next three are 0.
struct Stored {
  Row row;
  bool isThere = false;       // false for what only stands for the object's entries
  Version changed = 0;        // when it or one of its entries was written or removed
  Version born = 0;           // since when something is there
  std::uint64_t parts = 0;    // its entries
  std::uint64_t partSum = 0;  // the sum of their checksums
  std::uint64_t sum = 0;      // the checksum over all of this
};

struct State {
  Version version = 0;
  std::uint64_t tick = 0;  // counts whatever is written
  ObjectId nextId = firstFreeId;
  std::uint64_t objects = 0;
  std::uint64_t entries = 0;
  std::uint64_t olds = 0;
  std::uint64_t total = 0;  // the sum of all checksums in object and entry
};

enum class Sql : std::uint8_t {
  begin,
  beginWriting,
  commit,
  rollback,
  getState,
  setState,
  getObject,
  addObject,
  setObject,
  dropObject,
  scanObjects,
  getEntry,
  getEntries,
  addEntry,
  setEntry,
  dropEntry,
  getOld,
  addOld,
  nextNeed,
  oldsByNeed,
  setNeed,
  dropOld,
  oldObjects,
  addLog,
  getLog,
  dropLog,
  checkPages,
  allOlds,
  count
};

class Tables {
 public:
  struct Options {
    bool readOnly = false;
    bool building = false;  // a new file that nobody else has
    FileRights rights{};
  };

  // Opens the file. All references outlive this.
  Tables(const FileCalls& calls, const Waiting& waiting, std::string path, Options options);
  ~Tables();
  Tables(const Tables&) = delete;
  Tables& operator=(const Tables&) = delete;

  const std::string& path() const { return path_; }
  FileVfs& vfs() { return *vfs_; }
  sqlite3* connection() { return db_; }

  // Of a file that is built: the empty tables; and at the end what makes it one to be shared.
  void make();
  void finish();
  // Takes the write-ahead file away when the connection ends. For who is alone.
  void removeFramesAtEnd();
  // Moves all commits into the main file; answers whether it could.
  bool checkpoint();
  // In a forked child: forgets the connection as it is.
  void abandon() noexcept;

  State state();
  void setState(const State& state);

  // Rows as they are now. Without `bytes` those are left out, and nothing is compared.
  bool getObject(ObjectId id, Stored& result, bool bytes = true);
  bool getEntry(Place place, Stored& result, bool bytes = true);
  // Those entries of the object, in order.
  void getEntries(ObjectId id, const std::function<void(Stored& entry)>& take);
  // The ids of the first objects with rows in a range that had, or have, any: at most `count`.
  std::vector<ObjectId> objectsFrom(ObjectId first, ObjectId end, std::size_t count, bool old);

  // Old rows of the object, of all its places, that were valid at the version.
  void getOld(ObjectId id, Version at, const std::function<void(Stored& row)>& take);
  // Answers how many there are of all objects, and complains of each that is not as it was written.
  std::uint64_t verifyOlds(const std::function<void(const std::string& what)>& complain);
  // Keeps a row that was valid until the version; `need` is the last lease that needs it.
  void addOld(const Stored& row, Version until, Version need);
  // Removes what none of the leases needs, about so many rows at the most.
  void prune(State& state, const std::set<Version>& leases, std::size_t most);

  // Makes the writes, in the order of their places, those of version `state.version`. `replaced` is
  // called with what has been valid at `lastLease` or later.
  void apply(const std::vector<const Write*>& writes, State& state,
             const std::optional<Version>& lastLease,
             const std::function<void(Stored& row)>& replaced);
  // Adds a row as it is.
  void copy(const Stored& row, State& state);

  void addLog(Version version, const std::vector<const Write*>& writes);
  // The places that the commits wrote, in order, each once.
  std::vector<Place> places(Version from, Version to);
  void dropLog(Version to);

  // Throws ErrDamaged for what is not as it was written, and keeps it in mind.
  [[noreturn]] void damaged(const std::string& what);
  // Throws it again if any was met. A failure of the disk is no damage.
  void checkWhole() const;
  [[noreturn]] void fail(int result);
  // Runs SQL that is needed once.
  void execute(const char* sql);

 private:
  friend class Query;
  friend class Transaction;
  sqlite3_stmt* statement(Sql which);
  void close() noexcept;
  void writeObject(Stored& object, State& state, bool exists, std::uint64_t oldSum);
  void writeEntry(const Write& write, Stored& object, State& state,
                  const std::optional<Version>& lastLease,
                  const std::function<void(Stored& row)>& replaced);

  const Waiting& waiting_;
  std::string path_;
  std::unique_ptr<FileVfs> vfs_;
  sqlite3* db_ = nullptr;
  std::array<sqlite3_stmt*, static_cast<std::size_t>(Sql::count)> statements_{};
  std::optional<Patience> patience_;
  std::exception_ptr thrown_;  // by poll()
  std::string damage_;         // the first that was met
};

// One run of a statement.
class Query {
 public:
  Query(Tables& tables, Sql which, std::initializer_list<std::uint64_t> numbers = {});
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  // Bytes that outlive the run.
  Query& bind(int index, std::string_view bytes);
  bool next();  // whether there is another row
  void run() {
    while (next()) {
    }
  }

  std::uint64_t number(int column) const;
  std::string_view bytes(int column) const;
  bool isNull(int column) const;

 private:
  Tables& tables_;
  sqlite3_stmt* statement_;
};

// One transaction of SQLite's, rolled back unless it was committed.
class Transaction {
 public:
  explicit Transaction(Tables& tables, bool writing = false);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit();

 private:
  Tables& tables_;
};

std::uint64_t sumOf(const Stored& row);

}  // namespace zel
