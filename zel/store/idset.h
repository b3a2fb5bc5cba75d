// A set of the ids of a store's objects, most of which are close together.
#pragma once

#include <bitset>
#include <memory>
#include <unordered_map>

#include "store/store.h"

namespace zel {

class IdSet {
 public:
  // Answers whether it is new.
  bool add(ObjectId id) {
    const auto bit = static_cast<std::size_t>(id % blockSize);
    auto& block = blocks_[id / blockSize];
    if (block == nullptr) block = std::make_unique<std::bitset<blockSize>>();
    if (block->test(bit)) return false;
    block->set(bit);
    return true;
  }
  bool contains(ObjectId id) const {
    const auto block = blocks_.find(id / blockSize);
    return block != blocks_.end() && block->second->test(static_cast<std::size_t>(id % blockSize));
  }
  // The smallest id that the other set lacks, 0 if there is none.
  ObjectId firstBeyond(const IdSet& other) const {
    ObjectId first = 0;
    for (const auto& [number, block] : blocks_) {
      const auto theirs = other.blocks_.find(number);
      const auto beyond = theirs == other.blocks_.end() ? *block : *block & ~*theirs->second;
      const std::size_t bit = beyond._Find_first();
      if (bit == blockSize) continue;
      const ObjectId id = number * blockSize + bit;
      if (first == 0 || id < first) first = id;
    }
    return first;
  }

 private:
  static constexpr std::size_t blockSize = 32768;
  std::unordered_map<ObjectId, std::unique_ptr<std::bitset<blockSize>>> blocks_;
};

}  // namespace zel
