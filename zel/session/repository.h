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

  // Drops what nothing refers to any more from a store in memory, `now` or when it has grown
  // enough since to be worth it.
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
  std::size_t tidied_ = 0;  // bytes that were left then
};

}  // namespace zel
