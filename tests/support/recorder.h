// An interface library that records the bridge's calls, answers what it is told and can be told to
// leave an error. The library file that the loader opens holds the entry point only; the table and
// all behaviour are in the test program. Slots are named without their "Zel".
#pragma once

#include <map>
#include <string>
#include <vector>

#include <povzel/zeltable.h>

namespace recorder {

struct StateSType {
  std::string calls;  // "SetSessionId(7)? ExecuteStr('3 + 4',10)?"; "?" is a call of ZelErr

  int failAt = 0;           // after this call, counted from 1, `error` is pending; 0 for none
  std::string failName;     // when not empty, failAt counts the calls of this slot only
  int count = 0;            // calls so far, other than of ZelErr
  std::string failed;       // the call that left the error
  bool pending = false;     // ZelErr has something to report
  bool misaligned = false;  // a slot was called with a stack that is not aligned to 16 bytes
  ZelErrSType error{231169, 2101, 777, "something failed", {11, 0xffffffff, 13}, 3, 0};

  // What slots answer; otherwise 0, or true, or a new oop. Also what every object is: "impl" (0
  // pointers, 1 bytes, ...), "class", "size", "named" and "indexable" (1 unless it is told).
  std::map<std::string, double> results;
  OopType nextOop = 5000;  // of the next new object; steps by 4
  std::string version = "6.7";
  std::string body;           // bytes of every object
  std::vector<OopType> oops;  // oops of every object, and the changed ones
  ArraySizeType room = 0;     // that the last delivery of oops or bytes was given
};

extern StateSType state;

// Points the loader's environment at the library file. Call it before _initialize.
void install();

}  // namespace recorder
