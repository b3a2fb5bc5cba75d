// What programs may watch of the loader.
//
//   dynlib.cpp   the dynamic loader
//   zelrtl.cpp   finding, opening and checking the interface library
#pragma once

// Told of each attempt to open a library: its name, and why it failed, or null when it did not.
using ZelRtlAttemptFType = void (*)(const char* name, const char* failure);

// Called at each attempt of ZelRtlLoad; null for none.
extern ZelRtlAttemptFType zelRtlObserveAttempt;
