#include <povzel/utltime.h>

#include <langinfo.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include <povzel/hosttime.h>

namespace {

constexpr std::size_t formatSize = 41;  // a longer host format is cut
constexpr long suppressedMilliseconds = 9;
constexpr long suppressedSeconds = 2;

char dtDecimalPoint;
char dateFormat[formatSize];
char dateZoneFormat[formatSize + 3];

struct TimeOfDay {
  long seconds;
  unsigned short milliseconds;
};

TimeOfDay lastStamp;  // the last one that UtlTimeStampMs_s wrote in full

TimeOfDay now() {
  TimeOfDay result;
  HostFtime(&result.seconds, &result.milliseconds);
  return result;
}

void fetchFormats() {
  if (dateFormat[0] != '\0') return;
  dtDecimalPoint = HostDecimalPoint();
  std::snprintf(dateZoneFormat, sizeof dateZoneFormat, "%.*s %%Z", static_cast<int>(formatSize - 1),
                HostDateTimeFormat());
  std::snprintf(dateFormat, sizeof dateFormat, "%s", HostDateTimeFormat());
}

// strftime leaves its buffer undefined when the text does not fit; here it is empty then.
void formatTime(char* buffer, std::size_t size, const char* format, const struct tm& broken) {
  if (std::strftime(buffer, size, format, &broken) == 0) buffer[0] = '\0';
}

// Formats the date of `when` into `date` (100 bytes), with the zone in it if `zoneInDate`; the
// zone alone goes into `zone` (100 bytes) unless that is null.
void ctimeImpl(std::time_t when, bool zoneInDate, char* date, char* zone) {
  fetchFormats();
  struct tm broken;
  localtime_r(&when, &broken);
  formatTime(date, sizeof(ZelCTimeStringType), zoneInDate ? dateZoneFormat : dateFormat, broken);
  if (zone != nullptr) formatTime(zone, sizeof(ZelCTimeStringType), "%Z", broken);
}

// What the text of a date depends on besides the second: time zone and locale.
struct DateKey {
  std::time_t second;
  long zoneOffset;
  const char* standardName;
  const char* daylightName;
  const char* localeNames;

  static DateKey of(std::time_t second) {
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

const DateCache& cachedDate(std::time_t second) {
  static thread_local DateCache cache;
  const DateKey key = DateKey::of(second);
  if (cache.date.msg[0] != '\0' && cache.key == key) return cache;
  ctimeImpl(second, false, cache.date.msg, cache.zone.msg);
  cache.key = DateKey::of(second);
  return cache;
}

bool followsLastStamp(const TimeOfDay& time) {
  const long elapsed = time.seconds - lastStamp.seconds;
  if (lastStamp.seconds == 0 || elapsed < 0 || elapsed >= suppressedSeconds) return false;
  const long difference = elapsed * 1000 + time.milliseconds - lastStamp.milliseconds;
  return difference >= 0 && difference <= suppressedMilliseconds;
}

// Appends without a format: these lines are written by the thousand.
char* append(char* to, const char* text) {
  return stpcpy(to, text);
}

char* appendMilliseconds(char* to, unsigned milliseconds) {
  *to++ = dtDecimalPoint;
  *to++ = static_cast<char>('0' + milliseconds / 100);
  *to++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *to++ = static_cast<char>('0' + milliseconds % 10);
  return to;
}

// Room for date, decimal point, milliseconds, zone and what stands around them.
using StampBuffer = char[2 * sizeof(ZelCTimeStringType) + 32];

void writeWhole(FILE* stream, const char* stamp, std::size_t stampLength, const char* text,
                BoolType addCr) {
  flockfile(stream);
  fwrite_unlocked(stamp, 1, stampLength, stream);
  if (text != nullptr) fputs_unlocked(text, stream);
  if (addCr != 0) putc_unlocked('\n', stream);
  funlockfile(stream);
}

// Formats "date.mmm" of now into `buffer` and returns its end.
char* stampOfNow(StampBuffer& buffer, const TimeOfDay& time) {
  return appendMilliseconds(append(buffer, cachedDate(time.seconds).date.msg), time.milliseconds);
}

}  // namespace

void UtlTimeStampMs_s(FILE* stream, const char* text, BoolType addCr) {
  constexpr char indent[] = "\n    ";
  const TimeOfDay time = now();
  if (followsLastStamp(time)) {
    if (text != nullptr) writeWhole(stream, indent + 1, sizeof indent - 2, text, addCr);
    return;
  }
  lastStamp = time;

  const DateCache& cache = cachedDate(time.seconds);
  StampBuffer buffer;
  char* end = buffer;
  *end++ = '[';
  end = append(end, cache.date.msg);
  end = appendMilliseconds(end, time.milliseconds);
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
  char* end = stampOfNow(buffer, now());
  *end++ = ' ';
  std::fwrite(buffer, 1, static_cast<std::size_t>(end - buffer), stream);
}

void UtlTimeStampMs_time_t_f(FILE* stream) {
  const TimeOfDay time = now();
  StampBuffer buffer;
  *stampOfNow(buffer, time) = '\0';
  std::fprintf(stream, "\"%s\" %ld ", buffer, time.seconds);
}

char* UtlTimeStampMs_str() {
  static char result[80];
  const TimeOfDay time = now();
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
  std::snprintf(result, resultSize, "%s%c%.3d %s", date.msg, dtDecimalPoint, milliSeconds,
                zone.msg);
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

char* UtlCtime(std::time_t when) {
  static ZelCTimeStringType result;
  return UtlCtime(when, &result);
}

void UtlLocaltime(const std::time_t* when, struct tm* result) {
  localtime_r(when, result);
}
