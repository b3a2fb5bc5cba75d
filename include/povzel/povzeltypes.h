// The types that every module of libpovzel30 shares, and the mark of what the library exports.
//
// All exported functions have C linkage and plain names, so that programs in any language can
// look them up. Everything else stays hidden inside the library.
#pragma once

#include <climits>
#include <cstdint>

// Marks a declaration as part of the library's exported interface.
#define POVZEL_EXPORT __attribute__((visibility("default")))

using OopType = std::uint32_t;  // object identifier in the database
using BoolType = std::int32_t;  // 0 is false, anything else true
using ByteType = std::uint8_t;
using ArraySizeType = std::uint32_t;  // a size or a count, in the unit that the function names
using PidType = std::int32_t;         // process id
using DbChar = std::uint16_t;         // double-byte character code

using HostFnameStrType = char[4096];  // any file name: at most 4095 characters and the terminator
using ErrMsgStrType = char[2049];  // any message text: at most 2048 characters and the terminator

static_assert(sizeof(void*) == 4 && sizeof(long) == 4, "the library is 32-bit x86 only");
static_assert(CHAR_MIN < 0, "the interface library returns characters as signed 8-bit values");
