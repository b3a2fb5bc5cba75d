#include "state.h"

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

}  // namespace bridge
