#include "repository.h"

#include "records.h"

namespace zel {

void Repository::tidy(bool now) {
  if (inMemory == nullptr) return;
  constexpr std::size_t slack = 1U << 20;
  if (now ? state() == tidied_ : inMemory->bytes() < 2 * tidied_.bytes + slack) return;
  try {
    std::vector<ObjectId> roots;
    identities.visitIds([&](ObjectId id) { roots.push_back(id); });
    inMemory->retain(roots, referencesOf);
    tidied_ = state();
  } catch (const std::bad_alloc&) {
    tidied_ = {.bytes = inMemory->bytes()};  // the next time
  }
}

}  // namespace zel
