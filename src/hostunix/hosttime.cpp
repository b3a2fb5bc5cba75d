#include <povzel/hosttime.h>

#include <langinfo.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <povzel/hostenv.h>
#include <povzel/utlheap.h>
#include "internal.h"

namespace {

lconv* locale = nullptr;
char* dateTimeFormat = nullptr;

bool isDateTimeFormat(const char* format) {
  const std::size_t length = std::strlen(format);
  return length > 0 && format[length - 1] == 'S';
}

char* copyOnHeap(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(UtlMalloc_(size, __LINE__));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

char* buildDateTimeFormat() {
  char wanted[100 + 1];
  if (HostGetEnv("TV_CFTIME", wanted, sizeof wanted)) {
    if (isDateTimeFormat(wanted)) return copyOnHeap(wanted);
    std::printf("\n[WARNING]: Invalid $TV_CFTIME: '%s', using default.\n", wanted);
  }
  char standard[512];
  std::snprintf(standard, sizeof standard, "%s %s", nl_langinfo(D_FMT), nl_langinfo(T_FMT));
  return copyOnHeap(standard);
}

}  // namespace

long HostClock() {
  rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) != 0) return -1;
  timeval used;
  timeradd(&usage.ru_utime, &usage.ru_stime, &used);
  return used.tv_sec * 1000 + used.tv_usec / 1000 - initialCpuClockReading;
}

double HostGetCpuTime() {
  tms used = {};
  times(&used);
  const double ticks = sc_clk_tck > 0 ? sc_clk_tck : static_cast<double>(sysconf(_SC_CLK_TCK));
  return static_cast<double>(used.tms_utime + used.tms_stime) / ticks;
}

void HostGetTimeOfDay(long* sec, long* microsec) {
  timeval now = {};
  gettimeofday(&now, nullptr);
  *sec = now.tv_sec;
  *microsec = now.tv_usec;
}

void HostFtime(long* seconds, unsigned short* milliseconds) {
  long microseconds = 0;
  HostGetTimeOfDay(seconds, &microseconds);
  *milliseconds = static_cast<unsigned short>(microseconds / 1000);
}

int HostTIMEZONE(const std::time_t* arg) {
  tzset();
  tm local = {};
  const bool summer = localtime_r(arg, &local) != nullptr && local.tm_isdst > 0;
  return static_cast<int>(timezone) - (summer ? 3600 : 0);
}

const char* HostDateTimeFormat() {
  if (dateTimeFormat == nullptr) dateTimeFormat = buildDateTimeFormat();
  // The report of a failed allocation shows a date as well, so a failure here must not be reported.
  return dateTimeFormat != nullptr ? dateTimeFormat : "%x %X";
}

lconv* HostLocale() {
  if (locale == nullptr) locale = localeconv();
  return locale;
}

char HostDecimalPoint() {
  return HostLocale()->decimal_point[0];
}

BoolType HostSetLocale(int category, const char* localeStr) {
  if (std::setlocale(category, localeStr) == nullptr) return 0;
  locale = nullptr;
  return 1;
}

void HostSleep(unsigned long seconds) {
  constexpr long long mostAtOnce = INT_MAX / 1000;
  long long remaining = seconds;
  const long long deadline = std::time(nullptr) + remaining;
  while (remaining > 0) {
    const long long wait = std::min(remaining, mostAtOnce);
    if (poll(nullptr, 0, static_cast<int>(wait * 1000)) == 0) {
      remaining -= wait;
      continue;
    }
    if (!unixIoGoesOn()) return;
    remaining = std::min(remaining, deadline - std::time(nullptr));
  }
}

void HostMilliSleep(unsigned long milliseconds) {
  if (milliseconds >= 1000) HostSleep(milliseconds / 1000);
  poll(nullptr, 0, static_cast<int>(milliseconds % 1000));
}

void HostNanoSleep(long long nanoseconds) {
  const long long milliseconds = std::max(nanoseconds, 0LL) / 1000000;
  HostMilliSleep(static_cast<unsigned long>(std::min<long long>(milliseconds, ULONG_MAX)));
}
