// Objects as text.
#pragma once

#include <string>

#include "objmem/classes.h"

namespace zel {

// What printString answers: literals as one writes them, collections with their elements down to
// a depth of 8 and a length of a mebibyte, other objects with their class's name.
std::string printString(const Memory& memory, OopType oop);
// What displayString answers: as printString, but characters, strings and symbols without marks.
std::string displayString(const Memory& memory, OopType oop);
// The shortest decimal digits that read back as the same float.
std::string printFloat(double value);

}  // namespace zel
