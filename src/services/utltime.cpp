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

// What the locale has to add to dates in signal handlers: the names of days and months, AM and PM,
// and what %r is short for.
constexpr int localeTextCount = T_FMT_AMPM - ABDAY_1 + 1;
using LocaleTexts = char[localeTextCount][48];
static_assert(DAY_1 == ABDAY_1 + 7 && ABMON_1 == DAY_1 + 7 && MON_1 == ABMON_1 + 12 &&
              AM_STR == MON_1 + 12 && PM_STR == AM_STR + 1 && T_FMT_AMPM > PM_STR);
std::atomic<LocaleTexts*> keptTexts{nullptr};

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

// A text that does not fit is left out.
void keepLocaleTexts() {
  LocaleTexts texts = {};
  for (int i = 0; i < localeTextCount; ++i) {
    const char* text = nl_langinfo(ABDAY_1 + i);
    if (std::strlen(text) < sizeof texts[i]) stpcpy(texts[i], text);
  }
  hostKeepFirst(keptTexts, &texts);
}

// Without memory to keep them, dates find their formats anew each time.
DateFormats formats() {
  const DateFormats* kept = keptFormats.load(std::memory_order_acquire);
  if (kept != nullptr) return *kept;
  const DateFormats found = findFormats();
  if (keptTexts.load() == nullptr) keepLocaleTexts();
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
  int year, month, day, weekday, hour, minute, second;
  int yearOfCentury, dayOfYear, monthsBefore, hourOfHalf, half;

  explicit SafeDate(long long seconds) {
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds{seconds}};
    const auto midnight = floor<days>(time);
    const year_month_day date{midnight};
    year = static_cast<int>(date.year());
    yearOfCentury = year % 100;
    month = static_cast<int>(unsigned{date.month()});
    monthsBefore = month - 1;
    day = static_cast<int>(unsigned{date.day()});
    dayOfYear = static_cast<int>((midnight - sys_days{date.year() / January / 1}).count()) + 1;
    weekday = static_cast<int>(std::chrono::weekday{midnight}.c_encoding());
    second = static_cast<int>((time - midnight).count());
    hour = second / 3600;
    half = hour / 12;
    hourOfHalf = (hour + 11) % 12 + 1;
    minute = second / 60 % 60;
    second %= 60;
  }
};

// What the directives stand for: numbers with so many digits, names in the locale's order, and
// formats, which the locale may have another for.
constexpr struct {
  char directive;
  char fill;
  int SafeDate::*value;
  int width;
} dateNumbers[] = {
    {'d', '0', &SafeDate::day, 2},           {'e', ' ', &SafeDate::day, 2},
    {'H', '0', &SafeDate::hour, 2},          {'I', '0', &SafeDate::hourOfHalf, 2},
    {'j', '0', &SafeDate::dayOfYear, 3},     {'m', '0', &SafeDate::month, 2},
    {'M', '0', &SafeDate::minute, 2},        {'S', '0', &SafeDate::second, 2},
    {'y', '0', &SafeDate::yearOfCentury, 2}, {'Y', '0', &SafeDate::year, 4},
};
constexpr struct {
  char directive;
  nl_item first;
  int SafeDate::*number;
} dateNames[] = {
    {'a', ABDAY_1, &SafeDate::weekday},      {'A', DAY_1, &SafeDate::weekday},
    {'b', ABMON_1, &SafeDate::monthsBefore}, {'h', ABMON_1, &SafeDate::monthsBefore},
    {'B', MON_1, &SafeDate::monthsBefore},   {'p', AM_STR, &SafeDate::half},
};
constexpr nl_item noItem = -1;
constexpr struct {
  char directive;
  const char* meaning;
  nl_item ofLocale = noItem;
} dateFormats[] = {{'D', "%m/%d/%y"},
                   {'F', "%Y-%m-%d"},
                   {'r', "%I:%M:%S %p", T_FMT_AMPM},
                   {'R', "%H:%M"},
                   {'T', "%H:%M:%S"}};

// Writes a date into the text from `next` up to `last`; what does not fit is dropped.
struct SafeDateWriter {
  char* next;
  char* last;
  const SafeDate& date;
  const char* zone;
  const LocaleTexts* texts;  // null: not known

  void put(char character) {
    if (next < last) *next++ = character;
  }
  void put(const char* text) {
    for (; *text != '\0'; ++text) put(*text);
  }
  void putNumber(int value, int width, char fill) {
    char digits[4];
    for (int i = width - 1; i >= 0; --i, value /= 10) {
      const bool isFilled = value == 0 && i < width - 1;
      digits[i] = isFilled ? fill : static_cast<char>('0' + value % 10);
    }
    for (int i = 0; i < width; ++i) put(digits[i]);
  }
  const char* localeText(nl_item item) const { return (*texts)[item - ABDAY_1]; }

  // Each returns false for a directive that is not known.
  bool putDirective(char directive) {
    const auto isIt = [directive](const auto& row) { return row.directive == directive; };
    if (directive == '%') return put('%'), true;
    if (directive == 'Z') return put(zone), true;
    if (const auto* number = std::ranges::find_if(dateNumbers, isIt);
        number != std::end(dateNumbers)) {
      return putNumber(date.*number->value, number->width, number->fill), true;
    }
    if (const auto* name = std::ranges::find_if(dateNames, isIt); name != std::end(dateNames)) {
      if (texts != nullptr) put(localeText(name->first + date.*name->number));
      return texts != nullptr;
    }
    const auto* format = std::ranges::find_if(dateFormats, isIt);
    if (format == std::end(dateFormats)) return false;
    const bool isLocal =
        format->ofLocale != noItem && texts != nullptr && localeText(format->ofLocale)[0] != '\0';
    return putFormat(isLocal ? localeText(format->ofLocale) : format->meaning);
  }
  bool putFormat(const char* format) {
    for (; *format != '\0'; ++format) {
      if (*format != '%') {
        put(*format);
      } else if (!putDirective(*++format)) {
        return false;
      }
    }
    return true;
  }
};

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
  const UtlStreamLock lock(stream);
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
  char* const last = result->msg + sizeof result->msg - sizeof zone.name - 1;
  SafeDateWriter out{result->msg, last, date, zone.name, keptTexts.load()};
  if (kept == nullptr || !out.putFormat(kept->date)) {
    out.next = result->msg;
    out.putFormat("%F %T");
  }
  *out.next++ = ' ';
  stpcpy(out.next, zone.name);
  return result->msg;
}

void utlRememberTimeZone() {
  formats();
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
