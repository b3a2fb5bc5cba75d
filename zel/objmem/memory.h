// The object memory of a session: a table from oop to object, allocation within limits, and
// mark-and-sweep collection.
//
// An object of the store is loaded when it is touched first, and again in every transaction found
// by a slower way once, which notes that the transaction read it: until then it rests.
//
// A collection runs only where collectIfDue or collect is called: at the interpreter's safe points,
// at the entry of table functions, and after an allocation that found no room, before the whole
// operation is repeated. Between two of these an oop held in a C++ variable is always good; a
// reference to an object is good until that object is resized. What survives: everything reachable
// from the fixed objects, from what clients hold and from what the registered visitors name.
#pragma once

#include <array>
#include <string>
#include <unordered_map>
#include <utility>

#include "blocks.h"
#include "identities.h"
#include "meter.h"
#include "object.h"

namespace zel {

struct Client;

constexpr std::size_t largestObjectBytes = 64U << 20;
constexpr std::size_t largestObjectSlots = largestObjectBytes / sizeof(OopType);
constexpr std::size_t defaultMemoryLimit = 256U << 20;
// Of the object table, for when it cannot grow.
constexpr std::size_t keptEntries = 2048;

// Whose needs an allocation serves. The last part of the memory is kept back, so that a full one
// still compiles and runs what empties it. Half of it is for programs that begin in a full memory,
// each of which may take half of what the former ones left; half is for the library alone, which
// gives back what it takes. So it is with what is kept back for the case that the process itself
// has no memory left: entries of the object table, and spare chunks.
enum class Room : std::uint8_t { programs, rescue, library };

// How far allocations may go.
struct Bounds {
  std::size_t bytes;    // that are used at most
  std::size_t entries;  // of the object table that stay free
  std::size_t spares;   // chunks that stay
  Room room;
};

// Where objects come from that are in the store and not in the memory.
struct ObjectSource {
  void* owner = nullptr;
  // Has the object of the entry rest in the memory. Throws Failure, or std::bad_alloc.
  void (*load)(void* owner, Memory& memory, std::uint32_t index) = nullptr;
};

// Tells the memory what others take of the limit; with `pressed` it makes room in that before.
struct Relief {
  void* owner = nullptr;
  void (*relieve)(void* owner, bool pressed) = nullptr;
};

struct MemoryStatistics {
  std::size_t objects;
  std::size_t bytes;
  std::size_t tableSize;  // entries of the object table
};

class Memory {
 public:
  Memory(BreakRequest& breaks, Identities& identitiesToUse);
  ~Memory();
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  // The object that `oop` names, or null when it is an immediate value or names nothing. Throws
  // what loading it does.
  Object* find(OopType oop) const {
    const std::uint32_t index = oop >> 2;
    if ((oop & 3) != 1 || index >= table_.size()) return nullptr;
    Object* object = table_[index];
    return object != nullptr || (flags_[index] & Known) == 0 ? object : &arrive(index);
  }
  // The same for an oop that is known to name an object.
  Object& at(OopType oop) const {
    Object* object = table_[oop >> 2];
    return object != nullptr ? *object : arrive(oop >> 2);
  }
  // Whether it names one.
  bool exists(OopType oop) const {
    const std::uint32_t index = oop >> 2;
    return (oop & 3) == 1 && index < table_.size() &&
           (loaded(index) != nullptr || (flags_[index] & Known) != 0);
  }
  // As `at`, null when that would take more than a look.
  Object* atHand(OopType oop) const { return table_[oop >> 2]; }
  // As find and at, for what never changes in an object, such as its class: that is not read.
  Object* look(OopType oop) const {
    const std::uint32_t index = oop >> 2;
    if ((oop & 3) != 1 || index >= table_.size()) return nullptr;
    Object* object = table_[index];
    return object != nullptr || (flags_[index] & Known) == 0 ? object : &lookAt(oop);
  }
  Object& lookAt(OopType oop) const {
    Object* object = loaded(oop >> 2);
    return object != nullptr ? *object : load(oop >> 2);
  }
  // The same, but throws ErrNoSuchObject; for oops that came from outside.
  Object& require(OopType oop) const;
  // Throws ErrNoSuchObject unless `oop` is an immediate value or names an object.
  void requireValue(OopType oop) const;

  // Creates an object of the class with all slots nil or all bytes 0. `named` and `indexed` count
  // slots (bytes for byte objects). Throws MemoryFull, and Failure for a size beyond the limit.
  OopType allocate(OopType classOop, Impl impl, std::size_t named, std::size_t indexed,
                   bool indexable);
  // Creates a number: an object of 8 bytes that never changes. Rows hold it as a value, which a
  // change of its bytes would not reach.
  OopType allocateNumber(OopType classOop, std::uint64_t bits);
  // The same, but answers 0 where that throws MemoryFull.
  OopType tryNumber(OopType classOop, std::uint64_t bits);
  // Creates a String, or whatever class of strings is named, of the bytes of the one followed by
  // the text in the same form; appending again and again takes linear time.
  OopType allocateJoined(OopType left, std::string_view text, OopType classOop);
  // Creates the object with the fixed oop `oop`, which must be free.
  Object& allocateFixed(OopType oop, OopType classOop, Impl impl, std::size_t named,
                        bool indexable);
  // Creates the object of the store that the entry stands for, for ObjectSource::load.
  Object& placeLoaded(std::uint32_t index, OopType classOop, Impl impl, std::size_t named,
                      std::size_t size, bool indexable);
  // Changes the number of slots or bytes; new ones are nil or 0. Growth by small steps is
  // amortised. Answers the object, which may have moved. Throws as allocate does and leaves the
  // object as it was.
  Object& resize(OopType oop, std::size_t size);
  // Makes room for one more slot before the first indexed one, or takes that one away; amortised.
  Object& insertFirst(OopType oop);
  void removeFirst(OopType oop) const;
  // Gives the object bytes of its own, if it shares them. Throws MemoryFull.
  void unshare(OopType oop);
  // What the object carries beside its body, made on first use. Whoever changes it calls recount.
  Extra& extraOf(OopType oop) const;
  void recount(OopType oop);
  // Throws MemoryFull unless there is room for so many more bytes.
  void reserve(std::size_t bytes) {
    if (bytes > bounds_.bytes || used_ > bounds_.bytes - bytes) noRoom(bytes);
    if (used_ + bytes >= dueAt_) meter.hurry();
  }
  // Tells the memory that something beside the objects (a before-image) grew by `bytes`, which it
  // has reserved, or shrank when negative.
  void account(std::ptrdiff_t bytes) { used_ += static_cast<std::size_t>(bytes); }

  // How many bytes all objects together may take, and how many of them others take: of those some
  // are left in any case.
  void setLimit(std::size_t bytes);
  void setTakenElsewhere(std::size_t bytes);
  Relief relief;
  std::size_t limit() const { return limit_; }
  // The room of a program that begins now.
  Room roomToRun() const;

  // Collects if enough was allocated since the last collection to be worth it. Where room is short,
  // what can be loaded again goes, before it is missed where nothing can be repeated.
  void collectIfDue() {
    if (used_ >= dueAt_) collect(false, isShort());
  }
  bool isShort() const { return used_ >= shortAt(); }
  // Collects now. With `pressed`, what was only handed out to the current client goes, too, and
  // what can be loaded again.
  void collect(bool pressed = false) { collect(pressed, pressed); }
  // Collects for an allocation that found no room, and asks others for some only where that has
  // not gained enough. Throws MemoryFull when a program has needed that again and again for next to
  // nothing: better an early end than one that takes for ever.
  void collectForRoom();
  // Begins a program's account of that. In a full memory it collects, unless next to nothing was
  // allocated since that was last done: a program that needs more than is left does it itself.
  void beginProgram();
  // Marks the oop during a collection, immediate values and 0 allowed.
  void mark(OopType oop) {
    const std::uint32_t index = oop >> 2;
    if ((oop & 3) != 1 || index >= table_.size()) return;
    Object* object = table_[index];
    if (object == nullptr) [[unlikely]]
      object = restingToMark(index);
    if (object == nullptr || object->marked) return;
    object->marked = true;
    markStack_.push_back(oop);  // never beyond what was reserved with the table
  }
  // Marks what can be reached from what was marked; answers how many bytes that is.
  std::size_t markReachable();
  // Registers a visitor that marks roots, called once in every collection, until its owner is
  // forgotten.
  void addRoots(void* owner, void (*visit)(void* owner, Memory& memory)) {
    roots_.push_back({owner, visit});
  }
  void forgetRoots(void* owner) {
    std::erase_if(roots_, [&](const Roots& each) { return each.owner == owner; });
  }

  MemoryStatistics statistics() const { return {objects_, used_, table_.size()}; }

  // Ends the boot: what was made until now is the kernel's.
  void sealKernel();
  // The entry of an object of the store, which need not be loaded. Throws MemoryFull.
  std::uint32_t learn(ObjectId id);
  // Whether the memory knows the object of the store that the entry stands for.
  bool knows(std::uint32_t index) const {
    return index < kernelEnd || (index < flags_.size() && (flags_[index] & Known) != 0);
  }
  Object* loaded(std::uint32_t index) const {
    return table_[index] != nullptr ? table_[index] : resting_[index];
  }
  // The object is in the store from now on, under the id that its entry is bound to.
  void becomeStored(std::uint32_t index) noexcept;
  // Takes the object, which must have been known, out of the memory until it is touched again.
  void unload(std::uint32_t index) noexcept;
  // Has an object that placeLoaded made rest until it is touched.
  void rest(std::uint32_t index) noexcept {
    resting_[index] = std::exchange(table_[index], nullptr);
  }
  // Has every object of the store rest until it is touched again, which a new transaction begins
  // with.
  void restAll() noexcept;
  // The entries of the objects of the store that were touched since, each at least once.
  const std::vector<std::uint32_t>& touched() const { return touched_; }
  // Makes room for becomeStored of so many. Throws std::bad_alloc.
  void reserveTouched(std::size_t count) { touched_.reserve(touched_.size() + count); }
  // For Identities: an entry of its own that nobody knows any more.
  void freeEntry(std::uint32_t index) noexcept {
    flags_[index] = Free;
    ++free_;
  }
  // A number of 28 bits that stays the value's or the object's, and is the same in all sessions.
  std::uint32_t identityHashOf(OopType oop) const;

  Identities& identities;
  ObjectSource source;
  static constexpr std::uint32_t kernelEnd = Identities::kernelEnd;
  mutable Meter meter;  // what only looks at objects takes time, too
  // To be called when what was found for messages may have become wrong: after the installation of
  // a method or an abort. A collection does it, too.
  void forgetLookups();
  std::uint32_t lookupEpoch() const { return lookupEpoch_; }
  // What was found out about classes, see classTraits; good within a lookup epoch.
  struct KnownTraits {
    OopType key = 0;
    std::uint32_t epoch = 0;
    std::uint8_t traits = 0;
  };
  std::array<KnownTraits, 256> knownTraits{};
  // Counts the changes of methods that indexes of sets and dictionaries go by.
  std::uint32_t equalityEpoch = 0;
  // Who holds objects, and whose changes follow, null for the library's own.
  std::vector<Client*> clients;
  Client* current = nullptr;
  std::uint32_t lastTransaction = 0;  // its serial

  // The one symbol of each text, which is the symbol's own: its bytes never move. Those that
  // nothing refers to go in a collection.
  std::unordered_map<std::string_view, OopType> symbols;
  // Adds a new one. Throws std::bad_alloc.
  void addSymbol(OopType oop);

 private:
  friend class InRoom;
  // Of an entry.
  enum Flag : std::uint8_t {
    Free = 1,   // for the next object
    Known = 2,  // of an object of the store
    Named = 4,  // met by the collection, and not loaded
    Read = 8,   // read in this transaction, and not loaded
  };
  struct Roots {
    void* owner;
    void (*visit)(void* owner, Memory& memory);
  };

  std::uint32_t freeIndex() {
    if (free_ <= keptEntries) growTable();
    while (flags_[cursor_] != Free) {
      if (++cursor_ == flags_.size()) cursor_ = firstFreeIndex;
    }
    return cursor_;
  }
  void occupy(std::uint32_t index, Object* object) {
    table_[index] = object;
    flags_[index] = 0;
    --free_;
  }
  void growTable();
  void widen(std::size_t entries);
  Object* restingToMark(std::uint32_t index) {
    if (resting_[index] == nullptr && (flags_[index] & Known) != 0) flags_[index] |= Named;
    return resting_[index];
  }
  Object& load(std::uint32_t index) const;
  Object& arrive(std::uint32_t index) const;
  void collect(bool pressed, bool unloads);
  std::size_t shortAt() const { return bounds_.bytes - bounds_.bytes / 8; }
  std::size_t mostBytes() const;
  std::size_t keptBack() const;
  Bounds boundsOf(Room room) const;
  // For an object with a body of so many bytes.
  void* newBlock(std::size_t bytes) {
    void* block = blocks_.allocate(sizeof(Object) + bytes);
    return block != nullptr ? block : spareBlock(sizeof(Object) + bytes);
  }
  void* spareBlock(std::size_t size);
  // For so many bytes within the limit, or for something else.
  [[noreturn]] void noRoom(std::size_t bytes = SIZE_MAX);
  Object* place(void* block, OopType classOop, Impl impl, std::size_t named, std::size_t size,
                bool indexable, bool fixedSize = false, bool invariant = false);
  Object& moveBody(OopType oop, std::size_t gap, std::size_t capacity);
  Object& enlarge(OopType oop, std::size_t size);
  Object& closeGap(OopType oop) const;
  void markContents(const Object& object);
  void dropSymbols();
  bool dropKnown(std::uint32_t index, bool unloads);
  void sweep(bool unloads);
  void release(Object* object);
  void releaseRest(Object& object);
  void releaseShare(Object& object);

  Blocks blocks_;
  mutable std::vector<Object*> table_;    // those that this transaction has touched
  mutable std::vector<Object*> resting_;  // those that it has not
  std::vector<std::uint8_t> flags_;
  mutable std::vector<std::uint32_t> touched_;  // entries that rested before
  std::size_t free_ = 0;
  std::size_t pages_ = 0;
  bool sealed_ = false;
  mutable std::uint32_t lastIdentityHash_;
  std::vector<OopType> markStack_;  // has room for every entry of the table
  std::vector<Roots> roots_;
  std::uint32_t cursor_;  // where the search for a free entry goes on
  std::size_t limit_ = 0;
  std::size_t elsewhere_ = 0;
  std::size_t usedByKernel_ = 0;
  std::uint32_t endOfKernel_ = kernelEnd;  // behind the last entry that it uses
  Bounds bounds_{};                        // of the room in use
  std::size_t used_ = 0;
  std::size_t usedBefore_ = 0;     // at the end of the last collection
  std::size_t missed_ = SIZE_MAX;  // what noRoom was told since
  bool processIsFull_ = false;     // it hardly had memory left then
  std::size_t dueAt_ = 0;
  std::size_t objects_ = 0;
  std::size_t stored_ = 0;  // of them, in the store and not the kernel's
  int futileCollections_ = 0;
  std::uint32_t lookupEpoch_ = 1;
};

// What work in progress takes beside the objects, until it ends.
class Weight {
 public:
  explicit Weight(Memory& memory) : memory_(memory) {}
  ~Weight() { memory_.account(-static_cast<std::ptrdiff_t>(bytes_)); }
  Weight(const Weight&) = delete;
  Weight& operator=(const Weight&) = delete;

  // Throws MemoryFull.
  void add(std::size_t bytes) {
    memory_.reserve(bytes);
    memory_.account(static_cast<std::ptrdiff_t>(bytes));
    bytes_ += bytes;
  }

 private:
  Memory& memory_;
  std::size_t bytes_ = 0;
};

// Says for whom a block of code allocates; outside of all of them it is for programs.
class InRoom {
 public:
  InRoom(Memory& memory, Room room) : memory_(memory), before_(memory.bounds_) {
    memory.bounds_ = memory.boundsOf(room);
  }
  ~InRoom() { memory_.bounds_ = before_; }
  void become(Room room) { memory_.bounds_ = memory_.boundsOf(room); }
  InRoom(const InRoom&) = delete;
  InRoom& operator=(const InRoom&) = delete;

 private:
  Memory& memory_;
  Bounds before_;
};

// Carries `operation` out, and once more after a collection if it finds no room. For operations
// that hold no oops but those that a collection visits.
template <typename Operation>
auto withRoom(Memory& memory, Operation operation) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
  }
  memory.collectForRoom();
  return operation();
}

// The error that a second MemoryFull becomes, whatever memory is left.
Failure memoryFailure(const Memory& memory) noexcept;

}  // namespace zel
