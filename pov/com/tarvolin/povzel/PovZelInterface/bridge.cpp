#include "bridge.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace bridge {

BoolType Debug = 0;
JNIEnv* ENV = nullptr;
int PovZelInitialized = 0;
jint BufSizeBytes = 0;
jint BufSizeOops = 0;
ByteType* byteBuf = nullptr;
OopType* oopBuf = nullptr;
jlong* longBuf = nullptr;
int PreloadSizeBytes = 0;
int PreloadSizeOops = 0;
ZelErrSType ZelError;
jstring AllocatedJniString[stringTableSize];
ByteType* AllocatedString[stringTableSize];
int AllocatedStringType[stringTableSize];
jint AllocatedStringIndex = 0;

jfieldID oopFid, classOopFid, classHistoryOopFid, objTypeFid, namedSizeFid, indexedSizeFid,
    isCollectionFid, isStringFid, isDBStringFid, valueTypeFid, int1Fid, int2Fid, longFid, doubleFid,
    bytesFid, longsFid, stringFid;
jfieldID numberFid, messageFid, categoryFid, contextFid, fatalFid, argCountFid, argsFid;

const Field reportFields[17] = {
    {"oop", "J", &oopFid},
    {"classOop", "J", &classOopFid},
    {"classHistoryOop", "J", &classHistoryOopFid},
    {"objType", "B", &objTypeFid},
    {"namedSize", "I", &namedSizeFid},
    {"indexedSize", "J", &indexedSizeFid},
    {"isCollection", "Z", &isCollectionFid},
    {"isString", "Z", &isStringFid},
    {"isDBString", "Z", &isDBStringFid},
    {"valueType", "B", &valueTypeFid},
    {"valueInt1", "I", &int1Fid},
    {"valueInt2", "I", &int2Fid},
    {"valueLong", "J", &longFid},
    {"valueDouble", "D", &doubleFid},
    {"valueBytes", "[B", &bytesFid},
    {"valueLongs", "[J", &longsFid},
    {"valueString", "Ljava/lang/String;", &stringFid},
};

const Field exceptionFields[7] = {
    {"number", "I", &numberFid},     {"message", "Ljava/lang/String;", &messageFid},
    {"category", "J", &categoryFid}, {"context", "J", &contextFid},
    {"fatal", "Z", &fatalFid},       {"argCount", "I", &argCountFid},
    {"args", "[J", &argsFid},
};

void writeTrace(const char* format, ...) {
  std::fputs("DEBUG/ZelInterface: ", stdout);
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  bool wholeLine = false;
  if (length > 0) {
    std::fwrite(text, 1, static_cast<std::size_t>(length), stdout);
    wholeLine = text[length - 1] == '\n';
  }
  if (!wholeLine) std::fputc('\n', stdout);
  std::fflush(stdout);
  if (length >= 0) std::free(text);
}

jint refuse(jobject jErrReport, const char* format, ...) {
  char message[300];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  genericError(jErrReport, message);
  TRACE("Generic Error return: %s\n", message);
  return -1;
}

jint allocationFailure() {
  ENV->ExceptionClear();
  TRACE("Allocation Error return");
  return -2;
}

}  // namespace bridge
