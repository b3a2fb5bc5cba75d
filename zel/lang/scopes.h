// Resolves names: which variable each name means, which blocks need no activation of their own,
// and where every variable lives.
#pragma once

#include "ast.h"
#include "objmem/meter.h"

namespace zel {

// Selectors whose literal block arguments become jumps.
enum class Control {
  none,
  ifTrue,
  ifFalse,
  ifTrueIfFalse,
  ifFalseIfTrue,
  ifNil,
  ifNotNil,
  ifNilIfNotNil,
  ifNotNilIfNil,
  andBlock,
  orBlock,
  whileTrue,
  whileFalse,
  whileTrueDo,
  whileFalseDo,
  toDo,
  toByDo,
  timesRepeat,
  repeat,
};

// The control form of a send whose blocks all are literal with the right parameters, else none.
Control controlOf(const Node& send);

// Resolves the whole tree and gives every variable its place. Throws Failure ErrCompile.
void resolveNames(Tree& tree, Meter& meter);

}  // namespace zel
