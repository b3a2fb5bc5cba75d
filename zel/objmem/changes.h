// Transactions: who changed what since the last commit, and the images to go back to.
//
// All clients see one object memory. The first change that a client makes to an object which is
// older than its transaction keeps the object's image; aborting puts the images back. Until the
// client commits or aborts no other can change that object: it gets ErrConflict.
#pragma once

#include "memory.h"

namespace zel {

// An object's contents before a transaction changed them.
struct Image {
  std::vector<OopType> slots;
  std::vector<ByteType> bytes;

  std::size_t weight() const { return slots.size() * sizeof(OopType) + bytes.size() + 64; }
};

struct Transaction {
  std::uint32_t serial = 0;
  std::unordered_map<OopType, Image> images;
};

// Lets the library itself change an object that is invariant for everyone else, such as a
// dictionary of methods: prepares the write, and makes the object invariant again at the end.
class ChangeOfInvariant {
 public:
  ChangeOfInvariant(Memory& memory, OopType oop);
  ~ChangeOfInvariant() { memory_.at(oop_).invariant = true; }
  ChangeOfInvariant(const ChangeOfInvariant&) = delete;
  ChangeOfInvariant& operator=(const ChangeOfInvariant&) = delete;

 private:
  Memory& memory_;
  OopType oop_;
};

// Begins the client's next transaction; new objects belong to it while the client is current.
void beginTransaction(Memory& memory, Client& client);
// Makes the transaction's changes final, and begins the next.
void commitTransaction(Memory& memory, Client& client);
// Takes the transaction's changes back, and begins the next. Objects created in it keep their
// contents.
void abortTransaction(Memory& memory, Client& client);

}  // namespace zel
