#include "clients.h"

#include <algorithm>

namespace zel {

namespace {

constexpr std::size_t handedOutKept = 1024;
constexpr std::size_t handedOutBytesKept = 4U << 20;

// Bits of Client::marks.
constexpr std::uint8_t Exported = 1;
constexpr std::uint8_t Changed = 2;
constexpr std::uint8_t HandedOut = 4;
constexpr std::uint8_t Seen = 8;  // while the list of what was handed out is walked

std::uint8_t markOf(const Client& client, OopType oop) {
  return client.marks.get(oop >> 2);
}

std::uint8_t& markAt(Client& client, OopType oop) {
  return client.marks.at(oop >> 2);
}

void drop(Client& client, OopType oop, std::uint8_t bits) {
  client.marks.at(oop >> 2) &= static_cast<std::uint8_t>(~bits);
}

// Drops the entries of objects that were released since, and double ones.
void compactChanged(Client& client) {
  std::vector<OopType>& changed = client.changed;
  std::size_t kept = 0;
  for (std::size_t i = client.firstUnreported; i < changed.size(); ++i) {
    if ((markOf(client, changed[i]) & Changed) == 0) continue;
    drop(client, changed[i], Changed);
    changed[kept++] = changed[i];
  }
  changed.resize(kept);
  for (const OopType oop : changed) client.marks.at(oop >> 2) |= Changed;
  client.firstUnreported = 0;
}

// Walks what was handed out, newest first, and forgets double entries and what `keep` refuses.
template <typename Keep>
void keepIf(Client& client, Keep keep) {
  const auto current = client.handedOut.end() - static_cast<std::ptrdiff_t>(client.handedOutNow);
  auto kept = client.handedOut.end();
  for (auto at = kept; at != client.handedOut.begin();) {
    const bool now = at > current;
    const OopType oop = *--at;
    const bool there = (markOf(client, oop) & (HandedOut | Seen)) == HandedOut;
    if (there && (now || keep(oop))) {
      client.marks.at(oop >> 2) |= Seen;
      *--kept = oop;
    } else {
      client.handedOutNow -= now ? 1 : 0;
      if (there) drop(client, oop, HandedOut);
    }
  }
  client.handedOut.erase(client.handedOut.begin(), kept);
  for (const OopType oop : client.handedOut) drop(client, oop, Seen);
  client.compactAt = std::max(4 * handedOutKept, 2 * client.handedOut.size());
}

}  // namespace

void exportObject(Memory& memory, Client& client, OopType oop) {
  if (!memory.exists(oop)) memory.require(oop);
  std::uint8_t& mark = markAt(client, oop);
  if ((mark & Exported) != 0) return;
  mark |= Exported;
  ++client.exportCount;
  if (Object* object = memory.loaded(oop >> 2); object != nullptr) object->exported = true;
}

bool isExported(const Client& client, OopType oop) {
  return (markOf(client, oop) & Exported) != 0;
}

void releaseObject(Memory& memory, Client& client, OopType oop) {
  if (!isReference(oop) || (markOf(client, oop) & Exported) == 0) return;
  drop(client, oop, Exported | Changed);
  --client.exportCount;
  if (Object* object = memory.loaded(oop >> 2); object != nullptr) object->exported = false;
}

void releaseAllObjects(Memory& memory, Client& client) {
  client.marks.visitAll(
      Exported, [&](std::uint32_t index) { releaseObject(memory, client, fixedOop(index)); });
}

void noteChanged(Memory& memory, OopType oop) {
  constexpr std::size_t slack = 1024;
  for (Client* client : memory.clients) {
    if (!client->tracksChanges || (markOf(*client, oop) & (Exported | Changed)) != Exported) {
      continue;
    }
    client->changed.push_back(oop);
    client->marks.at(oop >> 2) |= Changed;
    if (client->changed.size() > 2 * client->exportCount + slack) compactChanged(*client);
  }
}

std::size_t takeChanged(Client& client, OopType* oops, std::size_t room, bool& complete) {
  std::size_t taken = 0;
  std::size_t at = client.firstUnreported;
  for (; at < client.changed.size(); ++at) {
    const OopType oop = client.changed[at];
    if ((markOf(client, oop) & Changed) == 0) continue;  // released since
    if (taken == room) break;
    drop(client, oop, Changed);
    oops[taken++] = oop;
  }
  client.firstUnreported = at;
  complete = at == client.changed.size();
  if (complete) {
    client.changed.clear();
    client.firstUnreported = 0;
  }
  return taken;
}

OopType handOut(const Memory& memory, Client& client, OopType oop) {
  if (!memory.exists(oop) || oop >> 2 < firstFreeIndex) return oop;
  if (client.handedOut.size() >= client.compactAt) {
    keepIf(client, [left = handedOutKept](OopType) mutable { return left != 0 && left-- != 0; });
  }
  client.handedOut.push_back(oop);
  ++client.handedOutNow;
  markAt(client, oop) |= HandedOut;
  return oop;
}

void releaseHandedOut(Client& client, OopType oop) {
  if (isReference(oop) && markOf(client, oop) != 0) drop(client, oop, HandedOut);
  std::ranges::replace(client.failed, oop, NilOop);
}

void releaseAllHandedOut(Client& client) {
  for (const OopType oop : client.handedOut) drop(client, oop, HandedOut);
  client.handedOut.clear();
  client.handedOutNow = 0;
  client.failed.fill(NilOop);
}

void markSaved(Memory& memory, const Client& client) {
  if (client.exportCount != 0) {
    client.marks.visitAll(Exported, [&](std::uint32_t index) { memory.mark(fixedOop(index)); });
  }
  for (const auto& [oop, written] : client.transaction.written) memory.mark(oop);
  for (const auto& [oop, image] : client.transaction.images) {
    memory.mark(oop);
    for (const OopType slot : image.slots) memory.mark(slot);
  }
}

void keepHandedOut(Memory& memory, Client& client, bool pressed) {
  for (std::size_t i = client.handedOut.size() - client.handedOutNow; i < client.handedOut.size();
       ++i) {
    if ((markOf(client, client.handedOut[i]) & HandedOut) != 0) memory.mark(client.handedOut[i]);
  }
  if (pressed && !client.failedNow) client.failed.fill(NilOop);
  for (const OopType oop : client.failed) memory.mark(oop);
  std::size_t count = client.handedOutNow;
  std::size_t bytes = memory.markReachable();
  keepIf(client, [&](OopType oop) {
    if (pressed || count >= handedOutKept || bytes > handedOutBytesKept) return false;
    ++count;
    memory.mark(oop);
    bytes += memory.markReachable();
    return true;
  });
}

}  // namespace zel
