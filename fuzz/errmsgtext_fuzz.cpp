// Any template with any argument list and arguments: the text stays within its limits, and printf
// is given nothing that it would misread.

#include <cstdint>
#include <cstring>

#include "messages/internal.h"
#include "require.h"

namespace {

ErrMsgArgs collected(const char* kinds, ...) {
  ErrMsgArgs args;
  va_list arguments;
  va_start(arguments, kinds);
  args.collect(kinds, arguments);
  va_end(arguments);
  return args;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static char longString[4000];
  if (size < 5) return 0;
  std::memset(longString, 's', sizeof longString - 1);

  // The first byte says how many numerals and arguments there are; the numerals and the length of a
  // string follow, then the template.
  static ErrUtlEntrySType entry;
  entry.argListSize = data[0] % (ErrUtlMaxArgs + 1);
  const auto numerals = static_cast<std::size_t>(entry.argListSize);
  if (size < numerals + 2) return 0;
  for (std::size_t i = 0; i < numerals; ++i) entry.argOrder[i] = data[1 + i] % 11;
  const char* string = longString + sizeof longString - 1 - (data[1 + numerals] * 15);
  data += numerals + 2;
  size -= numerals + 2;
  if (size > 2045) size = 2045;
  std::memcpy(entry.buf, data, size);
  entry.buf[size] = '\0';

  char kinds[] = "dsgoxn?sgd";
  kinds[numerals] = '\0';
  const ErrMsgArgs args =
      collected(kinds, 0x12345678L, string, 1e300, -1L, 7L, 8L, 9L, "t", 0.1, -5L);
  static ErrMsgStrType text;
  std::memset(text, '!', sizeof text);
  mySprintf(entry, args, text);
  require(strnlen(text, sizeof text) <= 2047 && text[2048] == '!');

  char fallback[64];
  std::memset(fallback, '!', sizeof fallback);
  const std::size_t room = 1 + entry.argListSize * 5u;
  desperateErr("symbol", entry.buf, fallback, room, args);
  require(strnlen(fallback, sizeof fallback) < room && fallback[room] == '!');
  return 0;
}
