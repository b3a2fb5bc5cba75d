// Formatting for signal handlers: snprintf without allocation, locks or locale.
#pragma once

#include <cstdarg>
#include <cstddef>

// Every line that a handler prints fits in one of these.
using SafeLine = char[256];

// Formats into `buffer` (`size` bytes, at least 1), cut and terminated. Knows %d, %ld, %u, %lu,
// %x, %p, %s and %%, all without flags or widths; any other directive is copied.
__attribute__((format(printf, 3, 4))) void safeFormat(char* buffer, std::size_t size,
                                                      const char* format, ...);
void safeFormatList(char* buffer, std::size_t size, const char* format, std::va_list arguments);

// Formats a line of at most 255 characters and prints it with HostSignalSafePrint.
__attribute__((format(printf, 1, 2))) void safePrint(const char* format, ...);
