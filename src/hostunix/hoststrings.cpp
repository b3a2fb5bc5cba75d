#include <povzel/hoststrings.h>

#include <algorithm>
#include <cctype>

#include <povzel/utltext.h>

namespace {

template <typename Number>
int order(Number a, Number b) {
  return (a > b) - (a < b);
}

int upperCase(char character) {
  return std::toupper(static_cast<unsigned char>(character));
}

const char* characters(const ByteType* bytes) {
  return reinterpret_cast<const char*>(bytes);
}

}  // namespace

int HostStrCmpi(const char* s1, const char* s2) {
  for (;; ++s1, ++s2) {
    if (*s1 == '\0' || *s2 == '\0') return order(*s1 != '\0', *s2 != '\0');
    const int result =
        order(static_cast<signed char>(upperCase(*s1)), static_cast<signed char>(upperCase(*s2)));
    if (result != 0) return result;
  }
}

int HostMemCmpi(const char* s1, const char* s2, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const int result = order(static_cast<unsigned char>(upperCase(s1[i])),
                             static_cast<unsigned char>(upperCase(s2[i])));
    if (result != 0) return result;
  }
  return 0;
}

long HostStrCompare(const ByteType* str1, const ByteType* str2, std::size_t length1,
                    std::size_t length2) {
  const int result = UtlMemcmp(str1, str2, std::min(length1, length2));
  return result != 0 ? result : order(length1, length2);
}

long HostStrCompareCaseInsen(const ByteType* str1, const ByteType* str2, std::size_t length1,
                             std::size_t length2) {
  const int result = HostMemCmpi(characters(str1), characters(str2), std::min(length1, length2));
  return result != 0 ? result : order(length1, length2);
}
