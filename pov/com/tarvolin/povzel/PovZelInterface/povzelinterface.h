// The Java bridge: the native methods of com/tarvolin/povzel/PovZelInterface, and the conversions
// between Java values and database objects that they are made of.
//
// A Java program loads the library and calls `_initialize` once; then `_login` gives a session id
// that every other native takes:
//
//   System.loadLibrary("povzel30");
//   PovZelInterface._initialize(0, "app", 65536, 1024, 0, error);             // 32
//   int session = PovZelInterface._login(server, null, user, password, null, null, error);
//   PovZelInterface._executeStr(session, "3 + 4", result, error);             // result.valueLong 7
//
// Every native returns a status: 0 or more on success; -1 when `jErrReport`, a PovZelException,
// has been filled; -2 when a temporary string, a Java array or a Java string could not be had, and
// then the report may not be filled. `jErrReport` may be null: the status still tells. Errors of
// the interface library reach the report unchanged; errors found by the bridge carry number 2318
// and nil as category and context. Null reports, strings, arrays and elements, negative counts and
// counts larger than the Java array are refused with such an error, which names the native and the
// argument. No native leaves an exception of its own pending.
//
// Nothing here locks: environment, buffers, error record, string table and the interface library's
// current session are process-wide, so callers make one native call at a time.
#pragma once

#include <jni.h>

#include <povzel/povzeltypes.h>

extern "C" {

// ---- Initialization ----

// Prepares the bridge: looks up the report classes' fields, loads the interface library and checks
// its product (1) and version ("6.3" to "9.9.999"), starts it, allocates the transfer buffers.
//
// `useLinked`: non-zero loads the linked library, 0 the remote one. `jAppName`: name given to the
// library, or null. `bufSize`: transfer buffer size in bytes, which bounds every later transfer (a
// quarter of it for oops). `preloadSize`: the most bytes of an object's contents that a full
// description fetches; at most `bufSize`, raised to 16. `debugFlag`: 1 or more switches the trace
// on standard output on, for good. With a negative `bufSize` nothing can be transferred later, with
// a negative `preloadSize` nothing is preloaded.
//
// Returns 32, also when initialized before (then nothing else is done); -1 or -2 on failure. After
// a failure it may be called again, but a library that was loaded stays loaded and makes the next
// call fail.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1initialize(
    JNIEnv* env, jclass ignore, jint useLinked, jstring jAppName, jint bufSize, jint preloadSize,
    jint debugFlag, jthrowable jErrReport);

// ---- Sessions ----

// Logs in and starts tracking changed objects. Server name, user name and password are required;
// the others may be null. Returns the new session's id, which is then current.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1login(
    JNIEnv* env, jclass ignore, jstring jServerName, jstring jKellnetName, jstring jUserName,
    jstring jPassword, jstring jHostUserName, jstring jHostPassword, jthrowable jErrReport);

// Ends the session. Returns 0.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1logout(JNIEnv* env, jclass ignore,
                                                                     jint sessionId,
                                                                     jthrowable jErrReport);

// Describes the object that `result`'s own `oop` field names, in full, in `result`. Oop 0 stands
// for the value that the report carries. Returns setupReport's status.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1setup(JNIEnv* env, jclass ignore,
                                                                    jint sessionId, jobject result,
                                                                    jthrowable jErrReport);

// ---- Execution ----
// Each blocks until the interface library returns, describes what it returned, in full, in the
// result report, and returns setupReport's status.

// Compiles and runs source text.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1executeStr(JNIEnv* env, jclass ignore,
                                                                         jint sessionId,
                                                                         jstring jExecStr,
                                                                         jobject result,
                                                                         jthrowable jErrReport);

// Compiles and runs the source held by the object `jexeObj`.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1executeObj(JNIEnv* env, jclass ignore,
                                                                         jint sessionId,
                                                                         jobject jexeObj,
                                                                         jobject result,
                                                                         jthrowable jErrReport);

// Sends the message `jSelector` with the first `numArgs` (0 to 20) of `jArgs` to `jReceiver`.
// `jArgs` may be null when `numArgs` is 0. A negative `numArgs` is refused.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1perform(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jReceiver, jstring jSelector,
    jobjectArray jArgs, jint numArgs, jobject result, jthrowable jErrReport);

// Resumes the suspended process `jProcess`: with the value `jStResult` if it is not null, else with
// an error of message `jErrMsg` and stack text `jErrStk` if `jErrMsg` is not null, else after an
// interrupt.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1continue(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jProcess, jobject jStResult,
    jobject jJvResult, jstring jErrMsg, jstring jErrStk, jthrowable jErrReport);

// ---- Object contents ----
// `startIndex` is 1-based; its low 32 bits reach the library. Byte counts may not exceed the
// buffer size, oop counts a quarter of it. Test order: start index, buffer size, sign, array and
// its length, object. An array of reports is not looked at when the count is 0.

// Reads `numBytes` bytes into `bytes`. Returns `numBytes`; fewer delivered bytes are an error, and
// are in the array all the same.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1getBytes(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jobj, jlong startIndex, jint numBytes,
    jbyteArray bytes, jthrowable jErrReport);

// Reads up to `numObjs` indexed slots and describes them, in short, in the elements of `jobjs`.
// Returns how many the library delivered (a count outside 0 to `numObjs` counts as the nearer
// end). Reports before a failing one stay filled.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1getObjs(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jobj, jlong startIndex, jint numObjs,
    jobjectArray jobjs, jthrowable jErrReport);

// The same for named slots.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1getNamedObjs(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jobj, jlong startIndex, jint numObjs,
    jobjectArray jobjs, jthrowable jErrReport);

// Writes the first `numBytes` of `bytes`. Returns 0.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1putBytes(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jobj, jlong startIndex, jint numBytes,
    jbyteArray bytes, jthrowable jErrReport);

// Writes the first `numObjs` reports of `jobjs` to indexed slots; new values become objects first.
// Returns 0. Nothing is stored if one of them fails.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1putObjs(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jobj, jlong startIndex, jint numObjs,
    jobjectArray jobjs, jthrowable jErrReport);

// The same for named slots.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1putNamedObjs(
    JNIEnv* env, jclass ignore, jint sessionId, jobject jobj, jlong startIndex, jint numObjs,
    jobjectArray jobjs, jthrowable jErrReport);

// ---- Object sets and class test ----
// Counts may not exceed a quarter of the buffer size; an array is not looked at when the count
// is 0.

// Takes the first `numObjs` reports' objects out of the session's export set. Returns 0.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1removeFromExportSet(
    JNIEnv* env, jclass ignore, jint sessionId, jobjectArray jobjs, jint numObjs,
    jthrowable jErrReport);

// The same for oops: the low 32 bits of the first `numOops` of `joops`. Returns 0.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1releaseOops(
    JNIEnv* env, jclass ignore, jint sessionId, jlongArray joops, jint numOops,
    jthrowable jErrReport);

// Writes the oops of saved objects that have changed, at most `numOops`, to `joops`. Returns how
// many were written (should the library claim more than there is room for: `numOops`).
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1changedOops(
    JNIEnv* env, jclass ignore, jint sessionId, jlongArray joops, jint numOops,
    jthrowable jErrReport);

// Returns the library's answer, 0 for false, to whether the object `jobj` is a kind of the class
// `jcls`: the library's own boolean, but 1 for a negative one, which is no failure.
POVZEL_EXPORT jint Java_com_tarvolin_povzel_PovZelInterface__1isKindOf(JNIEnv* env, jclass ignore,
                                                                       jint sessionId, jobject jobj,
                                                                       jobject jcls,
                                                                       jthrowable jErrReport);

// ---- Conversions ----
// The natives' helpers. They use the environment of the native call in progress and so may only be
// called from that thread; those that touch reports need an initialized bridge.

// Describes the oop `resultOop` in the PovZelReport `result`; 0 stands for the oop or new value
// that the report itself names. Immediate values are decoded; an ordinary object joins the export
// set and, if `fullSetup` is non-zero, is described with class, sizes and preloaded contents. Only
// the fields that apply are written. In particular `isString` and `isDBString` are only ever set:
// whoever reuses a report clears them.
//
// Where the sizes that the library reports contradict each other, no negative number of elements is
// copied. A date-time with fewer than three preloaded slots has 0 in place of those missing.
//
// Returns 0; -1 with `jErrReport` filled; -2 if a Java array, or the temporary string of a new
// value, could not be had. Strings obtained from GetSbString and its like are released on failure
// and after an immediate value.
POVZEL_EXPORT jint setupReport(OopType resultOop, jobject result, jobject jErrReport,
                               BoolType fullSetup);

// Stores the oop that the PovZelReport `jobj` names in `*oop`. A report whose `objType` is -1
// carries a new value: the oop is formed, or the object created, and written back to the report's
// `oop`. `*oop` is left as it was when the value type stands for no oop (-1, 5, 6, unknown codes:
// the status is 0), so callers give it a starting value.
//
// Returns 0; -1 with `jErrReport` filled (a null report or string included); -2 if a temporary
// string could not be had. All temporary strings are released in every case.
POVZEL_EXPORT jint getOop(jobject jobj, OopType* oop, jobject jErrReport);

// Asks the interface library for a pending error. Returns 1 if there was one, after storing it in
// the PovZelException `errRpt`, else 0; 0 also while no interface library is loaded.
POVZEL_EXPORT jint zelError(jobject errRpt);

// Stores an error of the bridge's own with the text `message`, cut to 400 bytes, in `errRpt`.
// Returns setupError's result.
POVZEL_EXPORT jint genericError(jobject errRpt, const char* message);

// Copies the last error into the PovZelException `jErrRpt`; null is ignored. Bytes of its message
// that are no UTF-8, Java's form of it included, become question marks; a character that the text's
// end cuts is left out. An argument count outside 0 to 10 counts as the nearer end. While the
// exception class's fields are not known yet, they are looked up here; one that cannot be found is
// left out.
//
// Returns 0, or -2 if a Java string or array could not be had: then message and arguments, or the
// arguments alone, are not stored, and temporary strings have been released.
POVZEL_EXPORT jint setupError(jobject jErrRpt);

// Returns the terminated modified UTF-8 form of `jstr`, or null if it cannot be had or 100
// temporary strings are live. It lives until ReleaseStrings. Null gives null.
POVZEL_EXPORT ByteType* GetSbString(jstring jstr);

// The same for the UTF-16 code units, which are not terminated; GetStringLength counts them.
POVZEL_EXPORT ByteType* GetDbString(jstring jstr);

// Returns `length` bytes of scratch memory, or null, under the same rules.
POVZEL_EXPORT ByteType* GetString(int length);

// Releases all temporary strings, in the order in which they were made.
POVZEL_EXPORT void ReleaseStrings();

// Fetches `count` indexed oops of `rcvr`, from the low 32 bits of `start` on, and widens them into
// `oops`, which has room for `count`. `count` is 0 to a quarter of the buffer size. Returns the
// library's count; entries beyond it hold whatever the buffer held.
POVZEL_EXPORT long zelFetchVaryingOops(OopType rcvr, jlong start, jlong* oops, jint count);

// The same for named oops.
POVZEL_EXPORT long zelFetchNamedOops(OopType rcvr, jlong start, jlong* oops, jint count);

}  // extern "C"
