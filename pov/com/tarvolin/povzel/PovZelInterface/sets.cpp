// The natives on the session's export set, and the class test.
#include <algorithm>

#include "frame.h"

namespace bridge {
namespace {

constexpr CountedArray removedObjs = {"removeFromExportSet", "numObjs", "objs",
                                      "numObjs exceeds buffer size"};
constexpr ElementNames objNames = {"objs element", "jobj", "oop"};
constexpr CountedArray releasedOops = {"releaseOops", "numOops", "oops", "buffer size exceeded"};
constexpr CountedArray changedOops = {"changedOops", "numOops", "oops", "buffer size exceeded"};

void traceLongs(jint count) {
  if (Debug == 0) return;
  for (jint i = 0; i < count; ++i) writeTrace("     %lld\n", longBuf[i]);
}

// Takes the first `count` oops of oopBuf out of the export set.
jint releaseStaged(jint count, jobject jErrReport) {
  rtlPrivZelRtlFuncs->ZelReleaseOops(oopBuf, static_cast<ArraySizeType>(count));
  return poll(jErrReport);
}

jint removeFromExportSet(jobjectArray jobjs, jint numObjs, jobject jErrReport) {
  jint status = checkCount(removedObjs, BufSizeOops, jobjs, numObjs, jErrReport);
  if (status != 0) return status;
  status = elementOops(jobjs, numObjs, removedObjs.native, objNames, oopBuf, jErrReport);
  if (status != 0) return status;
  return releaseStaged(numObjs, jErrReport);
}

jint releaseOops(jlongArray joops, jint numOops, jobject jErrReport) {
  const jint status = checkCount(releasedOops, BufSizeOops, joops, numOops, jErrReport);
  if (status != 0) return status;
  if (numOops > 0) ENV->GetLongArrayRegion(joops, 0, numOops, longBuf);
  TRACE("     Releasing %d oops:\n", numOops);
  traceLongs(numOops);
  for (jint i = 0; i < numOops; ++i) oopBuf[i] = static_cast<OopType>(longBuf[i]);
  return releaseStaged(numOops, jErrReport);
}

jint collectChangedOops(jlongArray joops, jint numOops, jobject jErrReport) {
  const jint status = checkCount(changedOops, BufSizeOops, joops, numOops, jErrReport);
  if (status != 0) return status;
  const auto room = static_cast<ArraySizeType>(numOops);
  ArraySizeType delivered = room;
  rtlPrivZelRtlFuncs->ZelDirtySaveObjs(oopBuf, &delivered);
  const auto changed = static_cast<jint>(std::min(delivered, room));
  widen(oopBuf, longBuf, changed);
  if (errorPending(jErrReport)) return -1;
  TRACE("     Returning %d changed oops:\n", changed);
  traceLongs(changed);
  if (changed > 0) ENV->SetLongArrayRegion(joops, 0, changed, longBuf);
  return changed;
}

jint isKindOf(jobject jobj, jobject jcls, jobject jErrReport) {
  if (jobj == nullptr) return refuse(jErrReport, "isKindOf(): NULL obj argument");
  if (jcls == nullptr) return refuse(jErrReport, "isKindOf(): NULL cls argument");
  OopType obj = 0;
  OopType cls = 0;
  jint status = oopOf(jobj, &obj, jErrReport);
  if (status == 0) status = oopOf(jcls, &cls, jErrReport);
  if (status != 0) return status;
  const jint answer = rtlPrivZelRtlFuncs->ZelIsKindOf(obj, cls);
  if (errorPending(jErrReport)) return -1;
  return answer >= 0 ? answer : 1;  // a negative status is a failure
}

}  // namespace
}  // namespace bridge

jint Java_com_tarvolin_povzel_PovZelInterface__1removeFromExportSet(
    JNIEnv* env, jclass, jint sessionId, jobjectArray jobjs, jint numObjs, jthrowable jErrReport) {
  return bridge::runInSession(
      {"  removeFromExportSet.", "removeFromExportSet"}, env, sessionId, jErrReport,
      [&] { return bridge::removeFromExportSet(jobjs, numObjs, jErrReport); });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1releaseOops(JNIEnv* env, jclass, jint sessionId,
                                                            jlongArray joops, jint numOops,
                                                            jthrowable jErrReport) {
  return bridge::runInSession({"  ReleaseOops.", "ReleaseOops"}, env, sessionId, jErrReport,
                              [&] { return bridge::releaseOops(joops, numOops, jErrReport); });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1changedOops(JNIEnv* env, jclass, jint sessionId,
                                                            jlongArray joops, jint numOops,
                                                            jthrowable jErrReport) {
  return bridge::runInSession({"  ChangedOops.", "ChangedOops"}, env, sessionId, jErrReport, [&] {
    return bridge::collectChangedOops(joops, numOops, jErrReport);
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1isKindOf(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jobj, jobject jcls,
                                                         jthrowable jErrReport) {
  return bridge::runInSession({" isKindOf.", "isKindOf"}, env, sessionId, jErrReport,
                              [&] { return bridge::isKindOf(jobj, jcls, jErrReport); });
}
