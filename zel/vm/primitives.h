// The messages that the library itself carries out. Each install function adds one family to the
// classes; docs/language.md lists what they do.
#pragma once

#include <span>

#include "errors/failure.h"
#include "interpreter.h"

namespace zel {

struct PrimitiveSpec {
  OopType owner;
  const char* selector;
  PrimitiveFType primitive;
  bool classSide = false;
};

void installAll(std::span<const PrimitiveSpec> all);

void installObjectPrimitives();
void installNumberPrimitives();
void installStringPrimitives();
void installCollectionPrimitives();
void installClassPrimitives();
void installControlPrimitives();
void installSystemPrimitives();

}  // namespace zel
