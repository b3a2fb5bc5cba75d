// The methods of the standard classes that are written in the language itself.
#pragma once

#include <span>

#include "objmem/oops.h"

namespace zel {

struct KernelMethod {
  OopType owner;
  const char* source;
  bool classSide = false;
};

// All of them, in an order in which they can be compiled.
std::span<const KernelMethod> kernelMethods();

}  // namespace zel
