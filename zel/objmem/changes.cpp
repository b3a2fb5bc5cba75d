#include "changes.h"

#include <algorithm>

#include "classes.h"
#include "clients.h"
#include "hashed.h"

namespace zel {

namespace {

void keepImage(Memory& memory, Client& client, OopType oop) {
  Object& object = memory.at(oop);
  Image image;
  const std::size_t slots = object.holdsBytes() ? 0 : object.size;
  const std::size_t bytes = object.holdsBytes() ? object.size : 0;
  memory.meter.chargeCopy(slots * sizeof(OopType) + bytes);
  memory.reserve(slots * sizeof(OopType) + bytes);
  image.slots.assign(object.slots, object.slots + slots);
  image.bytes.assign(object.bytes, object.bytes + bytes);
  const auto weight = static_cast<std::ptrdiff_t>(image.weight());
  client.transaction.images.emplace(oop, std::move(image));
  memory.account(weight);
  object.writer = static_cast<std::uint16_t>(client.id);
}

void forget(Memory& memory, OopType oop, const Image& image) {
  memory.account(-static_cast<std::ptrdiff_t>(image.weight()));
  memory.at(oop).writer = 0;
}

[[noreturn]] void refuseChange(const Memory& memory, OopType oop) {
  const bool isSymbol = memory.at(oop).classOop == SymbolClass;
  if (!isSymbol && !copiesAreChangeable(memory, oop)) {
    throw Failure(ErrInvariant, describe(memory, oop) + " cannot be changed", {oop});
  }
  throw Failure(ErrInvariant,
                "this " + nameOf(memory, classOf(memory, oop)) +
                    " cannot be changed: copy it first" + (isSymbol ? ", with asString" : ""),
                {oop});
}

void putBack(Memory& memory, OopType oop, const Image& image) {
  dropIndex(memory, oop);
  if (memory.at(oop).invariant) ++memory.equalityEpoch;  // perhaps a class's methods
  const bool bytes = memory.at(oop).holdsBytes();
  Object& object = memory.resize(oop, bytes ? image.bytes.size() : image.slots.size());
  std::copy(image.slots.begin(), image.slots.end(), object.slots);
  std::copy(image.bytes.begin(), image.bytes.end(), object.bytes);
  object.width = Width::unknown;
  if (object.exports != 0) noteChanged(memory, oop);
  forget(memory, oop, image);
}

}  // namespace

void prepareFirstWrite(Memory& memory, OopType oop) {
  if (memory.require(oop).shared) memory.unshare(oop);
  const Object& object = memory.at(oop);
  Client* client = memory.current;
  if (object.invariant) refuseChange(memory, oop);
  if (object.writer != 0 && (client == nullptr || object.writer != client->id)) {
    throw Failure(ErrConflict,
                  "session " + std::to_string(object.writer) +
                      " has changed the object and not committed yet",
                  {oop});
  }
  if (client != nullptr && object.createdIn != client->transaction.serial && object.writer == 0) {
    keepImage(memory, *client, oop);
  }
  if (object.exports != 0) noteChanged(memory, oop);
}

ChangeOfInvariant::ChangeOfInvariant(Memory& memory, OopType oop) : memory_(memory), oop_(oop) {
  memory.require(oop).invariant = false;
  try {
    prepareWrite(memory, oop);
  } catch (...) {
    memory.at(oop).invariant = true;
    throw;
  }
}

void beginTransaction(Memory& memory, Client& client) {
  client.transaction.serial = ++memory.lastTransaction;
}

void commitTransaction(Memory& memory, Client& client) {
  for (const auto& [oop, image] : client.transaction.images) forget(memory, oop, image);
  client.transaction.images.clear();
  beginTransaction(memory, client);
}

void abortTransaction(Memory& memory, Client& client) {
  // One by one, so that a failure leaves what is still to be taken back.
  const InRoom room(memory, Room::library);
  std::unordered_map<OopType, Image>& images = client.transaction.images;
  while (!images.empty()) {
    const auto first = images.begin();
    putBack(memory, first->first, first->second);
    images.erase(first);
  }
  memory.forgetLookups();
  beginTransaction(memory, client);
}

}  // namespace zel
