#include "repository.h"

#include "records.h"

namespace zel {

void Repository::tidy(bool now) {
  if (inMemory == nullptr) return;
  constexpr std::size_t slack = 1U << 20;
  if (!now && inMemory->bytes() < 2 * tidied_ + slack) return;
  try {
    std::vector<ObjectId> roots;
    identities.visitIds([&](ObjectId id) { roots.push_back(id); });
    inMemory->retain(roots, referencesOf);
  } catch (const std::bad_alloc&) {
    // The next time.
  }
  tidied_ = inMemory->bytes();
}

}  // namespace zel
