// Temporary strings: one table of them all, released at once when a native returns.
#include <cstdlib>

#include "frame.h"

namespace bridge {
namespace {

bool tableIsFull() {
  return AllocatedStringIndex >= stringTableSize;
}

ByteType* dbString(jstring jstr) {
  if (jstr == nullptr || tableIsFull()) return nullptr;
  const jchar* characters = ENV->GetStringChars(jstr, nullptr);
  if (characters == nullptr) return nullptr;
  return recordString(jstr, characters, DbString);
}

ByteType* scratch(int length) {
  if (length < 0 || tableIsFull()) return nullptr;
  const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 1;
  void* buffer = std::malloc(size);
  if (buffer == nullptr) return nullptr;
  return recordString(nullptr, buffer, Scratch);
}

void release(jint index) {
  ByteType* buffer = AllocatedString[index];
  switch (AllocatedStringType[index]) {
    case SbString:
      ENV->ReleaseStringUTFChars(AllocatedJniString[index], reinterpret_cast<const char*>(buffer));
      break;
    case DbString:
      ENV->ReleaseStringChars(AllocatedJniString[index], reinterpret_cast<const jchar*>(buffer));
      break;
    default:
      std::free(buffer);
  }
}

}  // namespace
}  // namespace bridge

ByteType* GetSbString(jstring jstr) {
  return reinterpret_cast<ByteType*>(const_cast<char*>(bridge::sbString(jstr)));
}

ByteType* GetDbString(jstring jstr) {
  return bridge::dbString(jstr);
}

ByteType* GetString(int length) {
  return bridge::scratch(length);
}

void ReleaseStrings() {
  for (jint i = 0; i < bridge::AllocatedStringIndex; ++i) bridge::release(i);
  bridge::AllocatedStringIndex = 0;
}
