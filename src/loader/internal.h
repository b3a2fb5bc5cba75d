// What programs may watch of the loader, and ask of the files that it opens.
//
//   dynlib.cpp    the dynamic loader
//   libfile.cpp   why a file is no library that can be opened
//   zelrtl.cpp    finding, opening and checking the interface library
#pragma once

#include <cstddef>

// The dynamic loader (dynlib.cpp)

// When the functions of an opened library are bound: RTLD_LAZY, unless a program wants to be told
// at once of those that are not there.
extern int dynLibBinding;

// Whether ".so" is added to the name of a library.
bool dynLibLacksSuffix(const char* name);

// Attempts (zelrtl.cpp)

// Told of each attempt to open a library: its name, and why it failed, or null when it did not.
using ZelRtlAttemptFType = void (*)(const char* name, const char* failure);

// Called at each attempt of ZelRtlLoad; null for none.
extern ZelRtlAttemptFType zelRtlObserveAttempt;

// Files (libfile.cpp)

// What is wrong with a file, to be read behind its name: "is a 64-bit library".
using LibFileFaultType = char[80];

struct LibFileStart {
  std::size_t size;
  unsigned char bytes[64];

  bool isText() const;
};

// Reads the first bytes of a file. Returns false with its fault if it has none that can be read.
bool libFileRead(const char* name, LibFileStart& start, LibFileFaultType& fault);

// Whether the file is a 32-bit x86 library or program, by `kind` ("library"), that this system lets
// be run; else `fault` says what it is.
bool libFileIsFit(const char* name, const char* kind, LibFileFaultType& fault);

// Whether the file is such a library that ends before what is to be loaded of it. The dynamic
// loader would open it, and the first access beyond the end would end the process.
bool libFileIsCutShort(const char* name);
