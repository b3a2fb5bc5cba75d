// What the bridge's sources share: the process-wide state, the trace, the frame that every native
// runs in, and the refusal of arguments.
#pragma once

#include <povzel/zelrtl.h>
#include "povzelinterface.h"

#pragma GCC visibility push(hidden)
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

extern jfieldID oopFid, classOopFid, classHistoryOopFid, objTypeFid, namedSizeFid, indexedSizeFid,
    isCollectionFid, isStringFid, isDBStringFid, valueTypeFid, int1Fid, int2Fid, longFid, doubleFid,
    bytesFid, longsFid, stringFid;
extern jfieldID numberFid, messageFid, categoryFid, contextFid, fatalFid, argCountFid, argsFid;

constexpr char reportClass[] = "com/tarvolin/povzel/PovZelReport";
constexpr char exceptionClass[] = "com/tarvolin/povzel/PovZelException";

// A Java field, and where its ID is kept.
struct Field {
  const char* name;
  const char* signature;
  jfieldID* id;
};
extern const Field reportFields[17];
extern const Field exceptionFields[7];

// Codes of `objType` and `valueType` in reports.
enum ObjType : jbyte { NewValue = -1, PointerObject, ByteObject, NscObject, SpecialObject };
enum ValueType : jbyte {
  NoValue = -1,
  NilValue,
  BooleanValue,
  CharacterValue,
  IntegerValue,
  FloatValue,
  BytesValue,
  OopsValue,
  StringValue,
  DoubleByteStringValue,
  DateTimeValue
};

constexpr OopType CharacterTag = 14;  // in the low five bits

// Writes one trace message: prefix, text, a "\n" if the text has none at its end, flush.
__attribute__((format(printf, 1, 2), cold)) void writeTrace(const char* format, ...);

// A macro, so that a trace that is off costs one test and evaluates nothing.
#define TRACE(...) \
  do { \
    if (bridge::Debug != 0) [[unlikely]] \
      bridge::writeTrace(__VA_ARGS__); \
  } while (false)

// Numbers and oops as the trace prints them.
constexpr long traced(jint value) {
  return value;
}
constexpr long traced(OopType oop) {
  return static_cast<long>(oop);
}
inline long traced(jobject reference) {
  return reinterpret_cast<long>(reference);
}

// Reports a generic error from inside a native or setupReport. Returns -1.
__attribute__((format(printf, 2, 3), cold)) jint refuse(jobject jErrReport, const char* format,
                                                        ...);

// A temporary string or Java array could not be had: drops the exception that may have been the
// reason. Returns -2.
__attribute__((cold)) jint allocationFailure();

// True if the JNI call just made threw; the exception is dropped.
inline bool threw() {
  if (!ENV->ExceptionCheck()) [[likely]]
    return false;
  ENV->ExceptionClear();
  return true;
}

// What a native calls itself, its count and its array in refusals.
struct CountNames {
  const char* native;
  const char* count;
  const char* array;
};

// Refuses a negative count, and a null array or one shorter than `count`. An array that no element
// is taken from may be null and is not looked at, unless `alwaysUsed`. Returns 0 or -1.
inline jint checkCount(const CountNames& names, jarray array, jint count, jobject jErrReport,
                       bool alwaysUsed = false) {
  if (count < 0) [[unlikely]]
    return refuse(jErrReport, "%s(): %s is negative", names.native, names.count);
  if (count == 0 && !alwaysUsed) return 0;
  if (array == nullptr) [[unlikely]]
    return refuse(jErrReport, "%s(): NULL %s argument", names.native, names.array);
  if (count <= ENV->GetArrayLength(array)) [[likely]]
    return 0;
  return refuse(jErrReport, "%s(): %s exceeds the length of %s", names.native, names.count,
                names.array);
}

// What exported functions do, without a call on the paths that natives always take: zelError while
// a library is loaded, GetSbString, ReleaseStrings, and getOop of a report that names an object.

inline bool errorPending(jobject jErrReport) {
  if (rtlPrivZelRtlFuncs->ZelErr(&ZelError) == 0) [[likely]]
    return false;
  setupError(jErrReport);
  return true;
}

inline ByteType* recordString(jstring jstr, const void* buffer, StringKind kind) {
  auto* bytes = static_cast<ByteType*>(const_cast<void*>(buffer));
  const jint index = AllocatedStringIndex;
  AllocatedJniString[index] = jstr;
  AllocatedString[index] = bytes;
  AllocatedStringType[index] = kind;
  AllocatedStringIndex = index + 1;
  return bytes;
}

inline const char* sbString(jstring jstr) {
  if (jstr == nullptr || AllocatedStringIndex >= stringTableSize) [[unlikely]]
    return nullptr;
  const char* characters = ENV->GetStringUTFChars(jstr, nullptr);
  if (characters != nullptr) [[likely]]
    recordString(jstr, characters, SbString);
  return characters;
}

inline void releaseStrings() {
  if (AllocatedStringIndex > 0) ReleaseStrings();
}

// The way out of a native, and of every function whose last act is to release the strings.
inline jint leave(jint status) {
  TRACE("Returning: %ld\n", traced(status));
  releaseStrings();
  return status;
}

// Makes the oop of a report that carries a new value, as getOop does, but for the way out.
jint makeOop(jobject jobj, OopType* oop, jobject jErrReport);

inline jint oopOf(jobject jobj, OopType* oop, jobject jErrReport) {
  if (ENV->GetByteField(jobj, objTypeFid) == NewValue) {
    return leave(makeOop(jobj, oop, jErrReport));
  }
  *oop = static_cast<OopType>(ENV->GetLongField(jobj, oopFid));
  return leave(0);
}

// getOop for an argument `name` of `native` that may be null. An argument that stands for no oop
// counts as 0.
inline jint argumentOop(jobject argument, const char* native, const char* name, OopType* oop,
                        jobject jErrReport) {
  if (argument == nullptr) [[unlikely]]
    return refuse(jErrReport, "%s(): NULL %s argument", native, name);
  *oop = 0;
  return oopOf(argument, oop, jErrReport);
}

// An oop that names an ordinary object, not a value decoded from the oop's own bits.
constexpr bool isObject(OopType oop) {
  return oop > 1 && (oop & 2) == 0;
}

// What every description of an ordinary object begins with: its oop in the report, and its place in
// the export set. Returns 0 or -1.
inline jint saveObject(OopType oop, jobject result, jobject jErrReport) {
  ENV->SetLongField(result, oopFid, oop);
  oopBuf[0] = oop;
  rtlPrivZelRtlFuncs->ZelSaveObjs(oopBuf, 1);
  return errorPending(jErrReport) ? -1 : 0;
}

// setupReport's short description, without the call for the objects that a collection mostly holds.
inline jint describeShortly(OopType oop, jobject result, jobject jErrReport) {
  if (Debug != 0 || !isObject(oop)) return setupReport(oop, result, jErrReport, 0);
  const jint status = saveObject(oop, result, jErrReport);
  if (status != 0) [[unlikely]]
    releaseStrings();
  return status;
}

// One element of an array of reports. Its local reference ends with its turn of the loop.
class Element {
 public:
  Element(jobjectArray array, jint index) : reference(ENV->GetObjectArrayElement(array, index)) {
    if (threw()) reference = nullptr;
  }
  ~Element() {
    if (reference != nullptr) ENV->DeleteLocalRef(reference);
  }
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;

  jobject reference;  // null if there is none
};

inline void widen(const OopType* from, jlong* to, jint count) {
  for (jint i = 0; i < count; ++i) to[i] = from[i];
}

// The frame of every native but _initialize, behind its entry trace. Before initialization
// nothing happens but the report of it: no trace, and no release of strings. A library that was
// unloaded behind the bridge's back counts as not initialized.
template <typename Work>
inline jint runNative(JNIEnv* env, jobject jErrReport, Work work) {
  ENV = env;
  if (PovZelInitialized == 0 || rtlPrivZelRtlFuncs == nullptr) [[unlikely]] {
    genericError(jErrReport, "ZEL: Not initialized");
    return -1;
  }
  return leave(work());
}

// The same for natives of a session, which is made current first.
template <typename Work>
inline jint runInSession(JNIEnv* env, jint sessionId, jobject jErrReport, Work work) {
  return runNative(env, jErrReport, [&]() -> jint {
    rtlPrivZelRtlFuncs->ZelSetSessionId(sessionId);
    if (errorPending(jErrReport)) return -1;
    return work();
  });
}

}  // namespace bridge
#pragma GCC visibility pop
