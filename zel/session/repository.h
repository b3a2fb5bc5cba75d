// What the sessions of a process have in common of one store: the store, and which object each
// entry of their object tables stands for.
#pragma once

#include <memory>

#include "objmem/identities.h"
#include "store/memorystore.h"

namespace zel {

struct Repository {
  explicit Repository(std::unique_ptr<Store> keeper) : store(std::move(keeper)) {}
  explicit Repository(std::unique_ptr<MemoryStore> keeper)
      : inMemory(keeper.get()), store(std::move(keeper)) {}

  // An id that no object had before.
  ObjectId newId() {
    if (nextId == endOfIds) {
      constexpr std::uint32_t range = 1024;
      nextId = store->newIds(range);
      endOfIds = nextId + range;
    }
    return nextId++;
  }

  // Drops what nothing refers to any more from a store in memory: when it has grown enough since
  // the last time to be worth it, or `now` if anything has changed since that may have let go.
  void tidy(bool now);
  // About how many bytes of memory it takes.
  std::size_t bytes() const {
    return identities.bytes() + (inMemory != nullptr ? inMemory->bytes() : 0);
  }

  MemoryStore* inMemory = nullptr;  // the store, if it is one
  Identities identities;
  std::unique_ptr<Store> store;
  ObjectId nextId = 0;
  ObjectId endOfIds = 0;

 private:
  // What lets go of objects shows in one of these.
  struct State {
    Version version = 0;
    std::size_t bytes = 0;
    std::uint64_t drops = 0;

    bool operator==(const State&) const = default;
  };
  State state() const {
    return {inMemory->statistics().version, inMemory->bytes(), identities.drops()};
  }

  State tidied_;  // behind the last time
};

}  // namespace zel
