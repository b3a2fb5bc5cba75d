// Any bytes as the compiled message file. Every request ends in a text that ends within its
// buffer, and nothing is read beyond the file.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/utlheap.h>
#include "require.h"

namespace {

void ask(const char* symbol, std::size_t size, const char* kinds) {
  char buffer[3000];
  std::memset(buffer, '!', sizeof buffer);
  ErrMsgSymToText(symbol, buffer, size, kinds, 42L, "text", 1.5, 4097L);
  require(std::memchr(buffer, '\0', size) != nullptr && buffer[size] == '!');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr char name[] = "errmsg_fuzz.err";  // in the scratch folder
  std::remove(name);  // some file systems write a file out at once when it replaces its content
  FILE* file = std::fopen(name, "w");
  require(file != nullptr && std::fwrite(data, 1, size, file) == size);
  std::fclose(file);
  if (!ErrUtlInit(1, name)) return 0;
  ErrMsgSetPanicked(0);
  require(ErrMsgReset() != 0);
  for (const char* symbol : {"a", "host.m1196", "host.m2380", "absent"}) {
    ask(symbol, sizeof(ErrMsgStrType), "dsgo");
    ask(symbol, 20, nullptr);
    ask(symbol, 1, "d");
    char* string = ErrMsgGetString(symbol);
    if (string != nullptr) UtlFree(string);
    ErrMsgSetPanicked(0);
  }
  ErrMsgShutdown();
  return 0;
}
