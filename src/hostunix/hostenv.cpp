#include <povzel/hostenv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <povzel/utlheap.h>

BoolType HostGetEnv(const char* inStr, char* outStr, ArraySizeType outSize) {
  const char* value = std::getenv(inStr);
  if (value == nullptr || value[0] == '\0') return 0;
  const std::size_t length = std::strlen(value);
  if (length >= outSize) return 0;
  std::memcpy(outStr, value, length + 1);
  return 1;
}

BoolType HostSetEnv(const char* name, const char* value) {
  const std::size_t size = std::strlen(name) + std::strlen(value) + sizeof "=";
  char* pair = static_cast<char*>(UtlMalloc(size, "HostSetEnv"));
  if (pair == nullptr) return 0;
  std::snprintf(pair, size, "%s=%s", name, value);
  if (putenv(pair) == 0) return 1;
  UtlFree(pair);
  return 0;
}
