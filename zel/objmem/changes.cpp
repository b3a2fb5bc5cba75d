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
  object.dirty = true;
}

void forget(Memory& memory, OopType oop, const Image& image) {
  memory.account(-static_cast<std::ptrdiff_t>(image.weight()));
  memory.at(oop).dirty = false;
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
  if (object.exported) noteChanged(memory, oop);
  forget(memory, oop, image);
}

constexpr std::size_t weightOfObject = 64;
constexpr std::size_t weightOfHash = 20;

void weigh(Memory& memory, std::size_t bytes) {
  memory.current->transaction.weight += bytes;
  memory.account(static_cast<std::ptrdiff_t>(bytes));
}

Written& writtenOf(Memory& memory, OopType oop) {
  memory.reserve(weightOfObject + weightOfHash);
  const auto [place, isNew] = memory.current->transaction.written.try_emplace(oop);
  if (isNew) weigh(memory, weightOfObject);
  return place->second;
}

void noteRead(Memory& memory, Place place) {
  if (memory.current == nullptr) return;
  memory.reserve(weightOfHash);
  if (memory.current->transaction.keysRead.insert(place).second) weigh(memory, weightOfHash);
}

}  // namespace

void prepareFirstWrite(Memory& memory, OopType oop) {
  if (memory.require(oop).shared) memory.unshare(oop);
  Object& object = memory.at(oop);
  Client* client = memory.current;
  if (object.invariant) refuseChange(memory, oop);
  if (client != nullptr && !object.dirty) {
    if (object.stored) {
      writtenOf(memory, oop).itself = true;
      object.dirty = true;
    } else if (object.createdIn != client->transaction.serial) {
      keepImage(memory, *client, oop);
    }
  }
  if (object.exported) noteChanged(memory, oop);
}

void prepareStoredKeyWrite(Memory& memory, OopType oop, std::uint32_t hash) {
  Object& object = memory.require(oop);
  if (memory.current == nullptr) return prepareWrite(memory, oop);
  if (object.invariant) refuseChange(memory, oop);
  const bool other = goesByOtherHashes(memory, oop);
  Written& written = writtenOf(memory, oop);
  object.dirtyKeys = true;
  if (other) written.elements = true;
  if (written.hashes.insert(hash).second) weigh(memory, weightOfHash);
  if (object.exported) noteChanged(memory, oop);
}

void noteStoredKeyRead(Memory& memory, OopType oop, std::uint32_t hash) {
  const Object& object = memory.at(oop);
  if (!object.stored || object.invariant) return;
  noteRead(memory, {memory.identities.idOf(oop >> 2),
                    goesByOtherHashes(memory, oop) ? Place::any : Place::ofHash(hash)});
}

void noteStoredElementsRead(Memory& memory, OopType oop) {
  const Object* object = memory.find(oop);
  if (object == nullptr || !object->stored || object->invariant || !isHashed(memory, oop)) return;
  noteRead(memory, {memory.identities.idOf(oop >> 2), Place::any});
}

void beginTransaction(Memory& memory, Client& client) {
  client.transaction.serial = ++memory.lastTransaction;
}

void keepChanges(Memory& memory, Client& client) {
  for (const auto& [oop, image] : client.transaction.images) forget(memory, oop, image);
  client.transaction.images.clear();
}

void undoChanges(Memory& memory, Client& client) {
  // One by one, so that a failure leaves what is still to be taken back.
  const InRoom room(memory, Room::library);
  std::unordered_map<OopType, Image>& images = client.transaction.images;
  while (!images.empty()) {
    const auto first = images.begin();
    putBack(memory, first->first, first->second);
    images.erase(first);
  }
}

void forgetAccesses(Memory& memory, Client& client) {
  Transaction& transaction = client.transaction;
  memory.account(-static_cast<std::ptrdiff_t>(transaction.weight));
  transaction.weight = 0;
  transaction.written.clear();
  transaction.keysRead.clear();
}

}  // namespace zel
