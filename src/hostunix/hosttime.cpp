#include <povzel/hosttime.h>

#include <langinfo.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <povzel/hostenv.h>
#include "internal.h"

namespace {

// The C library's clock of 64 bits, which its headers give to programs with such a time_t alone.
struct Timespec64 {
  long long seconds;
  long nanoseconds;
  long unused;
};
extern "C" int clockGettime64(clockid_t clock, Timespec64* now) noexcept
    __asm__("__clock_gettime64");

// Of a clock that nobody sets.
long long millisecondsOfMachine() {
  Timespec64 now = {};
  clockGettime64(CLOCK_MONOTONIC, &now);
  return now.seconds * 1000 + now.nanoseconds / 1000000;
}

std::atomic<lconv*> locale{nullptr};
std::atomic<char*> dateTimeFormat{nullptr};

bool isDateTimeFormat(const char* format) {
  const std::size_t length = std::strlen(format);
  return length > 0 && format[length - 1] == 'S';
}

char* keepDateTimeFormat(const char* format) {
  return hostKeepFirst(dateTimeFormat, format, std::strlen(format) + 1);
}

char* findDateTimeFormat() {
  char wanted[100 + 1];
  if (HostGetEnv("TV_CFTIME", wanted, sizeof wanted)) {
    if (isDateTimeFormat(wanted)) return keepDateTimeFormat(wanted);
    std::printf("\n[WARNING]: Invalid $TV_CFTIME: '%s', using default.\n", wanted);
  }
  char standard[512];
  std::snprintf(standard, sizeof standard, "%s %s", nl_langinfo(D_FMT), nl_langinfo(T_FMT));
  return keepDateTimeFormat(standard);
}

long long millisecondsOf(const timeval& time) {
  return time.tv_sec * 1000LL + time.tv_usec / 1000;
}

}  // namespace

long long hostCpuMilliseconds() {
  rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) != 0) return -1;
  timeval used;
  timeradd(&usage.ru_utime, &usage.ru_stime, &used);
  return millisecondsOf(used);
}

long HostClock() {
  const long long used = hostCpuMilliseconds();
  if (used < 0) return -1;
  // A forked child has used less than its parent had before HostInit.
  return static_cast<long>(std::clamp<long long>(used - initialCpuClockReading, 0, LONG_MAX));
}

double HostGetCpuTime() {
  tms used = {};
  times(&used);
  const double ticks = sc_clk_tck > 0 ? sc_clk_tck : static_cast<double>(sysconf(_SC_CLK_TCK));
  const auto count = [](clock_t part) {
    return static_cast<double>(static_cast<unsigned long>(part));
  };
  return (count(used.tms_utime) + count(used.tms_stime)) / ticks;
}

void HostGetTimeOfDay(long* sec, long* microsec) {
  timeval now;
  if (gettimeofday(&now, nullptr) != 0) now = {};
  *sec = now.tv_sec;
  *microsec = now.tv_usec;
}

void HostFtime(long* seconds, unsigned short* milliseconds) {
  long microseconds = 0;
  HostGetTimeOfDay(seconds, &microseconds);
  *milliseconds = static_cast<unsigned short>(microseconds / 1000);
}

TimeOfDay hostTimeOfDay() {
  timeval now;
  if (gettimeofday(&now, nullptr) == 0) return {now.tv_sec, now.tv_usec};
  Timespec64 later = {};
  clockGettime64(CLOCK_REALTIME, &later);
  return {later.seconds, later.nanoseconds / 1000};
}

int HostTIMEZONE(const std::time_t* arg) {
  tzset();
  tm local = {};
  const bool summer = localtime_r(arg, &local) != nullptr && local.tm_isdst > 0;
  return static_cast<int>(timezone) - (summer ? 3600 : 0);
}

const char* HostDateTimeFormat() {
  const char* format = dateTimeFormat.load(std::memory_order_acquire);
  if (format == nullptr) format = findDateTimeFormat();
  // The report of a failed allocation shows a date as well, so a failure here must not be reported.
  return format != nullptr ? format : "%x %X";
}

lconv* HostLocale() {
  lconv* record = locale.load(std::memory_order_acquire);
  if (record != nullptr) return record;
  // The C library's only one: threads that ask at the same time fill it with the same values.
  record = localeconv();
  locale.store(record, std::memory_order_release);
  return record;
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
  const long long deadline = hostTimeOfDay().seconds + seconds;
  const long long longest = millisecondsOfMachine() + seconds * 1000LL;
  for (long long remaining = seconds * 1000LL; remaining > 0;) {
    const bool interrupted =
        poll(nullptr, 0, static_cast<int>(std::min<long long>(remaining, INT_MAX))) != 0;
    if (interrupted && !unixIoGoesOn()) return;
    remaining = longest - millisecondsOfMachine();
    if (!interrupted) continue;
    remaining = std::min(remaining, (deadline - hostTimeOfDay().seconds) * 1000);
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
