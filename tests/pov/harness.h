// One native call between an observed JVM and a recording interface library, and the texts in
// which a test states what it calls and what it expects of it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "jnitable.h"
#include "jvm.h"
#include "povzelinterface.h"
#include "povzelsupport.h"
#include "recorder.h"

namespace harness {

// Starts the JVM and initializes the bridge with buffers of 1000 bytes and 250 oops. Without that
// every call fails.
void initialize(jint debugFlag);

// Puts both sides back to what they are at the start.
void clear();

// The Java objects of one call.
struct Context {
  Context();

  // Calls a native of session 7 with what the words name: "getBytes object 1 10 bytes". Arguments
  // are the objects below, numbers, texts in quotes, and null.
  jint call(const std::string& text);

  // What a call did to its objects, in parts joined by "; ": the fields written to the result; then
  // those that changed of the oops of object and other ("[5000,10]"), the bytes ("<abcd456789>"),
  // the array's oops and the longs.
  std::string changes() const;

  std::string shown(const char* name) const { return jvm::shown(named.at(name)); }

  unsigned bytesOff = 0;  // by which the calls miss the alignment of the stack
  std::string flushed;    // of what the last call printed
  std::string printed;
  JNIEnv* env = jvm::start();
  jvm::Frame frame{256};

  // The reports result, object (of oop 4716) and other (4720), the array of five reports (of oops
  // 8000, 8004, ...) and its second element, ten longs from -77 on, the bytes "0123456789", and the
  // error report.
  std::map<std::string, jobject> named;
};

// The error report of an error of the bridge's own, and of the recorder's.
std::string generic(const std::string& message);
std::string libraryError();

// A situation that every native's table and sweep goes through.
struct ScenarioSType {
  std::string call;  // see Context
  // What there is before the call, in words: "object.oop=4000" for a field of a report,
  // "object.value=7" for a new value of that type, "body=abc" and "oops=4000,10" for the
  // recorder's, "hole=1" for an element that is null; others are results of the recorder's:
  // "ExecuteStr=31", "size=3".
  std::string given = "";
  jint status = -1;
  std::string calls = "";    // of the library
  std::string changes = "";  // see Context
  std::string error = "";    // see generic()

  std::string trace = "";  // lines behind ";" each; empty where other rows show the same

  jint run(Context& context) const;
};

const std::vector<ScenarioSType>& scenarios();

}  // namespace harness
