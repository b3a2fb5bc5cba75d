// Errors of the interface library and of the bridge, copied into the Java error report.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>

#include "frame.h"

namespace bridge {
namespace {

constexpr std::int32_t genericErrorNumber = 2318;

void traceError() {
  if (Debug == 0) return;
  writeTrace("ZEL ERROR: ");
  writeTrace("  Error:        %ld\n", traced(ZelError.number));
  writeTrace("  Message:      %s\n", ZelError.message);
  writeTrace("  Category Oop: %ld\n", traced(ZelError.category));
  writeTrace("  Context Oop:  %ld\n", traced(ZelError.context));
  writeTrace("  FatalFlag:    %ld\n", traced(ZelError.fatal));
  writeTrace("  Number Args:  %ld\n", traced(ZelError.argCount));
  for (int i = 0; i < ZelError.argCount; ++i) {
    writeTrace("        ArgOop[%d]:  %ld\n", i, traced(ZelError.args[i]));
  }
}

// Initialization reports errors before it has come to the exception class's fields.
void findMissingFields() {
  const auto isKnown = [](const Field& field) { return *field.id != nullptr; };
  if (std::all_of(std::begin(exceptionFields), std::end(exceptionFields), isKnown)) return;
  jclass cls = ENV->FindClass(exceptionClass);
  if (cls == nullptr) {
    ENV->ExceptionClear();
    return;
  }
  for (const Field& field : exceptionFields) {
    if (*field.id != nullptr) continue;
    *field.id = ENV->GetFieldID(cls, field.name, field.signature);
    if (*field.id == nullptr) ENV->ExceptionClear();
  }
  ENV->DeleteLocalRef(cls);
}

void storeNumbers(jobject jErrRpt) {
  if (numberFid != nullptr) ENV->SetIntField(jErrRpt, numberFid, ZelError.number);
  if (categoryFid != nullptr) ENV->SetLongField(jErrRpt, categoryFid, ZelError.category);
  if (contextFid != nullptr) ENV->SetLongField(jErrRpt, contextFid, ZelError.context);
  const jboolean fatal = (ZelError.fatal & 0xff) != 0 ? JNI_TRUE : JNI_FALSE;
  if (fatalFid != nullptr) ENV->SetBooleanField(jErrRpt, fatalFid, fatal);
  if (argCountFid != nullptr) ENV->SetIntField(jErrRpt, argCountFid, ZelError.argCount);
}

bool storeMessage(jobject jErrRpt) {
  if (messageFid == nullptr) return true;
  jstring message = newErrorText(ZelError.message);
  if (message == nullptr) return false;
  ENV->SetObjectField(jErrRpt, messageFid, message);
  return true;
}

// The arguments are staged here, not in the shared buffer, which does not exist yet when
// initialization reports its errors.
bool storeArguments(jobject jErrRpt) {
  if (argsFid == nullptr) return true;
  jlongArray args = ENV->NewLongArray(ZelError.argCount);
  if (args == nullptr) return false;
  if (ZelError.argCount > 0) {
    jlong staged[ZelMaxErrArgs];
    widen(ZelError.args, staged, ZelError.argCount);
    ENV->SetLongArrayRegion(args, 0, ZelError.argCount, staged);
  }
  ENV->SetObjectField(jErrRpt, argsFid, args);
  return true;
}

jint storeError(jobject jErrRpt) {
  ZelError.argCount = std::clamp<std::int32_t>(ZelError.argCount, 0, ZelMaxErrArgs);
  ZelError.message[sizeof ZelError.message - 1] = '\0';
  traceError();
  if (jErrRpt == nullptr) return 0;
  findMissingFields();
  storeNumbers(jErrRpt);
  if (storeMessage(jErrRpt) && storeArguments(jErrRpt)) return 0;
  return leave(allocationFailure());
}

jint storeGenericError(jobject errRpt, const char* message) {
  TRACE("GENERIC ERROR: %s\n", message);
  ZelError.number = genericErrorNumber;
  std::snprintf(ZelError.message, sizeof ZelError.message, "%s", message);
  ZelError.category = NilOop;
  ZelError.context = NilOop;
  ZelError.fatal = 0;
  ZelError.argCount = 0;
  return storeError(errRpt);
}

}  // namespace

jint refuse(jobject jErrReport, const char* format, ...) {
  char message[300];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  storeGenericError(jErrReport, message);
  TRACE("Generic Error return: %s\n", message);
  return -1;
}

jint allocationFailure() {
  ENV->ExceptionClear();
  TRACE("Allocation Error return");
  return -2;
}

}  // namespace bridge

jint setupError(jobject jErrRpt) {
  return bridge::storeError(jErrRpt);
}

jint genericError(jobject errRpt, const char* message) {
  return bridge::storeGenericError(errRpt, message);
}

jint zelError(jobject errRpt) {
  return rtlPrivZelRtlFuncs != nullptr && bridge::errorPending(errRpt) ? 1 : 0;
}
