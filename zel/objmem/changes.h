// Transactions: what one reads and writes, for the store to judge, and the images of what is not in
// the store.
//
// Of an object of the store the memory knows that it was touched; what was changed of it is noted
// here, and aborting drops it, to be loaded again. Of other objects that are older than the
// transaction the first change keeps an image, which aborting puts back.
//
// Of sets and dictionaries each hash among the elements is read and written by itself.
#pragma once

#include <unordered_set>

#include "memory.h"

namespace zel {

// An object's contents before a transaction changed them.
struct Image {
  std::vector<OopType> slots;
  std::vector<ByteType> bytes;

  std::size_t weight() const { return slots.size() * sizeof(OopType) + bytes.size() + 64; }
};

// What was changed of an object of the store.
struct Written {
  bool itself = false;  // its slots or bytes; of a set or dictionary the named ones
  std::unordered_set<std::uint32_t> hashes;
  bool elements = false;  // all of them
};

struct PlaceHash {
  std::size_t operator()(const Place& place) const {
    return static_cast<std::size_t>(place.id * 0x9E3779B1U) ^ place.part;
  }
};

struct Transaction {
  std::uint32_t serial = 0;
  std::unordered_map<OopType, Image> images;
  std::unordered_map<OopType, Written> written;
  std::unordered_set<Place, PlaceHash> keysRead;
  std::size_t weight = 0;     // of the two, which the memory has counted
  bool changesUsers = false;  // which the session keeps

  bool hasChanges() const { return !written.empty() || changesUsers; }
};

// What stands for the elements whose hash only a program's method can tell.
constexpr std::uint32_t unknownHashes = 1U << 28;

// Notes for the transaction that elements of that hash were looked for, of a set or dictionary that
// is at hand, or that all were looked at, of any object. What concerns the code of classes is not
// noted.
void noteStoredKeyRead(Memory& memory, OopType oop, std::uint32_t hash);
void noteStoredElementsRead(Memory& memory, OopType oop);
inline void noteKeyRead(Memory& memory, OopType oop, std::uint32_t hash) {
  if (memory.atHand(oop)->stored) noteStoredKeyRead(memory, oop, hash);
}
inline void noteElementsRead(Memory& memory, OopType oop) {
  if (isImmediate(oop)) return;
  const Object* object = memory.atHand(oop);
  if (object == nullptr || object->stored) noteStoredElementsRead(memory, oop);
}

// Lets the library itself change an object that is invariant for everyone else; it is invariant
// again at the end. Whoever uses it prepares the write.
class ChangeOfInvariant {
 public:
  ChangeOfInvariant(Memory& memory, OopType oop) : memory_(memory), oop_(oop) {
    memory.require(oop).invariant = false;
  }
  ~ChangeOfInvariant() { memory_.at(oop_).invariant = true; }
  ChangeOfInvariant(const ChangeOfInvariant&) = delete;
  ChangeOfInvariant& operator=(const ChangeOfInvariant&) = delete;

 private:
  Memory& memory_;
  OopType oop_;
};

// Begins the client's next transaction; new objects belong to it while the client is current.
void beginTransaction(Memory& memory, Client& client);
// Makes the changes of objects that are not in the store final.
void keepChanges(Memory& memory, Client& client);
// Takes them back. Objects created in the transaction keep their contents. A failure leaves what is
// still to be taken back.
void undoChanges(Memory& memory, Client& client);
// Forgets what was read and written of objects of the store.
void forgetAccesses(Memory& memory, Client& client);

}  // namespace zel
