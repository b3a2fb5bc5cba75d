// Temporary strings: one table of them all, released at once when a native returns.
#include <cstdlib>

#include "bridge.h"

using namespace bridge;

namespace {

bool tableIsFull() {
  return AllocatedStringIndex >= stringTableSize;
}

}  // namespace

ByteType* GetSbString(jstring jstr) {
  return reinterpret_cast<ByteType*>(const_cast<char*>(sbString(jstr)));
}

ByteType* GetDbString(jstring jstr) {
  if (jstr == nullptr || tableIsFull()) return nullptr;
  const jchar* characters = ENV->GetStringChars(jstr, nullptr);
  if (characters == nullptr) return nullptr;
  return recordString(jstr, characters, DbString);
}

ByteType* GetString(int length) {
  if (length < 0 || tableIsFull()) return nullptr;
  const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 1;
  void* scratch = std::malloc(size);
  if (scratch == nullptr) return nullptr;
  return recordString(nullptr, scratch, Scratch);
}

void ReleaseStrings() {
  for (jint i = 0; i < AllocatedStringIndex; ++i) {
    ByteType* buffer = AllocatedString[i];
    switch (AllocatedStringType[i]) {
      case SbString:
        ENV->ReleaseStringUTFChars(AllocatedJniString[i], reinterpret_cast<const char*>(buffer));
        break;
      case DbString:
        ENV->ReleaseStringChars(AllocatedJniString[i], reinterpret_cast<const jchar*>(buffer));
        break;
      default:
        std::free(buffer);
    }
  }
  AllocatedStringIndex = 0;
}
