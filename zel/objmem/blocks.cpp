#include "blocks.h"

#include <cstdlib>

namespace zel {

Blocks::~Blocks() {
  for (Chunk* chunk : open_) freeAll(chunk);
  freeAll(spares_);
}

void Blocks::freeAll(Chunk* chunk) {
  while (chunk != nullptr) {
    Chunk* next = chunk->next;
    std::free(chunk);
    chunk = next;
  }
}

void* Blocks::allocateLarge(std::size_t size) {
  return std::malloc(size);
}

void Blocks::link(Chunk& chunk) {
  Chunk*& first = open_[chunk.kind];
  if (first != nullptr && first->free == nullptr) unlink(*first);
  chunk.before = nullptr;
  chunk.next = first;
  if (first != nullptr) first->before = &chunk;
  first = &chunk;
}

void Blocks::unlink(Chunk& chunk) {
  (chunk.before != nullptr ? chunk.before->next : open_[chunk.kind]) = chunk.next;
  if (chunk.next != nullptr) chunk.next->before = chunk.before;
}

void* Blocks::allocateSlowly(std::size_t kind) {
  // A full one leaves the list here, and comes back with its first free block.
  while (open_[kind] != nullptr && open_[kind]->free == nullptr) unlink(*open_[kind]);
  if (open_[kind] == nullptr) {
    Chunk* chunk = newChunk();
    if (chunk == nullptr) return nullptr;
    cut(chunk, kind);
  }
  return take(*open_[kind]);
}

Blocks::Chunk* Blocks::newChunk() {
  void* memory = nullptr;
  return posix_memalign(&memory, chunkBytes, usedBytes) == 0 ? static_cast<Chunk*>(memory)
                                                             : nullptr;
}

void Blocks::cut(Chunk* chunk, std::size_t kind) {
  *chunk = {nullptr, nullptr, nullptr, 0, static_cast<std::uint32_t>(kind)};
  const std::size_t size = kind * grain;
  char* start = reinterpret_cast<char*>(chunk);
  char* first = start + (sizeof(Chunk) + grain - 1) / grain * grain;
  char* block = start + usedBytes / grain * grain;
  do {
    block -= size;
    auto* free = reinterpret_cast<Free*>(block);
    free->next = chunk->free;
    chunk->free = free;
  } while (block - size >= first);
  link(*chunk);
}

void* Blocks::allocateSpare(std::size_t size, std::size_t staying) {
  while (spareCount_ > staying) {
    Chunk* chunk = takeSpare();
    if (size <= largest) {
      cut(chunk, kindOf(size));
      return take(*chunk);
    }
    std::free(chunk);
    if (void* block = allocateLarge(size)) return block;
  }
  return nullptr;
}

void Blocks::giveSpares(std::size_t staying) {
  while (spareCount_ > staying) std::free(takeSpare());
}

Blocks::Chunk* Blocks::takeSpare() {
  Chunk* chunk = spares_;
  spares_ = chunk->next;
  --spareCount_;
  return chunk;
}

void Blocks::keepSpare(Chunk* chunk) {
  chunk->next = spares_;
  spares_ = chunk;
  ++spareCount_;
}

bool Blocks::fillSpares(std::size_t count) {
  while (spareCount_ < count) {
    Chunk* chunk = newChunk();
    if (chunk == nullptr) return false;
    keepSpare(chunk);
  }
  return true;
}

void Blocks::releaseLarge(void* block) {
  std::free(block);
}

// A block of the chunk became free that was its first free one or its last in use.
void Blocks::reconsider(Chunk& chunk) {
  // One that became full last still stands first on the list.
  if (chunk.free->next == nullptr && open_[chunk.kind] != &chunk) link(chunk);
  if (chunk.used == 0 && (chunk.before != nullptr || chunk.next != nullptr)) {
    unlink(chunk);
    spareCount_ < mostSpares ? keepSpare(&chunk) : std::free(&chunk);
  }
}

}  // namespace zel
