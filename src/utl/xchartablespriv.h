// The built-in tables of the 256 codes of ISO 8859-1. Private to the character tables.
#pragma once

#include <array>

#include "utl/xchar.h"

constexpr std::size_t xcharBuiltInSize = 256;

extern const std::array<unsigned short, xcharBuiltInSize> defaultDispatchTable;
extern const std::array<unsigned short, xcharBuiltInSize> defaultIndexTable;
extern const std::array<ByteType, xcharBuiltInSize> defaultCategoryTable;
extern const std::array<XCharEntrySType, xcharBuiltInSize> defaultEntryTable;
extern const std::array<XCharTitleCaseEntrySType, 1> defaultTitleCaseTable;  // its size is 0
