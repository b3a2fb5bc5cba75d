// Rows of the store as lines of text that people can read and change, and back without a loss:
//
//   @65536 Array indexable: 3 nil #name $a @65537
//   @65537 String bytes indexable: "abc"
//   @65538 Dictionary indexable hashed:
//   @65538/7315: #key 2.5
//   @2/80131 user: "SystemUser" "$6$..."
//
// First stands the object's id and, behind a slash, the hash that the row's elements have; then the
// class, by its id or the name that the kernel has for it, words about the object's form, and
// behind the colon what it holds: values, or bytes as a text or in hexadecimal, #[00FF]. A row that
// could not be told so is given by its bytes, behind the word `raw`.
#pragma once

#include <string>
#include <string_view>

#include "store/store.h"

namespace zel {

// What is wrong with a line.
struct LineFault {
  std::size_t column;    // in bytes, from 1
  std::string expected;  // "a value"
};

// The line, without its end. Always one that rowOf makes the same row of, but for the version.
std::string lineOf(const Row& row);
// The row that a line tells of. Throws LineFault.
Row rowOf(std::string_view line);

}  // namespace zel
