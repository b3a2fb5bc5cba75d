// The methods of the standard classes that are written in the language itself, in the files *.zel
// of this folder. A method stands in its file as
//
//   Collection >> isEmpty [
//     ^self size = 0
//   ]
//
// with `Collection class` for one of the class itself, and the last bracket at a line's start.
#pragma once

#include <string_view>

#include "objmem/memory.h"

namespace zel {

// Compiles the methods of all the files. The classes must exist.
void compileKernel(Memory& memory);
// The same for the text of one file.
void compileKernelFile(Memory& memory, std::string_view file);

}  // namespace zel
