// Whole databases as texts: a head line with the version of the form, a line for each row (see
// dumpline.h) in the order of their objects, and a last line, by which one that was cut is known.
#pragma once

#include <string>

#include "store/serverstore.h"
#include "tool/console.h"

namespace zel {

// Tells how far work is. Throws ErrHardBreak when it is to be given up.
void tell(ProgressLine& progress, std::uint64_t done, std::uint64_t all);

// Appends the ids of the objects that a row refers to, its class included.
void references(const Row& row, std::vector<ObjectId>& ids);

// Objects in sequence that cannot be read, or are not there.
struct Lost {
  ObjectId first;
  ObjectId end;
};
// Writes the newest state of a store to the output, which is not finished yet. What of it is
// damaged ends that, or with `lost` is left out and told there.
void dump(Store& store, Output& output, ProgressLine& progress, std::vector<Lost>* lost);

// Makes a database file of such a text, all at once, where there is none or an empty one. Throws
// Trouble for a text that is none, with the line.
void loadFile(const std::string& path, Input& input, ProgressLine& progress);
// The same on a server, where the URL's schema is not there or empty.
void loadServer(const ServerOptions& options, Input& input, ProgressLine& progress);

}  // namespace zel
