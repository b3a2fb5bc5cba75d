// Resolves names: which variable each name means, which blocks need no activation of their own,
// and where every variable lives.
#pragma once

#include "ast.h"
#include "objmem/meter.h"

namespace zel {

// Resolves the whole tree and gives every variable its place. The names of instance variables, and
// those that the language reserves, cannot be declared. Throws Failure ErrCompile.
void resolveNames(Tree& tree, const std::vector<std::string>& instVars, Meter& meter);

}  // namespace zel
