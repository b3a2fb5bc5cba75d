// The messages to System.
#pragma once

#include "vm/primitives.h"

namespace zel {

extern const PrimitiveTable systemPrimitives;

}  // namespace zel
