// What the bridge keeps for the life of the process, and the trace that its first switch turns on.
//
// The folder, from the ground up:
//   state.h    state.cpp                    state, trace
//   fields.h   fields.cpp                   the fields of Java's two report classes
//   frame.h    strings.cpp javatext.cpp     what natives are made of, and the frame around them
//              errors.cpp values.cpp
//              report.cpp
//              initialize.cpp sessions.cpp  the natives
//              execution.cpp transfer.cpp
//              sets.cpp
//              support.cpp                  what the jar needs beside them
// Nothing here locks: Java makes one native call at a time. Breaks come beside it, and touch
// nothing of this.
#pragma once

#include <povzel/zelrtl.h>

#include "povzelinterface.h"

#pragma GCC visibility push(hidden)  // no access through the global offset table
namespace bridge {

extern BoolType Debug;  // trace switch; never cleared
extern JNIEnv* ENV;     // of the native call in progress
extern int PovZelInitialized;

// Transfer limits as _initialize was told them, and the buffers, which are never smaller than
// their users need. The buffers live until the process ends.
extern jint BufSizeBytes;
extern jint BufSizeOops;
extern ByteType* byteBuf;
extern OopType* oopBuf;
extern jlong* longBuf;

// The most of an object's contents fetched with its description. Negative means nothing.
extern int PreloadSizeBytes;
extern int PreloadSizeOops;

extern ZelErrSType ZelError;  // the last error

// The temporary strings: where each came from, its buffer, its kind, and how many are live.
constexpr jint stringTableSize = 100;
enum StringKind : int { SbString = 1, DbString = 2, Scratch = 3 };
extern jstring AllocatedJniString[stringTableSize];
extern ByteType* AllocatedString[stringTableSize];
extern int AllocatedStringType[stringTableSize];
extern jint AllocatedStringIndex;

// ---- Trace ----

// Writes one trace message to standard output: prefix, text, a "\n" if the text has none at its
// end, flush. A text for which there is no memory becomes an empty line.
__attribute__((format(printf, 1, 2), cold)) void writeTrace(const char* format, ...);

// A macro, so that a trace that is off costs one test and evaluates nothing.
#define TRACE(...) \
  do { \
    if (bridge::Debug != 0) [[unlikely]] \
      bridge::writeTrace(__VA_ARGS__); \
  } while (false)

// Numbers, oops and references as the trace prints them: signed, with %ld.
constexpr long traced(jint value) {
  return value;
}
constexpr long traced(OopType oop) {
  return static_cast<long>(oop);
}
inline long traced(jobject reference) {
  return reinterpret_cast<long>(reference);
}

}  // namespace bridge
#pragma GCC visibility pop
