// The natives that read and write ranges of an object's contents.
#include <algorithm>

#include "bridge.h"

using namespace bridge;

namespace {

// What the members of the family call themselves and their limits.
struct Transfer {
  CountNames names;
  const char* tooMany;
  const char* elementNative;  // the name in the message about a missing element
};

constexpr Transfer getBytes = {
    {"getBytes", "numBytes", "bytes"}, "numBytes requested exceeds buffer size", nullptr};
constexpr Transfer getObjs = {
    {"getObjs", "numObjs", "objs"}, "numObjs requested exceeds buffer size", "getObjs"};
constexpr Transfer getNamedObjs = {
    {"getNamedObjs", "numObjs", "objs"}, "buffer size exceeded", "getNamedObjs"};
constexpr Transfer putBytes = {
    {"putBytes", "numBytes", "bytes"}, "numBytes requested exceeds buffer size", nullptr};
// The text about a missing element has always been spelled "pubObjs".
constexpr Transfer putObjs = {
    {"putObjs", "numObjs", "objs"}, "numObjs requested exceeds buffer size", "pubObjs"};
constexpr Transfer putNamedObjs = {
    {"putNamedObjs", "numObjs", "objs"}, "numObjs requested exceeds buffer size", "putNamedObjs"};

// The steps below are inlined by force: each is most of what a small transfer costs.

// The tests that come before a transfer, in their order; then the object's conversion.
[[gnu::always_inline]] inline jint prepare(const Transfer& transfer, jint limit, jobject jobj,
                                           jlong startIndex, jint count, jarray array,
                                           OopType* rcvr, jobject jErrReport) {
  const char* native = transfer.names.native;
  if (startIndex < 1) return refuse(jErrReport, "%s(): startIndex < 1", native);
  if (count > limit) return refuse(jErrReport, "%s(): %s", native, transfer.tooMany);
  const bool alwaysUsed = transfer.elementNative == nullptr;
  const jint status = checkCount(transfer.names, array, count, jErrReport, alwaysUsed);
  if (status != 0) return status;
  return argumentOop(jobj, native, "obj", rcvr, jErrReport);
}

jint missingElement(const Transfer& transfer, jobject jErrReport) {
  return refuse(jErrReport, "Problem with GetObjectArrayElement in %s()", transfer.elementNative);
}

// Describes the fetched oops, which are in longBuf, in the elements of `jobjs`. No more than
// `requested` are believed to be there. Returns how many they were.
[[gnu::always_inline]] inline jint describeFetched(const Transfer& transfer, long fetched,
                                                   jint requested, jobjectArray jobjs,
                                                   jobject jErrReport) {
  const jint count = std::clamp<jint>(fetched, 0, requested);
  for (jint i = 0; i < count; ++i) {
    const Element element(jobjs, i);
    if (element.reference == nullptr) return missingElement(transfer, jErrReport);
    const jint status =
        describeShortly(static_cast<OopType>(longBuf[i]), element.reference, jErrReport);
    if (status != 0) return status;
  }
  TRACE("%s completed.", transfer.names.native);
  return count;
}

// Converts the first `count` elements of `jobjs` into oopBuf.
[[gnu::always_inline]] inline jint collectOops(const Transfer& transfer, jobjectArray jobjs,
                                               jint count, jobject jErrReport) {
  for (jint i = 0; i < count; ++i) {
    const Element element(jobjs, i);
    if (element.reference == nullptr) return missingElement(transfer, jErrReport);
    oopBuf[i] = 0;
    const jint status = oopOf(element.reference, &oopBuf[i], jErrReport);
    if (status != 0) return status;
  }
  return 0;
}

[[gnu::always_inline]] inline long fetchVaryingOops(OopType rcvr, jlong start, jlong* oops,
                                                    jint count) {
  const long fetched = rtlPrivZelRtlFuncs->ZelFetchVaryingOops(
      rcvr, static_cast<long>(start), oopBuf, static_cast<ArraySizeType>(count));
  if (fetched != count) {
    TRACE("Zel_FetchVaryingOops: returned count %ld different from %ld\n", fetched, traced(count));
  }
  widen(oopBuf, oops, count);
  return fetched;
}

[[gnu::always_inline]] inline long fetchNamedOops(OopType rcvr, jlong start, jlong* oops,
                                                  jint count) {
  const long fetched = rtlPrivZelRtlFuncs->ZelFetchNamedOops(rcvr, static_cast<long>(start), oopBuf,
                                                             static_cast<ArraySizeType>(count));
  widen(oopBuf, oops, count);
  return fetched;
}

ByteType* elementsOf(jbyteArray bytes) {
  return reinterpret_cast<ByteType*>(ENV->GetByteArrayElements(bytes, nullptr));
}

void releaseElements(jbyteArray bytes, ByteType* elements) {
  ENV->ReleaseByteArrayElements(bytes, reinterpret_cast<jbyte*>(elements), 0);
}

}  // namespace

long zelFetchVaryingOops(OopType rcvr, jlong start, jlong* oops, jint count) {
  return fetchVaryingOops(rcvr, start, oops, count);
}

long zelFetchNamedOops(OopType rcvr, jlong start, jlong* oops, jint count) {
  return fetchNamedOops(rcvr, start, oops, count);
}

jint Java_com_tarvolin_povzel_PovZelInterface__1getBytes(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jobj, jlong startIndex,
                                                         jint numBytes, jbyteArray bytes,
                                                         jthrowable jErrReport) {
  TRACE("%d: getBytes start %lld num %d\n", sessionId, startIndex, numBytes);
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    const jint status =
        prepare(getBytes, BufSizeBytes, jobj, startIndex, numBytes, bytes, &rcvr, jErrReport);
    if (status != 0) return status;
    ByteType* elements = elementsOf(bytes);
    if (elements == nullptr) return allocationFailure();
    const long fetched = rtlPrivZelRtlFuncs->ZelFetchBytes(
        rcvr, static_cast<long>(startIndex), elements, static_cast<ArraySizeType>(numBytes));
    const bool failed = errorPending(jErrReport);
    if (!failed) TRACE("     fetchedBytes = %ld\n", fetched);
    releaseElements(bytes, elements);
    if (failed) return -1;
    if (fetched != numBytes) {
      return refuse(jErrReport, "Number of bytes fetched does not match request");
    }
    TRACE("getBytes completed.");
    return numBytes;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1getObjs(JNIEnv* env, jclass, jint sessionId,
                                                        jobject jobj, jlong startIndex,
                                                        jint numObjs, jobjectArray jobjs,
                                                        jthrowable jErrReport) {
  TRACE("%d: GetObjs start %lld num %ld\n", sessionId, startIndex, traced(numObjs));
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    const jint status =
        prepare(getObjs, BufSizeOops, jobj, startIndex, numObjs, jobjs, &rcvr, jErrReport);
    if (status != 0) return status;
    const long fetched = fetchVaryingOops(rcvr, startIndex, longBuf, numObjs);
    if (errorPending(jErrReport)) return -1;
    TRACE("%d:  GetObjs oopsFetched: %ld\n", sessionId, fetched);
    return describeFetched(getObjs, fetched, numObjs, jobjs, jErrReport);
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1getNamedObjs(JNIEnv* env, jclass, jint sessionId,
                                                             jobject jobj, jlong startIndex,
                                                             jint numObjs, jobjectArray jobjs,
                                                             jthrowable jErrReport) {
  TRACE("%d: getNamedObjs start %lld num %ld\n", sessionId, startIndex, traced(numObjs));
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    const jint status =
        prepare(getNamedObjs, BufSizeOops, jobj, startIndex, numObjs, jobjs, &rcvr, jErrReport);
    if (status != 0) return status;
    const long fetched = fetchNamedOops(rcvr, startIndex, longBuf, numObjs);
    if (errorPending(jErrReport)) return -1;
    return describeFetched(getNamedObjs, fetched, numObjs, jobjs, jErrReport);
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1putBytes(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jobj, jlong startIndex,
                                                         jint numBytes, jbyteArray bytes,
                                                         jthrowable jErrReport) {
  TRACE("%d: putBytes start %lld num %ld\n", sessionId, startIndex, traced(numBytes));
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    const jint status =
        prepare(putBytes, BufSizeBytes, jobj, startIndex, numBytes, bytes, &rcvr, jErrReport);
    if (status != 0) return status;
    ByteType* elements = elementsOf(bytes);
    if (elements == nullptr) return allocationFailure();
    rtlPrivZelRtlFuncs->ZelStoreBytesInstanceOf(NilOop, rcvr, static_cast<long>(startIndex),
                                                elements, static_cast<ArraySizeType>(numBytes));
    releaseElements(bytes, elements);
    if (errorPending(jErrReport)) return -1;
    TRACE("putBytes completed.");
    return 0;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1putObjs(JNIEnv* env, jclass, jint sessionId,
                                                        jobject jobj, jlong startIndex,
                                                        jint numObjs, jobjectArray jobjs,
                                                        jthrowable jErrReport) {
  TRACE("%d: putObjs start %lld num %ld\n", sessionId, startIndex, traced(numObjs));
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    jint status =
        prepare(putObjs, BufSizeOops, jobj, startIndex, numObjs, jobjs, &rcvr, jErrReport);
    if (status == 0) status = collectOops(putObjs, jobjs, numObjs, jErrReport);
    if (status != 0) return status;
    rtlPrivZelRtlFuncs->ZelStoreIdxOops(rcvr, static_cast<long>(startIndex), oopBuf,
                                        static_cast<ArraySizeType>(numObjs));
    if (errorPending(jErrReport)) return -1;
    TRACE("putObjs completed.");
    return 0;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1putNamedObjs(JNIEnv* env, jclass, jint sessionId,
                                                             jobject jobj, jlong startIndex,
                                                             jint numObjs, jobjectArray jobjs,
                                                             jthrowable jErrReport) {
  TRACE("%d: putNamedObjs start %lld num %ld\n", sessionId, startIndex, traced(numObjs));
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType rcvr = 0;
    jint status =
        prepare(putNamedObjs, BufSizeOops, jobj, startIndex, numObjs, jobjs, &rcvr, jErrReport);
    if (status == 0) status = collectOops(putNamedObjs, jobjs, numObjs, jErrReport);
    if (status != 0) return status;
    rtlPrivZelRtlFuncs->ZelStoreNamedOops(rcvr, static_cast<long>(startIndex), oopBuf,
                                          static_cast<ArraySizeType>(numObjs));
    if (errorPending(jErrReport)) return -1;
    TRACE("putNamedObjs completed.");
    return 0;
  });
}
