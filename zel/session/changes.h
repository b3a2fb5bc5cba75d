// Transactions: who changed what since the last commit, the images to go back to, and which
// exported objects have changed.
//
// All sessions see one object memory. The first change that a session makes to an object which is
// older than its transaction keeps the object's image; aborting puts the images back. Until the
// session commits or aborts no other session can change that object: it gets ErrConflict.
#pragma once

#include "objmem/memory.h"

namespace zel {

// To be called before any change of an object's contents. Throws ErrInvariant for objects that
// never change and ErrConflict as above. Marks the object as changed for the sessions that have
// exported it and track changes.
void prepareWrite(OopType oop);

// Lets the library itself change an object that is invariant for everyone else, such as a
// dictionary of methods: prepares the write, and makes the object invariant again at the end.
class ChangeOfInvariant {
 public:
  explicit ChangeOfInvariant(OopType oop);
  ~ChangeOfInvariant() { object_.invariant = true; }
  ChangeOfInvariant(const ChangeOfInvariant&) = delete;
  ChangeOfInvariant& operator=(const ChangeOfInvariant&) = delete;

 private:
  Object& object_;
};

// Begins the session's next transaction; new objects belong to it while it is current.
void beginTransaction(std::int32_t sessionId);
// Makes the transaction's changes final.
void commitTransaction(std::int32_t sessionId);
// Takes the transaction's changes back. Objects created in it keep their contents.
void abortTransaction(std::int32_t sessionId);
// The session's changes not yet committed.
std::size_t uncommittedChanges(std::int32_t sessionId);
// Aborts and forgets the session.
void endTransactions(std::int32_t sessionId);
// Says which session's changes follow; 0 for none (no images are kept then).
void selectTransaction(std::int32_t sessionId);

// Marks what the kept images hold, for collections.
void markChanges(Marker mark);
// Forgets all transactions.
void clearChanges();

}  // namespace zel
