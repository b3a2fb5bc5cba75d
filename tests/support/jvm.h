// The 32-bit JVM in the test's or benchmark's own process, and short ways to the Java objects that
// the natives fill.
//
//   JNIEnv* env = jvm::start({"-Xcheck:jni"});
//   jvm::Frame frame(32);
//   jobject report = jvm::newReport("objType=0 oop=4716");
//   ... call a native ...
//   EXPECT_EQ("oop=31 objType=3 valueType=3 valueLong=7", jvm::shown(report));
//
// Whatever the JVM itself prints (the warnings of -Xcheck:jni, for one) goes to standard error and
// is counted; a process in which it printed anything that takeWarnings() did not take exits with
// status 70.
#pragma once

#include <jni.h>

#include <initializer_list>
#include <string>

namespace jvm {

// Starts the JVM with `options` on the calling thread and returns that thread's environment. The
// class path holds the library's Java classes and those of the tests' own. One JVM per process:
// later calls return the same. Ends the process when the JVM does not start.
JNIEnv* start(std::initializer_list<const char*> options = {"-Xcheck:jni"});

// Returns what the JVM itself has printed since the last call.
std::string takeWarnings();

// A frame of local references: those made in its scope are gone at its end.
class Frame {
 public:
  explicit Frame(jint capacity) { start()->PushLocalFrame(capacity); }
  ~Frame() { start()->PopLocalFrame(nullptr); }
  Frame(Frame&&) = delete;
};

// New Java objects, as local references. The numbers of reports and
// error reports start as -77; `fields` is as for set().
jobject newReport(const std::string& fields = "");
jthrowable newException();
jobjectArray newReports(jint count, jobject element = nullptr);
jlongArray newLongs(jint count);  // counting up from -77
jbyteArray newBytes(const std::string& values);
jstring newString(const std::string& modifiedUtf8);

// Sets fields of a report: "objType=-1 valueType=7 valueString=new". Texts hold no blanks.
void set(jobject report, const std::string& fields);

// What was written to a report or an error report: "oop=31 objType=3"; the elements of an array:
// "<bytes>", "[longs]", "[oops of reports]". Of more than 16 elements it is their number.
std::string shown(jobject object);

}  // namespace jvm
