// Work on a whole file, for what filestore.h and store.h promise.
#pragma once

#include <string>

#include "store/filestore.h"
#include "store/openfile.h"

namespace zel {

// Copies the newest version into a new file, while others use this one. Throws ErrNotPermitted when
// there is something under that name.
void copyFile(OpenFile& from, const std::string& file, const Progress& progress);

}  // namespace zel
