// What natives are made of, and the frame that each of them but _initialize runs in.
//
//   jint Java_com_tarvolin_povzel_PovZelInterface__1logout(JNIEnv* env, jclass, jint sessionId,
//                                                          jthrowable jErrReport) {
//     return bridge::runInSession({"  Logout session.", "Logout"}, env, sessionId, jErrReport,
//                                 [&] { return bridge::logout(jErrReport); });
//   }
//
// Functions that return a status return 0 (some a count or an answer) on success, -1 when they have
// filled `jErrReport`, -2 when a temporary string or a Java object could not be had. Whoever gets
// another status than success passes it on. `jErrReport` may be null everywhere. The inlined ones
// are what every native does, without a call on the path that it always takes.
#pragma once

#include "fields.h"
#include "state.h"

#pragma GCC visibility push(hidden)
namespace bridge {

// ---- Failures ----

// Reports an error of the bridge's own, whose text is cut to 299 bytes. Returns -1.
__attribute__((format(printf, 2, 3), cold)) jint refuse(jobject jErrReport, const char* format,
                                                        ...);

// A temporary string or a Java object could not be had: drops the exception that may have been the
// reason. Returns -2.
__attribute__((cold)) jint allocationFailure();

// The text of an error as a Java string: what is malformed in it is a question mark each, and a
// character that its end cuts is left out. Null if the string cannot be had.
using ErrorText = char[sizeof ZelError.message];
jstring newErrorText(const ErrorText& text);

// zelError while a library is loaded: true if an error was pending, which is then in `jErrReport`.
inline bool errorPending(jobject jErrReport) {
  if (rtlPrivZelRtlFuncs->ZelErr(&ZelError) == 0) [[likely]]
    return false;
  setupError(jErrReport);
  return true;
}

// The same as a status, 0 or -1.
inline jint poll(jobject jErrReport) {
  return errorPending(jErrReport) ? -1 : 0;
}

// ---- Temporary strings ----

// Enters `buffer`, of `kind`, in the table, which must have room. Returns it. The table owns it
// from then on.
inline ByteType* recordString(jstring jstr, const void* buffer, StringKind kind) {
  auto* bytes = static_cast<ByteType*>(const_cast<void*>(buffer));
  const jint index = AllocatedStringIndex;
  AllocatedJniString[index] = jstr;
  AllocatedString[index] = bytes;
  AllocatedStringType[index] = kind;
  AllocatedStringIndex = index + 1;
  return bytes;
}

// The terminated modified UTF-8 form of `jstr`, which the table owns; null as GetSbString has it.
inline const char* sbString(jstring jstr) {
  if (jstr == nullptr || AllocatedStringIndex >= stringTableSize) [[unlikely]]
    return nullptr;
  const char* characters = ENV->GetStringUTFChars(jstr, nullptr);
  if (characters != nullptr) [[likely]]
    recordString(jstr, characters, SbString);
  return characters;
}

// ReleaseStrings, without a call when none is live.
inline void releaseStrings() {
  if (AllocatedStringIndex > 0) ReleaseStrings();
}

// The way out of a native, and of every function whose last act is to release the strings. Returns
// `status`.
inline jint leave(jint status) {
  TRACE("Returning: %ld\n", traced(status));
  releaseStrings();
  return status;
}

// ---- Arguments ----

// What a native calls itself, its count and its array in refusals.
struct CountedArray {
  const char* native;
  const char* count;
  const char* array;
  const char* tooMany;      // said of a count above the limit
  bool alwaysUsed = false;  // even when the count is 0
};

// Refuses a count above `limit` or below 0, and a null array or one shorter than `count`. An array
// that no element is taken from may be null and is not looked at. Returns 0 or -1.
inline jint checkCount(const CountedArray& names, jint limit, jarray array, jint count,
                       jobject jErrReport) {
  if (count > limit) [[unlikely]]
    return refuse(jErrReport, "%s(): %s", names.native, names.tooMany);
  if (count < 0) [[unlikely]]
    return refuse(jErrReport, "%s(): %s is negative", names.native, names.count);
  if (count == 0 && !names.alwaysUsed) return 0;
  if (array == nullptr) [[unlikely]]
    return refuse(jErrReport, "%s(): NULL %s argument", names.native, names.array);
  if (count <= ENV->GetArrayLength(array)) [[likely]]
    return 0;
  return refuse(jErrReport, "%s(): %s exceeds the length of %s", names.native, names.count,
                names.array);
}

// The element at `index`, counted from 0, of an array of reports. Its local reference ends with its
// turn of the loop. Whoever fetches elements, or copies parts of an array, has tested the array's
// length, the one thing that JNI would throw for.
class Element {
 public:
  Element(jobjectArray array, jint index) : reference(ENV->GetObjectArrayElement(array, index)) {
    if (reference == nullptr) [[unlikely]]
      ENV->ExceptionClear();
  }
  ~Element() {
    if (reference != nullptr) ENV->DeleteLocalRef(reference);
  }
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;

  jobject reference;  // null if there is none
};

// ---- Oops ----

// Makes the oop of the report `jobj`, which carries a new value, as getOop does but for the way
// out. `*oop` stays as it is if the value stands for none.
jint makeOop(jobject jobj, OopType* oop, jobject jErrReport);

// Creates an object of `byteClass` that holds `size` bytes. `*oop` is written even when storing the
// bytes fails: the object is not removed. Returns 0 or -1.
jint createBytes(OopType byteClass, const ByteType* bytes, ArraySizeType size, OopType* oop,
                 jobject jErrReport);

// getOop of a report that is not null.
inline jint oopOf(jobject jobj, OopType* oop, jobject jErrReport) {
  if (ENV->GetByteField(jobj, objTypeFid) == NewValue) {
    return leave(makeOop(jobj, oop, jErrReport));
  }
  *oop = static_cast<OopType>(ENV->GetLongField(jobj, oopFid));
  return leave(0);
}

// getOop for an argument `name` of `native` that may be null, which is refused. An argument that
// stands for no oop counts as 0.
inline jint argumentOop(jobject argument, const char* native, const char* name, OopType* oop,
                        jobject jErrReport) {
  if (argument == nullptr) [[unlikely]]
    return refuse(jErrReport, "%s(): NULL %s argument", native, name);
  *oop = 0;
  return oopOf(argument, oop, jErrReport);
}

// What the elements of an array are called in a refusal, and in the trace before and behind their
// conversion.
struct ElementNames {
  const char* argument;
  const char* reference;
  const char* oop;
};

// argumentOop for the first `count` elements of `array`, in their order, into `oops`, which has
// room for them.
inline jint elementOops(jobjectArray array, jint count, const char* native,
                        const ElementNames& names, OopType* oops, jobject jErrReport) {
  for (jint i = 0; i < count; ++i) {
    const Element element(array, i);
    TRACE("     %s[%d] = %ld\n", names.reference, i, traced(element.reference));
    const jint status =
        argumentOop(element.reference, native, names.argument, &oops[i], jErrReport);
    if (status != 0) return status;
    TRACE("     %s[%d] = %ld\n", names.oop, i, traced(oops[i]));
  }
  return 0;
}

constexpr OopType CharacterTag = 14;  // in the low five bits

// An oop that names an ordinary object, not a value decoded from the oop's own bits.
constexpr bool isObject(OopType oop) {
  return oop > 1 && (oop & 2) == 0;
}

// What every description of an ordinary object begins with: its oop in the report, and its place in
// the export set. Returns 0 or -1.
inline jint saveObject(OopType oop, jobject result, jobject jErrReport) {
  ENV->SetLongField(result, oopFid, oop);
  rtlPrivZelRtlFuncs->ZelSaveObjs(&oop, 1);
  return poll(jErrReport);
}

constexpr bool isSmallInteger(OopType oop) {
  return (oop & 3) == 3;
}

constexpr jint smallIntegerValue(OopType oop) {
  return static_cast<jint>(oop) >> 2;
}

// What comes behind a small integer's oop and object type in its description. Returns 0 or -1.
inline jint describeInteger(OopType oop, jobject result, jobject jErrReport) {
  if (errorPending(jErrReport)) return -1;
  const jint value = smallIntegerValue(oop);
  TRACE("setup:  oop %ld is a small int, value = %ld\n", traced(oop), traced(value));
  ENV->SetByteField(result, valueTypeFid, IntegerValue);
  ENV->SetLongField(result, longFid, value);
  return 0;
}

// setupReport's full description of what a native delivers, and its status, without the call for
// the commonest. The strings that are live then are released with the native's end.
inline jint describeResult(OopType oop, jobject result, jobject jErrReport) {
  if (Debug != 0 || !isSmallInteger(oop)) return setupReport(oop, result, jErrReport, 1);
  ENV->SetLongField(result, oopFid, oop);
  ENV->SetByteField(result, objTypeFid, SpecialObject);
  return describeInteger(oop, result, jErrReport);
}

// setupReport's short description, and its status, without the call for the objects that a
// collection mostly holds. Inlined by force, because a call is more than its share of an element.
[[gnu::always_inline]] inline jint describeShortly(OopType oop, jobject result,
                                                   jobject jErrReport) {
  if (Debug != 0 || !isObject(oop)) return setupReport(oop, result, jErrReport, 0);
  const jint status = saveObject(oop, result, jErrReport);
  if (status != 0) [[unlikely]]
    releaseStrings();
  return status;
}

// Copies `count` oops to Java's form of them, zero-extended.
inline void widen(const OopType* from, jlong* to, jint count) {
  for (jint i = 0; i < count; ++i) to[i] = from[i];
}

// ---- The frame ----

// What a native says in the trace where it begins and when its work is done; null is nothing.
struct NativeTrace {
  const char* entry = nullptr;      // behind the session's id and a colon, blanks included
  const char* completed = nullptr;  // its name, before " completed."
};

// Runs `work`, the steps of a native, which returns its status. Before initialization nothing
// happens but the report of it: no trace, and no release of strings. A library that was unloaded
// behind the bridge's back counts as not initialized.
template <typename Work>
inline jint runNative(const char* completed, JNIEnv* env, jobject jErrReport, Work work) {
  ENV = env;
  if (PovZelInitialized == 0 || rtlPrivZelRtlFuncs == nullptr) [[unlikely]] {
    genericError(jErrReport, "ZEL: Not initialized");
    return -1;
  }
  const jint status = work();
  if (completed != nullptr && status >= 0) TRACE("%s completed.", completed);
  return leave(status);
}

// The same for natives of a session, which is made current first.
template <typename Work>
inline jint runInSession(const NativeTrace& trace, JNIEnv* env, jint sessionId, jobject jErrReport,
                         Work work) {
  if (trace.entry != nullptr) TRACE("%d:%s\n", sessionId, trace.entry);
  return runNative(trace.completed, env, jErrReport, [&]() -> jint {
    rtlPrivZelRtlFuncs->ZelSetSessionId(sessionId);
    if (errorPending(jErrReport)) return -1;
    return work();
  });
}

}  // namespace bridge
#pragma GCC visibility pop
