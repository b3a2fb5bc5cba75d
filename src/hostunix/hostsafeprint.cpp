// Signal-safe throughout, but for the streams that are flushed where a thread is not interrupted:
// calls write(2) and nothing else.
#include <povzel/hostsafeprint.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "internal.h"

namespace {

// The line as it grows; characters beyond its end are dropped.
struct LineWriter {
  char* next;
  char* last;  // where the terminator goes at the latest

  void put(char character) {
    if (next < last) *next++ = character;
  }
  void put(const char* text) {
    for (; *text != '\0'; ++text) put(*text);
  }
  void putNumber(unsigned long value, unsigned base) {
    char digits[3 * sizeof value];
    char* first = digits + sizeof digits;
    do {
      *--first = "0123456789abcdef"[value % base];
      value /= base;
    } while (value != 0);
    for (; first < digits + sizeof digits; ++first) put(*first);
  }
  void putSigned(long value) {
    auto magnitude = static_cast<unsigned long>(value);
    if (value < 0) {
      put('-');
      magnitude = 0 - magnitude;
    }
    putNumber(magnitude, 10);
  }
  void putPointer(const void* pointer) {
    if (pointer == nullptr) {
      put("(nil)");
      return;
    }
    put("0x");
    putNumber(reinterpret_cast<std::uintptr_t>(pointer), 16);
  }
};

// int and long are one width here, so an 'l' needs no case of its own.
static_assert(sizeof(int) == sizeof(long));

[[gnu::noinline]] void flushIfFree(FILE* stream) {
  if (ftrylockfile(stream) != 0) return;
  std::fflush(stream);
  funlockfile(stream);
}

}  // namespace

void hostSafeFormatList(char* buffer, std::size_t size, const char* format,
                        std::va_list arguments) {
  LineWriter out{buffer, buffer + size - 1};
  for (; *format != '\0'; ++format) {
    if (*format != '%') {
      out.put(*format);
      continue;
    }
    const char* directive = format;
    ++format;
    if (*format == 'l') ++format;
    switch (*format) {
      case 'd':
        out.putSigned(va_arg(arguments, long));
        break;
      case 'u':
        out.putNumber(va_arg(arguments, unsigned long), 10);
        break;
      case 'x':
        out.putNumber(va_arg(arguments, unsigned long), 16);
        break;
      case 'p':
        out.putPointer(va_arg(arguments, void*));
        break;
      case 's':
        out.put(va_arg(arguments, const char*));
        break;
      case '%':
        out.put('%');
        break;
      default:
        out.put('%');
        format = directive;
        break;
    }
  }
  *out.next = '\0';
}

void hostSafeFormat(char* buffer, std::size_t size, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  hostSafeFormatList(buffer, size, format, arguments);
  va_end(arguments);
}

void hostSafePrint(const char* format, ...) {
  SafeLine line;
  std::va_list arguments;
  va_start(arguments, format);
  hostSafeFormatList(line, sizeof line, format, arguments);
  va_end(arguments);
  HostSignalSafePrint(line);
}

void HostSignalSafePrint(const char* msg) {
  utlSafeWrite(STDERR_FILENO, msg, std::strlen(msg));
}

int hostPast(FILE* stream) {
  const ErrnoKeeper keepErrno;
  if (!hostEndsInHandler()) flushIfFree(stream);
  const int usual = stream == stderr ? STDERR_FILENO : STDOUT_FILENO;
  const int descriptor = fileno(stream);
  return descriptor >= 0 ? descriptor : usual;
}

void hostPrintPast(FILE* stream, const char* format, ...) {
  char line[2 * sizeof(HostFnameStrType) + sizeof(SafeLine)];
  std::va_list arguments;
  va_start(arguments, format);
  hostSafeFormatList(line, sizeof line, format, arguments);
  va_end(arguments);
  utlSafeWrite(hostPast(stream), line, std::strlen(line));
}
