// The 32-bit JVM in the test's or benchmark's own process, and short ways to the Java objects that
// the natives fill.
//
//   JNIEnv* env = jvm::start({"-Xcheck:jni"});
//   jvm::Frame frame(32);
//   jobject report = jvm::newReport();
//   ... call a native ...
//   EXPECT_EQ(7, jvm::number(report, "valueLong"));
//
// Whatever the JVM itself prints (the warnings of -Xcheck:jni, for one) goes to standard error and
// is counted; a process in which it printed anything that takeWarnings() did not take exits with
// status 70.
#pragma once

#include <jni.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace jvm {

// Starts the JVM with `options` on the calling thread and returns that thread's environment. The
// class path holds the library's Java classes. One JVM per process: later calls return the same.
// Ends the process when the JVM does not start.
JNIEnv* start(std::initializer_list<const char*> options = {"-Xcheck:jni"});

// Returns what the JVM itself has printed since the last call.
std::string takeWarnings();

// A frame of local references: those made in its scope are gone at its end.
class Frame {
 public:
  explicit Frame(jint capacity);
  ~Frame();
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
};

// New Java objects, as local references. A failure ends the process.
jobject newReport();
jthrowable newException();
jobjectArray newReports(jint count, jobject element = nullptr);
jlongArray newLongs(const std::vector<jlong>& values);
jbyteArray newBytes(const std::string& values);
jstring newString(const char* modifiedUtf8);
jstring newString(const std::u16string& codeUnits);

// A field of a report or of an error report by its name. `number` reads booleans, bytes, ints and
// longs. Null references read as the text "(null)" and as empty vectors; `isNull` tells.
std::int64_t number(jobject object, const char* field);
double real(jobject object, const char* field);
std::string text(jobject object, const char* field);
std::vector<jlong> longs(jobject object, const char* field);
std::string bytes(jobject object, const char* field);
bool isNull(jobject object, const char* field);

void setNumber(jobject object, const char* field, std::int64_t value);
void setReal(jobject object, const char* field, double value);
void setObject(jobject object, const char* field, jobject value);

// The elements of arrays.
std::vector<jlong> elements(jlongArray array);
std::string elements(jbyteArray array);

}  // namespace jvm
