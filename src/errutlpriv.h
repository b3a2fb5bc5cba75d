// What errmsg needs of the reader beyond its public header: ErrUtlInit in two steps, and the open
// file's contents in memory.
//
// Looking a message up touches half a dozen places of a small file. A stream asks the system for
// each of them, even within its own buffer, so the whole file is read once, at the first lookup.
#pragma once

#include "errutl.h"

// Finds the file that ErrUtlInit is to open. This may itself ask for error texts.
void errUtlFindFile(const char* fileName, HostFnameStrType& name);

// Opens it. This does not.
bool errUtlOpen(BoolType isCompiled, const HostFnameStrType& name);

struct ErrUtlBytes {
  const unsigned char* data;
  std::size_t size;

  bool holds(std::uint64_t offset, std::size_t length) const {
    return offset <= size && length <= size - offset;
  }
};

// The contents of the open file; null data if there is no file or it cannot be read. They stay
// until the file is closed. Nothing beyond the first 64 MB is read, and only of regular files.
ErrUtlBytes errUtlContents();

// ErrUtlNextSym in lookup mode, for the entry at `offset` of `contents`.
bool errUtlEntryAt(const ErrUtlBytes& contents, std::uint32_t offset, ErrUtlEntrySType* entry,
                   BoolType* syntaxErr);

// The integer stored in 4 bytes of a file with that transform.
std::uint32_t errUtlDecode(const unsigned char* bytes, const unsigned char* transform);
