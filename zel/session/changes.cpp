#include "changes.h"

#include <string>
#include <unordered_map>

#include "errors/failure.h"
#include "objmem/hashed.h"
#include "session.h"

namespace zel {

namespace {

struct Image {
  std::vector<OopType> slots;
  std::vector<ByteType> bytes;

  std::size_t weight() const { return slots.size() * sizeof(OopType) + bytes.size() + 64; }
};

struct Transaction {
  std::uint32_t serial = 0;
  std::unordered_map<OopType, Image> images;
};

std::unordered_map<std::int32_t, Transaction> transactions;
std::int32_t currentId = 0;
Transaction* current = nullptr;
std::uint32_t lastSerial = 0;

void keepImage(OopType oop, Object& object) {
  Image image{object.slots, object.bytes};
  accountBytes(static_cast<std::ptrdiff_t>(image.weight()));
  current->images.emplace(oop, std::move(image));
  object.writer = static_cast<std::uint16_t>(currentId);
}

void putBack(OopType oop, Image& image) {
  Object& object = *findObject(oop);
  accountBytes(-static_cast<std::ptrdiff_t>(image.weight()));
  dropIndex(object);
  resizeBody(object, object.impl == Impl::bytes ? image.bytes.size() : image.slots.size());
  std::copy(image.slots.begin(), image.slots.end(), object.slots.begin());
  std::copy(image.bytes.begin(), image.bytes.end(), object.bytes.begin());
  object.writer = 0;
  if (object.exports != 0) noteChanged(oop);
}

void forgetImages(Transaction& transaction) {
  for (auto& [oop, image] : transaction.images) {
    accountBytes(-static_cast<std::ptrdiff_t>(image.weight()));
    findObject(oop)->writer = 0;
  }
  transaction.images.clear();
}

}  // namespace

void prepareWrite(OopType oop) {
  Object& object = objectAt(oop);
  if (object.invariant) throw Failure(ErrInvariant, "the object cannot be changed", {oop});
  if (object.writer != 0 && object.writer != currentId) {
    throw Failure(ErrConflict,
                  "session " + std::to_string(object.writer) +
                      " has changed the object and not committed yet",
                  {oop});
  }
  if (current != nullptr && object.createdIn != current->serial && object.writer == 0) {
    keepImage(oop, object);
  }
  if (object.exports != 0) noteChanged(oop);
}

ChangeOfInvariant::ChangeOfInvariant(OopType oop) : object_(objectAt(oop)) {
  object_.invariant = false;
  try {
    prepareWrite(oop);
  } catch (...) {
    object_.invariant = true;
    throw;
  }
}

void beginTransaction(std::int32_t sessionId) {
  transactions[sessionId].serial = ++lastSerial;
  selectTransaction(sessionId);
}

void commitTransaction(std::int32_t sessionId) {
  forgetImages(transactions[sessionId]);
  beginTransaction(sessionId);
}

void abortTransaction(std::int32_t sessionId) {
  Transaction& transaction = transactions[sessionId];
  for (auto& [oop, image] : transaction.images) putBack(oop, image);
  transaction.images.clear();
  ++lookupEpoch;
  beginTransaction(sessionId);
}

std::size_t uncommittedChanges(std::int32_t sessionId) {
  return transactions[sessionId].images.size();
}

void endTransactions(std::int32_t sessionId) {
  abortTransaction(sessionId);
  transactions.erase(sessionId);
  selectTransaction(0);
}

void selectTransaction(std::int32_t sessionId) {
  const auto found = transactions.find(sessionId);
  current = found != transactions.end() ? &found->second : nullptr;
  currentId = current != nullptr ? sessionId : 0;
  setCreationSerial(current != nullptr ? current->serial : 0);
}

void markChanges(Marker mark) {
  for (const auto& [sessionId, transaction] : transactions) {
    for (const auto& [oop, image] : transaction.images) {
      mark(oop);
      for (const OopType slot : image.slots) mark(slot);
    }
  }
}

void clearChanges() {
  transactions.clear();
  selectTransaction(0);
}

}  // namespace zel
