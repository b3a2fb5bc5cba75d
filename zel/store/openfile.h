// A database file that this process has open: its locks and tables, and the mark in it that says
// what must be there (see filevfs.h).
//
// The order of the mark: "in use" stands in the file before the first commit after an opening is
// made, and until who closes it last has moved everything into the main file. While commits are
// moved there, "filling" stands in it, because the main file alone is a mixture then.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "store/filestore.h"
#include "store/tables.h"

namespace zel {

class OpenFile {
 public:
  explicit OpenFile(const FileOptions& options);
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  const std::string& path() const { return path_; }
  const FileCalls& calls() const { return calls_; }
  const Waiting& waiting() const { return waiting_; }

  // Opens the file if that has not been done; answers false when it is not there. Throws in a
  // forked child.
  bool open();
  bool isOpen() const { return locks_ != nullptr; }
  FileLocks& locks() { return *locks_; }
  Tables& tables() { return *tables_; }

  // Takes the locks of a file that this process has just made and that has this path now.
  void adopt(std::unique_ptr<FileLocks> locks) noexcept { locks_ = std::move(locks); }

  // Throws ErrReadOnly, and ErrDamaged when damage was met. Before the lock `write`, which needs
  // the right to.
  void checkWritable() const;
  // With that lock held, before anything is written.
  void prepareToWrite();
  // The same, afterwards: moves commits into the main file when there are many, or in any case.
  // Answers whether nothing is left to be moved.
  bool fill(bool always);
  // Closes it. Whoever is the last leaves one complete file.
  void close() noexcept;
  // For who holds `use` alone: leaves one complete file and keeps the locks.
  void closeTables();

  // Whether who opens this path now meets the same file, or also none, and not in a forked child.
  bool isStillThere() const;
  bool isForked() const noexcept;
  void checkProcess() const;  // throws when it is

  std::uint64_t bytes();  // of the file and the write-ahead file

 private:
  bool attach();
  void openTables();
  void attachTables();
  void check(const Mark& mark);

  FileCalls calls_;
  Waiting waiting_;
  std::string path_;
  int process_;
  bool readOnly_ = false;
  FileRights rights_;
  std::unique_ptr<FileLocks> locks_;
  std::unique_ptr<Tables> tables_;
};

// The name behind all symbolic links, so that the files beside it are the same for everybody.
std::string resolved(const std::string& path);
// Throws ErrInUseElsewhere when what lies beside the file is in use by those who have open another
// one that had its name. For who is alone with the file.
void requireNobodyBeside(const FileCalls& calls, const std::string& path);
// The folder that such a file is in.
std::string folderOf(const std::string& path);

}  // namespace zel
