// Temporary strings: one table of them all, released at once when a native returns.
#include <cstdlib>

#include "bridge.h"

using namespace bridge;

namespace {

constexpr jint tableCapacity = 100;

enum StringKind : int { SbString = 1, DbString = 2, Scratch = 3 };

jstring AllocatedJniString[tableCapacity];
ByteType* AllocatedString[tableCapacity];
int AllocatedStringType[tableCapacity];
jint AllocatedStringIndex = 0;

bool tableIsFull() {
  return AllocatedStringIndex >= tableCapacity;
}

ByteType* record(jstring jstr, const void* buffer, StringKind kind) {
  auto* bytes = static_cast<ByteType*>(const_cast<void*>(buffer));
  AllocatedJniString[AllocatedStringIndex] = jstr;
  AllocatedString[AllocatedStringIndex] = bytes;
  AllocatedStringType[AllocatedStringIndex] = kind;
  ++AllocatedStringIndex;
  return bytes;
}

}  // namespace

ByteType* GetSbString(jstring jstr) {
  if (jstr == nullptr || tableIsFull()) return nullptr;
  const char* characters = ENV->GetStringUTFChars(jstr, nullptr);
  if (characters == nullptr) return nullptr;
  return record(jstr, characters, SbString);
}

ByteType* GetDbString(jstring jstr) {
  if (jstr == nullptr || tableIsFull()) return nullptr;
  const jchar* characters = ENV->GetStringChars(jstr, nullptr);
  if (characters == nullptr) return nullptr;
  return record(jstr, characters, DbString);
}

ByteType* GetString(int length) {
  if (length < 0 || tableIsFull()) return nullptr;
  const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 1;
  void* scratch = std::malloc(size);
  if (scratch == nullptr) return nullptr;
  return record(nullptr, scratch, Scratch);
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
