// One native call between an observed JVM and a recording interface library, and the texts in
// which a test states what it expects of it.
#pragma once

#include <string>
#include <vector>

#include "calls.h"
#include "jnitable.h"
#include "jvm.h"
#include "povzelinterface.h"
#include "recorder.h"

#define NATIVE(name) Java_com_tarvolin_povzel_PovZelInterface__1##name

namespace harness {

constexpr jint session = 7;
constexpr jint bufferBytes = 1000;
constexpr jint bufferOops = bufferBytes / 4;
constexpr jint preloadBytes = 256;

// Receives standard output while it lives, and tells what was flushed.
class Output {
 public:
  Output();
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  std::string flushed() const { return text; }
  std::string all();  // with what is still buffered

 private:
  static ssize_t write(void* self, const char* bytes, std::size_t size);
  FILE* before;
  FILE* mine;
  std::string text;
};

// Starts the JVM and initializes the bridge with the sizes above. Ends the process on failure.
void initialize(jint debugFlag);

// The Java objects of one call. Numeric fields of reports start as -77, so that every write shows.
struct Context {
  Context();

  template <typename F, typename... Args>
  jint run(F native, Args... arguments) {
    const jnitable::Watch watch(env);
    return native(env, nullptr, arguments...);
  }

  // The report as an existing object, as a new value, or as a new value of a text.
  static jobject existing(jobject report, std::int64_t oop);
  static jobject value(jobject report, int valueType, std::int64_t valueLong = 0);
  static jobject textValue(jobject report, int valueType, const std::u16string& text);

  JNIEnv* env = jvm::start();
  jvm::Frame frame{256};
  jobject result;      // "result" in recorded calls
  jobject object;      // oop 4716
  jobject other;       // oop 4720
  jthrowable error;    // "error"
  jobject element[5];  // oops 8000, 8004, ...
  jobjectArray array;  // of the five elements
  jlongArray longs;    // of ten -77
  jbyteArray bytes;    // of "0123456789"
};

// The fields of a report that were written: "oop=30 objType=3 ...".
std::string written(jobject report);

// What a call did to its Java objects, in parts joined by "; ": the fields written to the result
// report; "object=5000" and "other=10" if those reports' oops changed; the byte array, the
// elements' oops ("4000 10 8008 8012 8016") and the long array if they changed.
std::string outcome(Context& context);

// An error report: "2318 'text' 10 10 0 0 []" (number, message, category, context, fatal, argument
// count and arguments); empty if nothing was written.
std::string errorText(jthrowable error);

// What errorText gives for an error of the bridge's own, and for the recorder's.
std::string generic(const std::string& message);
std::string libraryError();

// The library calls of the recorded ones.
std::string libraryCalls();

// A situation that every native's table and sweep goes through.
struct ScenarioSType {
  const char* name;
  jint (*run)(Context& context);
  jint status;
  std::string calls;   // library calls, polls as "Zel?"
  std::string fields;  // what changed in the Java objects, see outcome()
  std::string error;   // as errorText() gives it
  std::string trace;   // without the prefixes; empty where another scenario covers it
};

const std::vector<ScenarioSType>& scenarios();

}  // namespace harness
