// Compiles texts and methods. The result is a CompiledMethod object that carries its code.
#pragma once

#include <string_view>

#include "objmem/memory.h"

namespace zel {

// Compiles a text to execute. Names that are not its own are variables of the session or globals.
// Throws Failure ErrCompile.
OopType compileText(std::string_view source);

// Compiles a method for instances of `owner`, or with `classSide` for the class itself, and
// installs it. Answers the selector. Throws Failure ErrCompile.
OopType compileMethod(OopType owner, std::string_view source, bool classSide);

// Installs a method that a primitive carries out.
void installPrimitive(OopType owner, std::string_view selector, bool classSide,
                      PrimitiveFType primitive);

// How many arguments the selector takes, by its form; -1 when it is no selector.
int argumentCountOf(std::string_view selector);

// Marks the literals of a method, for collections.
void markCode(const Code& code, Marker mark);

}  // namespace zel
