#include "tool/transfer.h"

#include <limits>

#include "session/records.h"
#include "session/users.h"
#include "store/idset.h"
#include "store/newfile.h"
#include "store/openfile.h"
#include "tool/dumpline.h"

namespace zel {

namespace {

constexpr std::string_view headWord = "povzel dump ";
constexpr std::string_view dumpVersion = "1";
constexpr std::string_view lastLine = "end";
constexpr std::uint64_t rowsAtOnce = 1024;
constexpr std::size_t mostLost = 10000;
constexpr std::size_t bytesAtOnce = 4U << 20;

class Dumper {
 public:
  Dumper(Store& store, Output& output, ProgressLine& progress, std::vector<Lost>* lost)
      : lease_(store),
        output_(output),
        progress_(progress),
        lost_(lost),
        all_(store.statistics().rows) {}

  void run() { dump(1, std::numeric_limits<std::int64_t>::max()); }

 private:
  // Those objects. Where one cannot be read, no others with it can: they are looked for by halves.
  void dump(ObjectId first, ObjectId end) {
    next_ = first;
    try {
      lease_.store.scan(lease_.version, first, end, [this](const Row& row) { take(row); });
      return;
    } catch (const Failure& failure) {
      if (failure.number != ErrDamaged || lost_ == nullptr) throw;
    }
    first = next_;
    // Where the last ones are lost, nothing tells where they end.
    if (end - first == 1 || count_ == mostLost) return lose(first, end);
    const ObjectId middle = first + (end - first) / 2;
    dump(first, middle);
    dump(middle, end);
  }

  void lose(ObjectId first, ObjectId end) {
    count_ = std::min(count_ + 1, mostLost);
    if (lost_->empty() || lost_->back().end != first) lost_->push_back({first, first});
    lost_->back().end = end;
  }

  void take(const Row& row) {
    output_.line(lineOf(row));
    next_ = row.place.id + 1;
    if (++done_ % rowsAtOnce == 0) tell(progress_, done_, all_);
  }

  const Lease lease_;
  Output& output_;
  ProgressLine& progress_;
  std::vector<Lost>* lost_;
  std::size_t count_ = 0;
  std::uint64_t all_;
  std::uint64_t done_ = 0;
  ObjectId next_ = 0;
};

// Takes some rows of a new database.
using AddWrites = std::function<void(std::span<const Write> writes)>;

class Loader {
 public:
  Loader(const AddWrites& add, Input& input, ProgressLine& progress)
      : add_(add), input_(input), progress_(progress) {}

  // Answers the first id that no object has.
  ObjectId run() {
    readHead();
    while (nextLine() && line_ != lastLine) {
      takeRow();
      if (number_ % rowsAtOnce == 0 || bytes_ > bytesAtOnce) write();
    }
    if (line_ != lastLine) fail(1, "more: the dump is cut, and has no line 'end'");
    if (nextLine()) fail(1, "nothing behind the line 'end'");
    write();
    const ObjectId missing = referred_.firstBeyond(there_);
    if (missing != 0) {
      throw Trouble{input_.name() + " has no object @" + std::to_string(missing) +
                    ", to which others refer\nAdd its line, or put nil in its place"};
    }
    return std::max(firstFreeId, last_.id + 1);
  }

 private:
  [[noreturn]] void fail(std::size_t column, const std::string& expected) const {
    throw Trouble{input_.name() + ", line " + std::to_string(number_) + ", column " +
                  std::to_string(column) + ": expected " + expected};
  }

  bool nextLine() {
    ++number_;
    if (input_.line(line_)) return true;
    line_.clear();
    return false;
  }

  void readHead() {
    nextLine();
    if (!line_.starts_with(headWord)) fail(1, "'" + std::string(headWord) + "1': this is no dump");
    if (std::string_view(line_).substr(headWord.size()) != dumpVersion) {
      fail(headWord.size() + 1,
           std::string(dumpVersion) + ", the version of dumps that this program reads");
    }
  }

  void takeRow() {
    Row row = parsed();
    const ObjectId id = row.place.id;
    if (row.place <= last_) fail(1, "lines in the order of their objects and hashes");
    const bool isOwn = row.place.part == Place::itself;
    if (!isOwn && id >= firstFreeId && last_.id != id) {
      fail(1, "the line of object @" + std::to_string(id) + " itself before");
    }
    last_ = row.place;
    if (isOwn) there_.add(id);
    noteReferences(row);
    bytes_ += row.bytes.size();
    writes_.push_back({row.place, row.classId, std::move(row.bytes), false});
  }

  Row parsed() const {
    try {
      return rowOf(line_);
    } catch (const LineFault& fault) {
      fail(fault.column, fault.expected);
    }
  }

  void noteReferences(const Row& row) {
    references_.clear();
    try {
      references(row, references_);
    } catch (const Failure& failure) {
      if (failure.number != ErrDamaged) throw;
      fail(1, "bytes of an object");
    }
    for (const ObjectId id : references_) {
      if (id >= firstFreeId) referred_.add(id);
    }
  }

  void write() {
    add_(writes_);
    writes_.clear();
    bytes_ = 0;
    tell(progress_, input_.all() != 0 ? input_.done() : number_, input_.all());
  }

  const AddWrites& add_;
  Input& input_;
  ProgressLine& progress_;
  std::uint64_t number_ = 0;
  std::string line_;
  Place last_;
  std::vector<Write> writes_;
  std::size_t bytes_ = 0;
  IdSet there_;
  IdSet referred_;
  std::vector<ObjectId> references_;
};

}  // namespace

void tell(ProgressLine& progress, std::uint64_t done, std::uint64_t all) {
  if (!progress.tell(done, all)) {
    throw Failure(ErrHardBreak, "given up", {}, FailureKind::stop);
  }
}

void references(const Row& row, std::vector<ObjectId>& ids) {
  if (row.place.id != usersId) referencesOf(row, ids);
}

void dump(Store& store, Output& output, ProgressLine& progress, std::vector<Lost>* lost) {
  output.line(std::string(headWord) + std::string(dumpVersion));
  Dumper(store, output, progress, lost).run();
  output.line(lastLine);
}

void loadFile(const std::string& path, Input& input, ProgressLine& progress) {
  const FileCalls calls;
  const Waiting waiting{nullptr, 0};
  NewFile made(calls, waiting, resolved(path));
  made.state.version = 1;
  made.state.tick = 1;
  const AddWrites add = [&made](std::span<const Write> writes) {
    std::vector<const Write*> pointers;
    pointers.reserve(writes.size());
    for (const Write& each : writes) pointers.push_back(&each);
    made.tables().apply(pointers, made.state, std::nullopt, nullptr);
  };
  made.state.nextId = Loader(add, input, progress).run();
  made.finish();
  if (!made.publish(true)) {
    throw Trouble{"there is a file " + path + " already\nName one that is not there, or empty"};
  }
  made.settle();
}

void loadServer(const ServerOptions& options, Input& input, ProgressLine& progress) {
  NewServerStore made(options);
  const AddWrites add = [&made](std::span<const Write> writes) { made.add(writes); };
  made.finish(Loader(add, input, progress).run());
}

}  // namespace zel
