// The natives that run code in the database. A result that could not be reported, and an argument
// that is missing, is refused before anything is created or runs.
#include "frame.h"

namespace bridge {
namespace {

constexpr jint mostArguments = 20;
constexpr OopType noReplacement = 1;  // what a process resumed after an interrupt receives

constexpr CountedArray performArgs = {"perform", "numArgs", "args", "numArgs exceeds 20"};
constexpr ElementNames argNames = {"args element", "jarg", "arg"};

// Creates an array object whose slots from 1 on hold `values`.
template <int count>
jint createArray(const OopType (&values)[count], OopType* array, jobject jErrReport) {
  *array = rtlPrivZelRtlFuncs->ZelNewOop(ArrayClassOop);
  if (errorPending(jErrReport)) return -1;
  for (int i = 0; i < count; ++i) {
    rtlPrivZelRtlFuncs->ZelStoreOop(*array, i + 1, values[i]);
    if (errorPending(jErrReport)) return -1;
  }
  return 0;
}

// Creates a string object that holds the bytes of `text`, which is `jText` converted.
jint createText(jstring jText, const char* text, OopType* oop, jobject jErrReport) {
  const auto size = static_cast<ArraySizeType>(ENV->GetStringUTFLength(jText));
  const auto* bytes = reinterpret_cast<const ByteType*>(text);
  return createBytes(StringClassOop, bytes, size, oop, jErrReport);
}

jint normalReplacement(jobject jStResult, OopType* replacement, jobject jErrReport) {
  TRACE("Normal continue.");
  OopType value = 0;
  const jint status = oopOf(jStResult, &value, jErrReport);
  if (status != 0) return status;
  return createArray({value}, replacement, jErrReport);
}

jint errorReplacement(jstring jErrMsg, jstring jErrStk, OopType* replacement, jobject jErrReport) {
  TRACE("Error continue.");
  const char* message = sbString(jErrMsg);
  if (message == nullptr) return allocationFailure();
  TRACE("Error message: %s\n", message);
  OopType messageOop = 0;
  jint status = createText(jErrMsg, message, &messageOop, jErrReport);
  if (status != 0) return status;

  const char* stack = sbString(jErrStk);
  if (stack == nullptr) return allocationFailure();
  TRACE("Error stack: \n%s", stack);
  OopType stackOop = 0;
  status = createText(jErrStk, stack, &stackOop, jErrReport);
  if (status != 0) return status;
  return createArray({messageOop, stackOop}, replacement, jErrReport);
}

jint interruptReplacement(OopType* replacement) {
  TRACE("Interrupt continue.");
  *replacement = noReplacement;
  return 0;
}

jint executeStr(jstring jExecStr, jobject result, jobject jErrReport) {
  if (result == nullptr) return refuse(jErrReport, "executeStr(): NULL result argument");
  if (jExecStr == nullptr) return refuse(jErrReport, "executeStr(): NULL execStr argument");
  const char* source = sbString(jExecStr);
  if (source == nullptr) return allocationFailure();
  TRACE("     Execute Str = '%s'\n", source);
  const OopType resultOop = rtlPrivZelRtlFuncs->ZelExecuteStr(source, NilOop);
  TRACE("ResultOop = %ld\n", traced(resultOop));
  if (errorPending(jErrReport)) return -1;
  return describeResult(resultOop, result, jErrReport);
}

jint executeObj(jobject jexeObj, jobject result, jobject jErrReport) {
  if (result == nullptr) return refuse(jErrReport, "executeObj(): NULL result argument");
  OopType source = 0;
  const jint status = argumentOop(jexeObj, "executeObj", "exeObj", &source, jErrReport);
  if (status != 0) return status;
  TRACE("     Execute str oop = %ld\n", traced(source));
  const OopType resultOop = rtlPrivZelRtlFuncs->ZelExecute(source, NilOop);
  if (errorPending(jErrReport)) return -1;
  return describeResult(resultOop, result, jErrReport);
}

// The selector is converted last, since every getOop releases the temporary strings.
jint perform(jobject jReceiver, jstring jSelector, jobjectArray jArgs, jint numArgs, jobject result,
             jobject jErrReport) {
  if (result == nullptr) return refuse(jErrReport, "perform(): NULL result argument");
  if (jSelector == nullptr) return refuse(jErrReport, "perform(): NULL selector argument");
  jint status = checkCount(performArgs, mostArguments, jArgs, numArgs, jErrReport);
  if (status != 0) return status;
  OopType receiver = 0;
  status = argumentOop(jReceiver, "perform", "receiver", &receiver, jErrReport);
  if (status != 0) return status;
  TRACE("     Receiver = %ld\n", traced(receiver));
  TRACE("     NumArgs = %ld\n", traced(numArgs));
  OopType args[mostArguments];
  status = elementOops(jArgs, numArgs, "perform", argNames, args, jErrReport);
  if (status != 0) return status;

  const char* selector = sbString(jSelector);
  if (selector == nullptr) return allocationFailure();
  TRACE("     Selector = %s\n", selector);
  const OopType resultOop =
      rtlPrivZelRtlFuncs->ZelPerform(receiver, selector, args, static_cast<ArraySizeType>(numArgs));
  if (errorPending(jErrReport)) return -1;
  return describeResult(resultOop, result, jErrReport);
}

jint resume(jobject jProcess, jobject jStResult, jobject jJvResult, jstring jErrMsg,
            jstring jErrStk, jobject jErrReport) {
  if (jJvResult == nullptr) return refuse(jErrReport, "continue(): NULL jvResult argument");
  if (jStResult == nullptr && jErrMsg != nullptr && jErrStk == nullptr) {
    return refuse(jErrReport, "continue(): NULL errStk argument");
  }
  OopType process = 0;
  jint status = argumentOop(jProcess, "continue", "process", &process, jErrReport);
  if (status != 0) return status;
  OopType replacement = 0;
  if (jStResult != nullptr) {
    status = normalReplacement(jStResult, &replacement, jErrReport);
  } else if (jErrMsg != nullptr) {
    status = errorReplacement(jErrMsg, jErrStk, &replacement, jErrReport);
  } else {
    status = interruptReplacement(&replacement);
  }
  if (status != 0) return status;

  const OopType resultOop = rtlPrivZelRtlFuncs->ZelContinueWith(process, replacement, 0, nullptr);
  if (errorPending(jErrReport)) return -1;
  TRACE("Continue: oop result = %ld\n", traced(resultOop));
  return describeResult(resultOop, jJvResult, jErrReport);
}

}  // namespace
}  // namespace bridge

jint Java_com_tarvolin_povzel_PovZelInterface__1executeStr(JNIEnv* env, jclass, jint sessionId,
                                                           jstring jExecStr, jobject result,
                                                           jthrowable jErrReport) {
  return bridge::runInSession({"  ExecuteStr."}, env, sessionId, jErrReport,
                              [&] { return bridge::executeStr(jExecStr, result, jErrReport); });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1executeObj(JNIEnv* env, jclass, jint sessionId,
                                                           jobject jexeObj, jobject result,
                                                           jthrowable jErrReport) {
  return bridge::runInSession({"  ExecuteObj."}, env, sessionId, jErrReport,
                              [&] { return bridge::executeObj(jexeObj, result, jErrReport); });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1perform(JNIEnv* env, jclass, jint sessionId,
                                                        jobject jReceiver, jstring jSelector,
                                                        jobjectArray jArgs, jint numArgs,
                                                        jobject result, jthrowable jErrReport) {
  return bridge::runInSession({" Perform."}, env, sessionId, jErrReport, [&] {
    return bridge::perform(jReceiver, jSelector, jArgs, numArgs, result, jErrReport);
  });
}

jint Java_com_tarvolin_povzel_PovZelInterface__1continue(JNIEnv* env, jclass, jint sessionId,
                                                         jobject jProcess, jobject jStResult,
                                                         jobject jJvResult, jstring jErrMsg,
                                                         jstring jErrStk, jthrowable jErrReport) {
  return bridge::runInSession({"  Continue."}, env, sessionId, jErrReport, [&] {
    return bridge::resume(jProcess, jStResult, jJvResult, jErrMsg, jErrStk, jErrReport);
  });
}
