// The JVM's function table observed: what a native obtains through it is counted, and any call
// that can fail can be told to fail as the JVM would fail it.
//
//   jnitable::state = {.failAt = 3};  // the third call that can fail does so
//   {
//     jnitable::Watch watch(env);     // in this scope env's table is the observed one
//     status = native(env, ...);
//   }
//   EXPECT_EQ(0, jnitable::state.held);
//
// A failing call returns null and leaves an OutOfMemoryError pending. A call of a function that
// the natives have no business with ends the process.
#pragma once

#include <jni.h>

#include <string>

namespace jnitable {

struct StateSType {
  int failAt = 0;               // which call fails, counted from 1; 0 for none
  std::string failName = "";    // when not empty, failAt counts the calls of this function only
  bool failAfterwards = false;  // the later calls fail too
  int count = 0;                // calls that can fail, so far
  std::string failed = "";      // the first call that was made to fail
  int held = 0;                 // strings and arrays obtained and not given back
  int references = 0;           // local references made and not deleted
  int mostReferences = 0;
  bool misaligned = false;    // a call came with a stack that is not aligned to 16 bytes
  std::string released = "";  // the functions that gave something back, in their order
};

extern StateSType state;

class Watch {
 public:
  explicit Watch(JNIEnv* watched);
  ~Watch();
  Watch(Watch&&) = delete;

 private:
  JNIEnv* env;
};

}  // namespace jnitable
