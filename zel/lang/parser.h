// Parses a text or a method of the language into a tree. Literal objects are made here.
#pragma once

#include <string_view>

#include "ast.h"
#include "objmem/memory.h"

namespace zel {

// A text to execute: temporaries, then statements. Throws Failure ErrCompile.
void parseText(Memory& memory, std::string_view source, Tree& tree);
// A method: its pattern, then the same. Throws Failure ErrCompile.
void parseMethod(Memory& memory, std::string_view source, Tree& tree);

}  // namespace zel
