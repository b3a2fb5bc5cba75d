// The natives that read and write ranges of an object's contents.
#include "frame.h"

namespace bridge {
namespace {

// A member of the family.
struct Transfer {
  CountedArray names;
  const char* entryName;  // in the trace of its entry
  const jint* limit;      // of the count
};

// One that moves oops.
template <typename Slot>
struct OopTransfer : Transfer {
  Slot slot;                 // the interface library's function
  const char* elementName;   // the native's, where an element is missing
  bool tracesCount = false;  // what the library delivered
};
using OopFetch = OopTransfer<decltype(&ZelRtlJumpSType::ZelFetchVaryingOops)>;
using OopStore = OopTransfer<decltype(&ZelRtlJumpSType::ZelStoreIdxOops)>;

constexpr char bytesTooMany[] = "numBytes requested exceeds buffer size";
constexpr char objsTooMany[] = "numObjs requested exceeds buffer size";
constexpr bool alwaysUsed = true;

constexpr Transfer getBytes = {
    {"getBytes", "numBytes", "bytes", bytesTooMany, alwaysUsed}, "getBytes", &BufSizeBytes};
constexpr Transfer putBytes = {
    {"putBytes", "numBytes", "bytes", bytesTooMany, alwaysUsed}, "putBytes", &BufSizeBytes};
constexpr OopFetch getObjs = {
    {{"getObjs", "numObjs", "objs", objsTooMany}, "GetObjs", &BufSizeOops},
    &ZelRtlJumpSType::ZelFetchVaryingOops,
    "getObjs",
    true};
constexpr OopFetch getNamedObjs = {
    {{"getNamedObjs", "numObjs", "objs", "buffer size exceeded"}, "getNamedObjs", &BufSizeOops},
    &ZelRtlJumpSType::ZelFetchNamedOops,
    "getNamedObjs"};
constexpr OopStore putObjs = {
    {{"putObjs", "numObjs", "objs", objsTooMany}, "putObjs", &BufSizeOops},
    &ZelRtlJumpSType::ZelStoreIdxOops,
    "pubObjs"};  // as it has always been spelled
constexpr OopStore putNamedObjs = {
    {{"putNamedObjs", "numObjs", "objs", objsTooMany}, "putNamedObjs", &BufSizeOops},
    &ZelRtlJumpSType::ZelStoreNamedOops,
    "putNamedObjs"};

// The tests that come before a transfer, in their order; then the object's conversion.
template <const auto& transfer>
jint prepare(jobject jobj, jlong startIndex, jint count, jarray array, OopType* rcvr,
             jobject jErrReport) {
  const char* native = transfer.names.native;
  if (startIndex < 1) return refuse(jErrReport, "%s(): startIndex < 1", native);
  const jint status = checkCount(transfer.names, *transfer.limit, array, count, jErrReport);
  if (status != 0) return status;
  return argumentOop(jobj, native, "obj", rcvr, jErrReport);
}

// The family's frame. `work` is given the object's oop.
template <const auto& transfer, typename Work>
jint runTransfer(JNIEnv* env, jint sessionId, jobject jobj, jlong startIndex, jint count,
                 jarray array, jobject jErrReport, Work work) {
  TRACE("%d: %s start %lld num %ld\n", sessionId, transfer.entryName, startIndex, traced(count));
  return runInSession({nullptr, transfer.names.native}, env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    const jint status = prepare<transfer>(jobj, startIndex, count, array, &rcvr, jErrReport);
    return status != 0 ? status : work(rcvr);
  });
}

// ---- Bytes ----

// Runs `work` on the array's elements, which go back to the array behind it. Returns its status, or
// -2 if the elements could not be had.
template <typename Work>
jint withElements(jbyteArray bytes, Work work) {
  jbyte* elements = ENV->GetByteArrayElements(bytes, nullptr);
  if (elements == nullptr) return allocationFailure();
  const jint status = work(reinterpret_cast<ByteType*>(elements));
  ENV->ReleaseByteArrayElements(bytes, elements, 0);
  return status;
}

// Fewer bytes than requested are an error, but stay in the array.
jint fetchBytes(OopType rcvr, jlong startIndex, jint numBytes, jbyteArray bytes,
                jobject jErrReport) {
  long fetched = 0;
  const jint status = withElements(bytes, [&](ByteType* elements) -> jint {
    fetched = rtlPrivZelRtlFuncs->ZelFetchBytes(rcvr, static_cast<long>(startIndex), elements,
                                                static_cast<ArraySizeType>(numBytes));
    if (errorPending(jErrReport)) return -1;
    TRACE("     fetchedBytes = %ld\n", fetched);
    return 0;
  });
  if (status != 0) return status;
  if (fetched == numBytes) return numBytes;
  return refuse(jErrReport, "Number of bytes fetched does not match request");
}

// The library is asked for its error only when the elements have gone back.
jint storeBytes(OopType rcvr, jlong startIndex, jint numBytes, jbyteArray bytes,
                jobject jErrReport) {
  const jint status = withElements(bytes, [&](ByteType* elements) -> jint {
    rtlPrivZelRtlFuncs->ZelStoreBytesInstanceOf(NilOop, rcvr, static_cast<long>(startIndex),
                                                elements, static_cast<ArraySizeType>(numBytes));
    return 0;
  });
  return status != 0 ? status : poll(jErrReport);
}

// ---- Oops ----

template <typename Slot>
jint missingElement(const OopTransfer<Slot>& transfer, jobject jErrReport) {
  return refuse(jErrReport, "Problem with GetObjectArrayElement in %s()", transfer.elementName);
}

// Into oopBuf. Returns what the library says of the number.
template <const OopFetch& fetch>
long fetchOops(OopType rcvr, jlong start, jint count) {
  const long fetched = (rtlPrivZelRtlFuncs->*fetch.slot)(rcvr, static_cast<long>(start), oopBuf,
                                                         static_cast<ArraySizeType>(count));
  if (fetch.tracesCount && fetched != count) {
    TRACE("Zel_FetchVaryingOops: returned count %ld different from %ld\n", fetched, traced(count));
  }
  return fetched;
}

template <const OopFetch& fetch>
long fetchWidened(OopType rcvr, jlong start, jlong* oops, jint count) {
  const long fetched = fetchOops<fetch>(rcvr, start, count);
  widen(oopBuf, oops, count);
  return fetched;
}

// Describes the fetched oops in the elements of `jobjs`. Returns `count`.
template <const OopFetch& fetch>
jint describeFetched(jint count, jobjectArray jobjs, jobject jErrReport) {
  for (jint i = 0; i < count; ++i) {
    const Element element(jobjs, i);
    if (element.reference == nullptr) return missingElement(fetch, jErrReport);
    const jint status = describeShortly(oopBuf[i], element.reference, jErrReport);
    if (status != 0) return status;
  }
  return count;
}

// No more than `numObjs` are believed to have been fetched.
template <const OopFetch& fetch>
jint getOops(JNIEnv* env, jint sessionId, jobject jobj, jlong startIndex, jint numObjs,
             jobjectArray jobjs, jobject jErrReport) {
  const auto work = [&](OopType rcvr) -> jint {
    const long fetched = fetchOops<fetch>(rcvr, startIndex, numObjs);
    if (errorPending(jErrReport)) return -1;
    if (fetch.tracesCount) TRACE("%d:  GetObjs oopsFetched: %ld\n", sessionId, fetched);
    const jint believed = fetched > numObjs ? numObjs : fetched;
    return describeFetched<fetch>(believed > 0 ? believed : 0, jobjs, jErrReport);
  };
  return runTransfer<fetch>(env, sessionId, jobj, startIndex, numObjs, jobjs, jErrReport, work);
}

// Converts the first `count` elements of `jobjs` into oopBuf.
template <const OopStore& store>
jint collectOops(jobjectArray jobjs, jint count, jobject jErrReport) {
  for (jint i = 0; i < count; ++i) {
    const Element element(jobjs, i);
    if (element.reference == nullptr) return missingElement(store, jErrReport);
    oopBuf[i] = 0;
    const jint status = oopOf(element.reference, &oopBuf[i], jErrReport);
    if (status != 0) return status;
  }
  return 0;
}

template <const OopStore& store>
jint putOops(JNIEnv* env, jint sessionId, jobject jobj, jlong startIndex, jint numObjs,
             jobjectArray jobjs, jobject jErrReport) {
  const auto work = [&](OopType rcvr) -> jint {
    const jint status = collectOops<store>(jobjs, numObjs, jErrReport);
    if (status != 0) return status;
    (rtlPrivZelRtlFuncs->*store.slot)(rcvr, static_cast<long>(startIndex), oopBuf,
                                      static_cast<ArraySizeType>(numObjs));
    return poll(jErrReport);
  };
  return runTransfer<store>(env, sessionId, jobj, startIndex, numObjs, jobjs, jErrReport, work);
}

}  // namespace
}  // namespace bridge

long zelFetchVaryingOops(OopType rcvr, jlong start, jlong* oops, jint count) {
  return bridge::fetchWidened<bridge::getObjs>(rcvr, start, oops, count);
}

long zelFetchNamedOops(OopType rcvr, jlong start, jlong* oops, jint count) {
  return bridge::fetchWidened<bridge::getNamedObjs>(rcvr, start, oops, count);
}

jint Java_com_tarvolin_povzel_PovZelInterface__1getBytes(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jobj, jlong startIndex,
                                                         jint numBytes, jbyteArray bytes,
                                                         jthrowable jErrReport) {
  return bridge::runTransfer<bridge::getBytes>(
      env, sessionId, jobj, startIndex, numBytes, bytes, jErrReport, [&](OopType rcvr) {
        return bridge::fetchBytes(rcvr, startIndex, numBytes, bytes, jErrReport);
      });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1putBytes(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jobj, jlong startIndex,
                                                         jint numBytes, jbyteArray bytes,
                                                         jthrowable jErrReport) {
  return bridge::runTransfer<bridge::putBytes>(
      env, sessionId, jobj, startIndex, numBytes, bytes, jErrReport, [&](OopType rcvr) {
        return bridge::storeBytes(rcvr, startIndex, numBytes, bytes, jErrReport);
      });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1getObjs(JNIEnv* env, jclass, jint sessionId,
                                                        jobject jobj, jlong startIndex,
                                                        jint numObjs, jobjectArray jobjs,
                                                        jthrowable jErrReport) {
  return bridge::getOops<bridge::getObjs>(env, sessionId, jobj, startIndex, numObjs, jobjs,
                                          jErrReport);
}

jint Java_com_tarvolin_povzel_PovZelInterface__1getNamedObjs(JNIEnv* env, jclass, jint sessionId,
                                                             jobject jobj, jlong startIndex,
                                                             jint numObjs, jobjectArray jobjs,
                                                             jthrowable jErrReport) {
  return bridge::getOops<bridge::getNamedObjs>(env, sessionId, jobj, startIndex, numObjs, jobjs,
                                               jErrReport);
}

jint Java_com_tarvolin_povzel_PovZelInterface__1putObjs(JNIEnv* env, jclass, jint sessionId,
                                                        jobject jobj, jlong startIndex,
                                                        jint numObjs, jobjectArray jobjs,
                                                        jthrowable jErrReport) {
  return bridge::putOops<bridge::putObjs>(env, sessionId, jobj, startIndex, numObjs, jobjs,
                                          jErrReport);
}

jint Java_com_tarvolin_povzel_PovZelInterface__1putNamedObjs(JNIEnv* env, jclass, jint sessionId,
                                                             jobject jobj, jlong startIndex,
                                                             jint numObjs, jobjectArray jobjs,
                                                             jthrowable jErrReport) {
  return bridge::putOops<bridge::putNamedObjs>(env, sessionId, jobj, startIndex, numObjs, jobjs,
                                               jErrReport);
}
