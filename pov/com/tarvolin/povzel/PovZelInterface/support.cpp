// What the facade needs beside the eighteen natives: names, breaks, and the ends of transactions.
#include "povzelsupport.h"

#include <cstring>

#include <povzel/errmsg.h>
#include <povzel/version.h>

#include "frame.h"

namespace bridge {
namespace {

constexpr char noSlot[] = "%s(): The interface library does not provide it";

// Calls a slot that the table leaves untyped. None takes an argument.
template <typename Result>
Result callSlot(ZelUntypedFType slot) {
  return reinterpret_cast<Result (*)()>(slot)();
}

jint commit(jobject jErrReport) {
  if (rtlPrivZelRtlFuncs->ZelCommit == nullptr) return refuse(jErrReport, noSlot, "commit");
  const BoolType committed = callSlot<BoolType>(rtlPrivZelRtlFuncs->ZelCommit);
  if (errorPending(jErrReport)) return -1;
  return committed != 0 ? 0 : refuse(jErrReport, "ZelCommit failure: cause unknown");
}

jint abort(jobject jErrReport) {
  if (rtlPrivZelRtlFuncs->ZelAbort == nullptr) return refuse(jErrReport, noSlot, "abort");
  callSlot<void>(rtlPrivZelRtlFuncs->ZelAbort);
  return poll(jErrReport);
}

}  // namespace
}  // namespace bridge

jstring Java_com_tarvolin_povzel_PovZelSupport_libraryVersion(JNIEnv* env, jclass) {
  return env->NewStringUTF(VerLibraryVersion());
}

jstring Java_com_tarvolin_povzel_PovZelSupport_errorName(JNIEnv* env, jclass, jint number) {
  const char* symbol = ErrMsgTvErrNumToSym(number);
  return symbol != nullptr ? env->NewStringUTF(symbol + std::strlen("errmsg.")) : nullptr;
}

jboolean Java_com_tarvolin_povzel_PovZelSupport_breakProgram(JNIEnv*, jclass, jboolean hard) {
  const ZelRtlJumpSType* table = rtlPrivZelRtlFuncs;
  if (bridge::PovZelInitialized == 0 || table == nullptr) return JNI_FALSE;
  const ZelUntypedFType slot = hard != JNI_FALSE ? table->ZelHardBreak : table->ZelSoftBreak;
  const bool found = slot != nullptr && bridge::callSlot<BoolType>(slot) != 0;
  return found ? JNI_TRUE : JNI_FALSE;
}

jint Java_com_tarvolin_povzel_PovZelSupport_commit(JNIEnv* env, jclass, jint sessionId,
                                                   jthrowable jErrReport) {
  return bridge::runInSession({"  Commit."}, env, sessionId, jErrReport,
                              [&] { return bridge::commit(jErrReport); });
}

jint Java_com_tarvolin_povzel_PovZelSupport_abort(JNIEnv* env, jclass, jint sessionId,
                                                  jthrowable jErrReport) {
  return bridge::runInSession({"  Abort."}, env, sessionId, jErrReport,
                              [&] { return bridge::abort(jErrReport); });
}
