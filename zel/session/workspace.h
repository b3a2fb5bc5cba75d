// A session's view of the store: the state as of its transaction's first access, and its own
// changes, which a commit writes.
//
// The view moves to the newest state when a transaction begins: what others have changed leaves the
// memory, and is loaded again when it is touched. The kernel's dictionaries, which never leave it,
// are changed in place: they hold the kernel's own entries where the store has none.
#pragma once

#include <array>
#include <optional>
#include <unordered_map>

#include "objmem/clients.h"
#include "records.h"
#include "repository.h"
#include "users.h"

namespace zel {

class Workspace {
 public:
  // The memory must have its kernel, which is sealed.
  Workspace(Memory& memory, Client& client, Repository& repository);
  ~Workspace();
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;

  // Begins the transaction's view, unless the transaction has read or written anything already.
  // To be called before each request, and where a program goes on behind the end of a transaction.
  void begin();
  // Writes the transaction's changes and begins the next. Throws ErrCommitConflict when another
  // session has changed what it read or wrote, and what the store throws: then nothing was written,
  // and the transaction goes on.
  void commit();
  // Takes the transaction's changes back, and begins the next. A failure leaves what is still to be
  // taken back.
  void abort();
  // The version that the last commit made, 0 if none did.
  Version lastCommit() const { return lastCommit_; }
  // Whether there is something to commit, the users of a new database among it.
  bool hasChanges() const { return !client_.transaction.written.empty() || !users_.empty(); }
  // Has the commit give the user a password, by its hash, or remove the user.
  void changeUser(const std::string& name, std::optional<std::string> hash) {
    users_[name] = std::move(hash);
    client_.transaction.changesUsers = true;
  }
  // Has the first commit of a new database, and no abort before it, make these its users.
  void found(UserChanges founders) { users_ = founders_ = std::move(founders); }
  // The hash of a user's password as this transaction sees it, none when there is no such user.
  std::optional<std::string> passwordOf(std::string_view user);

 private:
  struct Entries {
    OopType dictionary;
    std::vector<OopType> slots;  // keys and values
  };
  // What objects that were loaded together refer to: once one of them is touched, those behind it
  // are read with it, ever more of them while that goes on.
  struct Family {
    std::vector<std::uint32_t> entries;
    std::size_t next = 0;  // the first that was not read with others
    std::size_t count = 1;
    std::uint64_t lastUse = 0;
  };
  // Of the kernel's dictionaries, what is to be read anew.
  using HashesOfKernel = std::unordered_map<OopType, std::vector<std::uint32_t>>;
  class Writing;

  void load(std::uint32_t index);
  void place(std::uint32_t index, std::span<const Row> rows);
  void noteFamily(std::span<const std::uint32_t> loaded);
  std::vector<ObjectId> relativesOf(std::uint32_t index);
  OopType kernelMethod(const KernelMethod& method) const;
  void keepKernel();
  std::vector<OopType> kernelEntries(OopType dictionary, std::uint32_t hash);
  void applyToKernel(OopType dictionary, const std::vector<std::uint32_t>& hashes);
  void moveTo(Version version);
  void addAllOfKernel(HashesOfKernel& hashes);
  void apply(std::span<const Place> changes);
  Outcome write(const Changes& changes);
  void follow(const Changes& changes, Version version);
  Failure conflict(const Outcome& outcome);
  void requireFounder(Version newest) const;
  void endTransaction();
  bool changesEquality(Place place);

  Memory& memory_;
  Client& client_;
  Repository& repository_;
  std::vector<Entries> kernel_;  // the dictionaries as the kernel has them
  std::function<OopType(const KernelMethod&)> findKernelMethod_;
  std::array<Family, 4> families_;  // of what was loaded last
  std::uint64_t lastUse_ = 0;
  UserChanges users_;
  UserChanges founders_;  // among them, until they are committed
  Version view_ = 0;      // leased
  // Why the view did not move to the last commit, or not as a whole to a newer one: nothing can be
  // loaded until it has.
  std::optional<Failure> behind_;
  Version lastCommit_ = 0;
  // The last one that changed what `=` or `hash` means, and the memory's count when this
  // transaction began: what programs gave as a hash before may be another now.
  Version equality_ = 0;
  std::uint32_t equalityEpoch_ = 0;
};

}  // namespace zel
