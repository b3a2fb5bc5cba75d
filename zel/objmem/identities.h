// Which object of the store each entry of the object tables stands for, in all sessions of a
// process: an object that several of them know has the same oop in each. Entries are handed out in
// pages, so that sessions make objects side by side, each in pages of its own.
#pragma once

#include <unordered_map>
#include <vector>

#include "oops.h"
#include "store/store.h"

namespace zel {

class Memory;

class Identities {
 public:
  static constexpr std::uint32_t pageEntries = 1024;
  // The kernel's objects lie before, at the same entries in every session.
  static constexpr std::uint32_t firstPage = 8;
  static constexpr std::uint32_t kernelEnd = firstPage * pageEntries;

  Identities() { pages_.resize(firstPage); }
  Identities(const Identities&) = delete;
  Identities& operator=(const Identities&) = delete;

  // The page that takePage gives the memory for its objects. Entries of it that are bound are in
  // use. Throws std::bad_alloc.
  std::uint32_t nextPage() const;
  void takePage(Memory& owner);
  // Gives all its pages back.
  void returnPages(const Memory& owner);

  // 0 for an object that is not in the store.
  ObjectId idOf(std::uint32_t index) const {
    const std::uint32_t page = index / pageEntries;
    if (index < firstFreeIndex) return index;
    if (page >= pages_.size() || pages_[page].entries.empty()) return 0;
    return pages_[page].entries[index % pageEntries].id;
  }
  // 0 when no session knows it.
  std::uint32_t indexOf(ObjectId id) const {
    if (id < firstFreeIndex) return static_cast<std::uint32_t>(id);
    const auto found = indexes_.find(id);
    return found != indexes_.end() ? found->second : 0;
  }
  // Binds the two for a first session that knows the object. Throws std::bad_alloc.
  void bind(std::uint32_t index, ObjectId id);
  void unbind(std::uint32_t index, ObjectId id) noexcept;
  // Counts the sessions that know the object. The last one that drops it frees its entry.
  void use(std::uint32_t index) { ++entryAt(index).users; }
  void drop(std::uint32_t index) noexcept;
  // How many entries were freed that way.
  std::uint64_t drops() const { return drops_; }
  // Calls `visit` with each id that some session knows.
  template <typename Visit>
  void visitIds(Visit visit) const {
    for (const auto& [id, index] : indexes_) visit(id);
  }
  // About how many bytes of memory it takes.
  std::size_t bytes() const;

 private:
  struct Entry {
    ObjectId id = 0;
    std::uint32_t users = 0;
  };
  struct Page {
    Memory* owner = nullptr;     // whose objects are made in it
    std::vector<Entry> entries;  // none until one of them is bound
  };
  Entry& entryAt(std::uint32_t index) {
    return pages_[index / pageEntries].entries[index % pageEntries];
  }

  std::vector<Page> pages_;
  std::size_t bytes_ = 0;  // of their entries
  std::uint64_t drops_ = 0;
  std::unordered_map<ObjectId, std::uint32_t> indexes_;
};

}  // namespace zel
