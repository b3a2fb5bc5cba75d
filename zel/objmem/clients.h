// What each session holds of the object memory: objects that it was handed, its export set, which
// of those changed, and its transaction.
#pragma once

#include <array>
#include <memory>

#include "changes.h"

namespace zel {

// A byte for each entry of the object table, in pages that are made when one of theirs is set: a
// client holds few objects of a large memory.
class Marks {
 public:
  std::uint8_t get(std::size_t index) const {
    const std::size_t page = index / pageBytes;
    return page < pages_.size() && pages_[page] ? pages_[page][index % pageBytes] : std::uint8_t{0};
  }
  // Throws std::bad_alloc where get has answered 0.
  std::uint8_t& at(std::size_t index) {
    const std::size_t page = index / pageBytes;
    if (page >= pages_.size()) pages_.resize(page + 1);
    if (!pages_[page]) pages_[page] = std::make_unique<std::uint8_t[]>(pageBytes);
    return pages_[page][index % pageBytes];
  }
  // Calls `visit` with the index of each byte that has one of the bits.
  template <typename Visit>
  void visitAll(std::uint8_t bits, Visit visit) const {
    for (std::size_t page = 0; page < pages_.size(); ++page) {
      for (std::size_t i = 0; pages_[page] && i < pageBytes; ++i) {
        if ((pages_[page][i] & bits) != 0) visit(static_cast<std::uint32_t>(page * pageBytes + i));
      }
    }
  }

 private:
  static constexpr std::size_t pageBytes = 4096;
  std::vector<std::unique_ptr<std::uint8_t[]>> pages_;
};

struct Client {
  std::int32_t id = 0;
  bool tracksChanges = false;
  Marks marks;  // by index of the object table, see clients.cpp
  std::size_t exportCount = 0;
  std::vector<OopType> changed;     // exported objects, in the order of the first change
  std::size_t firstUnreported = 0;  // in `changed`
  std::size_t handedOutNow = 0;     // newest entries of handedOut, made in the current request
  std::size_t compactAt = 0;        // entries of handedOut to look for double ones at
  std::vector<OopType> handedOut;   // oldest first, perhaps more than once
  std::array<OopType, ZelMaxErrArgs + 1> failed{};  // the objects of the last error
  bool failedNow = false;                           // no program began since
  Transaction transaction;
};

// What prepareWrite does the first time in a transaction, and for objects that need more.
void prepareFirstWrite(Memory& memory, OopType oop);
// To be called before any change of an object's contents. Throws ErrInvariant for objects that
// never change. Marks the object as changed for the client, if it has exported it and tracks
// changes.
inline void prepareWrite(Memory& memory, OopType oop, const Object& object) {
  const Client* client = memory.current;
  const bool ready = client != nullptr && !object.invariant && !object.shared && !object.exported &&
                     (object.dirty || object.createdIn == client->transaction.serial);
  if (!ready) prepareFirstWrite(memory, oop);
}
inline void prepareWrite(Memory& memory, OopType oop) {
  prepareWrite(memory, oop, memory.at(oop));
}
// The same before a change of a set's or dictionary's elements of that hash.
void prepareStoredKeyWrite(Memory& memory, OopType oop, std::uint32_t hash);
inline void prepareKeyWrite(Memory& memory, OopType oop, std::uint32_t hash) {
  const Object& object = memory.at(oop);
  object.stored ? prepareStoredKeyWrite(memory, oop, hash) : prepareWrite(memory, oop, object);
}

// The export set: oops that stay alive for the client whatever happens. Exporting throws
// ErrNoSuchObject for what has no body; exporting and releasing twice is no error.
void exportObject(Memory& memory, Client& client, OopType oop);
bool isExported(const Client& client, OopType oop);
void releaseObject(Memory& memory, Client& client, OopType oop);
void releaseAllObjects(Memory& memory, Client& client);
// Tells every client that has exported the object and tracks changes that it changed.
void noteChanged(Memory& memory, OopType oop);
// Moves up to `room` changed exported oops, oldest change first, to `oops`; they count as
// unchanged afterwards. Answers how many; `complete` says whether that was all.
std::size_t takeChanged(Client& client, OopType* oops, std::size_t room, bool& complete);

// Held for the client: every oop that a table function answers is kept until the client releases
// it or until, in a later request, a thousand other objects were handed out after it, or four
// mebibytes of them and of what hangs on them, and a collection comes. handOut answers `oop`
// itself. Both pass over values without a body; releaseHandedOut also over what was not handed out.
// What an error names is kept until the session's next one or until it is released; once another
// program began only while there is room.
OopType handOut(const Memory& memory, Client& client, OopType oop);
void releaseHandedOut(Client& client, OopType oop);
void releaseAllHandedOut(Client& client);
// Begins a request of the client's.
inline void beginRequest(Client& client) {
  client.handedOutNow = 0;
}

// For collections: marks what the client keeps in any case, then of what it was handed what is
// still to be kept. With `pressed` that is only what the current request was handed.
void markSaved(Memory& memory, const Client& client);
void keepHandedOut(Memory& memory, Client& client, bool pressed);

}  // namespace zel
