// The natives on the session's export set, and the class test.
#include <algorithm>

#include "bridge.h"

using namespace bridge;

namespace {

constexpr CountNames removeFromExportSet = {"removeFromExportSet", "numObjs", "objs"};
constexpr CountNames releaseOops = {"releaseOops", "numOops", "oops"};
constexpr CountNames changedOops = {"changedOops", "numOops", "oops"};

jint convertObjs(jobjectArray jobjs, jint numObjs, jobject jErrReport) {
  for (jint i = 0; i < numObjs; ++i) {
    const Element obj(jobjs, i);
    TRACE("     jobj[%d] = %ld\n", i, traced(obj.reference));
    const jint status =
        argumentOop(obj.reference, "removeFromExportSet", "objs element", &oopBuf[i], jErrReport);
    if (status != 0) return status;
    TRACE("     oop[%d] = %ld\n", i, traced(oopBuf[i]));
  }
  return 0;
}

void traceLongs(jint count) {
  if (Debug == 0) return;
  for (jint i = 0; i < count; ++i) writeTrace("     %lld\n", longBuf[i]);
}

jint copyFromJava(jlongArray joops, jint count, jobject jErrReport) {
  if (count == 0) return 0;
  ENV->GetLongArrayRegion(joops, 0, count, longBuf);
  if (!threw()) return 0;
  return refuse(jErrReport, "Problem with GetLongArrayRegion in releaseOops()");
}

jint copyToJava(jlongArray joops, jint count, jobject jErrReport) {
  if (count == 0) return 0;
  ENV->SetLongArrayRegion(joops, 0, count, longBuf);
  if (!threw()) return 0;
  return refuse(jErrReport, "Problem with SetLongArrayRegion in changedOops()");
}

}  // namespace

jint Java_com_tarvolin_povzel_PovZelInterface__1removeFromExportSet(
    JNIEnv* env, jclass, jint sessionId, jobjectArray jobjs, jint numObjs, jthrowable jErrReport) {
  TRACE("%d:  removeFromExportSet.\n", sessionId);
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    if (numObjs > BufSizeOops) {
      return refuse(jErrReport, "removeFromExportSet(): numObjs exceeds buffer size");
    }
    jint status = checkCount(removeFromExportSet, jobjs, numObjs, jErrReport);
    if (status == 0) status = convertObjs(jobjs, numObjs, jErrReport);
    if (status != 0) return status;
    rtlPrivZelRtlFuncs->ZelReleaseOops(oopBuf, static_cast<ArraySizeType>(numObjs));
    if (errorPending(jErrReport)) return -1;
    TRACE("removeFromExportSet completed.");
    return 0;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1releaseOops(JNIEnv* env, jclass, jint sessionId,
                                                            jlongArray joops, jint numOops,
                                                            jthrowable jErrReport) {
  TRACE("%d:  ReleaseOops.\n", sessionId);
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    if (numOops > BufSizeOops) return refuse(jErrReport, "releaseOops(): buffer size exceeded");
    jint status = checkCount(releaseOops, joops, numOops, jErrReport);
    if (status == 0) status = copyFromJava(joops, numOops, jErrReport);
    if (status != 0) return status;
    TRACE("     Releasing %d oops:\n", numOops);
    traceLongs(numOops);
    for (jint i = 0; i < numOops; ++i) oopBuf[i] = static_cast<OopType>(longBuf[i]);
    rtlPrivZelRtlFuncs->ZelReleaseOops(oopBuf, static_cast<ArraySizeType>(numOops));
    if (errorPending(jErrReport)) return -1;
    TRACE("ReleaseOops completed.");
    return 0;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1changedOops(JNIEnv* env, jclass, jint sessionId,
                                                            jlongArray joops, jint numOops,
                                                            jthrowable jErrReport) {
  TRACE("%d:  ChangedOops.\n", sessionId);
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    if (numOops > BufSizeOops) return refuse(jErrReport, "changedOops(): buffer size exceeded");
    jint status = checkCount(changedOops, joops, numOops, jErrReport);
    if (status != 0) return status;
    const auto room = static_cast<ArraySizeType>(numOops);
    ArraySizeType delivered = room;
    rtlPrivZelRtlFuncs->ZelDirtySaveObjs(oopBuf, &delivered);
    const auto changed = static_cast<jint>(std::min(delivered, room));
    widen(oopBuf, longBuf, changed);
    if (errorPending(jErrReport)) return -1;
    TRACE("     Returning %d changed oops:\n", changed);
    traceLongs(changed);
    status = copyToJava(joops, changed, jErrReport);
    if (status != 0) return status;
    TRACE("ChangedOops completed.");
    return changed;
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1isKindOf(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jobj, jobject jcls,
                                                         jthrowable jErrReport) {
  TRACE("%d: isKindOf.\n", sessionId);
  return runInSession(env, sessionId, jErrReport, [&]() -> jint {
    OopType obj = 0;
    OopType cls = 0;
    jint status = argumentOop(jobj, "isKindOf", "obj", &obj, jErrReport);
    if (status == 0) status = argumentOop(jcls, "isKindOf", "cls", &cls, jErrReport);
    if (status != 0) return status;
    const BoolType answer = rtlPrivZelRtlFuncs->ZelIsKindOf(obj, cls);
    if (errorPending(jErrReport)) return -1;
    TRACE("isKindOf completed.");
    return answer;
  });
}
