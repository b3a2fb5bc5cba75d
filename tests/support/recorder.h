// An interface library that records the bridge's calls (see calls.h), answers what it is told and
// can be told to leave an error. The library file that the loader opens holds the entry point
// only; the table and all behaviour are in the test program.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <povzel/zeltable.h>

namespace recorder {

// How a call of ZelErr shows in the recorded calls.
inline constexpr char poll[] = "Zel?";

struct StateSType {
  int failAt = 0;        // after this call, counted from 1, `error` is pending; 0 for none
  std::string failName;  // when not empty, failAt counts the calls of this slot only
  int count = 0;         // calls so far, other than of ZelErr
  std::string failed;    // the call that left the error
  bool pending = false;  // ZelErr has something to report
  ZelErrSType error{};

  std::map<std::string, double> results;  // by slot; otherwise 0, or true, or a new oop
  OopType nextOop = 5000;                 // of the next new object; steps by 4
  std::string version = "6.7";
  ZelObjInfoSType info{};     // of every object
  std::string body;           // bytes of every object
  std::vector<OopType> oops;  // oops of every object, and the changed ones
};

extern StateSType state;

// Puts everything back to what it is at the start: an error with three arguments in reserve.
void reset();

// Lets every object be of the given kind: objImpl (0 pointers, 1 bytes, ...), class and size.
void describe(int objImpl, OopType objClass, int objSize, int namedSize = 0);

// Points the loader's environment at the library file. Call it before _initialize.
void install();

}  // namespace recorder
