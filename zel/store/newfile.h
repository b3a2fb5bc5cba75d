// A database file in the making: beside its later place, under a name of its own, and there at once
// when it is complete.
#pragma once

#include <memory>
#include <string>

#include "store/tables.h"
#include "store/unfinished.h"

namespace zel {

class NewFile {
 public:
  // Begins an empty one that is to lie at `path`, readable and writable by the user alone. All
  // references outlive this.
  NewFile(const FileCalls& calls, const Waiting& waiting, const std::string& path);
  ~NewFile() = default;  // removes it, unless it was published
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Until it is finished. A transaction is open.
  Tables& tables() { return *tables_; }
  State state{};

  // Writes `state` and all of it to the disk, and answers the file's own locks.
  std::unique_ptr<FileLocks> finish();
  // Puts it in its place, where nothing may be, or an empty file if that is allowed; answers false
  // when there is more.
  bool publish(bool overEmpty);
  // Puts it in the place of the file that is there, with the owner and the rights of that.
  void replace();
  // Makes its new name last. Throws ErrOutcomeUnknown, and it is there all the same.
  void settle();

 private:
  [[noreturn]] void fail(const char* what) const;

  const FileCalls& calls_;
  const Waiting& waiting_;
  std::string path_;
  Unfinished made_;
  std::unique_ptr<Tables> tables_;
  std::optional<Transaction> transaction_;
};

}  // namespace zel
