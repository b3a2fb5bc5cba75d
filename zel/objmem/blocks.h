// Blocks of memory for small objects, which come and go by the million: chunks cut into blocks of
// one size, each with a list of its free ones. A chunk that is free as a whole goes back, but for a
// few that are kept for when the process has no memory left.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel {

class Blocks {
 public:
  Blocks() = default;
  ~Blocks();
  Blocks(const Blocks&) = delete;
  Blocks& operator=(const Blocks&) = delete;

  static constexpr std::size_t mostSpares = 32;

  // A block of the size, null when the process has no memory left. Larger ones are malloc's.
  void* allocate(std::size_t size) {
    if (size > largest) return allocateLarge(size);
    Chunk* chunk = open_[kindOf(size)];
    if (chunk == nullptr || chunk->free == nullptr) return allocateSlowly(kindOf(size));
    return take(*chunk);
  }
  // The same from the spare chunks, of which so many stay.
  void* allocateSpare(std::size_t size, std::size_t staying);
  // Gives all but so many of the spare chunks to malloc.
  void giveSpares(std::size_t staying);
  // Has so many spare chunks, or as many as there is memory for; answers whether it has them all.
  bool fillSpares(std::size_t count);
  std::size_t spares() const { return spareCount_; }
  // Takes a block back, whose size must be given as it was.
  void release(void* block, std::size_t size) {
    if (size > largest) return releaseLarge(block);
    auto* chunk =
        reinterpret_cast<Chunk*>(reinterpret_cast<std::uintptr_t>(block) & ~(chunkBytes - 1));
    auto* free = static_cast<Free*>(block);
    free->next = chunk->free;
    chunk->free = free;
    if (--chunk->used == 0 || free->next == nullptr) reconsider(*chunk);
  }

 private:
  struct Free {
    Free* next;
  };
  // At the front of its memory, which is aligned to its size.
  struct Chunk {
    Free* free;
    Chunk* next;  // of those with free blocks, in both directions
    Chunk* before;
    std::uint32_t used;
    std::uint32_t kind;
  };

  static constexpr std::size_t largest = 128;
  static constexpr std::size_t grain = 8;
  static constexpr std::size_t chunkBytes = 32U << 10;
  // Less what malloc keeps beside it, so that chunks lie side by side.
  static constexpr std::size_t usedBytes = chunkBytes - 16;
  static constexpr std::size_t kinds = largest / grain + 1;
  static std::size_t kindOf(std::size_t size) { return (size + grain - 1) / grain; }

  static void* take(Chunk& chunk) {
    Free* block = chunk.free;
    chunk.free = block->next;
    ++chunk.used;
    return block;
  }
  static void* allocateLarge(std::size_t size);
  static void releaseLarge(void* block);
  void* allocateSlowly(std::size_t kind);
  static Chunk* newChunk();
  void cut(Chunk* chunk, std::size_t kind);
  void keepSpare(Chunk* chunk);
  Chunk* takeSpare();
  static void freeAll(Chunk* chunk);
  void reconsider(Chunk& chunk);
  void link(Chunk& chunk);
  void unlink(Chunk& chunk);

  Chunk* open_[kinds] = {};  // those with free blocks; the first may have become full
  Chunk* spares_ = nullptr;
  std::size_t spareCount_ = 0;
};

}  // namespace zel
