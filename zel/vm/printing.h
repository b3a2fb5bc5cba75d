// Objects as text.
#pragma once

#include <span>
#include <string>

#include "objmem/classes.h"

namespace zel {

enum class Printing : std::uint8_t { print, display };

// An object's text: literals as one writes them (displayed: characters, strings and symbols without
// marks), collections with their elements down to a depth of 8 and a length of a mebibyte, other
// objects with their class's name.
//
// Elements whose classes have methods of the program's for it are not asked here: their texts are
// taken from `texts`, in the order in which they are met, and those beyond, at most as many again,
// are put into `toAsk`; while there are any, the text is not complete.
struct Printed {
  std::string text;
  std::vector<OopType> toAsk;
};
Printed print(Memory& memory, OopType oop, Printing printing, std::span<const OopType> texts);
// The whole text without asking any class.
std::string printString(Memory& memory, OopType oop);
// The shortest decimal digits that read back as the same float.
std::string printFloat(double value);

}  // namespace zel
