// Compiles texts and methods. The result is a CompiledMethod object that carries its code.
#pragma once

#include <span>
#include <string_view>

#include "objmem/memory.h"

namespace zel {

// Compiles a text to execute. Names that are not its own are variables of the session or globals.
// Throws Failure ErrCompile.
OopType compileText(Memory& memory, std::string_view source);

// A text that sends the one message, of which each argument the selector takes is given.
OopType compileMessage(Memory& memory, OopType receiver, std::string_view selector,
                       std::span<const OopType> arguments);

// Compiles a method for instances of `owner`, or with `classSide` for the class itself, and
// installs it. Answers the selector. Errors look past methods of the kernel's to who called them,
// and only those may mark their activations. Throws Failure ErrCompile.
OopType compileMethod(Memory& memory, OopType owner, std::string_view source, bool classSide,
                      bool kernel = false);

// Gives a CompiledMethod that was loaded its code, from its source: of a method, or of a text that
// has blocks.
void compileAgain(Memory& memory, OopType method, bool classSide);

// Installs a method that the library itself carries out.
void installRoutine(Memory& memory, OopType owner, std::string_view selector, bool classSide,
                    Routine routine);

// How many arguments the selector takes, by its form; -1 when it is no selector.
int argumentCountOf(std::string_view selector);
// That many arguments, in words.
inline std::string argumentsText(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " argument" : " arguments");
}

}  // namespace zel
