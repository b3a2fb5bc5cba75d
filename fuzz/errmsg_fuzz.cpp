// Any bytes as the compiled message file. Every request ends in a text that ends within its
// buffer, and nothing is read beyond the file. Nothing is printed either: damaged files would fill
// the log.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <povzel/errmsg.h>
#include <povzel/errutl.h>
#include <povzel/utlheap.h>

namespace {

void ask(const char* symbol, std::size_t size, const char* kinds) {
  char buffer[3000];
  std::memset(buffer, '!', sizeof buffer);
  ErrMsgSymToText(symbol, buffer, size, kinds, 42L, "text", 1.5, 4097L);
  if (std::memchr(buffer, '\0', size) == nullptr || buffer[size] != '!') std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = std::freopen("/dev/null", "w", stderr) != nullptr;
  static constexpr char name[] = "errmsg_fuzz.err";  // in the scratch folder of fuzz/run
  FILE* file = std::fopen(name, "w");
  if (!quiet || file == nullptr || std::fwrite(data, 1, size, file) != size) std::abort();
  std::fclose(file);
  if (!ErrUtlInit(1, name)) return 0;
  ErrMsgSetPanicked(0);
  if (!ErrMsgReset()) std::abort();
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
