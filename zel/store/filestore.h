// Stores in a file: one SQLite database beside its write-ahead file, shared by any number of
// processes. A commit that was acknowledged survives the end of the process and of the machine's
// power. What lies in the file carries checksums, so that whatever was turned, cut or lost of it is
// an error, and never a wrong answer. A store that has met such damage, a reference to nothing
// included, writes nothing any more: every commit and every call of newIds that would write throws
// ErrDamaged, which names the damage, until the file is opened anew. What is whole can be read on.
// A failure of the disk is no damage: what failed can be tried again.
//
//   auto store = openFileStore({.path = "shop.povzel", .create = true});
//
// Besides what store.h says, everything here throws
//   ErrLoginDenied  for what is no database: nothing there, a folder, another program's file
//   ErrNewerStore   for the file of a newer version
//   ErrReadOnly     when it would have to write and may not
//   ErrOutcomeUnknown  when a new file is in its place, but may not last: the disk failed
//   ErrInUseElsewhere  in a process that was forked while the store was open, in the place of its
//                   parent; for a file that has come in the place of one that is in use, as both
//                   would use the same files beside; and where it says so
//   std::bad_alloc  when there is no memory; everything is as before then, too
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/filecalls.h"
#include "store/store.h"

namespace zel {

struct FileOptions {
  std::string path;               // relative to the working folder at the opening
  bool create = false;            // a file that is not there, or empty, is made by the first commit
  std::function<void()> poll{};   // called while others are waited for; may throw to break that off
  std::uint32_t patience = 5000;  // milliseconds of that before ErrStoreBusy
  FailCall beforeCall{};          // of each system call
};

// Opens a store. A file is made by the first commit, all of it at once; when somebody else has
// made one by then, that commit fails with ErrInUseElsewhere, and so do all that follow.
std::unique_ptr<Store> openFileStore(const FileOptions& options);

// Adds the ids that a row refers to, beside that of its class.
using References = std::function<void(const Row& row, std::vector<ObjectId>& ids)>;

// What is wrong with a file, a line for each, a hundred at most; none when all is well. Others may
// use the file. Damage that makes reading on impossible is the last line.
std::vector<std::string> verifyFile(const FileOptions& options, const References& references,
                                    const Progress& progress);

struct Compacted {
  std::uint64_t objects = 0;  // that are left
  std::uint64_t dropped = 0;  // that nothing led to
  std::uint64_t bytesBefore = 0;
  std::uint64_t bytes = 0;
};
// Writes the file anew with what can be reached from the system's objects, in place of the old one,
// all at once. Needs room for both, and the file alone: throws ErrInUseElsewhere.
Compacted compactFile(const FileOptions& options, const References& references,
                      const Progress& progress);

}  // namespace zel
