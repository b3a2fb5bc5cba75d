// HostStatistics (hosttime.h).

#include <sys/resource.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <povzel/hosttime.h>
#include "internal.h"

namespace {

constexpr long minute = 60;
constexpr long hour = 60 * minute;
constexpr long day = 24 * hour;

// A line that takes whole pieces as long as they fit.
class Line {
 public:
  Line(char* text, std::size_t size) : text_(text), size_(size) { text_[0] = '\0'; }

  // Appends the formatted piece. Returns false if it does not fit.
  __attribute__((format(printf, 2, 3))) bool append(const char* format, ...) {
    char piece[64];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    if (used_ + static_cast<std::size_t>(length) >= size_) return false;
    std::memcpy(text_ + used_, piece, static_cast<std::size_t>(length) + 1);
    used_ += static_cast<std::size_t>(length);
    return true;
  }

 private:
  char* text_;
  std::size_t size_;
  std::size_t used_ = 0;
};

int part(long seconds, long whole, long unit) {
  return static_cast<int>(seconds % whole / unit);
}

bool appendElapsed(Line& line) {
  // Nobody sets this clock, and it counts while the machine is suspended.
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  long seconds = now.tv_sec - beginTp.tv_sec;
  int hundredths = static_cast<int>(now.tv_nsec / 10000000 - beginTp.tv_nsec / 10000000);
  if (hundredths < 0) {
    hundredths += 100;
    --seconds;
  }
  return line.append(" ELAPSED: %1d %02d:%02d:%02d.%02d  ", static_cast<int>(seconds / day),
                     part(seconds, day, hour), part(seconds, hour, minute),
                     part(seconds, minute, 1), hundredths);
}

bool appendCpu(Line& line, const rusage& usage) {
  timeval used;
  timeradd(&usage.ru_utime, &usage.ru_stime, &used);
  return line.append("CPU: %1d:%02d:%02d.%02d  ", static_cast<int>(used.tv_sec / hour),
                     part(used.tv_sec, hour, minute), part(used.tv_sec, minute, 1),
                     static_cast<int>(used.tv_usec / 10000));
}

}  // namespace

void HostStatistics(char* string, ArraySizeType stringLength) {
  if (stringLength == 0) return;
  Line line(string, stringLength);
  if (!appendElapsed(line)) return;
  rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) != 0) return;
  if (!appendCpu(line, usage)) return;
  if (!line.append("FAULTS: %ld  ", usage.ru_majflt)) return;
  if (!line.append("FIOIN: %ld  ", usage.ru_inblock)) return;
  line.append("FIOOUT: %ld ", usage.ru_oublock);
}
