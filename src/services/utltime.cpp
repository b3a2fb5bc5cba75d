#include <povzel/utltime.h>

#include <langinfo.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <povzel/hosttime.h>
#include "hostunix/internal.h"
#include "internal.h"

namespace {

constexpr std::size_t formatSize = 41;  // a longer host format is cut
constexpr long suppressedMilliseconds = 9;

// The C library's localtime_r for times of 64 bits, which its headers give to programs with such a
// time_t alone.
extern "C" tm* localtime64_r(const long long* when, tm* result) noexcept __asm__("__localtime64_r");

// What dates are written with.
struct DateFormats {
  char date[formatSize];
  char dateZone[formatSize + 3];
};

std::atomic<char> dtDecimalPoint;  // known once the formats are
std::atomic<DateFormats*> keptFormats{nullptr};

// The last stamp that UtlTimeStampMs_s wrote in full, in milliseconds; 0 before the first.
std::atomic<long long> lastStamp{0};

// How much of `format` there is room for, without cutting a directive or a character in two.
std::size_t usableLength(const char* format) {
  std::size_t length = 0;
  while (format[length] != '\0') {
    std::size_t next = length + 1;
    if (format[length] == '%') next += std::strspn(format + next, "_-^#0+123456789EO");
    if (format[length] == '%' && format[next] != '\0') ++next;
    while ((format[next] & 0xC0) == 0x80) ++next;
    if (next >= formatSize) break;
    length = next;
  }
  return length;
}

DateFormats findFormats() {
  DateFormats formats = {};
  const char* format = HostDateTimeFormat();
  const int length = static_cast<int>(usableLength(format));
  dtDecimalPoint.store(HostDecimalPoint(), std::memory_order_relaxed);
  std::snprintf(formats.date, sizeof formats.date, "%.*s", length, format);
  std::snprintf(formats.dateZone, sizeof formats.dateZone, "%s %%Z", formats.date);
  return formats;
}

// Without memory to keep them, dates find their formats anew each time.
DateFormats formats() {
  const DateFormats* kept = keptFormats.load(std::memory_order_acquire);
  if (kept != nullptr) return *kept;
  const DateFormats found = findFormats();
  const bool isCut = std::strlen(found.date) < std::strlen(HostDateTimeFormat());
  if (hostKeepFirst(keptFormats, &found) != nullptr && isCut) {
    std::printf("\n[WARNING]: The date format is too long, using '%s'.\n", found.date);
  }
  return found;
}

// strftime leaves its buffer undefined when the text does not fit; here it is empty then.
void formatTime(char* buffer, std::size_t size, const char* format, const struct tm& broken) {
  if (std::strftime(buffer, size, format, &broken) == 0) buffer[0] = '\0';
}

// The time zone of dates in signal handlers. Those who find that it has changed take turns and add
// what is new; what is there stays as it is, because a handler may be reading it.
struct Zone {
  long offset;  // seconds east of UTC
  char name[32];
};
constexpr Zone utc = {0, "UTC"};
Zone zones[16];
std::atomic<const Zone*> zoneOfNow{&utc};
std::atomic_flag zonesChange;

void rememberZone(const struct tm& now) {
  if (now.tm_zone == nullptr) return;  // no date
  const auto isZone = [&](const Zone& zone) {
    return zone.offset == now.tm_gmtoff && std::strcmp(zone.name, now.tm_zone) == 0;
  };
  if (isZone(*zoneOfNow) || zonesChange.test_and_set()) return;
  Zone* zone = std::find_if(std::begin(zones), std::end(zones),
                            [&](const Zone& each) { return isZone(each) || each.name[0] == '\0'; });
  const bool isKept = zone != std::end(zones) && std::strlen(now.tm_zone) < sizeof zone->name;
  if (isKept) {
    zone->offset = now.tm_gmtoff;
    stpcpy(zone->name, now.tm_zone);
  }
  zoneOfNow = isKept ? zone : &utc;
  zonesChange.clear();
}

// Formats the date of `when` into `date` (100 bytes), with the zone in it if `zoneInDate`; the
// zone alone goes into `zone` (100 bytes) unless that is null. Returns the date in pieces.
struct tm ctimeImpl(long long when, bool zoneInDate, char* date, char* zone) {
  const DateFormats with = formats();
  struct tm broken = {};
  localtime64_r(&when, &broken);
  formatTime(date, sizeof(ZelCTimeStringType), zoneInDate ? with.dateZone : with.date, broken);
  if (zone != nullptr) formatTime(zone, sizeof(ZelCTimeStringType), "%Z", broken);
  return broken;
}

// What a handler's date is made of.
struct SafeDate {
  static constexpr char directives[] = "dmyHMS";

  int year;
  int numbers[sizeof directives - 1];

  explicit SafeDate(long long seconds) {
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds{seconds}};
    const auto midnight = floor<days>(time);
    const year_month_day day{midnight};
    const auto second = static_cast<int>((time - midnight).count());
    year = static_cast<int>(day.year());
    const int found[] = {static_cast<int>(unsigned{day.day()}),
                         static_cast<int>(unsigned{day.month()}),
                         year % 100,
                         second / 3600,
                         second / 60 % 60,
                         second % 60};
    std::copy(std::begin(found), std::end(found), numbers);
  }
};

// What other directives are short for.
constexpr struct {
  char directive;
  const char* meaning;
} abbreviations[] = {
    {'D', "%m/%d/%y"}, {'F', "%Y-%m-%d"}, {'R', "%H:%M"}, {'T', "%H:%M:%S"}, {'\0', nullptr}};

char* appendTwoDigits(char* to, int number) {
  *to++ = static_cast<char>('0' + number / 10);
  *to++ = static_cast<char>('0' + number % 10);
  return to;
}

// Appends the date as `format` has it, but for its end that comes near `last`. Returns null for one
// that has other directives.
char* appendSafeDate(char* to, const char* last, const char* format, const SafeDate& date) {
  constexpr int longestPiece = 4;
  for (; *format != '\0' && last - to > longestPiece; ++format) {
    if (*format != '%' || *++format == '%') {
      *to++ = *format;
    } else if (*format == 'Y') {
      const int year = date.year;
      to = appendTwoDigits(appendTwoDigits(to, year / 100), year % 100);
    } else if (const char* known = std::strchr(SafeDate::directives, *format);
               known != nullptr && *known != '\0') {
      to = appendTwoDigits(to, date.numbers[known - SafeDate::directives]);
    } else {
      const auto* each = abbreviations;
      while (each->meaning != nullptr && each->directive != *format) ++each;
      to = each->meaning != nullptr ? appendSafeDate(to, last, each->meaning, date) : nullptr;
      if (to == nullptr) return nullptr;
    }
  }
  return to;
}

// What the text of a date depends on besides the second: time zone and locale.
struct DateKey {
  long long second;
  long zoneOffset;
  const char* standardName;
  const char* daylightName;
  const char* localeNames;

  static DateKey of(long long second) {
    return {second, timezone, tzname[0], tzname[1], nl_langinfo(AM_STR)};
  }
  bool operator==(const DateKey&) const = default;
};

// The date of one second. Log lines come many to a second, so each thread keeps its last one.
struct DateCache {
  DateKey key;
  ZelCTimeStringType date;
  ZelCTimeStringType zone;
};

const DateCache& cachedDate(long long second) {
  static thread_local DateCache cache;
  const DateKey key = DateKey::of(second);
  if (cache.date.msg[0] != '\0' && cache.key == key) return cache;
  rememberZone(ctimeImpl(second, false, cache.date.msg, cache.zone.msg));
  cache.key = DateKey::of(second);
  return cache;
}

// Whether a stamp has just been written. If not, the one of `time` counts as written.
bool followsLastStamp(const TimeOfDay& time) {
  const long long now = time.seconds * 1000 + time.microseconds / 1000;
  const long long last = lastStamp.load(std::memory_order_relaxed);
  if (last != 0 && now >= last && now - last <= suppressedMilliseconds) return true;
  lastStamp.store(now, std::memory_order_relaxed);
  return false;
}

// Appends without a format: these lines are written by the thousand.
char* append(char* to, const char* text) {
  return stpcpy(to, text);
}

char* appendMilliseconds(char* to, const TimeOfDay& time) {
  const long milliseconds = time.microseconds / 1000;
  *to++ = dtDecimalPoint.load(std::memory_order_relaxed);
  *to++ = static_cast<char>('0' + milliseconds / 100);
  *to++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *to++ = static_cast<char>('0' + milliseconds % 10);
  return to;
}

// Room for date, decimal point, milliseconds, zone and what stands around them.
using StampBuffer = char[2 * sizeof(ZelCTimeStringType) + 32];

// Other threads stay out of the stream while this lives.
class StreamLock {
 public:
  explicit StreamLock(FILE* stream) : stream_(stream) { flockfile(stream_); }
  ~StreamLock() { funlockfile(stream_); }
  StreamLock(const StreamLock&) = delete;
  StreamLock& operator=(const StreamLock&) = delete;

 private:
  FILE* stream_;
};

void writeWhole(FILE* stream, const char* stamp, std::size_t stampLength, const char* text,
                BoolType addCr) {
  fwrite_unlocked(stamp, 1, stampLength, stream);
  if (text != nullptr) fputs_unlocked(text, stream);
  if (addCr != 0) putc_unlocked('\n', stream);
}

// Formats "date.mmm" of now into `buffer` and returns its end.
char* stampOfNow(StampBuffer& buffer, const TimeOfDay& time) {
  return appendMilliseconds(append(buffer, cachedDate(time.seconds).date.msg), time);
}

}  // namespace

void UtlTimeStampMs_s(FILE* stream, const char* text, BoolType addCr) {
  constexpr char indent[] = "\n    ";
  // A text without a stamp stands below the one that it follows, whatever other threads write.
  const StreamLock lock(stream);
  const TimeOfDay time = hostTimeOfDay();
  if (followsLastStamp(time)) {
    if (text != nullptr) writeWhole(stream, indent + 1, sizeof indent - 2, text, addCr);
    return;
  }
  const DateCache& cache = cachedDate(time.seconds);
  StampBuffer buffer;
  char* end = buffer;
  *end++ = '[';
  end = append(end, cache.date.msg);
  end = appendMilliseconds(end, time);
  *end++ = ' ';
  end = append(end, cache.zone.msg);
  *end++ = ']';
  if (text != nullptr) end = append(end, indent);
  writeWhole(stream, buffer, static_cast<std::size_t>(end - buffer), text, addCr);
}

void UtlTimeStampMs_s_flush(FILE* stream, const char* text, BoolType addCr) {
  UtlTimeStampMs_s(stream, text, addCr);
  std::fflush(stream);
}

void UtlTimeStampMs(FILE* stream) {
  UtlTimeStampMs_s(stream, nullptr, 1);
}

void UtlTimeStampMs_f(FILE* stream) {
  StampBuffer buffer;
  char* end = stampOfNow(buffer, hostTimeOfDay());
  *end++ = ' ';
  std::fwrite(buffer, 1, static_cast<std::size_t>(end - buffer), stream);
}

void UtlTimeStampMs_time_t_f(FILE* stream) {
  const TimeOfDay time = hostTimeOfDay();
  StampBuffer buffer;
  *stampOfNow(buffer, time) = '\0';
  std::fprintf(stream, "\"%s\" %lld ", buffer, time.seconds);
}

char* UtlTimeStampMs_str() {
  static thread_local char result[80];
  const TimeOfDay time = hostTimeOfDay();
  StampBuffer buffer;
  *stampOfNow(buffer, time) = '\0';
  std::snprintf(result, sizeof result, "%s %s:", buffer, cachedDate(time.seconds).zone.msg);
  return result;
}

void UtlTimeStampMsStr(std::time_t seconds, unsigned short milliSeconds, char* result,
                       std::size_t resultSize, BoolType addCr) {
  if (resultSize == 0) return;
  ZelCTimeStringType date;
  ZelCTimeStringType zone;
  ctimeImpl(seconds, false, date.msg, zone.msg);
  std::snprintf(result, resultSize, "%s%c%.3d %s", date.msg,
                dtDecimalPoint.load(std::memory_order_relaxed), milliSeconds, zone.msg);
  const std::size_t length = std::strlen(result);
  if (addCr != 0 && resultSize - length >= 2) {
    result[length] = '\n';
    result[length + 1] = '\0';
  }
}

char* UtlCtime(std::time_t when, ZelCTimeStringType* result) {
  ctimeImpl(when, true, result->msg, nullptr);
  return result->msg;
}

char* utlCtimeOfNow(ZelCTimeStringType* result) {
  rememberZone(ctimeImpl(hostTimeOfDay().seconds, true, result->msg, nullptr));
  return result->msg;
}

char* utlSafeCtimeOfNow(ZelCTimeStringType* result) {
  const Zone& zone = *zoneOfNow.load();
  const SafeDate date(hostTimeOfDay().seconds + zone.offset);
  const DateFormats* const kept = keptFormats.load(std::memory_order_acquire);
  const char* const last = result->msg + sizeof result->msg - sizeof zone.name - 1;
  char* end = kept != nullptr ? appendSafeDate(result->msg, last, kept->date, date) : nullptr;
  if (end == nullptr) end = appendSafeDate(result->msg, last, "%D %T", date);
  *end++ = ' ';
  stpcpy(end, zone.name);
  return result->msg;
}

void utlRememberTimeZone() {
  const long long now = hostTimeOfDay().seconds;
  struct tm broken = {};
  localtime64_r(&now, &broken);
  rememberZone(broken);
}

char* UtlCtime(std::time_t when) {
  static thread_local ZelCTimeStringType result;
  return UtlCtime(when, &result);
}

void UtlLocaltime(const std::time_t* when, struct tm* result) {
  localtime_r(when, result);
}
