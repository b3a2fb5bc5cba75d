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
    void* memory = std::aligned_alloc(chunkBytes, chunkBytes);
    if (memory == nullptr) return nullptr;
    cut(static_cast<Chunk*>(memory), kind);
  }
  return take(*open_[kind]);
}

void Blocks::cut(Chunk* chunk, std::size_t kind) {
  *chunk = {nullptr, nullptr, nullptr, 0, static_cast<std::uint32_t>(kind)};
  const std::size_t size = kind * grain;
  char* start = reinterpret_cast<char*>(chunk);
  char* first = start + (sizeof(Chunk) + grain - 1) / grain * grain;
  char* block = start + chunkBytes;
  do {
    block -= size;
    auto* free = reinterpret_cast<Free*>(block);
    free->next = chunk->free;
    chunk->free = free;
  } while (block - size >= first);
  link(*chunk);
}

void* Blocks::allocateSpare(std::size_t size) {
  if (size > largest) return allocateLarge(size);
  if (spares_ == nullptr) return nullptr;
  Chunk* chunk = spares_;
  spares_ = chunk->next;
  --spareCount_;
  cut(chunk, kindOf(size));
  return take(*chunk);
}

void Blocks::keepSpare(Chunk* chunk) {
  chunk->next = spares_;
  spares_ = chunk;
  ++spareCount_;
}

void Blocks::refillSpares() {
  while (spareCount_ < mostSpares) {
    void* memory = std::aligned_alloc(chunkBytes, chunkBytes);
    if (memory == nullptr) return;
    keepSpare(static_cast<Chunk*>(memory));
  }
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
