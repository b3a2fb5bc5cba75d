#include "identities.h"

#include <algorithm>

#include "memory.h"

namespace zel {

std::uint32_t Identities::nextPage() const {
  const auto unowned = [](const Page& page) { return page.owner == nullptr; };
  return static_cast<std::uint32_t>(
      std::find_if(pages_.begin() + firstPage, pages_.end(), unowned) - pages_.begin());
}

void Identities::takePage(Memory& owner) {
  const std::uint32_t page = nextPage();
  if (page == pages_.size()) pages_.emplace_back();
  pages_[page].owner = &owner;
}

void Identities::returnPages(const Memory& owner) {
  for (Page& page : pages_) {
    if (page.owner == &owner) page.owner = nullptr;
  }
  while (pages_.size() > firstPage && pages_.back().owner == nullptr &&
         std::ranges::all_of(pages_.back().entries,
                             [](const Entry& entry) { return entry.id == 0; })) {
    bytes_ -= pages_.back().entries.size() * sizeof(Entry);
    pages_.pop_back();
  }
}

void Identities::bind(std::uint32_t index, ObjectId id) {
  std::vector<Entry>& entries = pages_[index / pageEntries].entries;
  if (entries.empty()) {
    entries.resize(pageEntries);
    bytes_ += pageEntries * sizeof(Entry);
  }
  indexes_.emplace(id, index);
  entryAt(index) = {id, 1};
}

void Identities::unbind(std::uint32_t index, ObjectId id) noexcept {
  indexes_.erase(id);
  entryAt(index) = {};
}

void Identities::drop(std::uint32_t index) noexcept {
  Entry& entry = entryAt(index);
  if (--entry.users != 0 || index < kernelEnd) return;
  indexes_.erase(entry.id);
  entry.id = 0;
  ++drops_;
  if (Memory* owner = pages_[index / pageEntries].owner; owner != nullptr) owner->freeEntry(index);
}

std::size_t Identities::bytes() const {
  constexpr std::size_t mapped = 32;
  return indexes_.size() * mapped + bytes_;
}

}  // namespace zel
